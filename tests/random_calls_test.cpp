// Public calls in random order with right, null, wrong, stale and foreign arguments, in one
// process: each returns a documented code, and none succeeds with a handle that its caller may not
// use. ZEB_RANDOM_CALLS is their number.
#include <random>
#include <thread>

#include "client_session.h"
#include "public_calls.h"

namespace {

using namespace zebtest;

// A connection of the calling thread or of another one, a copy, or a connection that has ended.
enum State : unsigned { kNone = 1, kOwn = 2, kForeign = 4, kCopied = 8, kEnded = 16 };
struct Handle {
  State state = kNone;
  GatewayToken* token = nullptr;
  ResultSetToken* answer = nullptr;
};
constexpr unsigned kConnected = kOwn | kForeign, kWalkable = kOwn | kCopied, kAny = 31;
// What a call may succeed with, by its kind.
constexpr unsigned kAllowed[] = {kAny, kConnected, kAny, kOwn, kWalkable, kWalkable, kCopied, kAny};

class RandomCaller {
 public:
  explicit RandomCaller(int port) : port_(port) {}

  // Returns a complaint about the calls, which end with the first one.
  std::string makeCalls(int count) {
    alarm(static_cast<unsigned>(60 + count / 1000));
    std::string complaint;
    for (; count > 0 && complaint.empty(); --count)
      complaint = makeCall(pick(kPublicCalls), pick(handles_), pick(handles_));
    return complaint;
  }
  // The child of the process that has opened the connections.
  void becomeChild() {
    for (Handle& handle : handles_)
      if (handle.state == kOwn) handle.state = kForeign;
  }

 private:
  std::size_t below(std::size_t limit) { return random_() % limit; }
  template <typename T, std::size_t count>
  T& pick(T (&list)[count]) {
    return list[below(count)];
  }
  template <typename T>
  T orNull(T pointer) {
    return below(8) == 0 ? nullptr : pointer;
  }

  // The call gets the first handle; what it opens or copies becomes the second one.
  std::string makeCall(const PublicCall& call, Handle& handle, Handle& made) {
    static const std::string texts[] = {"", "GD", ":::", std::string(32000, 'x'),
                                        std::string(40000, 'y')};
    static const char* const paths[] = {"/dev/null", "/no/such/file", texts[3].c_str()};
    const Kind kind = call.kind;
    const bool isMaking = kind == Kind::kOpen || kind == Kind::kCopy;
    if (isMaking && (made.state & (kConnected | kCopied)) != 0) return "";
    if (kind == Kind::kCloseAll && below(200) != 0) return "";
    GatewayToken* token = kind == Kind::kOpen ? nullptr : handle.token;
    ResultSetToken* output = kind == Kind::kFree ? handle.answer : nullptr;
    char* text = nullptr;
    StatData stat;
    IdData id;
    int number = 0, rc = 0;
    const char* const host = below(200) == 0 ? "no such host" : "127.0.0.1";
    const int port = below(8) == 0 ? static_cast<int>(below(3)) * 65536 - 1 : port_;
    const int level = static_cast<int>(below(8)) - 1;
    const Arguments a = {
        token,        orNull(&token), handle.answer,  orNull(&output), orNull(pick(texts).c_str()),
        orNull(host), pick(paths),    orNull(&text),  orNull(&stat),   orNull(&id),
        level,        port,           orNull(&number)};
    const bool isElsewhere = kind == Kind::kOpen && below(4) == 0;
    const auto make = [&] { rc = call.make(a); };
    isElsewhere ? std::thread(make).join() : make();

    // A call that may succeed with its handle does not take it for another's either.
    const bool isAllowed = (kAllowed[static_cast<int>(kind)] & handle.state) != 0;
    const bool isForeign = rc == ZEB_TOKEN_UNKNOWN || rc == ZEB_NO_RESULT_SET_BUFFER ||
                           rc == ZEB_OTHER_PROCESS || rc == ZEB_OTHER_THREAD;
    if (!isDocumented(call, rc) || (isAllowed ? isForeign : rc == 0))
      return formatText(" %s: %d of %s handle", call.name, rc, isAllowed ? "a right" : "another");

    if (kind == Kind::kOpen) std::free(text);
    if (kind == Kind::kOpen && rc == 0) made = {isElsewhere ? kForeign : kOwn, token};
    if (kind == Kind::kCopy && rc == 0) made = {kCopied, nullptr, output};
    if (kind == Kind::kFree && rc == 0) handle = {};
    if (kind == Kind::kQuery && rc == 0) handle.answer = output;
    const bool isLost =
        rc == ZEB_CONNECTION_LOST || rc == ZEB_COMMUNICATION_FAILED || rc == ZEB_TIMED_OUT;
    if ((kind == Kind::kClose && rc == 0) || (kind == Kind::kQuery && isLost))
      handle.state = kEnded;
    for (Handle& each : handles_)
      if (kind == Kind::kCloseAll && (each.state & kConnected) != 0) each.state = kEnded;
    return "";
  }

  const int port_;
  std::mt19937 random_{20101014};
  // The library knows the handles of the last 1,024 connections that have ended; each of these is
  // soon replaced.
  Handle handles_[30];
};

TEST(RandomCalls, ReturnDocumentedCodesWhateverTheirArguments) {
  const GatewayProcess gateway;
  const char* const wanted = getenv("ZEB_RANDOM_CALLS");
  const int count = wanted != nullptr ? std::atoi(wanted) : 20000;
  RandomCaller caller(gateway.port());
  const auto makeAll = [&]() noexcept {
    const std::string complaint = caller.makeCalls(count - count / 10);
    caller.becomeChild();
    return complaint + inChild([&]() noexcept { return caller.makeCalls(count / 10); });
  };
  EXPECT_EQ(inChild(makeAll), "");
  printf("EVIDENCE F19 points=%d failures=%d\n", count, HasFailure());
}

}  // namespace
