// What a gateway or another thread can do to a call that waits: the timeout, closing from elsewhere, old handles, and
// how many connections there may be.

#include <netinet/in.h>
#include <sys/time.h>

#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <deque>
#include <fstream>
#include <latch>
#include <memory>
#include <regex>
#include <set>

#include "scripted_gateway.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace zebtest {
namespace {

using zebsim::GatewayServer;
using zebsim::reply;
using Clock = std::chrono::steady_clock;

constexpr int kLimit = 217;  // milliseconds: long enough for one slow reply, and a number to find in a trace
constexpr int kNoise = 100;  // what a busy machine may add
constexpr int kNever = 10000;
constexpr unsigned kGuardSeconds = 20;  // after which a call that hangs ends the process

const Bytes kNothing = wire("01 00000000");  // the answer that nothing was found
const Bytes kBase = reply("BASE", "");
const Script kOpened = Script().answerOpen();
const Script kAsked = Script().answerOpen().answerOpening().expect();  // a query that waits for its answer

class Guarded : public testing::Test {
 protected:
  void SetUp() override {
    alarm(kGuardSeconds);
    dumpState();  // opens what the library keeps open
    descriptors = countDescriptors();
  }
  void TearDown() override {
    EXPECT_EQ(closeAllGatewayConnections(), 0);
    EXPECT_EQ(setAPITimeout(0), 0);
    EXPECT_EQ(countDescriptors(), descriptors);
    alarm(0);
  }
  std::ptrdiff_t descriptors = 0;
};
class Timeout : public Guarded {};
class Signals : public Guarded {};
class Cancelling : public Guarded {};
class Handles : public Guarded {};
class Connections : public Guarded {};

int sinceMilliseconds(Clock::time_point start) {
  return static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// The code of a call that takes this many milliseconds.
template <typename Call>
int timed(int least, int most, Call call) {
  const Clock::time_point start = Clock::now();
  const int rc = call();
  const int taken = sinceMilliseconds(start);
  EXPECT_GE(taken, least);
  EXPECT_LT(taken, most + kNoise);
  return rc;
}
template <typename Call>
int atTheLimit(Call call) {
  return timed(kLimit, kLimit + kLimit / 10, call);
}
template <typename Call>
int atOnce(Call call) {
  return timed(0, 0, call);
}

int openOn(int port, GatewayToken** token) {
  char* version = nullptr;
  const int rc = openGatewayConnection(port, token, &version);
  std::free(version);
  return rc;
}

// The six queries in turn.
int ask(std::size_t which, GatewayToken* token, ResultSetToken** answer) {
  constexpr std::array plain = {getStats, getStatIds, getResourceGroupIds};
  constexpr std::array byText = {getStatsByStatId, getStatsByStatGroupId, getStatIdsByStatGroupId};
  return which % 6 < 3 ? plain[which % 3](token, answer) : byText[which % 3](token, "a:b", answer);
}
int query(GatewayToken* token) {
  ResultSetToken* answer = nullptr;
  return getStats(token, &answer);
}
int closeCopy(GatewayToken* token) {
  return closeGatewayConnection(&token);
}

void expectLimitIn(const TraceCapture& trace) {
  static const std::regex limit("\\*EXC\\*.*\\b217\\b");
  const std::vector<std::string> lines = trace.lines();
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](auto& line) {
    return std::regex_search(line, limit);
  })) << trace.text();
}

struct Row {
  const char* what;
  Script script;
  int rc = 0;
};

// ---- Time limits ---------------------------------------------------------------------------------------------

TEST_F(Timeout, isZeroAtTheStartAndNeverNegative) {
  int milliseconds = -1;
  EXPECT_EQ(getAPITimeout(&milliseconds), 0);
  EXPECT_EQ(milliseconds, 0);
  for (const int good : {INT_MAX, 1, 4711}) EXPECT_EQ(setAPITimeout(good), 0) << good;
  for (const int bad : {-1, INT_MIN}) EXPECT_EQ(setAPITimeout(bad), ZEB_TIMEOUT_INVALID) << bad;
  EXPECT_EQ(getAPITimeout(nullptr), ZEB_OUTPUT_POINTER_NULL);
  EXPECT_EQ(getAPITimeout(&milliseconds), 0);
  EXPECT_EQ(milliseconds, 4711);
}

TEST_F(Timeout, boundsAnOpenAsAWhole) {
  const Script connected = Script().answerConnect();
  const Bytes refusal = reply("Auth", zebsim::words({0, 7, 0, 0, 0}));
  const Row rows[] = {
      {"handshake", Script().expect().silence()},
      {"first authorisation step", Script().answer(kBase).expect().silence()},
      {"version's opening", Script(connected).expect().silence()},
      {"version", Script(connected).answerOpening().expect().silence()},
      {"bytes of all replies", Script(kOpened).dripped()},
  };
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  GatewayToken* token = nullptr;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const ScriptedGateway gateway(row.script);
    const TraceCapture trace(1);
    EXPECT_EQ(atTheLimit([&] { return openOn(gateway.port(), &token); }), ZEB_CONNECT_TIMED_OUT);
    EXPECT_EQ(deleteGatewayTokens(), kNothingToWalk);
    expectLimitIn(trace);
  }
  const FullListener full;
  const TraceCapture trace(1);
  EXPECT_EQ(atTheLimit([&] { return openOn(full.port, &token); }), ZEB_CONNECT_TIMED_OUT);
  expectLimitIn(trace);
  const ScriptedGateway refusing(Script().answer(kBase).answer(refusal).ignoreAll());
  EXPECT_EQ(timed(0, kLimit, [&] { return openOn(refusing.port(), &token); }), ZEB_CONNECT_FAILED);
  EXPECT_EQ(token, nullptr);
}

TEST_F(Timeout, boundsAQueryAsAWholeAndRemovesTheConnection) {
  const auto admin = [](const Bytes& data) {
    return reply("Admin", zebsim::callData(zebsim::kInvoke, data));
  };
  const Row rows[] = {
      {"opening", Script(kOpened).expect().silence()},
      {"answer", Script(kAsked).silence()},
      {"rest of the header", Script(kAsked).reply(admin(kNothing).substr(0, 20)).silence()},
      {"16 MiB of data", Script(kAsked).reply(zebsim::replyHeader("Admin", 0, 16 << 20)).silence()},
      {"bytes of the data", Script(kAsked).then(Script().reply(admin(Bytes(500, 'x'))).dripped())},
      {"bytes of both replies", Script(kOpened).then(Script().answerQuery(kNothing).dripped())},
  };
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  std::size_t which = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const ScriptedGateway gateway(row.script);
    const TraceCapture trace(1);
    GatewayToken* token = nullptr;
    ResultSetToken* answer = nullptr;
    ASSERT_EQ(openOn(gateway.port(), &token), 0);
    EXPECT_EQ(atTheLimit([&] { return ask(which, token, &answer); }), ZEB_TIMED_OUT);
    EXPECT_EQ(ask(which++, token, &answer), ZEB_TOKEN_UNKNOWN);
    EXPECT_EQ(answer, nullptr);
    expectLimitIn(trace);
  }
  const Bytes exception = reply("Admin", zebsim::callExceptionData(zebsim::kInvoke));
  const ScriptedGateway refusing(Script(kAsked).reply(exception).ignoreAll());
  GatewayToken* token = nullptr;
  ASSERT_EQ(openOn(refusing.port(), &token), 0);
  EXPECT_EQ(timed(0, kLimit, [&] { return query(token); }), ZEB_COMMUNICATION_FAILED);
}

TEST_F(Timeout, boundsACloseAndACloseAllAsAWhole) {
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  for (const Script& ending :
       {Script().expect().silence(), Script().answer(reply("BASE", Bytes(500, 'x'))).dripped()}) {
    const ScriptedGateway gateway(Script(kOpened).then(ending));
    const TraceCapture trace(1);
    GatewayToken* token = nullptr;
    ASSERT_EQ(openOn(gateway.port(), &token), 0);
    EXPECT_EQ(atTheLimit([&] { return closeGatewayConnection(&token); }), 0);
    EXPECT_EQ(token, nullptr);
    expectLimitIn(trace);
  }
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
  GatewayToken* token = nullptr;
  ASSERT_EQ(openOn(gateway.port(), &token), 0);
  std::thread other([&] {
    gateway.awaitSilence();
    EXPECT_EQ(setAPITimeout(kNever), 0);
  });
  EXPECT_EQ(atTheLimit([&] { return query(token); }), ZEB_TIMED_OUT);
  other.join();
}

TEST(CodeTexts, differForAllCodesOfTheHeader) {
  std::ifstream header(ZEB_PUBLIC_HEADER);
  const std::regex enumerator(" (ZEB_[A-Z_]+) = (-?[0-9]+)");
  std::set<std::string> texts = {getAPICodeText(INT_MIN)};
  for (const int unknown : {1, -1, -99, -112, INT_MAX})
    EXPECT_EQ(*texts.begin(), getAPICodeText(unknown)) << unknown;
  std::size_t codes = 0;
  std::smatch found;
  for (std::string line; std::getline(header, line);) {
    if (!std::regex_search(line, found, enumerator)) continue;
    ++codes;
    EXPECT_TRUE(texts.insert(getAPICodeText(std::stoi(found[2]))).second) << line;
  }
  EXPECT_GE(codes, 38U);
}

// ---- Signals -------------------------------------------------------------------------------------------------

// Handled SIGALRMs without SA_RESTART, until so many have come that the call they should not hold up hangs.
class Ticks {
 public:
  Ticks(itimerval timer, int most) {
    left = most;
    struct sigaction action = {};
    action.sa_handler = [](int) {
      left = left - 1;
      if (left < 0) _exit(3);
    };
    sigaction(SIGALRM, &action, &before_);
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
  ~Ticks() {
    alarm(kGuardSeconds);
    sigaction(SIGALRM, &before_, nullptr);
  }
  Ticks(const Ticks&) = delete;
  Ticks& operator=(const Ticks&) = delete;

 private:
  static inline volatile std::sig_atomic_t left = 0;
  struct sigaction before_ = {};
};
constexpr itimerval kEvery5ms = {{0, 5000}, {0, 5000}};

TEST_F(Signals, endNothingThatHasALimit) {
  const FullListener full;
  const ScriptedGateway mute(Script().expect().silence());
  const ScriptedGateway asked(Script(kAsked).silence());
  const ScriptedGateway closing(Script(kOpened).expect().silence());
  const ScriptedGateway slow(Script(kOpened).answerQuery(kNothing).dripped());
  GatewayToken* token = nullptr;
  const Ticks ticks(kEvery5ms, 3000);
  EXPECT_EQ(setAPITimeout(kLimit), 0);
  for (const int port : {full.port, mute.port()})
    EXPECT_EQ(atTheLimit([&] { return openOn(port, &token); }), ZEB_CONNECT_TIMED_OUT);
  ASSERT_EQ(openOn(asked.port(), &token), 0);
  EXPECT_EQ(atTheLimit([&] { return query(token); }), ZEB_TIMED_OUT);
  ASSERT_EQ(openOn(closing.port(), &token), 0);
  EXPECT_EQ(atTheLimit([&] { return closeGatewayConnection(&token); }), 0);
  EXPECT_EQ(setAPITimeout(kNever), 0);
  ASSERT_EQ(openOn(slow.port(), &token), 0);
  EXPECT_EQ(query(token), 0);
  EXPECT_EQ(closeGatewayConnection(&token), 0);
}

TEST_F(Signals, endAQueryWithoutALimitAndItsRemoval) {
  const ScriptedGateway gateway(Script(kAsked).silence());
  GatewayToken* token = nullptr;
  ASSERT_EQ(openOn(gateway.port(), &token), 0);
  const Ticks one({{5, 0}, {0, 50000}}, 1);
  EXPECT_EQ(timed(50, 50, [&] { return query(token); }), ZEB_CONNECTION_LOST);
  EXPECT_EQ(query(token), ZEB_TOKEN_UNKNOWN);
}

// ---- Closing while the owner waits ----------------------------------------------------------------------------

// Ends the connection from a thread of its own, and the code of the call that waits on it meanwhile.
template <typename Await, typename Call>
int cancelled(bool all, Await await, Call call) {
  Clock::time_point start;
  std::thread supervisor([&] {
    GatewayToken* token = await();
    start = Clock::now();
    EXPECT_EQ(all ? closeAllGatewayConnections() : closeGatewayConnection(&token), 0);
    EXPECT_LT(sinceMilliseconds(start), kNoise);
  });
  const int rc = call();
  const Clock::time_point end = Clock::now();
  supervisor.join();
  EXPECT_LT((end - start) / std::chrono::milliseconds(1), kNoise);
  return rc;
}

TEST_F(Cancelling, wakesAQueryAtOnceAndSendsNothing) {
  const Row rows[] = {
      {"opening", Script(kOpened).expect().silence()},
      {"answer", Script(kAsked).silence()},
      {"data", Script(kAsked).reply(zebsim::replyHeader("Admin", 0, 100)).silence()},
  };
  for (const Row& row : rows) {
    for (const int limit : {0, kNever}) {
      for (const bool all : {false, true}) {
        SCOPED_TRACE(formatText("%s, timeout %d, all %d", row.what, limit, all));
        const ScriptedGateway gateway(row.script);
        EXPECT_EQ(setAPITimeout(limit), 0);
        GatewayToken* token = nullptr;
        ASSERT_EQ(openOn(gateway.port(), &token), 0);
        const auto await = [&] {
          gateway.awaitSilence();
          return token;
        };
        EXPECT_EQ(cancelled(all, await, [&] { return query(token); }), ZEB_CONNECTION_LOST);
        EXPECT_EQ(query(token), ZEB_TOKEN_UNKNOWN);
      }
    }
  }
}

// The connection that a dump names, as soon as it names the descriptor of one.
GatewayToken* awaitDescriptor() {
  static const std::regex entry(R"(GatwayToken\((0x[0-9a-f]+)\).* socket\((\d+)\))");
  TraceCapture trace(0);
  for (std::smatch found;; trace.restart()) {
    EXPECT_EQ(dumpState(), 0);
    const std::string text = trace.text();
    if (!std::regex_search(text, found, entry)) continue;
    sockaddr_in peer = {};
    socklen_t size = sizeof peer;
    const int rc = getsockname(std::stoi(found[2]), reinterpret_cast<sockaddr*>(&peer), &size);
    EXPECT_EQ(rc, 0) << text;
    return reinterpret_cast<GatewayToken*>(std::stoull(found[1], nullptr, 16));
  }
}

TEST_F(Cancelling, wakesAnOpenAtOnceWhoseDescriptorADumpNames) {
  const FullListener full;
  const Script silent[] = {Script().expect().silence(),
                           Script().answerConnect().answerOpening().expect().silence()};
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(round);
    std::unique_ptr<ScriptedGateway> gateway;  // none: the connect hangs
    if (round % 3 != 2) gateway = std::make_unique<ScriptedGateway>(silent[round % 3]);
    EXPECT_EQ(setAPITimeout(round < 6 ? 0 : kNever), 0);
    const auto await = [&] {
      if (gateway != nullptr) gateway->awaitSilence();
      return awaitDescriptor();
    };
    GatewayToken* token = nullptr;
    const int port = gateway != nullptr ? gateway->port() : full.port;
    EXPECT_EQ(cancelled(round % 2 == 1, await, [&] { return openOn(port, &token); }), ZEB_TOKEN_UNKNOWN);
    EXPECT_EQ(token, nullptr);
  }
}

TEST_F(Cancelling, letsASupervisorFreeEveryPoller) {
  GatewayServer good;
  std::deque<ScriptedGateway> silent;
  std::deque<std::atomic<GatewayToken*>> tokens;
  std::vector<std::thread> pollers;
  for (int i = 0; i < 4; ++i) {
    pollers.emplace_back([&good, port = silent.emplace_back(Script(kAsked).silence()).port(),
                          &published = tokens.emplace_back(nullptr)] {
      GatewayToken* own = nullptr;
      ASSERT_EQ(openOn(port, &own), 0);
      published = own;
      EXPECT_EQ(query(own), ZEB_CONNECTION_LOST);
      const Connection next(good.port());
      EXPECT_EQ(query(next.token), 0);
    });
  }
  for (std::size_t i = 0; i < pollers.size(); ++i) {
    silent[i].awaitSilence();
    EXPECT_EQ(atOnce([&] { return closeCopy(tokens[i]); }), 0);
    pollers[i].join();
  }
}

// ---- Removals --------------------------------------------------------------------------------------------------

TEST_F(Connections, thatAreLostAreRemovedAtOnceWithTheLinesOfAClose) {
  const Row rows[] = {
      {"gone", Script(kAsked).reply(reply("Admin", "", 0xF004)).silence(), ZEB_CONNECTION_LOST},
      {"out of step", Script(kAsked).reply(reply("Admins", "")).silence(), ZEB_CONNECTION_LOST},
      {"cut short", Script(kAsked).reply("Gate").halfClose().silence(), ZEB_CONNECTION_LOST},
      {"not opened", Script().answer(reply("Admin", "")).silence(), ZEB_CONNECT_FAILED},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const ScriptedGateway gateway(row.script);
    const TraceCapture trace(3);
    GatewayToken* token = nullptr;
    EXPECT_EQ(atOnce([&] {
                const int rc = openOn(gateway.port(), &token);
                return rc == 0 ? query(token) : rc;
              }),
              row.rc);
    const std::string story = trace.story();
    for (const char* line :
         {"EXIT   stapi_zeb_socketcomms.flowCloseRequest(", "EXIT   stapi_zeb_gwycon.closeConnection("})
      EXPECT_NE(story.find(line), story.npos) << line;
  }
}

TEST_F(Connections, thatCloseSlowlyHoldUpOnlyTheClosingThread) {
  GatewayServer good;
  for (const bool all : {false, true}) {
    SCOPED_TRACE(all);
    auto silent = std::make_unique<ScriptedGateway>(Script(kOpened).expect().ignoreAll());
    std::thread closer([&, port = silent->port()] {
      GatewayToken* token = nullptr;
      ASSERT_EQ(openOn(port, &token), 0);
      EXPECT_EQ(all ? closeAllGatewayConnections() : closeGatewayConnection(&token), 0);
    });
    silent->awaitSilence();
    EXPECT_EQ(atOnce([&] {
                const Connection other(good.port());
                EXPECT_EQ(query(other.token), 0);
                return dumpState();
              }),
              0);
    silent.reset();
    closer.join();
  }
}

// ---- Old handles -----------------------------------------------------------------------------------------------

void expectStale(GatewayToken* token, ResultSetToken* answer) {
  ResultSetToken* other = nullptr;
  ResultSetToken* copy = nullptr;
  char* text = nullptr;
  StatData stat;
  IdData id;
  for (std::size_t which = 0; which < 6; ++which) EXPECT_EQ(ask(which, token, &other), ZEB_TOKEN_UNKNOWN);
  EXPECT_EQ(closeCopy(token), ZEB_TOKEN_UNKNOWN);
  const int codes[] = {getFirstStat(answer, &stat), getNextStat(answer, &stat), getFirstId(answer, &id),
                       getNextId(answer, &id),      dumpResultSet(answer),      copyResultSet(answer, &copy),
                       getIdQuery(answer, &text),   freeResultSet(&answer)};
  for (const int code : codes) EXPECT_EQ(code, ZEB_NO_RESULT_SET_BUFFER) << &code - codes;
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
    const auto close = [&] {
      start.arrive_and_wait();
      return closeCopy(token);
    };
    int otherRc = 0;
    std::thread other([&] { otherRc = close(); });
    const int rc = close();
    other.join();
    ASSERT_EQ(std::minmax(rc, otherRc), std::minmax<int>(ZEB_TOKEN_UNKNOWN, 0)) << round;
  }
}

// ---- How many there may be -------------------------------------------------------------------------------------

TEST_F(Connections, beyond256AreRefusedBeforeTheyConnect) {
  GatewayServer server;
  const Listener untouched;
  std::vector<GatewayToken*> tokens(256);
  for (GatewayToken*& token : tokens) ASSERT_EQ(openOn(server.port(), &token), 0);
  GatewayToken* token = nullptr;
  EXPECT_EQ(openOn(untouched.port, &token), ZEB_TOKEN_LIST_CORRUPT);
  EXPECT_FALSE(untouched.hasClient());
  EXPECT_EQ(closeGatewayConnection(&tokens[100]), 0);
  EXPECT_EQ(openOn(server.port(), &tokens[100]), 0);
  EXPECT_EQ(query(tokens[100]), 0);
  for (GatewayToken*& open : tokens) EXPECT_EQ(closeGatewayConnection(&open), 0);
}

TEST_F(Connections, of300AtATimeLeaveNothingHoweverOftenTheyAreOpened) {
  GatewayServer server;
  for (int peak = 0; peak < 8; ++peak) {
    std::vector<GatewayToken*> tokens(300);
    for (std::size_t i = 0; i < tokens.size(); ++i)
      ASSERT_EQ(openOn(server.port(), &tokens[i]), i < 256 ? 0 : ZEB_TOKEN_LIST_CORRUPT) << i;
    tokens.resize(256);
    for (GatewayToken*& token : tokens) ASSERT_EQ(closeGatewayConnection(&token), 0);
  }
  const Connection last(server.port());
  EXPECT_EQ(query(last.token), 0);
}

// ---- Replies that nobody asked for -----------------------------------------------------------------------------

TEST_F(Connections, outOfStepAreLostBeforeTheNextQuestion) {
  const Bytes answer = reply("Admin", zebsim::callData(zebsim::kInvoke, kNothing));
  const Row rows[] = {
      {"two answers", Script(kAsked).reply(answer + answer).silence()},
      {"end", Script(kAsked).reply(answer).halfClose().silence()},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const ScriptedGateway gateway(row.script);
    GatewayToken* token = nullptr;
    ASSERT_EQ(openOn(gateway.port(), &token), 0);
    ASSERT_EQ(query(token), 0);
    gateway.awaitSilence();
    const TraceCapture trace(1);
    EXPECT_EQ(atOnce([&] { return query(token); }), ZEB_CONNECTION_LOST);
    EXPECT_NE(trace.story().find("*EXC*"), std::string::npos);
    EXPECT_EQ(query(token), ZEB_TOKEN_UNKNOWN);
  }
}

long peakMemoryInKilobytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmPeak:")) return std::stol(line.substr(7));
  return 0;
}

TEST_F(Connections, whoseReplyAnnouncesMoreThan16MiBAreRemovedUnread) {
  for (const std::size_t size : {(16UL << 20) + 1, 1UL << 30, 0x7FFFFFFFUL}) {
    SCOPED_TRACE(size);
    const ScriptedGateway gateway(Script(kAsked).reply(zebsim::replyHeader("Admin", 0, size)).silence());
    GatewayToken* token = nullptr;
    ASSERT_EQ(openOn(gateway.port(), &token), 0);
    const long before = peakMemoryInKilobytes();
    EXPECT_EQ(atOnce([&] { return query(token); }), ZEB_COMMUNICATION_FAILED);
    EXPECT_LT(peakMemoryInKilobytes() - before, 15 << 10);
  }
}

}  // namespace
}  // namespace zebtest
