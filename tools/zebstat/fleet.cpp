#include "fleet.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "report.h"
#include "threads.h"

namespace zebtool {

struct Fleet::Member {
  std::string name;
  Gateway gateway;
  bool isAsked = false;  // this and the rest are guarded by Shared's mutex
  bool isAwaited = false;
  std::optional<Outcome> outcome;
};

struct Fleet::Shared {
  explicit Shared(const Options& options) : question(options.question()) {
    for (const Address& address : options.gateways) {
      members.push_back(
          {showAddress(address), Gateway(address, options.timeoutSeconds), false, false, {}});
    }
  }

  void serve(Member& member);
  [[nodiscard]] Outcome askNow(Gateway& gateway) const;

  const Question question;
  std::vector<Member> members;
  std::mutex mutex;
  std::condition_variable changed;
};

Fleet::Fleet(const Options& options) : shared_(std::make_shared<Shared>(options)) {
  if (size() == 1) return;
  for (Member& member : shared_->members)
    startThread([shared = shared_, &member] { shared->serve(member); });
}

Fleet::~Fleet() {
  if (size() == 1) return;
  beginEnding();
  std::lock_guard lock(shared_->mutex);
  shared_->changed.notify_all();
}

std::size_t Fleet::size() const {
  return shared_->members.size();
}

const std::string& Fleet::name(std::size_t i) const {
  return shared_->members[i].name;
}

void Fleet::ask(std::size_t i, bool isAwaited) {
  Member& member = shared_->members[i];
  if (size() == 1) {
    member.outcome = shared_->askNow(member.gateway);
    return;
  }
  std::lock_guard lock(shared_->mutex);
  member.isAsked = true;
  member.isAwaited = isAwaited;
  shared_->changed.notify_all();
}

void Fleet::wait(std::optional<Clock::time_point> deadline) {
  std::vector<Member>& members = shared_->members;
  std::unique_lock lock(shared_->mutex);
  auto hasAll = [&members] {
    return std::none_of(members.begin(), members.end(),
                        [](const Member& member) { return member.isAsked && member.isAwaited; });
  };
  if (!deadline) return shared_->changed.wait(lock, hasAll);
  shared_->changed.wait_until(lock, *deadline, hasAll);
  for (Member& member : members) member.isAwaited = false;
}

std::optional<Outcome> Fleet::take(std::size_t i) {
  std::lock_guard lock(shared_->mutex);
  return std::exchange(shared_->members[i].outcome, std::nullopt);
}

bool Fleet::isAsking(std::size_t i) {
  std::lock_guard lock(shared_->mutex);
  return shared_->members[i].isAsked;
}

bool Fleet::isAsking() {
  std::lock_guard lock(shared_->mutex);
  return std::any_of(shared_->members.begin(), shared_->members.end(),
                     [](const Member& member) { return member.isAsked; });
}

// Closes the connection at the end, which only its own thread may do.
void Fleet::Shared::serve(Member& member) {
  std::unique_lock lock(mutex);
  for (;;) {
    changed.wait(lock, [&] { return isEnding() || member.isAsked; });
    if (isEnding()) break;
    lock.unlock();
    Outcome outcome = askNow(member.gateway);
    lock.lock();
    member.outcome = std::move(outcome);
    member.isAsked = false;
    changed.notify_all();
  }
  lock.unlock();
  member.gateway.close();
}

Outcome Fleet::Shared::askNow(Gateway& gateway) const {
  Outcome outcome;
  try {
    outcome.answer = gateway.ask(question);
  } catch (const GatewayFault& fault) {
    outcome.fault = fault;
  } catch (const std::exception& fault) {
    outcome.fault = GatewayFault(kNotConnected, gateway.name() + ": " + fault.what(), ZEB_NO_MEMORY,
                                 FaultReason::kLost);
  }
  outcome.timestamp = makeTimestamp();
  return outcome;
}

}  // namespace zebtool
