// What a gateway, a signal or another thread can do to a call that waits; what becomes of the
// connection and of its handle; and how many connections there may be.

#include <sys/time.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <latch>
#include <memory>
#include <optional>
#include <regex>

#include "scripted_gateway.h"
#include "stapi_zeb_gwytok.h"
#include "trace_capture.h"

namespace zebtest {
namespace {

using zebsim::GatewayServer;
using zebsim::reply;
using Clock = std::chrono::steady_clock;

// How much slower than this machine the host is that the tests run on: an emulator says so.
const char* const kSlowness = std::getenv("ZEB_SLOWNESS");
const int kFactor = kSlowness != nullptr ? std::atoi(kSlowness) : 1;

// Milliseconds: long enough for one slow reply, and a number to find in a trace.
const int kLimit = 217 * kFactor;
const int kNoise = 100 * kFactor;
const int kNever = 10000 * kFactor;
// After that a call that hangs ends the process.
const unsigned kGuardSeconds = 20U * static_cast<unsigned>(kFactor);

const Bytes kBase = reply("BASE", "");
const Bytes kNothing = wire("01 00000000");  // the answer that nothing was found

Bytes answered(const Bytes& data) {
  return reply("Admin", zebsim::callData(zebsim::kInvoke, data));
}
Bytes announced(std::size_t size) {
  return zebsim::replyHeader("Admin", 0, size);
}

const Script kOpened = Script().answerOpen();
const Script kAsked =
    Script(kOpened).answerOpening().expect();  // a query that waits for its answer
const Script kClosing = Script(kOpened).answerQuery(kNothing).answerQuery(kNothing).expect();

struct Row {
  const char* what;
  Script script;
  int rc;
};

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
class Timeout : public Guarded {};
class Signals : public Guarded {};
class Cancelling : public Guarded {};
class Handles : public Guarded {};
class Connections : public Guarded {};

long millisecondsSince(Clock::time_point start) {
  return static_cast<long>((Clock::now() - start) / std::chrono::milliseconds(1));
}

// Measures how late a busy machine wakes its threads, which adds to every time that is measured
// meanwhile.
class Lateness {
 public:
  long stop() {
    isDone_ = true;
    thread_.join();
    return milliseconds_;
  }

 private:
  void measure() {
    while (!isDone_) {
      const Clock::time_point start = Clock::now();
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      milliseconds_ += millisecondsSince(start) - 2;
    }
  }
  std::atomic<bool> isDone_ = false;
  long milliseconds_ = 0;
  std::thread thread_{[this] { measure(); }};
};

// The code of a call, or of several, that take this many milliseconds.
template <typename Calls>
int timed(int least, int most, Calls calls) {
  Lateness lateness;
  const Clock::time_point start = Clock::now();
  const int rc = calls();
  const long taken = millisecondsSince(start);
  EXPECT_GE(taken, least);
  EXPECT_LT(taken, most + kNoise + lateness.stop());
  return rc;
}
template <typename Calls>
int atTheLimit(Calls calls) {
  return timed(kLimit, kLimit + kLimit / 10, calls);
}
template <typename Calls>
int atOnce(Calls calls) {
  return timed(0, 0, calls);
}

int openOn(int port, GatewayToken** token) {
  char* version = nullptr;
  const int rc = openGatewayConnection(port, token, &version);
  std::free(version);
  return rc;
}
int query(GatewayToken* token) {
  ResultSetToken* answer = nullptr;
  return getStats(token, &answer);
}
int closeCopy(GatewayToken* token) {
  return closeGatewayConnection(&token);
}
// The six queries by their number, however large that is.
int ask(std::size_t which, GatewayToken* token, ResultSetToken** answer) {
  constexpr std::array plain = {getStats, getStatIds, getResourceGroupIds};
  constexpr std::array byText = {getStatsByStatId, getStatsByStatGroupId, getStatIdsByStatGroupId};
  return which % 6 < 3 ? plain[which % 3](token, answer) : byText[which % 3](token, "a:b", answer);
}

// Opens, asks twice and closes. The code of the call that fails, after which the connection is
// gone.
int runSession(int port, std::size_t which = 0) {
  GatewayToken* token = nullptr;
  ResultSetToken* answer = nullptr;
  int rc = openOn(port, &token);
  EXPECT_EQ(token == nullptr, rc != 0);
  if (rc != 0) return rc;
  for (int i = 0; i < 2 && rc == 0; ++i) rc = ask(which, token, &answer);
  if (rc == 0) return closeGatewayConnection(&token);
  EXPECT_EQ(ask(which, token, &answer), ZEB_TOKEN_UNKNOWN);
  EXPECT_EQ(closeCopy(token), ZEB_TOKEN_UNKNOWN);
  return rc;
}

// ---- Time limits --------------------------------------------------------------------------------

TEST_F(Timeout, boundsEachCallAsAWholeAndTheTraceNamesIt) {
  const Script authorised = Script().answerConnect();
  const Row rows[] = {
      {"handshake", Script().expect().silence(), ZEB_CONNECT_TIMED_OUT},
      {"authorisation", Script().answer(kBase).expect().silence(), ZEB_CONNECT_TIMED_OUT},
      {"version's opening", Script(authorised).expect().silence(), ZEB_CONNECT_TIMED_OUT},
      {"version", Script(authorised).answerOpening().expect().silence(), ZEB_CONNECT_TIMED_OUT},
      {"bytes of an open", kOpened.dripped(), ZEB_CONNECT_TIMED_OUT},
      {"opening", Script(kOpened).expect().silence(), ZEB_TIMED_OUT},
      {"answer", Script(kAsked).silence(), ZEB_TIMED_OUT},
      {"half a header", Script(kAsked).reply(announced(9).substr(0, 20)).silence(), ZEB_TIMED_OUT},
      {"16 MiB", Script(kAsked).reply(announced(16 << 20)).silence(), ZEB_TIMED_OUT},
      {"bytes of data", Script(kAsked).then(Script().reply(answered(Bytes(500, 'x'))).dripped()),
       ZEB_TIMED_OUT},
      {"bytes of a query", Script(kOpened).then(Script().answerQuery(kNothing).dripped()),
       ZEB_TIMED_OUT},
      {"close", Script(kClosing).silence(), 0},
      {"bytes of a close",
       Script(kClosing).then(Script().reply(reply("BASE", Bytes(500, 'x'))).dripped()), 0},
  };
  static const std::regex limit("\\*EXC\\*.*\\b" + std::to_string(kLimit) + "\\b");
  const FullListener full;
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  std::size_t which = 0;
  const auto expectEnd = [&](int port, int rc) {
    const TraceCapture trace(1);
    EXPECT_EQ(atTheLimit([&] { return runSession(port, which++); }), rc);
    EXPECT_EQ(deleteGatewayTokens(), kNothingToWalk);
    EXPECT_TRUE(std::regex_search(trace.story(), limit)) << trace.text();
  };
  expectEnd(full.port, ZEB_CONNECT_TIMED_OUT);
  for (const Row& row : rows) {
    // What is dripped takes longer than the limit, but not than that of an emulator.
    if (kFactor > 1 && std::string_view(row.what).starts_with("bytes of")) continue;
    ++points;
    SCOPED_TRACE(row.what);
    expectEnd(ScriptedGateway(row.script).port(), row.rc);
  }
}

TEST_F(Timeout, boundsARefusalAndACloseOfSeveralTogether) {
  const Bytes exception = reply("Admin", zebsim::callExceptionData(zebsim::kInvoke));
  const Bytes refusal = reply("Auth", zebsim::words({0, 7, 0, 0, 0}));
  const ScriptedGateway failing(Script(kAsked).reply(exception).ignoreAll());
  const ScriptedGateway refusing(Script().answer(kBase).answer(refusal).ignoreAll());
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  EXPECT_EQ(timed(0, kLimit, [&] { return runSession(failing.port()); }), ZEB_COMMUNICATION_FAILED);
  EXPECT_EQ(timed(0, kLimit, [&] { return runSession(refusing.port()); }), ZEB_CONNECT_FAILED);
  std::deque<ScriptedGateway> silent;
  std::array<GatewayToken*, 4> tokens = {};
  for (GatewayToken*& token : tokens)
    ASSERT_EQ(openOn(silent.emplace_back(Script(kOpened).ignoreAll()).port(), &token), 0);
  EXPECT_EQ(atTheLimit(closeAllGatewayConnections), 0);
  for (GatewayToken* token : tokens) EXPECT_EQ(query(token), ZEB_TOKEN_UNKNOWN);
}

TEST_F(Timeout, ofACallIsTheOneOfItsStart) {
  const ScriptedGateway gateway(Script(kAsked).silence());
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  std::thread other([&] {
    gateway.awaitSilence();
    EXPECT_EQ(setAPITimeout(kNever), 0);
  });
  EXPECT_EQ(atTheLimit([&] { return runSession(gateway.port()); }), ZEB_TIMED_OUT);
  other.join();
}

// ---- Signals ------------------------------------------------------------------------------------

volatile std::sig_atomic_t ticksLeft = 0;

// Handles this many SIGALRMs without SA_RESTART; one more ends the process. The guard's disposition
// is returned.
struct sigaction startTicks(itimerval timer, int most) {
  ticksLeft = most;
  struct sigaction action = {}, before = {};
  action.sa_handler = [](int) {
    if (ticksLeft == 0) _exit(3);
    ticksLeft = ticksLeft - 1;
  };
  sigaction(SIGALRM, &action, &before);
  setitimer(ITIMER_REAL, &timer, nullptr);
  return before;
}

TEST_F(Signals, endNothingThatHasALimit) {
  const FullListener full;
  const ScriptedGateway shaking(Script().expect().silence());
  const ScriptedGateway asked(Script(kAsked).silence());
  const ScriptedGateway closing(Script(kClosing).silence());
  const ScriptedGateway slow(Script(kClosing).reply(kBase).dripped());
  const struct sigaction before = startTicks({{0, 5000}, {0, 5000}}, 3000);
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  const std::pair<int, int> waits[] = {{full.port, ZEB_CONNECT_TIMED_OUT},
                                       {shaking.port(), ZEB_CONNECT_TIMED_OUT},
                                       {asked.port(), ZEB_TIMED_OUT},
                                       {closing.port(), 0}};
  for (const auto& wait : waits)
    EXPECT_EQ(atTheLimit([&] { return runSession(wait.first); }), wait.second);
  EXPECT_EQ(setAPITimeout(kNever), 0);
  EXPECT_EQ(runSession(slow.port()), 0);
  alarm(kGuardSeconds);
  sigaction(SIGALRM, &before, nullptr);
}

TEST_F(Signals, endAQueryWithoutALimitAndItsRemoval) {
  const ScriptedGateway gateway(Script(kAsked).silence());
  const struct sigaction before = startTicks({{5, 0}, {0, 50000}}, 1);
  EXPECT_EQ(timed(10, 50, [&] { return runSession(gateway.port()); }), ZEB_CONNECTION_LOST);
  sigaction(SIGALRM, &before, nullptr);
}

// ---- Closing while the owner waits --------------------------------------------------------------

// The connection that a dump names as soon as the dump names its descriptor.
GatewayToken* awaitDescriptor() {
  static const std::regex entry(R"(GatwayToken\((0x[0-9a-f]+)\).* socket\((\d+)\))");
  TraceCapture trace(0);
  for (std::smatch found;; trace.restart()) {
    EXPECT_EQ(dumpState(), 0);
    const std::string text = trace.text();
    if (!std::regex_search(text, found, entry)) continue;
    int type = 0;
    socklen_t size = sizeof type;
    EXPECT_EQ(getsockopt(std::stoi(found[2]), SOL_SOCKET, SO_TYPE, &type, &size), 0) << text;
    return reinterpret_cast<GatewayToken*>(std::stoull(found[1], nullptr, 16));
  }
}

TEST_F(Cancelling, wakesTheWaitingCallAtOnceAndSendsNothing) {
  const Script version = Script().answerConnect().answerOpening().expect();
  const Row rows[] = {
      {"connect", Script(), ZEB_TOKEN_UNKNOWN},
      {"handshake", Script().expect().silence(), ZEB_TOKEN_UNKNOWN},
      {"version", Script(version).silence(), ZEB_TOKEN_UNKNOWN},
      {"opening", Script(kOpened).expect().silence(), ZEB_CONNECTION_LOST},
      {"answer", Script(kAsked).silence(), ZEB_CONNECTION_LOST},
      {"data", Script(kAsked).reply(announced(100)).silence(), ZEB_CONNECTION_LOST},
  };
  const FullListener full;
  for (int i = 0; i < 24; ++i) {
    const Row& row = rows[i / 4];
    ++points;
    const bool all = i % 2 == 1, limited = i % 4 >= 2;
    SCOPED_TRACE(formatText("%s, close all %d, with a limit %d", row.what, all, limited));
    EXPECT_EQ(setAPITimeout(limited ? kNever : 0), 0);
    std::optional<ScriptedGateway> gateway;
    if (i >= 4) gateway.emplace(row.script);
    Lateness lateness;
    Clock::time_point start;
    std::thread supervisor([&] {
      if (gateway) gateway->awaitSilence();
      GatewayToken* token = awaitDescriptor();
      start = Clock::now();
      EXPECT_EQ(atOnce([&] { return all ? closeAllGatewayConnections() : closeCopy(token); }), 0);
    });
    EXPECT_EQ(runSession(gateway ? gateway->port() : full.port), row.rc);
    const Clock::time_point end = Clock::now();
    supervisor.join();
    EXPECT_LT((end - start) / std::chrono::milliseconds(1), kNoise + lateness.stop());
  }
}

TEST_F(Cancelling, atAnyMomentEndsTheQueriesOfTheOwner) {
  GatewayServer server;
  for (int round = 0; round < 300; ++round) {
    GatewayToken* token = nullptr;
    ASSERT_EQ(openOn(server.port(), &token), 0);
    std::atomic<int> answers = 0;
    std::thread supervisor([&, all = round % 2 == 1] {
      while (answers < round % 7) std::this_thread::yield();
      EXPECT_EQ(all ? closeAllGatewayConnections() : closeCopy(token), 0);
    });
    int rc = 0;
    while ((rc = query(token)) == 0) ++answers;
    EXPECT_TRUE(rc == ZEB_CONNECTION_LOST || rc == ZEB_TOKEN_UNKNOWN) << rc;
    supervisor.join();
  }
}

// ---- Removals -----------------------------------------------------------------------------------

long peakMegabytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmPeak:")) return std::stol(line.substr(7)) >> 10;
  return 0;
}

TEST_F(Connections, thatFailAreRemovedAtOnceWithTheLinesOfACloseThatSendsNothing) {
  const Bytes twice = answered(kNothing) + answered(kNothing);
  const Row rows[] = {
      {"gone", Script(kAsked).reply(reply("Admin", "", 0xF004)).silence(), ZEB_CONNECTION_LOST},
      {"another name length", Script(kAsked).reply(reply("Admins", "")).silence(),
       ZEB_CONNECTION_LOST},
      {"cut short", Script(kAsked).reply("Gate").halfClose().silence(), ZEB_CONNECTION_LOST},
      {"two answers at once", Script(kAsked).reply(twice).silence(), ZEB_CONNECTION_LOST},
      {"no handshake", Script().answer(reply("Admin", "")).silence(), ZEB_CONNECT_FAILED},
      {"16 MiB and a byte", Script(kAsked).reply(announced((16 << 20) + 1)).silence(),
       ZEB_COMMUNICATION_FAILED},
      {"1 GiB", Script(kAsked).reply(announced(1 << 30)).silence(), ZEB_COMMUNICATION_FAILED},
  };
  for (const Row& row : rows) {
    ++points;
    SCOPED_TRACE(row.what);
    const ScriptedGateway gateway(row.script);
    const TraceCapture trace(3);
    const long before = peakMegabytes();
    EXPECT_EQ(atOnce([&] { return runSession(gateway.port()); }), row.rc);
    EXPECT_LT(peakMegabytes() - before, 500);
    const std::string story = trace.story();
    for (const char* line : {"EXIT   stapi_zeb_socketcomms.flowCloseRequest(",
                             "EXIT   stapi_zeb_gwycon.closeConnection("})
      EXPECT_NE(story.find(line), story.npos) << line;
  }
}

TEST_F(Connections, thatTheGatewayHasEndedAreLostBeforeTheNextQuestion) {
  const ScriptedGateway gateway(Script(kAsked).reply(answered(kNothing)).halfClose().silence());
  GatewayToken* token = nullptr;
  ASSERT_EQ(openOn(gateway.port(), &token), 0);
  EXPECT_EQ(query(token), 0);
  gateway.awaitSilence();
  const TraceCapture trace(1);
  EXPECT_EQ(query(token), ZEB_CONNECTION_LOST);
  const std::string story = trace.story();
  const std::string first = story.substr(0, story.find('\n'));
  EXPECT_TRUE(first.starts_with("*EXC*  ") && first.find("Unable to write data") == first.npos)
      << story;
}

TEST_F(Connections, thatCloseSlowlyHoldUpOnlyTheClosingThread) {
  GatewayServer good;
  for (const bool all : {false, true}) {
    SCOPED_TRACE(all);
    std::optional<ScriptedGateway> silent(std::in_place, Script(kOpened).expect().ignoreAll());
    std::thread closer([all, port = silent->port()] {
      GatewayToken* token = nullptr;
      ASSERT_EQ(openOn(port, &token), 0);
      EXPECT_EQ(all ? closeAllGatewayConnections() : closeGatewayConnection(&token), 0);
    });
    silent->awaitSilence();
    EXPECT_EQ(atOnce([&] { return runSession(good.port()); }), 0);
    silent.reset();
    closer.join();
  }
}

// ---- Old handles --------------------------------------------------------------------------------

void expectStale(GatewayToken* token, ResultSetToken* answer) {
  ResultSetToken* other = nullptr;
  char* text = nullptr;
  StatData stat;
  IdData id;
  for (std::size_t which = 0; which < 6; ++which)
    EXPECT_EQ(ask(which, token, &other), ZEB_TOKEN_UNKNOWN);
  EXPECT_EQ(closeCopy(token), ZEB_TOKEN_UNKNOWN);
  const int codes[] = {getFirstStat(answer, &stat), getNextStat(answer, &stat),
                       getFirstId(answer, &id),     getNextId(answer, &id),
                       dumpResultSet(answer),       copyResultSet(answer, &other),
                       getIdQuery(answer, &text),   freeResultSet(&answer)};
  for (const int& code : codes) EXPECT_EQ(code, ZEB_NO_RESULT_SET_BUFFER) << &code - codes;
}

TEST_F(Handles, mayBeOpenedAnewInAVariableThatIsStillBeingClosed) {
  const ScriptedGateway slow(Script(kOpened).expect().silence());
  zebsim::GatewayServer server;
  GatewayToken* token = nullptr;
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  ASSERT_EQ(openOn(slow.port(), &token), 0);
  std::thread closer([&] { EXPECT_EQ(closeGatewayConnection(&token), 0); });
  slow.awaitSilence();
  EXPECT_EQ(openOn(server.port(), &token), 0);
  closer.join();
  EXPECT_EQ(query(token), 0);
  EXPECT_EQ(closeGatewayConnection(&token), 0);
}

TEST_F(Handles, ofEndedConnectionsAreRefusedThroughAThousandMore) {
  GatewayServer server;
  for (const bool lost : {false, true}) {
    SCOPED_TRACE(lost);
    GatewayToken* token = nullptr;
    ResultSetToken* answer = nullptr;
    ASSERT_EQ(openOn(server.port(), &token), 0);
    ASSERT_EQ(getStats(token, &answer), 0);
    if (lost) shutdown(token->socket, SHUT_RDWR);
    EXPECT_EQ(lost ? query(token) : closeCopy(token), lost ? ZEB_CONNECTION_LOST : 0);
    for (int i = 0; i < 1000; ++i) {
      const Connection next(server.port());
      ASSERT_NE(next.token, token) << i;
      if (i % 100 != 0) continue;
      expectStale(token, answer);
      EXPECT_EQ(query(next.token), 0);
    }
    expectStale(token, answer);
  }
}

TEST_F(Handles, closedByTwoThreadsAtOnceAreClosedByOne) {
  GatewayServer server;
  for (int round = 0; round < 200; ++round) {
    GatewayToken* token = nullptr;
    ASSERT_EQ(openOn(server.port(), &token), 0);
    std::latch start(2);
    int codes[2];
    const auto close = [&](int& rc) {
      start.arrive_and_wait();
      rc = closeCopy(token);
    };
    std::thread other(close, std::ref(codes[1]));
    close(codes[0]);
    other.join();
    ASSERT_EQ(std::minmax(codes[0], codes[1]), std::minmax<int>(ZEB_TOKEN_UNKNOWN, 0)) << round;
  }
}

// ---- How many there may be ----------------------------------------------------------------------

TEST_F(Connections, beyond256AreRefusedUnconnectedAndLeaveNothing) {
  GatewayServer server;
  const Listener untouched;
  for (int peak = 0; peak < 8; ++peak) {
    std::vector<GatewayToken*> tokens(256);
    for (GatewayToken*& token : tokens) ASSERT_EQ(openOn(server.port(), &token), 0);
    GatewayToken* refused = nullptr;
    for (int i = 256; i < 300; ++i)
      ASSERT_EQ(openOn(untouched.port, &refused), ZEB_TOKEN_LIST_CORRUPT) << i;
    EXPECT_EQ(closeGatewayConnection(&tokens[100]), 0);
    EXPECT_EQ(openOn(server.port(), &tokens[100]), 0);
    EXPECT_EQ(query(tokens[100]), 0);
    if (peak == 0) {  // a walk over the whole list takes it for a circle, and still closes all
      const TraceCapture trace(0);
      EXPECT_EQ(dumpGatewayTokens(), 1005);
      EXPECT_EQ(closeAllGatewayConnections(), ZEB_TOKEN_LIST_CORRUPT);
      EXPECT_EQ(closeAllGatewayConnections(), 0);
      EXPECT_EQ(closeGatewayConnection(&tokens.back()), ZEB_TOKEN_UNKNOWN);
      continue;
    }
    for (GatewayToken*& token : tokens) ASSERT_EQ(closeGatewayConnection(&token), 0);
  }
  EXPECT_FALSE(untouched.hasClient());
  EXPECT_EQ(runSession(server.port()), 0);
}

}  // namespace
}  // namespace zebtest
