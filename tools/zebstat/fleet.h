// The gateways of a command line. Several are asked side by side: each has a thread of its own,
// because a connection belongs to the thread that has opened it. A single one is asked by the
// caller's thread, since starting a thread would slow down a short run.
#ifndef ZEBSTAT_FLEET_H
#define ZEBSTAT_FLEET_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gateway.h"
#include "options.h"

namespace zebtool {

// What came of asking a gateway: an answer or a fault.
struct Outcome {
  std::optional<Answer> answer;
  std::optional<GatewayFault> fault;
  std::string timestamp;
};

class Fleet {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Fleet(const Options& options);
  // Closes the connections and waits for the threads, which may take until the timeout.
  ~Fleet();
  Fleet(const Fleet&) = delete;
  Fleet& operator=(const Fleet&) = delete;

  [[nodiscard]] std::size_t size() const { return members_.size(); }
  [[nodiscard]] const std::string& name(std::size_t i) const { return members_[i].name; }

  // Starts to ask a gateway, which must not be being asked. wait() waits for it if it is awaited.
  void ask(std::size_t i, bool isAwaited);
  // Waits for the awaited gateways or, if there is one, for the deadline; later calls do not wait
  // for those that are late then.
  void wait(std::optional<Clock::time_point> deadline);
  // Returns the outcome once; nothing while the gateway is being asked or if it was not asked.
  std::optional<Outcome> take(std::size_t i);
  [[nodiscard]] bool isAsking(std::size_t i);
  [[nodiscard]] bool isAsking();  // any of them

 private:
  struct Member {
    std::string name;
    Gateway gateway;
    std::thread thread;
    bool isAsked = false;  // this and the rest are guarded by mutex_
    bool isAwaited = false;
    std::optional<Outcome> outcome;
  };

  void serve(Member& member);
  [[nodiscard]] Outcome askNow(Gateway& gateway) const;

  const Question question_;
  std::vector<Member> members_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool isEnding_ = false;
};

}  // namespace zebtool

#endif  // ZEBSTAT_FLEET_H
