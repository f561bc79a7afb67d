// Many threads at once: first calls that race to initialise the library, and connections side by
// side while another thread dumps the state and moves the trace. The thread sanitiser's build runs
// the same tests.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <latch>
#include <regex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "gateway_encoder.h"
#include "gateway_server.h"
#include "scripted_gateway.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_lock.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace {

using zebsim::GatewayServer;
using zebtest::hasShape;
using zebtest::TemporaryFile;

// ---- Is this a whole line of a trace? -----------------------------------------------------------

constexpr std::string_view kPrefixShape = "99/99/99 99:99:99:999 [0xFFFFFFFF,0xFFFFFFFF] [9999] ";

bool isMessageLine(std::string_view line) {
  if (!hasShape(line, kPrefixShape)) return false;
  line.remove_prefix(kPrefixShape.size());
  constexpr std::string_view words[] = {"ENTRY  ", "EXIT   ", "DEBUG  ",
                                        "DATA   ", "EVENT  ", "*EXC*  "};
  if (std::none_of(std::begin(words), std::end(words),
                   [&](auto word) { return line.starts_with(word); }))
    return false;
  line.remove_prefix(words[0].size());
  if (!line.starts_with("API.") && !line.starts_with("stapi_zeb_")) return false;
  // Another line's beginning inside of this one.
  for (std::size_t at = 0; (at = line.find(" [0x", at)) != line.npos; ++at)
    if (hasShape(line.substr(at), kPrefixShape.substr(kPrefixShape.find(" [")))) return false;
  return line.find("] ENTRY ") == line.npos && line.find(" : ZEB") == line.npos;
}

// "0xFFFFFFFF: ", 35 columns of pairs and blanks, " : ", up to 16 characters; a full line ends in a
// blank.
bool isDumpLine(std::string_view line) {
  constexpr std::size_t hexAt = 12, textAt = hexAt + 35 + 3;
  return hasShape(line, "0xFFFFFFFF: ") &&
         line.find_first_not_of("0123456789ABCDEF ", hexAt) == textAt - 2 &&
         line.substr(textAt - 3).starts_with(" : ") &&
         (line.size() < textAt + 16 || (line.size() == textAt + 17 && line.ends_with(' ')));
}

bool isOtherLine(const std::string& line) {
  static const std::regex known(
      "-{80}|"
      R"(\*\*\* \d\d/\d\d/\d\d KRO Velora ZEBSTATS DLL trace V8\.0\.0\.1 API V1_1_0_1 Build Level b800-20101014 \*\*\*|)"
      R"(zebstats state dump: API Version=1_1_0_1 Trace Level=[0-5] statAPITraceFile=[\w./]+|)"
      "Gateway Token List dump|The Gateway Token List is EMPTY|"
      R"(Gateway Token List entry -\d{4}- : GatwayToken\(0x\w+\) eyecatcher\(ZEBGWTOK\) port\(\d+\) connStatus\([0-4]\) )"
      R"(socket\(-?\d+\) connRSToken\(0x\w+\) resultSetBuf\(0x\w+\) owningPid\([0-9A-F]{8}\) owningTid\([0-9A-F]{8}\) )"
      R"(nextGwyTokPtr\((0x\w+|\(nil\))\)|)"
      R"(Dump of ResultSet\(0x\w+\) owner\(8888\) head\(0x\w+\) next\(0x\w+\)|)"
      R"(Total number of Gateway Token List entries=\d+)");
  return std::regex_match(line, known);
}

// The lines of a file that are none of these; their number goes to count.
std::string tornLines(const std::string& path, std::size_t& count) {
  std::ifstream in(path);
  std::string torn;
  count = 0;
  for (std::string line; std::getline(in, line); ++count)
    if (in.eof() || !(isMessageLine(line) || isDumpLine(line) || isOtherLine(line)))
      torn += line + "\n";
  return torn.substr(0, 2000);
}

// ---- First calls --------------------------------------------------------------------------------

constexpr int kThreads = 16;

// What one thread's first call says, as the number of the fault or 0.
int makeFirstCall(int thread, const char* traceFile) {
  GatewayToken* token = nullptr;
  ResultSetToken* answer = nullptr;
  char* text = nullptr;
  int level = -1;
  switch (thread % 6) {
    case 0:
      return setAPITraceFile(traceFile) == 0 && setAPITraceLevel(5) == 0 ? 0 : 10;
    case 1:
      return getStatsAPIVersion(&text) == 0 && std::strcmp(text, "1_1_0_1") == 0 ? 0 : 11;
    case 2:
      return getAPITraceLevel(&level) == 0 && (level == 0 || level == 5) ? 0 : 12;
    case 3:
      return openGatewayConnection(0, &token, &text) == ZEB_PORT_INVALID ? 0 : 13;
    case 4:
      return closeAllGatewayConnections() == 0 ? 0 : 14;
    default:
      return getStats(nullptr, &answer) == ZEB_TOKEN_NULL ? 0 : 15;
  }
}

// All of them in a process that has made no call yet. A second initialisation would undo what the
// first callers set: the level, the destination.
int raceFirstCalls(const char* traceFile) {
  if (isLockInitialized(&traceLock) != 0) return 1;
  std::latch start(kThreads);
  std::atomic<int> fault = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      if (const int found = makeFirstCall(i, traceFile); found != 0) fault = found;
    });
  }
  for (std::thread& thread : threads) thread.join();
  int level = -1;
  if (getAPITraceLevel(&level) != 0 || level != 5) return 2;
  if (std::strcmp(statAPITraceFilename, traceFile) != 0 || statAPITraceHandle == stderr) return 3;
  return fault;
}

TEST(Threads, FirstCallsOf16AtOnceInitialiseTheLibraryOnce) {
  if (isLockInitialized(&traceLock) != 0)
    GTEST_SKIP() << "needs a process that has not used the library yet";
  const TemporaryFile file;
  for (int round = 0; round < 200; ++round) {
    const pid_t child = fork();
    if (child == 0) _exit(raceFirstCalls(file.path().c_str()));
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0) << "in round " << round;
  }
  std::size_t lines = 0;
  EXPECT_EQ(tornLines(file.path(), lines), "");
  EXPECT_GT(lines, 200U * 2);
  std::printf("EVIDENCE F11 points=200 failures=%d\n", HasFailure());
}

// ---- Connections side by side -------------------------------------------------------------------

// One connection and its calls, all of them in the thread that opened it.
constexpr int kRounds = 25;

void useConnection(const GatewayServer& server) {
  const zebtest::Connection connection(server.port());
  ASSERT_EQ(connection.rc, 0);
  EXPECT_EQ(connection.version, zebsim::kOwnProtocol);
  for (int i = 0; i < kRounds; ++i) {
    ResultSetToken* answer = nullptr;
    ResultSetToken* copy = nullptr;
    StatData stat;
    IdData id;
    char* query = nullptr;
    ASSERT_EQ(getStats(connection.token, &answer), 0);
    ASSERT_EQ(getFirstStat(answer, &stat), 0);
    EXPECT_EQ(std::string_view(stat.statValuePtr, static_cast<std::size_t>(stat.statValueLen)),
              "42");
    EXPECT_EQ(getNextStat(answer, &stat), ZEB_END_OF_RESULTS);
    ASSERT_EQ(getStatIdsByStatGroupId(connection.token, "GD", &answer), 0);
    ASSERT_EQ(copyResultSet(answer, &copy), 0);
    EXPECT_EQ(getFirstId(copy, &id), 0);
    ASSERT_EQ(getIdQuery(answer, &query), 0);
    EXPECT_STREQ(query, "GD_CALLS");
    EXPECT_EQ(dumpResultSet(answer), 0);
    EXPECT_EQ(freeResultSet(&copy), 0);
  }
}

TEST(Threads, ConnectionsOfEightTearNoTraceLineWhileANinthDumpsAndSwitches) {
  GatewayServer server;
  server.setAnswer("GET_STATS",
                   zebsim::encodeAnswer({false, {{"", 0, zebsim::Stats{{"GD_CALLS", "42"}}, {}}}}));
  server.setAnswer("STAT_IDS",
                   zebsim::encodeAnswer({false, {{"GD", 0, zebsim::Ids{"GD_CALLS"}, {}}}}));
  const TemporaryFile first;
  const TemporaryFile second;
  ASSERT_EQ(setAPITraceFile(first.path().c_str()), 0);
  ASSERT_EQ(setAPITraceLevel(5), 0);
  std::atomic<int> running = 8;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      useConnection(server);
      --running;
    });
  }
  int turns = 0;
  for (; running > 0 && turns < 300; ++turns) {
    EXPECT_EQ(setAPITraceFile((turns % 2 == 0 ? second : first).path().c_str()), 0);
    EXPECT_EQ(setAPITraceLevel(turns % 5), 0);
    EXPECT_EQ(setAPITraceLevel(5), 0);
    EXPECT_EQ(dumpState(), 0);
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(setAPITraceLevel(0), 0);
  EXPECT_EQ(setAPITraceFile(nullptr), 0);
  EXPECT_GT(turns, 10);
  for (const TemporaryFile* file : {&first, &second}) {
    std::size_t lines = 0;
    EXPECT_EQ(tornLines(file->path(), lines), "");
    EXPECT_GT(lines, 5000U);
  }
  std::printf("EVIDENCE F11 points=%d failures=%d\n", 8 * kRounds, HasFailure());
}

}  // namespace
