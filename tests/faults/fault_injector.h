// Stands between the library under test and the C library: chosen calls fail, a gateway in memory
// answers the requests, and all that is allocated, opened or locked is counted.
//
// The linker sends the calls of the whole program here (--wrap). Only those of a thread that has an
// Injection are changed.
#ifndef ZEBTEST_FAULT_INJECTOR_H
#define ZEBTEST_FAULT_INJECTOR_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gateway_encoder.h"
#include "gateway_wire.h"

namespace zebtest {

// How a call fails: an errno, for getaddrinfo a code of its own, or one of these.
constexpr int kShort = 0x10001;    // send returns 1, and recv delivers one byte
constexpr int kCut = 0x10002;      // send sends half, and the connection takes no more
constexpr int kEnd = 0x10003;      // send, recv and poll return 0
constexpr int kPending = 0x20000;  // added to the errno that getsockopt reports as the socket's

struct Fault {
  std::string_view call;  // the name of the function
  int at;                 // the one of its calls that fails, from 1
  bool onwards;           // so do all of this kind after it
  int error;
};

// What happens to the gateway's replies, which count as one stream of bytes.
struct Wire {
  std::optional<std::string_view> replies = {};  // sent whatever is asked
  std::size_t piece = SIZE_MAX;                  // the most bytes that one receive returns
  std::size_t splitAt = 0;                       // a receive ends here
  std::size_t endsAt = SIZE_MAX;                 // the connection ends here
  int error = 0;              // errno of the calls after the end; 0: receives return 0
  std::size_t changedAt = 0;  // from here the stream has these bytes
  std::string change = {};
};

// What the gateways of these tests answer: two elements of statistics or ids, one of them refused,
// two groups, or the protocol version.
inline zebsim::Bytes answerOf(const std::string& target) {
  using namespace zebsim;
  if (target == "GET_STATS") {
    return encodeAnswer(
        {true, {{"GD", 0, Stats{{"GD_A", "1"}, {"GD_B", "two"}}}, {"XX", -11, Stats{}}}});
  }
  if (target == "STAT_IDS")
    return encodeAnswer({true, {{"GD", 0, Ids{"GD_A", "GD_B"}}, {"XX", -11, Ids{}}}});
  if (target == "RESOURCE_GROUPS") return encodeAnswer({false, {{"", 0, Ids{"GD", "CM"}}}});
  return encodeProtocol(kOwnProtocol);
}

// Changes this thread's calls while it lives. Each fault waits for the one before it to strike.
struct Injection {
  explicit Injection(std::vector<Fault> plan = {}, Wire change = {});
  ~Injection();
  Injection(const Injection&) = delete;
  Injection& operator=(const Injection&) = delete;

  int next(std::string_view call);  // 0, or how the call fails
  [[nodiscard]] bool hasStruck() const { return faults.empty() || strikes > 0; }
  // Whether the call goes on: signals come to an end if it is tried again until a deadline.
  [[nodiscard]] bool goesOn(int error, bool isBounded) const;
  [[nodiscard]] std::string_view stream() const;
  [[nodiscard]] bool isReady(int socket) const;
  void serve(std::string_view bytes);
  ssize_t send(int socket, std::string_view bytes, int flags);
  ssize_t receive(int socket, void* buffer, std::size_t size, int flags);

  std::vector<Fault> faults;  // the first one waits or, if it lasts, strikes
  Wire wire;
  int strikes = 0;  // of that fault
  std::map<std::string_view, int> counts =
      {};  // of the calls since the last fault that strikes once
  std::string sent = {};
  std::string unread = {};   // what the gateway has not answered yet
  std::string replies = {};  // all of the gateway's
  std::size_t received = 0;
  bool hasEnded = false;  // as a receive has reported
};

// How many blocks, lists of addresses, sockets and files the library holds.
std::size_t countHoldings();

// What was wrong with the calls since this was asked last, locks that are still held included.
std::string takeComplaint();

}  // namespace zebtest

#endif
