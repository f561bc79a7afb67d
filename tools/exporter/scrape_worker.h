// One gateway: scrapes ask, and a thread of its own answers, because a connection belongs to the
// thread that opened it. So a gateway that hangs holds up its own thread only.
#ifndef ZEBSTATS_EXPORTER_SCRAPE_WORKER_H
#define ZEBSTATS_EXPORTER_SCRAPE_WORKER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "filter.h"
#include "gateway.h"

namespace zebtool {

using Clock = std::chrono::steady_clock;

// What is asked of every gateway.
struct ScrapePlan {
  double timeoutSeconds = 5;        // the library must have been given the same
  std::vector<std::string> groups;  // empty: all
  Filter filter{{}, {}};
};

struct Report {
  bool isUp = false;
  FaultReason reason = FaultReason::kTimedOut;  // if it is not up
  std::vector<Entry> entries;                   // the element of each is its group
  Clock::time_point finished;
};

// What one scrape got, at its deadline at the latest.
struct Scrape {
  std::shared_ptr<const Report> report;
  double seconds = 0;
  std::string protocol;  // the gateway's version of it; empty if it has never answered
};

class ScrapeWorker : public std::enable_shared_from_this<ScrapeWorker> {
 public:
  // A question that a scrape has asked.
  struct Question {
    std::uint64_t attempt = 0;
    bool hasBegun = false;  // the attempt began before the question
    Clock::time_point asked;
  };

  // A quiet worker prints nothing when its gateway goes down or comes back.
  ScrapeWorker(Address address, const ScrapePlan& plan, bool isQuiet);

  // Starts the thread, which keeps the worker until it ends. Throws a Fault.
  void start();

  // HOST:PORT
  [[nodiscard]] const std::string& name() const { return name_; }

  // Makes the thread ask its gateway. A scrape that begins while it is asking shares that answer.
  Question ask();
  // Waits for the answer. If it is that of an attempt that had begun before the question, and that
  // failed, waits for the next attempt.
  Scrape await(Question question, Clock::time_point deadline);

  // Returns whether every question has been answered.
  bool isIdle();

  // Lets the thread close the connection and end when it has answered every question. No question
  // may follow.
  void retire();
  // Lets the thread end without answering, and ends the scrapes that wait for it.
  void stop();

 private:
  Question askLocked(Clock::time_point asked);
  void run();
  void serve();
  Report answer(Gateway& gateway);
  Report attempt(Gateway& gateway);
  void printChange(const std::string& note);

  const Address address_;
  const std::string name_;
  ScrapePlan plan_;
  const bool isQuiet_;
  std::string note_;  // of the last attempt; used by the thread only
  std::atomic<bool> isStopping_ = false;

  std::mutex mutex_;  // guards all below; never held while the library is called
  std::condition_variable changed_;
  bool isRetired_ = false;
  std::uint64_t wanted_ = 0;              // the number of the last attempt that a scrape wants
  std::uint64_t begun_ = 0;               // of the last one that the thread has begun
  std::uint64_t finished_ = 0;            // and finished
  std::shared_ptr<const Report> report_;  // of the attempt finished_
  std::string protocol_;
};

}  // namespace zebtool

#endif  // ZEBSTATS_EXPORTER_SCRAPE_WORKER_H
