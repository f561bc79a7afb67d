// The library as a guest in its host's process: nothing that it does is felt outside of its calls.
// Each story runs in a child process that an alarm ends, so that a hang or a crash is a failure of
// that story alone.
#include <dlfcn.h>
#include <malloc.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <functional>
#include <future>
#include <latch>

#include "client_session.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwytok.h"

namespace {

using namespace zebtest;
using Work = std::function<void()>;

std::atomic<const Work*> duringNextSend = nullptr;

// Its expectations that fail are printed there, and are the complaint that this returns.
std::string expectInChild(const Work& work, pid_t (*spawn)() = fork) {
  const auto tell = [&]() noexcept {
    alarm(240);
    work();
    return std::string(testing::Test::HasFailure() ? " see above" : "");
  };
  return inChild(tell, spawn);
}

// Each story is a point of this row of the evidence.
template <int kRow>
class Host : public testing::Test {
 protected:
  void prove(const std::string& point, const Work& work, pid_t (*spawn)() = fork) {
    row.add(point, expectInChild(work, spawn));
  }
  void expectSession() const { EXPECT_EQ(tellSession(port), expected); }
  void repeatQueries(int rounds) const {
    Session s(port);
    EXPECT_EQ(s.open(), 0);
    for (int i = 0; i < rounds; ++i) EXPECT_EQ(getStats(s.token, &s.answer), 0);
    EXPECT_EQ(s.release(), 0);
  }
  GatewayProcess gateway;
  const int port = gateway.port();
  const std::string expected = inChild([this] { return tellSession(port); });
  const TemporaryFile file;
  Row row{formatText("F%d", kRow)};
};
using HostProcess = Host<18>;

// ---- Signals ------------------------------------------------------------------------------------

using HostSignals = Host<9>;

// With that handler, a signal that reaches the host ends the process.
struct sigaction hostAction = {};
void setHostAction(void (*handler)(int), int flags) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigaddset(&action.sa_mask, SIGUSR2);
  sigaction(SIGPIPE, &action, nullptr);
  sigaction(SIGPIPE, nullptr, &hostAction);
}
void setHostAction() {
  setHostAction([](int) { std::abort(); }, SA_RESTART);
}
void expectHostAction() {
  struct sigaction found = {};
  sigaction(SIGPIPE, nullptr, &found);
  EXPECT_TRUE(found.sa_handler == hostAction.sa_handler && found.sa_flags == hostAction.sa_flags &&
              sigismember(&found.sa_mask, SIGUSR2) == 1);
}

TEST_F(HostSignals, LeaveItsSigpipeHandlerInPlaceAndUncalled) {
  prove("a broken pipe", [&] {
    Session s(port);
    EXPECT_EQ(s.open(), 0);
    shutdown(s.token->socket, SHUT_WR);
    setHostAction();
    EXPECT_EQ(getStats(s.token, &s.answer), ZEB_CONNECTION_LOST);
    expectHostAction();
  });
  prove("a send that begins in another and ends after it", [&] {
    std::promise<void> begun, ended;
    std::thread second;
    const Work inSecond = [&] { begun.set_value(), ended.get_future().wait(); };
    const Work inFirst = [&] {
      duringNextSend = &inSecond;
      second = std::thread([&] { repeatQueries(1); });
      begun.get_future().wait();
      EXPECT_EQ(expectInChild(expectHostAction), "");
    };
    setHostAction();
    duringNextSend = &inFirst;
    repeatQueries(1);
    ended.set_value();
    second.join();
    expectHostAction();
  });
  prove("a change by the host", [&] {
    const Work handle = [] { setHostAction(); };
    const Work ignore = [] { setHostAction(SIG_IGN, SA_NODEFER | SA_ONSTACK | SA_RESTART); };
    for (const Work* change : {&handle, &ignore}) {
#if defined(__SANITIZE_THREAD__)
      if (change == &ignore)
        continue;  // it fills every mask, so that this looks like the library's
#endif
      duringNextSend = change;
      repeatQueries(2);
      expectHostAction();
    }
  });
}

TEST_F(HostSignals, EndNoCallThatHasATimeout) {
  static std::atomic<int> signals = 0;
  std::signal(SIGALRM, [](int) { ++signals; });
  ASSERT_EQ(setAPITimeout(60000) | setAPITraceFile("/dev/null"), 0);
  ualarm(1000, 1000);
  while (signals < 1000) row.add("a session", tellSession(port) == expected ? "" : " is another");
  ualarm(0, 0);
}

// ---- Names, descriptors, children, unloading ----------------------------------------------------

TEST_F(HostProcess, MayDefineEveryInnerNameOfTheLibrary) {
  prove("the host of names", [&] {
    execl(ZEB_NAMES_HOST, ZEB_NAMES_HOST, std::to_string(port).c_str(), file.path().c_str(),
          nullptr);
    FAIL() << "no host";
  });
  EXPECT_NE(file.text().find("EXIT   API.closeAllGatewayConnections()"), std::string::npos);
}

using HostDescriptors = Host<10>;

TEST_F(HostDescriptors, OfTheLibraryAreNotTheStandardOnesAndCloseOnExec) {
  for (int closed = 0; closed < 8; ++closed) {
    prove(formatText("standard descriptors of the set %d closed", closed), [&] {
      for (const int descriptor : {0, 1, 2})
        if ((closed >> descriptor & 1) != 0) close(descriptor);
      const auto count = countDescriptors();
      Session s(port);
      EXPECT_EQ(initTrace() + initGTL(), 0);  // as in a start that fails half-way
      EXPECT_EQ(setAPITraceLevel(5), 0);
      EXPECT_EQ(s.open(), 0);
      EXPECT_EQ(setAPITraceFile(file.path().c_str()), 0);
      EXPECT_EQ(countDescriptors(), count + 2);
      EXPECT_TRUE(s.token->socket > 2 && fileno(statAPITraceHandle) > 2);
      for (const int descriptor : {s.token->socket, fileno(statAPITraceHandle)})
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
      expectSession();
    });
  }
}

TEST_F(HostDescriptors, MayBeHighOrFew) {
  prove("all below 1100 taken", [&] {
    while (dup(2) < 1099) continue;
    expectSession();
  });
  for (const int free : {0, 1, 2}) {
    prove(formatText("%d descriptors left", free), [&] {
      const rlimit limits = {static_cast<rlim_t>(dup(2) + 1 + free), 2000};
      setrlimit(RLIMIT_NOFILE, &limits);
      const std::string told = tellSession(port);
      EXPECT_TRUE(free > 0 ? told == expected : told.starts_with("open -118;")) << told;
      EXPECT_EQ(setAPITraceFile("/proc/self/fd/2"), free > 0 ? 0 : ZEB_TRACE_FILE_FAILED);
    });
  }
}

using HostForks = Host<12>;

// A child may not use its parent's connection, and its closes only forget that: the gateway and the
// parent notice nothing. _Fork calls no handler of a fork.
TEST_F(HostForks, LeaveTheParentItsConnections) {
  Session s(port);
  ASSERT_EQ(s.open(), 0);
  ASSERT_EQ(getStats(s.token, &s.answer), 0);
  for (pid_t (*spawn)() : {fork, _Fork}) {
    for (const bool all : {false, true}) {
      const Work useAndForget = [&] {
        for (const PublicCall& query : kQueries) EXPECT_EQ(s.make(query), ZEB_OTHER_PROCESS);
        EXPECT_EQ(s.tell(), "-123");
        GatewayToken* token = s.token;
        EXPECT_EQ(all ? closeAllGatewayConnections() : closeGatewayConnection(&token), 0);
        EXPECT_EQ(closeGatewayConnection(&s.token), ZEB_TOKEN_UNKNOWN);
        expectSession();
      };
      prove("child", useAndForget, spawn);
      EXPECT_EQ(getStats(s.token, &s.answer), 0);
    }
  }
  EXPECT_EQ(s.release(), 0);
}

TEST_F(HostForks, ForgetAConnectionThatACallOfTheParentIsUsing) {
  prove("close-all in a child", [&] {
    const Work closeAll = [] {
      const auto count = countDescriptors();
      EXPECT_EQ(closeAllGatewayConnections(), 0);
      EXPECT_EQ(countDescriptors(), count - 1);
    };
    const Work fork = [&] { EXPECT_EQ(expectInChild(closeAll), ""); };
    Session s(port);
    EXPECT_EQ(s.open(), 0);
    duringNextSend = &fork;
    EXPECT_EQ(getStats(s.token, &s.answer), 0);
    EXPECT_EQ(s.release(), 0);
  });
}

TEST_F(HostForks, AmidTracesAndOpensLeaveNoChildThatHangs) {
  prove("100 forks", [&] {
    const Work query = [&] { repeatQueries(1); };
    const Work trace = [] {
      setAPITraceFile("/dev/null");
      setAPITraceLevel(5);
      dumpState();
    };
    const auto repeat = [](const Work& work) {
      return std::jthread([work](const std::stop_token& end) {
        while (!end.stop_requested()) work();
      });
    };
    const Work resolve = [] {
      addrinfo hints = {}, *found = nullptr;
      hints.ai_flags = AI_ADDRCONFIG;
      if (getaddrinfo("localhost", "1", &hints, &found) == 0) freeaddrinfo(found);
    };
    trace();
    const std::jthread threads[] = {repeat(query), repeat(query), repeat(trace), repeat(resolve)};
    for (int i = 0; i < 100 && !HasFailure(); ++i)
      EXPECT_EQ(expectInChild([&] { dumpState(), query(); }), "") << i;
  });
}

// A session of the library as the dynamic loader finds it.
void runLoadedSession(void* library, int port) {
#define LOADED(name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))
  Session s(port);
  EXPECT_EQ(LOADED(setAPITraceFile)("/dev/null"), 0);
  EXPECT_EQ(LOADED(setAPITraceLevel)(5), 0);
  EXPECT_EQ(LOADED(openGatewayConnection)(port, &s.token, &s.version), 0);
  EXPECT_EQ(LOADED(closeGatewayConnection)(&s.token), 0);
  std::free(s.version);
}

TEST_F(HostProcess, IsLeftAsItWasWhenTheLibraryIsUnloaded) {
  prove("cycles of loading and unloading", [&] {
    constexpr int kCycles = 1000, kWarmUp = 20;
    // 0 under the address sanitiser, whose heap is another.
    const auto countHeldBytes = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
    const auto descriptors = countDescriptors();
    std::size_t held = 0;
    for (int i = 0; i < kCycles + kWarmUp && !HasFailure(); ++i) {
      if (i == kWarmUp) held = countHeldBytes();
      void* const library = dlopen(ZEB_LIBRARY, RTLD_NOW | RTLD_LOCAL);
      ASSERT_NE(library, nullptr);
      std::latch used(1), unloaded(1);
      const std::jthread outliving([&] {
        runLoadedSession(library, port);
        used.count_down();
        unloaded.wait();
      });
      used.wait();
      dlclose(library);
      unloaded.count_down();
    }
    EXPECT_LT(countHeldBytes(), held + 16 * kCycles);
    EXPECT_EQ(countDescriptors(), descriptors);
    EXPECT_EQ(readFile("/proc/self/maps").find("libzebstats.so"), std::string::npos);
    EXPECT_EQ(expectInChild([] {}), "");
  });
}

// Each call in a thread with a stack of 32 KiB that is cancelled when the call begins.
TEST_F(HostProcess, KeepsItsErrnoAndACancelledThreadThroughEachCallOnASmallStack) {
  constexpr int kCanary = 4711;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  const long size = std::max(sysconf(_SC_THREAD_STACK_MIN), 32768L) * (kIsSanitized ? 16 : 1);
  ASSERT_EQ(pthread_attr_setstacksize(&attributes, static_cast<std::size_t>(size)), 0);
  const auto run = [](void* makeCalls) -> void* {
    (*static_cast<const Work*>(makeCalls))();
    pthread_testcancel();
    return nullptr;
  };
  for (const int level : {0, 5}) {
    for (const PublicCall& last : kPublicCalls) {
      prove(formatText("%s, level %d", last.name, level), [&] {
        int rc = -1, left = 0;
        const Work makeCalls = [&] {
          Variables variables;
          for (const PublicCall* call = kPublicCalls; call <= &last; ++call) {
            if (call == &last) pthread_cancel(pthread_self());
            errno = kCanary;
            rc = variables.make(*call, port, level, "/dev/full");
            left = errno;
          }
        };
        pthread_t thread = {};
        void* ending = nullptr;
        pthread_create(&thread, &attributes, run, const_cast<Work*>(&makeCalls));
        pthread_join(thread, &ending);
        EXPECT_TRUE(ending == PTHREAD_CANCELED && rc == 0 && left == kCanary) << rc << ' ' << left;
        EXPECT_EQ(closeAllGatewayConnections(), 0);
      });
    }
  }
}

// ---- Trace destinations -------------------------------------------------------------------------

using HostTrace = Host<15>;

// The thread's pending and blocked signals, and the process's pending, ignored and handled ones.
std::string describeSignals() {
  std::string text;
  for (const std::string& line : splitLines(readFile("/proc/thread-self/status")))
    if (line.starts_with("ShdPnd") || (line.starts_with("Sig") && line[3] != 'Q')) text += line;
  return text;
}

std::string readAll(int descriptor) {
  std::string text;
  std::array<char, 4096> part{};
  fcntl(descriptor, F_SETFL, O_NONBLOCK);
  for (ssize_t got; (got = read(descriptor, part.data(), part.size())) > 0;)
    text.append(part.data(), static_cast<std::size_t>(got));
  return text;
}

// Makes standard error the writing end of a pipe, and returns the other end.
int redirectStandardError() {
  int ends[2] = {-1, -1};
  EXPECT_TRUE(pipe(ends) == 0 && dup2(ends[1], 2) == 2);
  close(ends[1]);
  return ends[0];
}

TEST_F(HostTrace, LosesLinesButTheHostNeverItsLifeOrTime) {
  const TemporaryFile fifoFile;
  const char *const fifo = fifoFile.path().c_str(), *const trace = file.path().c_str();
  unlink(fifo);
  ASSERT_EQ(mkfifo(fifo, 0600), 0);
  constexpr rlimit fewBytes = {4000, RLIM_INFINITY}, unlimited = {RLIM_INFINITY, RLIM_INFINITY};
  int reader = -1;
  const auto openReader = [&](const char* path) { reader = open(path, O_RDONLY | O_NONBLOCK); };
  // What makes writes fail, and what makes them succeed again for the reader.
  const struct {
    const char* name;
    Work obstruct, relieve = {};
  } rows[] = {
      {"full disk", [] { EXPECT_EQ(setAPITraceFile("/dev/full"), 0); }},
      {"closed standard error", [] { close(2); }},
      {"standard error without reader", [] { close(redirectStandardError()); }},
      {"FIFO without reader", [&] { EXPECT_EQ(setAPITraceFile(fifo), ZEB_TRACE_FILE_FAILED); }},
      {"sleeping reader",
       [&] {
         reader = redirectStandardError();
         setAPITraceLevel(5);
         repeatQueries(200);
       },
       [] {}},
      {"FIFO whose reader goes and comes",
       [&] {
         openReader(fifo);
         EXPECT_EQ(setAPITraceFile(fifo), 0);
         close(reader);
       },
       [&] { openReader(fifo); }},
      {"file at its size limit",
       [&] {
         setrlimit(RLIMIT_FSIZE, &fewBytes);
         EXPECT_EQ(setAPITraceFile(trace), 0);
       },
       [&] {
         setrlimit(RLIMIT_FSIZE, &unlimited);
         openReader(trace);
       }},
  };
  // A traced session goes as one without trace, and leaves the host's signals as they were. A send,
  // for which SIGPIPE is ignored, takes one that is pending away, so that one is only traced over.
  enum { kNothing, kBlocked, kPending };
  sigset_t both;
  sigemptyset(&both);
  sigaddset(&both, SIGPIPE);
  sigaddset(&both, SIGXFSZ);
  for (const auto& sink : rows) {
    for (const int before : {kNothing, kBlocked, kPending}) {
      prove(formatText("%s %d", sink.name, before), [&] {
        sink.obstruct();
        if (before != kNothing) pthread_sigmask(SIG_BLOCK, &both, nullptr);
        if (before == kPending) raise(SIGPIPE), raise(SIGXFSZ);
        const std::string signals = describeSignals();
        const int flags = fcntl(2, F_GETFL);
        setAPITraceLevel(5);
        EXPECT_EQ(dumpState(), 0);
        if (before != kPending) expectSession();
        EXPECT_EQ(describeSignals(), signals);
        EXPECT_EQ(fcntl(2, F_GETFL), flags);
        if (!sink.relieve) return;
        sink.relieve();
        readAll(reader);
        dumpState();
        const std::string text = readAll(reader);
        const std::size_t at = text.find("Gateway Token List dump");
        EXPECT_TRUE(at != text.npos && text.rfind("Gateway Token List dump") == at) << text;
      });
    }
  }
}

}  // namespace

// The library's sends, for what a host does while one is under way.
extern "C" ssize_t send(int socket, const void* data, std::size_t size, int flags) {
  if (const Work* work = duringNextSend.exchange(nullptr); work != nullptr) (*work)();
  return sendto(socket, data, size, flags, nullptr, 0);
}
