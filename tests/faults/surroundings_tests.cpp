// Whole sessions in a hostile process: signals, few or odd descriptors, forks, a trace that goes
// nowhere.
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <functional>
#include <regex>

#include "client_session.h"

namespace {

using namespace zebtest;

std::string differ(const std::string& told, const std::string& expected) {
  return told == expected ? "" : " tells " + told + "\ninstead of " + expected;
}

class Surroundings : public testing::Test {
 protected:
  void SetUp() override {
    expected = inChild([&] { return tellSession(gateway.port()); });
    ASSERT_TRUE(expected.ends_with("\nclose 0")) << expected;
  }
  // A point: a session, in a child process that prepare has made hostile.
  void tryAfter(Row& row, const std::string& name, const std::string& wanted,
                const std::function<void()>& prepare) const {
    const auto tell = [&] {
      prepare();
      return tellSession(gateway.port());
    };
    row.add(name, differ(inChild(tell), wanted));
  }
  GatewayProcess gateway;
  std::string expected;
};

volatile std::sig_atomic_t signals = 0;

void countSignals(int signal, int flags) {
  struct sigaction action = {};
  action.sa_handler = [](int) { signals = signals + 1; };
  action.sa_flags = flags;
  sigaction(signal, &action, nullptr);
  signals = 0;
}

// As expected, up to a call that a signal has ended with a code documented for that.
TEST_F(Surroundings, aSignalEndsACallWithADocumentedCodeOrNotAtAll) {
  static const std::regex ending("(^open -1(18|02)|\nget[A-Za-z]+ -102);\nclose 0$");
  Row row("F9");
  const TemporaryFile trace;
  ASSERT_EQ(setAPITraceFile(trace.path().c_str()), 0);
  for (const int flags : {0, SA_RESTART}) {
    countSignals(SIGALRM, flags);
    const itimerval often = {{0, 1000}, {0, 1000}}, never = {};
    setitimer(ITIMER_REAL, &often, nullptr);
    while (signals < 1000) {
      const std::string told = tellSession(gateway.port());
      std::smatch failed;
      const bool isCut =
          std::regex_search(told, failed, ending) && expected.starts_with(failed.prefix().str());
      row.add("1 kHz", isCut ? "" : differ(told, expected));
    }
    setitimer(ITIMER_REAL, &never, nullptr);
  }
  setAPITraceFile(nullptr);
}

TEST_F(Surroundings, aBrokenPipeReachesNoHandlerAndChangesNoMask) {
  Row row("F9");
  sigset_t before, after;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  for (const bool isHandled : {false, true}) {
    signal(SIGPIPE, SIG_DFL);
    if (isHandled) countSignals(SIGPIPE, 0);
    Session s = {.port = gateway.port()};
    ASSERT_EQ(s.open(), 0);
    shutdown(s.token->socket, SHUT_WR);  // the next send breaks the pipe
    EXPECT_EQ(getStats(s.token, &s.answer), ZEB_CONNECTION_LOST);
    s.token = nullptr;  // the failure has removed it
    s.release();
    raise(isHandled ? SIGPIPE : 0);
    row.add("handler's calls", isHandled && signals != 1 ? formatText(" %d", signals + 0) : "");
  }
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int number = 1; number < SIGRTMAX; ++number)
    EXPECT_EQ(sigismember(&before, number), sigismember(&after, number)) << number;
}

// Takes all descriptors below this one, and returns the first that is free.
int takeDescriptors(int below) {
  int taken = dup(2);
  while (taken >= 0 && taken < below) taken = dup(2);
  close(taken);
  return taken;
}

TEST_F(Surroundings, descriptorsMayBeHighFewOrTheStandardOnes) {
  Row row("F10");
  tryAfter(row, "all below 1100 taken", expected, [] { takeDescriptors(1100); });
  for (const int free : {0, 1, 2}) {
    const auto leave = [free] {
      const rlimit limits = {static_cast<rlim_t>(takeDescriptors(0) + free), 2000};
      setrlimit(RLIMIT_NOFILE, &limits);
    };
    tryAfter(row, formatText("%d descriptors left", free),
             free > 0 ? expected : "open -118;\nclose 0", leave);
    const auto openTrace = [&] {
      leave();
      return std::to_string(setAPITraceFile("/proc/self/fd/2"));
    };
    row.add(formatText("%d descriptors left for the trace", free),
            differ(inChild(openTrace), free > 0 ? "0" : "-130"));
  }
  for (int closed = 1; closed < 8; ++closed) {
    for (const int level : {0, 5}) {
      const auto tell = [&] {
        for (const int descriptor : {0, 1, 2}) {
          if ((closed >> descriptor & 1) != 0) close(descriptor);
        }
        setAPITraceLevel(level);
        std::array<Session, 3> others;
        for (Session& other : others) {
          other.port = gateway.port();
          other.open();
        }
        std::string told = tellSession(gateway.port());
        for (Session& other : others) told += formatText("%d", other.release());
        return told;
      };
      row.add(formatText("standard descriptors of the set %d closed, level %d", closed, level),
              differ(inChild(tell), expected + "000"));
    }
  }
}

pid_t cloneRaw() {
#if defined(__s390x__)  // the stack comes first
  return static_cast<pid_t>(syscall(SYS_clone, 0, SIGCHLD, 0, 0, 0));
#else
  return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
#endif
}

TEST_F(Surroundings, aChildMayNotUseItsParentsConnectionAndLeavesItWhole) {
  Row row("F12");
  Session s = {.port = gateway.port()};
  ASSERT_EQ(s.open(), 0);
  ASSERT_EQ(getStats(s.token, &s.answer), 0);
  const std::string told = s.tell();
  const auto useAll = [&] {
    std::string codes;
    for (const Query& query : kQueries) codes += formatText("%d ", query.ask(s));
    codes += tellAnswer(s.answer);
    return codes + formatText("%d %d %d ", copyResultSet(s.answer, &s.copy),
                              dumpResultSet(s.answer), getIdQuery(s.answer, &s.text));
  };
  // A child's closes only forget the connection: the gateway and the parent notice nothing.
  const auto forget = [&] {
    GatewayToken* token = s.token;
    const int first = closeGatewayConnection(&token);
    return formatText("%d %d ", first, closeGatewayConnection(&s.token));
  };
  const auto forgetAll = [&] {
    const int first = closeAllGatewayConnections();
    return formatText("%d %d ", first, closeGatewayConnection(&s.token));
  };
  const std::array<std::pair<std::function<std::string()>, const char*>, 3> children = {
      {{useAll, "-123 -123 -123 -123 -123 -123 -123;-123 -123 -123 "},
       {forget, "0 -101 "},
       {forgetAll, "0 -101 "}}};
  for (pid_t (*spawn)() : {static_cast<pid_t (*)()>(fork), &cloneRaw}) {
    if (kHasThreadSanitizer && spawn == &cloneRaw) {
      printf("skipped: raw clone, whose child the thread sanitizer does not know\n");
      continue;
    }
    for (const auto& [work, codes] : children) {
      const auto tell = [&, &work = work] { return work() + tellSession(gateway.port()); };
      row.add("child", differ(inChild(tell, spawn), codes + expected));
      row.add("its parent",
              getStats(s.token, &s.answer) == 0 ? differ(s.tell(), told) : " has lost it");
    }
  }
  EXPECT_EQ(s.release(), 0);
}

TEST_F(Surroundings, aTraceThatGoesNowhereChangesNoCode) {
  Row row("F15");
  const auto traceTo = [](const char* path) {
    setAPITraceFile(path);
    setAPITraceLevel(5);
  };
  tryAfter(row, "full disk", expected, [&] { traceTo("/dev/full"); });
  tryAfter(row, "deleted file", expected, [&] { traceTo(TemporaryFile().path().c_str()); });
  tryAfter(row, "closed standard error", expected, [] {
    close(2);
    setAPITraceLevel(5);
  });
}

}  // namespace
