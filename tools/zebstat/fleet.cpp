#include "fleet.h"

#include <algorithm>
#include <utility>

#include "report.h"

namespace zebtool {

Fleet::Fleet(const Options& options) : question_(options.question()) {
  for (const Address& address : options.gateways) {
    members_.push_back({showAddress(address),
                        Gateway(address, options.timeoutSeconds, true),
                        {},
                        false,
                        false,
                        {}});
  }
  if (members_.size() == 1) return;
  for (Member& member : members_) member.thread = std::thread([this, &member] { serve(member); });
}

Fleet::~Fleet() {
  {
    std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  changed_.notify_all();
  for (Member& member : members_) {
    if (member.thread.joinable()) member.thread.join();
  }
}

void Fleet::ask(std::size_t i, bool isAwaited) {
  Member& member = members_[i];
  if (members_.size() == 1) {
    member.outcome = askNow(member.gateway);
    return;
  }
  std::lock_guard lock(mutex_);
  member.isAsked = true;
  member.isAwaited = isAwaited;
  changed_.notify_all();
}

void Fleet::wait(std::optional<Clock::time_point> deadline) {
  std::unique_lock lock(mutex_);
  auto hasAll = [this] {
    return std::none_of(members_.begin(), members_.end(),
                        [](const Member& member) { return member.isAsked && member.isAwaited; });
  };
  if (!deadline) return changed_.wait(lock, hasAll);
  changed_.wait_until(lock, *deadline, hasAll);
  for (Member& member : members_) member.isAwaited = false;
}

std::optional<Outcome> Fleet::take(std::size_t i) {
  std::lock_guard lock(mutex_);
  return std::exchange(members_[i].outcome, std::nullopt);
}

bool Fleet::isAsking(std::size_t i) {
  std::lock_guard lock(mutex_);
  return members_[i].isAsked;
}

bool Fleet::isAsking() {
  std::lock_guard lock(mutex_);
  return std::any_of(members_.begin(), members_.end(),
                     [](const Member& member) { return member.isAsked; });
}

// Closes the connection at the end, which only its own thread may do.
void Fleet::serve(Member& member) {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [&] { return isEnding_ || member.isAsked; });
    if (isEnding_) break;
    lock.unlock();
    Outcome outcome = askNow(member.gateway);
    lock.lock();
    member.outcome = std::move(outcome);
    member.isAsked = false;
    changed_.notify_all();
  }
  lock.unlock();
  member.gateway.close();
}

Outcome Fleet::askNow(Gateway& gateway) const {
  Outcome outcome;
  try {
    outcome.answer = gateway.ask(question_);
  } catch (const GatewayFault& fault) {
    outcome.fault = fault;
  } catch (const std::exception& fault) {
    outcome.fault =
        GatewayFault(kNotConnected, gateway.name() + ": " + fault.what(), ZEB_NO_MEMORY);
  }
  outcome.timestamp = makeTimestamp();
  return outcome;
}

}  // namespace zebtool
