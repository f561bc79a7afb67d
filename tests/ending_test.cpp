// How the programs end while threads wait for gateways. "cleaned up" is printed if the process ends
// by exit(), with its destructors.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <future>

#include <gtest/gtest.h>

#include "diagnose.h"
#include "gateway.h"
#include "process.h"
#include "scripted_gateway.h"
#include "threads.h"

namespace zebtool {
namespace {

[[noreturn]] void exitWith(int code) {
  std::atexit([] { std::fputs("cleaned up", stderr); });
  std::exit(testing::Test::HasFailure() ? EXIT_FAILURE : code);
}

void askInVain(int port) {
  Gateway gateway({"127.0.0.1", port}, 1000);
  while (!isEnding()) EXPECT_THROW(gateway.ask({}), GatewayFault);
}

// Its connection is open until the end begins.
void closeInVain(const zebtest::ScriptedGateway& gateway, std::promise<void>& isOpen) {
  zebstats::Connection connection;
  EXPECT_EQ(connection.open("127.0.0.1", gateway.port()).code(), ZEB_OK);
  isOpen.set_value();
  EXPECT_FALSE(waitForEvent(-1, 0, std::chrono::steady_clock::now() + std::chrono::hours(1)));
}

int endWhileThreadsWait() {
  setUpLibrary(1000);
  zebtest::Listener silent;
  zebtest::FullListener dropping;
  for (int port : {silent.port, dropping.port}) startThread([port] { askInVain(port); });
  startThread([&] { EXPECT_FALSE(canConnect("127.0.0.1", dropping.port, 1000)); });
  zebtest::ScriptedGateway gateway(zebtest::Script().answerOpen().expect().silence());
  std::promise<void> isOpen;
  startThread([&] { closeInVain(gateway, isOpen); });
  isOpen.get_future().wait();
  zebtest::Descriptor client(accept(silent.socket.get(), nullptr, nullptr));
  return endThreads(7);
}

TEST(Ending, WakesThreadsThatWaitForGateways) {
  EXPECT_EXIT(exitWith(endWhileThreadsWait()), testing::ExitedWithCode(7), "^cleaned up$");
}

// Otherwise a signal would end the process while the main thread writes.
TEST(Ending, LeavesSignalsToTheMainThread) {
  auto run = [] {
    sigset_t blocked = {};
    startThread([&] { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); });
    endThreads(0);
    exitWith(sigismember(&blocked, SIGTERM) == 1 ? 7 : 0);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(7), "^cleaned up$");
}

TEST(Ending, LeavesAThreadThatCannotBeWoken) {
  auto run = [] {
    startThread([] {
      for (;;) pause();
    });
    exitWith(endThreads(7));
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(7), "^$");
}

}  // namespace
}  // namespace zebtool
