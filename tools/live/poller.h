// Asks the gateways side by side, each in a thread of its own, because a connection belongs to the
// thread that opened it.
#ifndef ZEBSTAT_LIVE_POLLER_H
#define ZEBSTAT_LIVE_POLLER_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "filter.h"
#include "gateway.h"

namespace zebtool {

// What the gateways are asked, and how often.
struct PollOptions {
  std::vector<Address> gateways;
  Question question;
  Filter filter;
  double timeoutSeconds = 0;
  double intervalSeconds = 0;
};

struct PollResult {
  std::size_t gateway = 0;  // index
  Answer answer;
  std::string trouble;  // empty if there is an answer
  std::chrono::steady_clock::time_point at;
};

class Poller {
 public:
  explicit Poller(PollOptions options);
  // Calls beginEnding() and lets the threads end, which endThreads() waits for.
  ~Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  // A descriptor that is readable if there are results.
  [[nodiscard]] int descriptor() const;
  // Returns the results since the last call, the oldest first.
  std::deque<PollResult> takeResults();
  // Sets how often the gateways are asked, from the next answer of each on.
  void setInterval(double seconds);

 private:
  struct Shared;
  static void serve(Shared& shared, std::size_t index);
  std::shared_ptr<Shared> shared_;  // also held by each thread
};

}  // namespace zebtool

#endif  // ZEBSTAT_LIVE_POLLER_H
