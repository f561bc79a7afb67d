// How long a call may wait; what the gateway, a signal or another thread does to a call that waits;
// what becomes of the connection and of its handle; and how many connections there may be.

#include <array>
#include <chrono>
#include <csignal>
#include <deque>
#include <latch>
#include <optional>
#include <regex>

#include "public_calls.h"
#include "scripted_gateway.h"
#include "stapi_zeb_gwycon.h"
#include "stapi_zeb_gwytok.h"
#include "stapi_zeb_timeout.h"
#include "trace_capture.h"

namespace zebtest {
namespace {

using zebsim::GatewayServer;
using zebsim::reply;
using Clock = std::chrono::steady_clock;

// How much slower than this machine the host is that the tests run on: an emulator says so.
const char* const kSlowness = std::getenv("ZEB_SLOWNESS");
const int kFactor = kSlowness != nullptr ? std::atoi(kSlowness) : 1;

// Milliseconds: a short limit, whose number the trace shows, and one that no call reaches. Half of
// that is much longer than any call needs, however busy the machine is.
const int kLimit = 117 * kFactor;
const int kNever = 20000 * kFactor;
// A call that hangs ends the process after this time.
const unsigned kGuardSeconds = 60U * static_cast<unsigned>(kFactor);

const Bytes kBase = reply("BASE", "");
const Bytes kNothing = wire("01 00000000");  // the answer that nothing was found
const Bytes kLong(20000, 'x');               // sent byte by byte, it takes a minute

Bytes answered(const Bytes& data) {
  return reply("Admin", zebsim::callData(zebsim::kInvoke, data));
}
Bytes announced(std::size_t size) {
  return zebsim::replyHeader("Admin", 0, size);
}
Script dripped(const Bytes& bytes) {
  return Script().reply(bytes).dripped();
}

const Script kOpened = Script().answerOpen();
// A query and a close that wait for their answer.
const Script kAsked = Script(kOpened).answerOpening().expect();
const Script kClosing = Script(kOpened).answerQuery(kNothing).answerQuery(kNothing).expect();

Script answering(const Bytes& bytes) {
  return Script(kAsked).reply(bytes).silence();
}

class Guarded : public testing::Test {
 protected:
  void SetUp() override { alarm(kGuardSeconds); }
  void TearDown() override {
    EXPECT_EQ(closeAllGatewayConnections(), 0);
    EXPECT_EQ(setAPITimeout(0), 0);
    EXPECT_EQ(countDescriptors(), descriptors);
    alarm(0);
    printf("EVIDENCE F20 points=%d failures=%d\n", points, HasFailure());
  }
  int points = 1;  // the rows of its table, if it has one
  const std::ptrdiff_t descriptors = countDescriptors();
};
class Waits : public Guarded {};
class Connections : public Guarded {};

// The code of calls that take at least this many milliseconds, and less than any that hang.
template <typename Calls>
int timed(int least, Calls calls) {
  const Clock::time_point start = Clock::now();
  const int rc = calls();
  const auto taken = (Clock::now() - start) / std::chrono::milliseconds(1);
  EXPECT_GE(taken, least);
  EXPECT_LT(taken, kNever / 2);
  return rc;
}

int openOn(int port, GatewayToken** token) {
  char* version = nullptr;
  const int rc = openGatewayConnection(port, token, &version);
  std::free(version);
  return rc;
}
int closeCopy(GatewayToken* token) {
  return closeGatewayConnection(&token);
}
// The six queries by their number, however large that is.
int ask(std::size_t which, GatewayToken* token) {
  constexpr std::array plain = {getStats, getStatIds, getResourceGroupIds};
  constexpr std::array byText = {getStatsByStatId, getStatsByStatGroupId, getStatIdsByStatGroupId};
  ResultSetToken* answer = nullptr;
  return which % 6 < 3 ? plain[which % 3](token, &answer) : byText[which % 3](token, "a", &answer);
}

// Opens, asks twice and closes. The code of the call that fails, after which the connection is
// gone.
int runSession(int port, std::size_t which = 0) {
  GatewayToken* token = nullptr;
  int rc = openOn(port, &token);
  EXPECT_EQ(token == nullptr, rc != 0);
  if (rc != 0) return rc;
  for (int i = 0; i < 2 && rc == 0; ++i) rc = ask(which, token);
  if (rc == 0) return closeGatewayConnection(&token);
  EXPECT_EQ(ask(which, token), ZEB_TOKEN_UNKNOWN);
  EXPECT_EQ(closeCopy(token), ZEB_TOKEN_UNKNOWN);
  return rc;
}

// Sends a handled signal to the calling thread, every millisecond from a given event on.
std::atomic<int> handledSignals = 0;
std::jthread sendSignals(const std::function<void()>& awaitStart = [] {}) {
  struct sigaction action = {};
  action.sa_handler = [](int) { ++handledSignals; };
  sigaction(SIGUSR1, &action, nullptr);
  return std::jthread([awaitStart, target = pthread_self()](const std::stop_token& end) {
    awaitStart();
    for (; !end.stop_requested(); std::this_thread::sleep_for(std::chrono::milliseconds(1)))
      pthread_kill(target, SIGUSR1);
  });
}

// ---- Waits --------------------------------------------------------------------------------------

// What a gateway does, and the code of the call that meets it. Without a script it accepts nobody.
struct Row {
  const char* what;
  std::optional<Script> script;
  int rc;
};

const Script kAuthorised = Script().answerConnect();
const Row kWaiting[] = {
    {"connect", {}, ZEB_CONNECT_TIMED_OUT},
    {"handshake", Script().expect().silence(), ZEB_CONNECT_TIMED_OUT},
    {"dripped handshake", Script().expect().then(dripped(reply("BASE", kLong))),
     ZEB_CONNECT_TIMED_OUT},
    {"authorisation", Script().answer(kBase).expect().silence(), ZEB_CONNECT_TIMED_OUT},
    {"version's opening", Script(kAuthorised).expect().silence(), ZEB_CONNECT_TIMED_OUT},
    {"version", Script(kAuthorised).answerOpening().expect().silence(), ZEB_CONNECT_TIMED_OUT},
    {"opening", Script(kOpened).expect().silence(), ZEB_TIMED_OUT},
    {"answer", Script(kAsked).silence(), ZEB_TIMED_OUT},
    {"dripped answer", Script(kAsked).then(dripped(answered(kLong))), ZEB_TIMED_OUT},
    {"half a header", answering(announced(9).substr(0, 20)), ZEB_TIMED_OUT},
    {"16 MiB", answering(announced(16 << 20)), ZEB_TIMED_OUT},
    {"close", Script(kClosing).silence(), 0},
    {"dripped close", Script(kClosing).then(dripped(reply("BASE", kLong))), 0}};

TEST_F(Waits, endAtTheTimeoutOrAtAnErrorWhateverTheSignals) {
  const Bytes exception = reply("Admin", zebsim::callExceptionData(zebsim::kInvoke));
  const Bytes refusal = reply("Auth", zebsim::words({0, 7, 0, 0, 0}));
  const Row failing[] = {
      {"slow close", Script(kClosing).then(dripped(kBase)), 0},
      {"gone", answering(reply("Admin", "", 0xF004)), ZEB_CONNECTION_LOST},
      {"another name length", answering(reply("Admins", "")), ZEB_CONNECTION_LOST},
      {"cut short", Script(kAsked).reply("Gate").halfClose().silence(), ZEB_CONNECTION_LOST},
      {"two answers", answering(answered(kNothing) + answered(kNothing)), ZEB_CONNECTION_LOST},
      {"no handshake", Script().answer(reply("Admin", "")).silence(), ZEB_CONNECT_FAILED},
      {"16 MiB and a byte", answering(announced((16 << 20) + 1)), ZEB_COMMUNICATION_FAILED},
      {"failed call", Script(kAsked).reply(exception).ignoreAll(), ZEB_COMMUNICATION_FAILED},
      {"refusal", Script().answer(kBase).answer(refusal).ignoreAll(), ZEB_CONNECT_FAILED}};
  const std::regex limit("\\*EXC\\*.*\\b" + std::to_string(kLimit) + "\\b");
  const FullListener full;
  std::size_t which = 0;
  const auto expectEnd = [&](const Row& row, bool isTimed) {
    SCOPED_TRACE(row.what);
    ++points;
    std::optional<ScriptedGateway> gateway;
    if (row.script) gateway.emplace(*row.script);
    const int port = gateway ? gateway->port() : full.port;
    EXPECT_EQ(setAPITimeout(isTimed ? kLimit : kNever), 0);
    const TraceCapture trace(1);
    EXPECT_EQ(timed(isTimed ? kLimit : 0, [&] { return runSession(port, which++); }), row.rc);
    EXPECT_EQ(std::regex_search(trace.story(), limit), isTimed) << trace.text();
    EXPECT_EQ(trace.text().find("errno=Success"), std::string::npos) << trace.text();
    EXPECT_EQ(deleteGatewayTokens(), kNothingToWalk);
  };
  const auto expectEnds = [&] {
    for (const Row& row : kWaiting) expectEnd(row, true);
    for (const Row& row : failing) expectEnd(row, false);
  };
  expectEnds();
  const std::jthread signals = sendSignals();
  expectEnds();
}

TEST_F(Waits, ofAllConnectionsThatAreClosedTogetherShareOneTimeout) {
  std::deque<ScriptedGateway> silent;
  std::array<GatewayToken*, 12> tokens = {};
  for (GatewayToken*& token : tokens)
    ASSERT_EQ(openOn(silent.emplace_back(Script(kOpened).ignoreAll()).port(), &token), 0);
  EXPECT_EQ(setAPITimeout(kNever / 20), 0);
  EXPECT_EQ(timed(kNever / 20, closeAllGatewayConnections), 0);
  for (GatewayToken* token : tokens) EXPECT_EQ(ask(0, token), ZEB_TOKEN_UNKNOWN);
}

TEST_F(Waits, keepTheTimeoutThatTheirCallStartedWith) {
  const ScriptedGateway gateway(Script(kAsked).silence());
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  std::thread other([&] {
    gateway.awaitSilence();
    setAPITimeout(kNever);
  });
  const TraceCapture trace(1);
  EXPECT_EQ(timed(kLimit, [&] { return runSession(gateway.port()); }), ZEB_TIMED_OUT);
  EXPECT_EQ(trace.text().find(std::to_string(kNever)), std::string::npos) << trace.text();
  other.join();
}

TEST_F(Waits, endAtTheTimeoutEvenIfThereIsAlwaysSomethingToRead) {
  const zebsim::Descriptor always(eventfd(1, EFD_CLOEXEC));
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  const zeb::TimedCall call;
  short events = POLLIN;
  const auto readOn = [&] {
    while (zeb::waitForEvents(always.get(), POLLIN, &events) > 0) continue;
    return events;
  };
  EXPECT_EQ(timed(kLimit - 1, readOn), 0);
  EXPECT_TRUE(zeb::hasTimedOut());
}

TEST_F(Waits, withoutATimeoutEndAtASignalUnlessTheyAreForAConnect) {
  {
    const ScriptedGateway gateway(Script(kAsked).silence());
    const std::jthread signals = sendSignals([&] { gateway.awaitSilence(); });
    EXPECT_EQ(runSession(gateway.port()), ZEB_CONNECTION_LOST);
  }
  const FullListener full;
  const int socket = full.waiting.back().get();
  const std::jthread signals = sendSignals();
  std::thread other([socket, before = handledSignals.load()] {
    while (handledSignals < before + 20) std::this_thread::yield();
    shutdown(socket, SHUT_RDWR);
  });
  int error = 0;
  EXPECT_EQ(waitForConnection(&socket, &error), kConnectFailed);
  EXPECT_EQ(error, ECONNRESET);
  other.join();
}

TEST_F(Waits, refuseABadDescriptorAndAnUnknownHost) {
  GatewayToken* token = nullptr;
  char* version = nullptr;
  EXPECT_EQ(openRemoteGatewayConnection("no such host", 1, &token, &version), ZEB_HOST_UNKNOWN);
  short events = 0;
  EXPECT_EQ(zeb::waitForEvents(-1, POLLIN, &events), -1);
  for (const int bad : {-1, 99999}) {
    int error = 0;
    EXPECT_EQ(waitForConnection(&bad, &error), kConnectFailed);
    EXPECT_EQ(error, EBADF);
  }
}

// ---- Closing while the owner waits --------------------------------------------------------------

// The connection that a dump names as soon as the dump names its descriptor.
GatewayToken* awaitDescriptor() {
  static const std::regex entry(R"(GatwayToken\((0x[0-9a-f]+)\).* socket\(\d+\))");
  TraceCapture trace(0);
  for (std::smatch found;; trace.restart()) {
    EXPECT_EQ(dumpState(), 0);
    const std::string text = trace.text();
    if (std::regex_search(text, found, entry))
      return reinterpret_cast<GatewayToken*>(std::stoull(found[1], nullptr, 16));
  }
}

TEST_F(Waits, endAtOnceWhenAnotherThreadClosesTheConnection) {
  const FullListener full;
  for (const Row& row : kWaiting) {
    if (row.rc == 0 || std::string_view(row.what).starts_with("dripped")) continue;
    for (int i = 0; i < 4; ++i, ++points) {
      const bool all = i % 2 == 1, limited = i >= 2;
      SCOPED_TRACE(formatText("%s, close all %d, with a timeout %d", row.what, all, limited));
      EXPECT_EQ(setAPITimeout(limited ? kNever : 0), 0);
      std::optional<ScriptedGateway> gateway;
      if (row.script) gateway.emplace(*row.script);
      std::thread supervisor([&] {
        if (gateway) gateway->awaitSilence();
        GatewayToken* token = awaitDescriptor();
        EXPECT_EQ(all ? closeAllGatewayConnections() : closeCopy(token), 0);
      });
      EXPECT_EQ(timed(0, [&] { return runSession(gateway ? gateway->port() : full.port); }),
                row.rc == ZEB_TIMED_OUT ? ZEB_CONNECTION_LOST : ZEB_TOKEN_UNKNOWN);
      supervisor.join();
    }
  }
}

TEST_F(Connections, mayBeClosedByTwoThreadsAtAnyMomentAndAreClosedByOne) {
  const GatewayServer server;
  for (int round = 0; round < 300; ++round) {
    GatewayToken* token = nullptr;
    ASSERT_EQ(openOn(server.port(), &token), 0);
    std::atomic<int> answers = 0;
    std::array<int, 2> codes = {};
    const auto close = [&, all = round % 3 == 0](int& rc) {
      while (answers < round % 7) std::this_thread::yield();
      rc = all ? closeAllGatewayConnections() : closeCopy(token);
    };
    std::thread first(close, std::ref(codes[0])), second(close, std::ref(codes[1]));
    int rc = 0;
    while ((rc = ask(0, token)) == 0) ++answers;
    EXPECT_TRUE(rc == ZEB_CONNECTION_LOST || rc == ZEB_TOKEN_UNKNOWN) << rc;
    first.join();
    second.join();
    std::sort(codes.begin(), codes.end());
    EXPECT_EQ(codes, (std::array<int, 2>{round % 3 == 0 ? 0 : ZEB_TOKEN_UNKNOWN, 0}));
  }
}

// ---- Connections and their handles --------------------------------------------------------------

TEST_F(Connections, thatTheGatewayHasEndedAreLostBeforeTheNextQuestion) {
  const ScriptedGateway gateway(Script(kAsked).reply(answered(kNothing)).halfClose().silence());
  GatewayToken* token = nullptr;
  ASSERT_EQ(openOn(gateway.port(), &token), 0);
  EXPECT_EQ(ask(0, token), 0);
  gateway.awaitSilence();
  EXPECT_EQ(ask(0, token), ZEB_CONNECTION_LOST);
}

TEST_F(Connections, thatCloseSlowlyHoldUpNeitherOtherThreadsNorTheirVariable) {
  const GatewayServer good;
  for (const bool all : {false, true}) {
    SCOPED_TRACE(all);
    std::optional<ScriptedGateway> silent(std::in_place, Script(kOpened).expect().ignoreAll());
    GatewayToken* token = nullptr;
    ASSERT_EQ(openOn(silent->port(), &token), 0);
    std::thread closer(
        [&] { EXPECT_EQ(all ? closeAllGatewayConnections() : closeGatewayConnection(&token), 0); });
    silent->awaitSilence();
    EXPECT_EQ(openOn(good.port(), &token), 0);
    silent.reset();
    closer.join();
    EXPECT_EQ(ask(0, token), 0);
    EXPECT_EQ(closeGatewayConnection(&token), 0);
  }
}

TEST_F(Connections, overIPv6OrIPv4AreKeptAliveAndFoundInWhateverOrderTheyAreClosed) {
  for (const char* host : {"127.0.0.1", "::1"}) {
    if (*host == ':' && std::ifstream("/proc/net/if_inet6").peek() < 0) GTEST_SKIP() << "no IPv6";
    const GatewayServer server({.address = host});
    std::array<GatewayToken*, 3> tokens = {};
    const auto open = [&](GatewayToken*& token) {
      char* version = nullptr;
      EXPECT_EQ(openRemoteGatewayConnection(host, server.port(), &token, &version), 0);
      std::free(version);
    };
    for (GatewayToken*& token : tokens) open(token);
    ASSERT_NE(tokens[0], nullptr);
    std::array<std::size_t, 3> order = {0, 1, 2};
    do {
      for (const std::size_t i : order) {
        EXPECT_EQ(closeGatewayConnection(&tokens[i]), 0);
        open(tokens[i]);
        for (GatewayToken* token : tokens) EXPECT_EQ(ask(i, token), 0);
      }
    } while (std::next_permutation(order.begin(), order.end()));
    int keptAlive = 0, notDelayed = 0;
    socklen_t size = sizeof keptAlive;
    getsockopt(tokens[0]->socket, SOL_SOCKET, SO_KEEPALIVE, &keptAlive, &size);
    getsockopt(tokens[0]->socket, IPPROTO_TCP, TCP_NODELAY, &notDelayed, &size);
    EXPECT_TRUE(keptAlive == 1 && notDelayed == 1);
    std::thread([&] {
      EXPECT_EQ(ask(0, tokens[0]), ZEB_OTHER_THREAD);
      EXPECT_EQ(closeAllGatewayConnections(), 0);
    }).join();
  }
}

TEST_F(Connections, beyond256AreRefusedUnconnectedAndLeaveNothing) {
  const GatewayServer server;
  const Listener untouched;
  std::array<GatewayToken*, 256> tokens = {};
  GatewayToken* refused = nullptr;
  for (GatewayToken*& token : tokens) ASSERT_EQ(openOn(server.port(), &token), 0);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(openOn(untouched.port, &refused), ZEB_TOKEN_LIST_CORRUPT);
    EXPECT_EQ(closeGatewayConnection(&tokens[100]), 0);
    EXPECT_EQ(openOn(server.port(), &tokens[100]), 0);
  }
  EXPECT_FALSE(untouched.hasClient());
  // A walk over the whole list takes it for a circle, and still closes all.
  const TraceCapture trace(0);
  EXPECT_EQ(dumpGatewayTokens(), kListRunaway);
  EXPECT_EQ(closeAllGatewayConnections(), ZEB_TOKEN_LIST_CORRUPT);
  EXPECT_EQ(deleteGatewayTokens(), kNothingToWalk);
  EXPECT_EQ(runSession(server.port()), 0);
}

TEST_F(Connections, thatHaveEndedAreRefusedThroughAThousandMore) {
  const GatewayServer server;
  std::array<Variables, 2> ended;
  for (Variables& one : ended) {
    ASSERT_EQ(openOn(server.port(), &one.token), 0);
    ASSERT_EQ(getStats(one.token, &one.answer), 0);
    one.copy = one.answer;
  }
  EXPECT_EQ(closeCopy(ended[0].token), 0);
  shutdown(ended[1].token->socket, SHUT_RDWR);
  EXPECT_EQ(ask(0, ended[1].token), ZEB_CONNECTION_LOST);
  for (int i = 0; i <= 1000; ++i) {
    const Connection next(server.port());
    ASSERT_TRUE(next.token != ended[0].token && next.token != ended[1].token) << i;
    if (i % 100 != 0) continue;
    for (const PublicCall& call : kPublicCalls) {
      if (call.kind == Kind::kOther || call.kind == Kind::kOpen || call.kind == Kind::kCloseAll)
        continue;
      const bool isOfToken = call.kind == Kind::kQuery || call.kind == Kind::kClose;
      const int wanted = isOfToken ? ZEB_TOKEN_UNKNOWN : ZEB_NO_RESULT_SET_BUFFER;
      for (Variables& one : ended) EXPECT_EQ(one.make(call, 0), wanted) << call.name;
    }
  }
}

}  // namespace
}  // namespace zebtest
