// Stands between the library under test and the C library: chosen calls fail, a gateway in memory
// answers the requests, and all that is allocated, opened or locked is counted.
//
// The linker sends the calls of the whole program here (--wrap). Only those of a thread that has an
// Injection are changed.
#ifndef ZEBTEST_FAULT_INJECTOR_H
#define ZEBTEST_FAULT_INJECTOR_H

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
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

inline zebsim::Bytes replyTo(const zebsim::Request& request) {
  using namespace zebsim;
  if (request.header.name == kBaseName) return reply(kBaseName, "");
  if (request.header.name == kAuthName)
    return reply(kAuthName, request.data.size() == 4 ? authFirstData(1, 2, 3) : authSecondData());
  const AdminCall call = readAdminCall(request.data);
  return reply(kAdminName,
               call.kind == kOpening ? openingData(7) : callData(call.kind, answerOf(call.target)));
}

inline int fail(int error) {
  errno = error;
  return -1;
}

inline std::string complaints;

// Changes this thread's calls while it lives. Each fault waits for the one before it to strike.
struct Injection {
  explicit Injection(std::vector<Fault> plan = {}, Wire change = {})
      : faults(std::move(plan)), wire(std::move(change)) {
    active = this;
  }
  ~Injection() { active = nullptr; }
  Injection(const Injection&) = delete;
  Injection& operator=(const Injection&) = delete;

  // 0, or how the call fails.
  int next(std::string_view call) {
    const int count = ++counts[call];
    if (faults.empty() || faults[0].call != call || count < faults[0].at) return 0;
    const Fault fault = faults[0];
    ++strikes;
    if (fault.onwards) return fault.error;
    faults.erase(faults.begin());
    strikes = 0;
    counts.clear();
    return fault.error;
  }
  [[nodiscard]] bool hasStruck() const { return faults.empty() || strikes > 0; }
  // Whether the call goes on: signals come to an end if it is tried again until a deadline.
  [[nodiscard]] bool goesOn(int error, bool isBounded) const {
    return error == 0 || ((error == EINTR || error == EAGAIN) && isBounded && strikes > 3);
  }
  [[nodiscard]] std::string_view stream() const {
    return wire.replies.value_or(replies).substr(0, wire.endsAt);
  }

  void serve(std::string_view bytes) {
    if (wire.replies.has_value()) return;
    unread += bytes;
    try {
      for (zebsim::Request request; zebsim::takeRequest(unread, request);) {
        const std::size_t start = replies.size();
        replies += replyTo(request);
        for (std::size_t i = 0; i < wire.change.size(); ++i) {
          const std::size_t at = wire.changedAt + i;
          if (at >= start && at < replies.size()) replies[at] = wire.change[i];
        }
      }
    } catch (const zebsim::BadRequest& bad) {
      wire.endsAt = replies.size();  // as a gateway does that had its reply changed on the way
      if (wire.change.empty())
        complaints += std::string(" sends a bad request: ") + bad.what() + ";";
    }
  }

  ssize_t send(int socket, std::string_view bytes, int flags) {
    const bool isBounded = (flags & MSG_DONTWAIT) != 0;
    const int error = next("send");
    if (error == kEnd) return 0;
    if (error < kShort && !goesOn(error, isBounded)) return fail(error);
    if (socket < 0 || isShut) return fail(socket < 0 ? EBADF : EPIPE);
    if (hasEnded) complaints += " sends on a connection that has ended;";
    const auto size = static_cast<ssize_t>(bytes.size());
    if (received >= wire.endsAt) return wire.error != 0 ? fail(wire.error) : size;
    isShut = error == kCut;
    if (isShut || (error == kShort && isBounded))
      bytes = bytes.substr(0, isShut ? bytes.size() / 2 : 1);
    serve(bytes);
    return error >= kShort ? 1 : size;
  }

  ssize_t receive(void* buffer, std::size_t size, int flags) {
    const int error = next("recv");
    if (error == kEnd || isShut) return 0;
    if (error < kShort && !goesOn(error, (flags & MSG_DONTWAIT) != 0)) return fail(error);
    std::size_t most = std::min({size, wire.piece, stream().size() - received});
    if (error == kShort) most = std::min<std::size_t>(most, 1);
    if (received < wire.splitAt) most = std::min(most, wire.splitAt - received);
    if ((flags & MSG_PEEK) != 0)  // given replies are not there before they are asked for
      return most > 0 && !wire.replies.has_value() ? 1 : fail(EAGAIN);
    hasEnded = most == 0;
    if (hasEnded && wire.error != 0) return fail(wire.error);
    std::copy_n(stream().data() + received, most, static_cast<char*>(buffer));
    received += most;
    return static_cast<ssize_t>(most);
  }

  static inline thread_local Injection* active = nullptr;
  std::vector<Fault> faults;  // the first one waits or, if it lasts, strikes
  Wire wire;
  int strikes = 0;                              // of that fault
  std::map<std::string_view, int> counts = {};  // of the calls since the last that failed once
  std::string unread = {};                      // what the gateway has not answered yet
  std::string replies = {};                     // all of the gateway's
  std::size_t received = 0;
  bool hasEnded = false;  // as a receive has reported
  bool isShut = false;    // for sending
};

// How many blocks, lists of addresses, sockets and files the library holds.
std::size_t countHoldings();

// What was wrong with the calls since this was asked last, locks that are still held included.
std::string takeComplaint();

}  // namespace zebtest

#endif
