// Many threads at once: first calls that race to initialise the library, and connections side by
// side while another thread dumps the state and moves the trace; and the locks. The thread
// sanitiser's build runs the same tests.

#include <latch>

#include "public_calls.h"
#include "scripted_gateway.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_lock.h"
#include "trace_capture.h"

namespace {

using namespace zebtest;

// A message has one prefix, at its start; a line of a dump has its text in column 50; what is
// printed without a prefix has none inside.
bool isWhole(const std::string& line) {
  const std::size_t at = line.find(" [0x");
  if (at == line.npos) return !line.starts_with("0x") || line.substr(47, 3) == " : ";
  int end = 0;
  sscanf(line.c_str(), "%*2d/%*2d/%*2d %*2d:%*2d:%*2d:%*3d [0x%*8X,0x%*8X] [%*4d%n", &end);
  return end == 51 && line.find(" [0x", at + 1) == line.npos && line.find(" : ZEB") == line.npos;
}

void expectWholeLines(const std::string& text, std::size_t least) {
  EXPECT_TRUE(text.ends_with('\n'));
  const std::vector<std::string> lines = splitLines(text);
  EXPECT_GT(lines.size(), least);
  for (const std::string& line : lines) ASSERT_TRUE(isWhole(line)) << line;
}

// Makes each call in a thread of its own, in a process that has made no call yet. A second
// initialisation would undo what the first callers set: the level, the destination.
bool raceFirstCalls(const char* traceFile) {
  std::latch start(std::size(kPublicCalls));
  std::atomic<bool> isWell = isLockInitialized(&traceLock) == 0;
  std::vector<std::thread> threads;
  for (const PublicCall& call : kPublicCalls) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      if (!isDocumented(call, call.make({.path = traceFile, .number = 5}))) isWell = false;
    });
  }
  for (std::thread& thread : threads) thread.join();
  return isWell && statAPITrace == 5 && std::strcmp(statAPITraceFilename, traceFile) == 0 &&
         statAPITraceHandle != stderr;
}

TEST(Threads, FirstCallsOfAllAtOnceInitialiseTheLibraryOnce) {
  if (isLockInitialized(&traceLock) != 0)
    GTEST_SKIP() << "needs a process that has not used the library yet";
  const TemporaryFile file;
  for (int round = 0; round < 100; ++round)
    ASSERT_EXIT(_exit(raceFirstCalls(file.path().c_str()) ? 0 : 1), testing::ExitedWithCode(0), "");
  expectWholeLines(file.text(), 100);
  printf("EVIDENCE F11 points=100 failures=%d\n", HasFailure());
}

constexpr int kRounds = 5;

// Makes each call on connections of its own, all of them in the thread that opened them.
void useConnections(int port) {
  for (int round = 0; round < kRounds; ++round) {
    Variables variables;
    for (const PublicCall& call : kPublicCalls) {
      if (call.kind == Kind::kOther || call.kind == Kind::kCloseAll) continue;
      EXPECT_TRUE(call.kind != Kind::kFree || variables.text == std::string("GD_A:GD_B"));
      EXPECT_EQ(variables.make(call, port), 0) << call.name;
      if (call.kind == Kind::kOpen) std::free(variables.text);
    }
    EXPECT_EQ(closeGatewayConnection(&variables.token), 0);
  }
}

TEST(Threads, ConnectionsOfEightTearNoTraceLineWhileANinthDumpsAndSwitches) {
  using namespace zebsim;
  GatewayServer server;
  const Stats stats = {{"GD_A", "1"}, {"GD_B", "two"}};
  server.setAnswer("GET_STATS", encodeAnswer({false, {{"", 0, stats, {}}}}));
  for (const char* target : {"STAT_IDS", "RESOURCE_GROUPS"})
    server.setAnswer(target, encodeAnswer({false, {{"", 0, Ids{"GD_A", "GD_B"}, {}}}}));
  const TraceCapture trace(5);
  const TemporaryFile other;
  std::atomic<int> running = 8;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      useConnections(server.port());
      --running;
    });
  }
  for (int turn = 1; running > 0 && turn < 100; ++turn) {
    EXPECT_EQ(setAPITraceFile((turn % 2 == 0 ? trace.path() : other.path()).c_str()), 0);
    EXPECT_EQ(setAPITraceLevel(turn % 5), 0);
    EXPECT_EQ(setAPITraceLevel(5), 0);
    EXPECT_EQ(dumpState(), 0);
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(setAPITraceLevel(0), 0);
  for (const std::string& text : {trace.text(), other.text()}) expectWholeLines(text, 1000);
  printf("EVIDENCE F11 points=%d failures=%d\n", 8 * kRounds, HasFailure());
}

TEST(Lock, HasACodeForEachMisuse) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "misuses a mutex on purpose";
#endif
  LockRecord lock = {};
  std::vector<int> codes;
  for (const auto call : {requestLock, releaseLock, destroyLock, initializeLock, initializeLock})
    codes.push_back(call(&lock));
  lock.mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
  for (const auto call :
       {requestLock, requestLock, destroyLock, releaseLock, releaseLock, destroyLock, requestLock})
    codes.push_back(call(&lock));
  EXPECT_EQ(codes, (std::vector{-1, -1, -1, 0, 1, 0, -4, -4, 0, -5, 0, -1}));
}

}  // namespace
