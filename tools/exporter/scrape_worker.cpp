#include "scrape_worker.h"

#include <algorithm>
#include <utility>

#include "output.h"
#include "threads.h"

namespace zebtool {

namespace {

// The library permits 256 connections. A thread takes its place before it connects and gives it
// back after it has closed.
class Places {
 public:
  // A cancelled thread, which will not connect, gets a place at once, or soon: nobody notifies it.
  void take(const std::atomic<bool>& isCancelled) {
    std::unique_lock lock(mutex_);
    while (taken_ >= kMaxConnections && !isCancelled)
      changed_.wait_for(lock, std::chrono::milliseconds(50));
    ++taken_;
  }
  void giveBack() {
    std::lock_guard lock(mutex_);
    --taken_;
    changed_.notify_all();
  }

 private:
  static constexpr int kMaxConnections = 256;
  std::mutex mutex_;
  std::condition_variable changed_;
  int taken_ = 0;
};

Places places;

}  // namespace

ScrapeWorker::ScrapeWorker(Address address, const ScrapePlan& plan, bool isQuiet)
    : address_(std::move(address)), name_(showAddress(address_)), plan_(plan), isQuiet_(isQuiet) {}

void ScrapeWorker::start() {
  startThread([self = shared_from_this()] { self->run(); });
}

// ---- Scrapes ------------------------------------------------------------------------------------

ScrapeWorker::Question ScrapeWorker::ask() {
  std::lock_guard lock(mutex_);
  return askLocked(Clock::now());
}

ScrapeWorker::Question ScrapeWorker::askLocked(Clock::time_point asked) {
  bool hasBegun = begun_ > finished_;
  wanted_ = std::max(wanted_, finished_ + 1);
  changed_.notify_all();
  return {finished_ + 1, hasBegun, asked};
}

Scrape ScrapeWorker::await(Question question, Clock::time_point deadline) {
  static const auto kSilent = std::make_shared<const Report>();
  std::unique_lock lock(mutex_);
  auto isAnswered = [&] { return finished_ >= question.attempt || isStopping_; };
  changed_.wait_until(lock, deadline, isAnswered);
  bool isOld = question.hasBegun && finished_ == question.attempt;
  if (isOld && !report_->isUp && !isRetired_) {
    question = askLocked(question.asked);
    changed_.wait_until(lock, deadline, isAnswered);
  }
  bool isDone = finished_ >= question.attempt;
  Clock::time_point end = isDone ? report_->finished : Clock::now();
  std::chrono::duration<double> took = end - question.asked;
  return {isDone ? report_ : kSilent, std::max(took.count(), 0.0), protocol_};
}

bool ScrapeWorker::isIdle() {
  std::lock_guard lock(mutex_);
  return wanted_ <= finished_;
}

void ScrapeWorker::retire() {
  std::lock_guard lock(mutex_);
  isRetired_ = true;
  changed_.notify_all();
}

void ScrapeWorker::stop() {
  std::lock_guard lock(mutex_);
  isStopping_ = true;
  changed_.notify_all();
}

// ---- The thread ---------------------------------------------------------------------------------

void ScrapeWorker::run() {
  places.take(isStopping_);
  serve();
  places.giveBack();
}

void ScrapeWorker::serve() {
  Gateway gateway(address_, plan_.timeoutSeconds, Diagnosing::kOnce);
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return isStopping_ || isRetired_ || wanted_ > finished_; });
    if (isStopping_ || wanted_ <= finished_) break;
    begun_ = finished_ + 1;
    lock.unlock();
    auto report = std::make_shared<Report>(answer(gateway));
    report->finished = Clock::now();
    std::string protocol = gateway.protocolVersion();
    lock.lock();
    if (!protocol.empty()) protocol_ = std::move(protocol);
    report_ = std::move(report);
    finished_ = begun_;
    changed_.notify_all();
  }
}

// A connection that was open after the last scrape may have been lost since then, for example
// because the gateway was restarted; so after a failure on it, a new connection is tried once.
Report ScrapeWorker::answer(Gateway& gateway) {
  bool wasOpen = gateway.isConnected();
  for (;;) {
    try {
      return attempt(gateway);
    } catch (const GatewayFault& fault) {
      bool isTriedAgain = wasOpen && !gateway.isConnected() && !isTimeout(fault.libraryCode);
      wasOpen = false;
      if (isTriedAgain && !isStopping_) continue;
      printChange(fault.what());
      return {false, fault.reason, {}, {}};
    } catch (const std::exception& fault) {
      printChange(name_ + ": " + fault.what());
      return {false, FaultReason::kLost, {}, {}};
    }
  }
}

// Asks by group, because only the answer to such a query names the group of each statistic.
Report ScrapeWorker::attempt(Gateway& gateway) {
  using Kind = zebtool::Question::Kind;
  zebtool::Question question{Kind::kStatsByGroup, plan_.groups};
  if (question.elements.empty()) {
    for (const Entry& group : gateway.ask({Kind::kGroups, {}}).entries)
      question.elements.push_back(group.id);
  }
  Answer answer;
  if (!question.elements.empty()) answer = gateway.ask(question);
  plan_.filter.apply(answer);
  std::string note;
  if (!answer.refusals.empty()) note = name_ + ": " + describe(answer.refusals.front());
  printChange(note);
  return {true, {}, std::move(answer.entries), {}};
}

void ScrapeWorker::printChange(const std::string& note) {
  if (note == note_) return;
  note_ = note;
  if (!isQuiet_ && !isStopping_ && !isEnding())
    printUnlessFull(note.empty() ? name_ + ": answers" : note);
}

}  // namespace zebtool
