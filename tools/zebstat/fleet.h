// The gateways of a command line. Several are asked side by side: each has a thread of its own,
// because a connection belongs to the thread that has opened it. A single one is asked by the
// caller's thread, since starting a thread would slow down a short run. There is one fleet, which
// ends with the program.
#ifndef ZEBSTAT_FLEET_H
#define ZEBSTAT_FLEET_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>

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

  // Throws a Fault if there is no thread for each gateway.
  explicit Fleet(const Options& options);
  // Closes the connection of a single gateway, which may take until the timeout; or calls
  // beginEnding() and lets the threads end, which endThreads() waits for.
  ~Fleet();
  Fleet(const Fleet&) = delete;
  Fleet& operator=(const Fleet&) = delete;

  [[nodiscard]] std::size_t size() const;
  [[nodiscard]] const std::string& name(std::size_t i) const;

  // Starts to ask a gateway, which must not be being asked. wait() waits for it if it is awaited.
  void ask(std::size_t i, bool isAwaited);
  // Waits for the awaited gateways, but no longer than until the deadline if there is one. Later
  // calls do not wait for those that are late.
  void wait(std::optional<Clock::time_point> deadline);
  // Returns the outcome once; nothing while the gateway is being asked or if it was not asked.
  std::optional<Outcome> take(std::size_t i);
  [[nodiscard]] bool isAsking(std::size_t i);
  [[nodiscard]] bool isAsking();  // any of them

 private:
  struct Member;
  struct Shared;
  std::shared_ptr<Shared> shared_;  // also held by each thread
};

}  // namespace zebtool

#endif  // ZEBSTAT_FLEET_H
