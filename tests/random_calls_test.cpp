// Public calls in random order with right, null, wrong, stale and foreign arguments, in one
// process: each returns a documented code, and none succeeds with a handle that its caller may not
// use. ZEB_RANDOM_CALLS is their number.
#include <deque>
#include <random>
#include <thread>

#include "client_session.h"
#include "public_calls.h"

namespace {

using namespace zebtest;

struct Handle {
  GatewayToken* token = nullptr;
  ResultSetToken* answer = nullptr;
  bool isOwn = false;
};

class RandomCaller {
 public:
  explicit RandomCaller(int port) : port_(port) {}

  // Returns a complaint about the calls, which end with the first one.
  std::string makeCalls(int count) {
    std::string complaint;
    for (int i = 0; i < count && complaint.empty(); ++i) {
      const PublicCall& call = kPublicCalls[below(std::size(kPublicCalls))];
      const bool isSkipped = (call.kind == Kind::kOpen && open_.size() > 12) ||
                             (call.kind == Kind::kCopy && copies_.size() > 8) ||
                             (call.kind == Kind::kCloseAll && below(200) != 0);
      if (!isSkipped) complaint = makeCall(call);
    }
    return complaint;
  }
  // The child of the process that has opened the connections.
  void becomeChild() {
    for (Handle& handle : open_) handle.isOwn = false;
  }

 private:
  std::size_t below(std::size_t limit) { return random_() % limit; }
  template <typename T>
  T orNull(T pointer) {
    return below(8) == 0 ? nullptr : pointer;
  }

  std::string makeCall(const PublicCall& call) {
    static const std::string texts[] = {"", "GD", ":::", std::string(32000, 'x'),
                                        std::string(40000, 'y')};
    static const char* const paths[] = {"/dev/null", "/no/such/file", texts[3].c_str()};
    // Beyond the open connections: one that was closed, or none.
    const std::size_t at = below(open_.size() + 4), copyAt = below(copies_.size() + 4);
    const bool isOpen = at < open_.size(), isCopy = copyAt < copies_.size();
    Handle handle;
    if (isOpen) handle = open_[at];
    if (at > open_.size() && !closed_.empty()) handle = closed_[below(closed_.size())];
    ResultSetToken* const answer = isCopy ? copies_[copyAt] : handle.answer;
    GatewayToken* token = call.kind == Kind::kOpen ? nullptr : handle.token;
    ResultSetToken* output = call.kind == Kind::kFree ? answer : nullptr;
    char* text = nullptr;
    StatData stat;
    IdData id;
    int number = 0, rc = 0;
    const std::string& query = texts[below(std::size(texts))];
    const char* const host = below(200) == 0 ? "no such host" : "127.0.0.1";
    const char* const path = paths[below(std::size(paths))];
    const int smallNumber = static_cast<int>(below(8)) - 1;
    const int port = below(8) == 0 ? static_cast<int>(below(3)) * 65536 - 1 : port_;
    const Arguments a = {
        token,        orNull(&token), answer,         orNull(&output), orNull(query.c_str()),
        orNull(host), path,           orNull(&text),  orNull(&stat),   orNull(&id),
        smallNumber,  port,           orNull(&number)};
    const bool isElsewhere = call.kind == Kind::kOpen && below(4) == 0;
    const auto make = [&] { rc = call.make(a); };
    isElsewhere ? std::thread(make).join() : make();

    // A call that may succeed with its handle does not take it for another's either.
    bool isAllowed = true;
    if (call.kind == Kind::kClose) isAllowed = isOpen;
    if (call.kind == Kind::kQuery) isAllowed = handle.isOwn;
    if (call.kind == Kind::kWalk || call.kind == Kind::kCopy) isAllowed = isCopy || handle.isOwn;
    if (call.kind == Kind::kFree) isAllowed = isCopy;
    const bool isForeign = rc == ZEB_TOKEN_UNKNOWN || rc == ZEB_NO_RESULT_SET_BUFFER ||
                           rc == ZEB_OTHER_PROCESS || rc == ZEB_OTHER_THREAD;
    if (!isDocumented(call, rc) || (isAllowed ? isForeign : rc == 0))
      return formatText(" %s: %d of %s handle", call.name, rc, isAllowed ? "a right" : "another");

    if (call.kind == Kind::kOpen) std::free(text);
    if (call.kind == Kind::kOpen && rc == 0) open_.push_back({token, nullptr, !isElsewhere});
    if (call.kind == Kind::kQuery && rc == 0) open_[at].answer = output;
    if (call.kind == Kind::kCopy && rc == 0) copies_.push_back(output);
    if (call.kind == Kind::kFree && rc == 0)
      copies_.erase(copies_.begin() + static_cast<std::ptrdiff_t>(copyAt));
    if (call.kind == Kind::kCloseAll)
      while (!open_.empty()) retire(0);
    else if (isOpen && (rc == ZEB_CONNECTION_LOST || rc == ZEB_COMMUNICATION_FAILED ||
                        rc == ZEB_TIMED_OUT || (call.kind == Kind::kClose && rc == 0)))
      retire(at);
    return "";
  }

  void retire(std::size_t at) {
    closed_.push_back({open_[at].token, open_[at].answer});
    if (closed_.size() > 1000) closed_.pop_front();  // of 1,024 the library knows the handles
    open_.erase(open_.begin() + static_cast<std::ptrdiff_t>(at));
  }

  const int port_;
  std::mt19937 random_{20101014};
  std::vector<Handle> open_;
  std::deque<Handle> closed_;
  std::vector<ResultSetToken*> copies_;
};

TEST(RandomCalls, ReturnDocumentedCodesWhateverTheirArguments) {
  const GatewayProcess gateway;
  const char* const wanted = getenv("ZEB_RANDOM_CALLS");
  const int count = wanted != nullptr ? std::atoi(wanted) : 20000;
  RandomCaller caller(gateway.port());
  const auto callInChild = [&](auto work) {
    return inChild([&]() noexcept {
      alarm(static_cast<unsigned>(60 + count / 1000));
      return work();
    });
  };
  EXPECT_EQ(callInChild([&] {
              std::string complaint = caller.makeCalls(count - count / 10);
              caller.becomeChild();
              return complaint + callInChild([&] { return caller.makeCalls(count / 10); });
            }),
            "");
  printf("EVIDENCE F19 points=%d failures=%d\n", count, HasFailure());
}

}  // namespace
