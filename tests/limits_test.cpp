// How long a call may wait; what the gateway, a signal or another thread does to a call that waits;
// what becomes of the connection and of its handle; and how many connections there may be.

#include <netinet/tcp.h>

#include <array>
#include <chrono>
#include <csignal>
#include <deque>
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

using std::chrono::steady_clock;
using zebsim::GatewayServer, zebsim::reply;

// How much slower than this machine the host is that the tests run on: an emulator says so.
const char* const kSlowness = std::getenv("ZEB_SLOWNESS");
const int kFactor = kSlowness != nullptr ? std::atoi(kSlowness) : 1;

// Milliseconds: a short limit, whose number the trace shows, and one that no call reaches. Half of
// that is much longer than any call needs, however busy the machine is.
const int kLimit = 117 * kFactor;
const int kNever = 20000 * kFactor;
// A call that hangs ends the process after this time.
const unsigned kGuardSeconds = 60U * static_cast<unsigned>(kFactor);

const Bytes kLong(20000, 'x');  // sent byte by byte, it takes a minute

const Script kOpened = Script().answerOpen();
// A query and a close that wait for their answer.
const Script kAsked = Script(kOpened).answerOpening().expect();
const Script kClosing = Script(kOpened).answerQuery(wire("01 00000000")).expect();

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

// The code of calls that take at least this many milliseconds, and less than any that hang; and how
// many the last ones took.
std::int64_t taken = 0;
int timed(int least, const std::function<int()>& calls) {
  const steady_clock::time_point start = steady_clock::now();
  const int rc = calls();
  taken = (steady_clock::now() - start) / std::chrono::milliseconds(1);
  EXPECT_GE(taken, least);
  EXPECT_LT(taken, kNever / 2);
  return rc;
}

int openOn(int port, GatewayToken** token, const char* host = "127.0.0.1") {
  char* version = nullptr;
  const int rc = openRemoteGatewayConnection(host, port, token, &version);
  std::free(version);
  return rc;
}
int closeCopy(GatewayToken* token) {
  return closeGatewayConnection(&token);
}
int ask(GatewayToken* token) {
  ResultSetToken* answer = nullptr;
  return getStats(token, &answer);
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

// What a gateway does, and the code of the session that meets it. Without a script it accepts
// nobody.
struct Row {
  const char* what;
  std::optional<Script> script;
  int rc;
};

const Row kWaiting[] = {
    {"connect", {}, ZEB_CONNECT_TIMED_OUT},
    {"handshake", Script().expect().silence(), ZEB_CONNECT_TIMED_OUT},
    {"dripped handshake", Script().expect().drip(reply("BASE", kLong)).silence(),
     ZEB_CONNECT_TIMED_OUT},
    {"authorisation", Script().answer(reply("BASE", "")).expect().silence(), ZEB_CONNECT_TIMED_OUT},
    {"version", Script().answerConnect().answerOpening().expect().silence(), ZEB_CONNECT_TIMED_OUT},
    {"opening", Script(kOpened).expect().silence(), ZEB_TIMED_OUT},
    {"answer", Script(kAsked).silence(), ZEB_TIMED_OUT},
    {"dripped answer", Script(kAsked).drip(reply("Admin", kLong)).silence(), ZEB_TIMED_OUT},
    {"16 MiB", Script(kAsked).reply(zebsim::replyHeader("Admin", 0, 16 << 20)).silence(),
     ZEB_TIMED_OUT},
    {"close", Script(kClosing).silence(), ZEB_END_OF_RESULTS},
    {"dripped close", Script(kClosing).drip(reply("BASE", kLong)).silence(), ZEB_END_OF_RESULTS}};

// Returns the code of a session that takes at least this many milliseconds, while another thread
// does something as soon as the gateway is silent. An open that is not to time out gets all the
// time that it needs; the timeout holds for the calls after it.
int meet(const Row& row, int least, const std::function<void()>& meanwhile) {
  std::optional<ScriptedGateway> gateway;
  std::optional<FullListener> full;
  if (row.script) gateway.emplace(*row.script);
  const int port = gateway ? gateway->port() : full.emplace().port;
  std::thread other([&] {
    if (gateway) gateway->awaitSilence();
    meanwhile();
  });
  int limit = 0;
  EXPECT_EQ(getAPITimeout(&limit), 0);
  if (row.rc != ZEB_CONNECT_TIMED_OUT && limit != 0) setAPITimeout(kNever);
  const int rc = timed(least, [&] { return runSession(port, [&] { setAPITimeout(limit); }); });
  other.join();
  return rc;
}

// A timeout that is set meanwhile holds for later calls.
TEST_F(Waits, endAtTheTimeoutThatTheirCallStartedWithWhateverTheSignals) {
  const std::regex limit("\\*EXC\\*.*\\b" + std::to_string(kLimit) + "\\b");
  const auto expectEnds = [&] {
    for (const Row& row : kWaiting) {
      SCOPED_TRACE(row.what);
      ++points;
      EXPECT_EQ(setAPITimeout(kLimit), 0);
      const TraceCapture trace(1);
      EXPECT_EQ(meet(row, kLimit, [&] { setAPITimeout(row.script ? kNever : kLimit); }), row.rc);
      EXPECT_TRUE(std::regex_search(trace.text(), limit)) << trace.text();
      EXPECT_EQ(trace.text().find("errno=Success"), std::string::npos) << trace.text();
      EXPECT_EQ(deleteGatewayTokens(), kNothingToWalk);
    }
  };
  expectEnds();
  const std::jthread signals = sendSignals();
  expectEnds();
}

// A machine that is busy with other work may be late once.
TEST_F(Waits, endWithinATenthAfterTheTimeoutWhichAllConnectionsShareThatAreClosedTogether) {
  const int limit = kNever / 20;
  const auto closeMany = [&] {
    std::deque<ScriptedGateway> silent;
    std::array<GatewayToken*, 12> tokens = {};
    for (GatewayToken*& token : tokens)
      ASSERT_EQ(openOn(silent.emplace_back(Script(kOpened).expect().silence()).port(), &token), 0);
    EXPECT_EQ(setAPITimeout(limit), 0);
    EXPECT_EQ(timed(limit, closeAllGatewayConnections), 0);
  };
  for (const char* what : {"connect", "version", "answer", "close", "close all"}) {
    const Row* row = std::ranges::find(kWaiting, std::string_view(what), &Row::what);
    std::int64_t least = kNever;
    for (int tries = 0; tries < 3 && least > limit + limit / 10; ++tries) {
      EXPECT_EQ(setAPITimeout(limit), 0);
      row != std::end(kWaiting) ? void(meet(*row, limit, [] {})) : closeMany();
      least = std::min(least, taken);
    }
    EXPECT_LE(least, limit + limit / 10) << what;
  }
}

TEST_F(Waits, ofACloseOfAllLeaveNoTimeToTellEveryGateway) {
  zebsim::ServerOptions options;
  options.troubles.hasCloseAnswer = false;
  const GatewayServer silent(options);
  GatewayToken* token = nullptr;
  for (int i = 0; i < 60; ++i) ASSERT_EQ(openOn(silent.port(), &token), 0);
  EXPECT_EQ(setAPITimeout(1), 0);
  const TraceCapture trace(3);
  EXPECT_EQ(timed(1, closeAllGatewayConnections), 0);
  const auto told = splitLines(trace.text());
  EXPECT_LT(std::ranges::count_if(
                told, [](const std::string& line) { return line.find("[3008]") != line.npos; }),
            30);
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
  const std::jthread other([socket, enough = handledSignals + 20] {
    while (handledSignals < enough) std::this_thread::yield();
    shutdown(socket, SHUT_RDWR);
  });
  int error = 0;
  EXPECT_EQ(waitForConnection(&socket, &error), kConnectFailed);
  EXPECT_EQ(error, ECONNRESET);
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
  for (const Row& row : kWaiting) {
    if (row.rc == ZEB_END_OF_RESULTS || std::string_view(row.what).starts_with("drip")) continue;
    for (int i = 0; i < 4; ++i, ++points) {
      const bool all = i % 2 == 1, limited = i >= 2;
      SCOPED_TRACE(formatText("%s, close all %d, with a timeout %d", row.what, all, limited));
      EXPECT_EQ(setAPITimeout(limited ? kNever : 0), 0);
      const auto close = [&] {
        GatewayToken* token = awaitDescriptor();
        EXPECT_EQ(all ? closeAllGatewayConnections() : closeCopy(token), 0);
      };
      EXPECT_EQ(meet(row, 0, close),
                row.rc == ZEB_TIMED_OUT ? ZEB_CONNECTION_LOST : ZEB_TOKEN_UNKNOWN);
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
    while ((rc = ask(token)) == 0) ++answers;
    EXPECT_TRUE(rc == ZEB_CONNECTION_LOST || rc == ZEB_TOKEN_UNKNOWN) << rc;
    first.join();
    second.join();
    std::sort(codes.begin(), codes.end());
    EXPECT_EQ(codes, (std::array<int, 2>{round % 3 == 0 ? 0 : ZEB_TOKEN_UNKNOWN, 0}));
  }
}

// ---- Connections and their handles --------------------------------------------------------------

TEST_F(Connections, thatCloseSlowlyHoldUpNeitherOtherThreadsNorTheirVariable) {
  const GatewayServer good;
  for (const bool all : {false, true}) {
    SCOPED_TRACE(all);
    std::optional<ScriptedGateway> silent(std::in_place, Script(kOpened).expect().silence());
    GatewayToken* token = nullptr;
    ASSERT_EQ(openOn(silent->port(), &token), 0);
    std::thread closer(
        [&] { EXPECT_EQ(all ? closeAllGatewayConnections() : closeGatewayConnection(&token), 0); });
    silent->awaitSilence();
    EXPECT_EQ(openOn(good.port(), &token), 0);
    silent.reset();
    closer.join();
    EXPECT_EQ(ask(token), 0);
    EXPECT_EQ(closeGatewayConnection(&token), 0);
  }
}

TEST_F(Connections, overIPv6OrIPv4AreKeptAliveAndFoundInWhateverOrderTheyAreClosed) {
  for (const char* host : {"127.0.0.1", "::1"}) {
    if (*host == ':' && std::ifstream("/proc/net/if_inet6").peek() < 0) GTEST_SKIP() << "no IPv6";
    const GatewayServer server({.address = host});
    std::array<GatewayToken*, 3> tokens = {};
    for (GatewayToken*& token : tokens) ASSERT_EQ(openOn(server.port(), &token, host), 0);
    // A new connection is the last one of the list.
    for (const std::size_t i : {2U, 2U, 0U, 1U, 0U, 2U, 1U}) {
      EXPECT_EQ(closeGatewayConnection(&tokens[i]), 0);
      ASSERT_EQ(openOn(server.port(), &tokens[i], host), 0);
      for (GatewayToken* token : tokens) EXPECT_EQ(ask(token), 0);
    }
    int keptAlive = 0, notDelayed = 0;
    socklen_t size = sizeof keptAlive;
    getsockopt(tokens[0]->socket, SOL_SOCKET, SO_KEEPALIVE, &keptAlive, &size);
    getsockopt(tokens[0]->socket, IPPROTO_TCP, TCP_NODELAY, &notDelayed, &size);
    EXPECT_TRUE(keptAlive == 1 && notDelayed == 1);
    EXPECT_EQ(closeAllGatewayConnections(), 0);
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
  EXPECT_FALSE(isReady(untouched.socket, POLLIN, 0));
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
  EXPECT_EQ(ask(ended[1].token), ZEB_CONNECTION_LOST);
  for (int i = 0; i < 1023; ++i) {
    const Connection next(server.port());
    ASSERT_TRUE(next.token != ended[0].token && next.token != ended[1].token) << i;
    if (i % 146 != 0) continue;  // the last one, too
    for (const PublicCall& call : kPublicCalls) {
      const bool isOfToken = call.kind == Kind::kQuery || call.kind == Kind::kClose;
      const bool isOfAnswer = call.kind >= Kind::kWalk && call.kind <= Kind::kFree;
      const int wanted = isOfToken ? ZEB_TOKEN_UNKNOWN : ZEB_NO_RESULT_SET_BUFFER;
      for (Variables& one : ended)
        EXPECT_TRUE((!isOfToken && !isOfAnswer) || one.make(call, 0) == wanted) << call.name;
    }
  }
}

}  // namespace
}  // namespace zebtest
