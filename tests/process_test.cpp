// The library as a guest in its host's process: nothing that it does is felt outside of its calls.
// Each story runs in a child process that an alarm ends, so that a hang or a crash is a failure of
// that story alone.
#include <dlfcn.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <functional>
#include <future>

#include "client_session.h"
#include "public_calls.h"
#include "scripted_gateway.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwytok.h"

namespace {

using namespace zebtest;
using Work = std::function<void()>;

std::atomic<const Work*> duringNextSend = nullptr;

}  // namespace

// The library's sends, for what a host does while one is under way.
extern "C" ssize_t send(int socket, const void* data, std::size_t size, int flags) {
  if (const Work* work = duringNextSend.exchange(nullptr); work != nullptr) (*work)();
  return sendto(socket, data, size, flags, nullptr, 0);
}

namespace {

// Its expectations that fail are printed there, and are the complaint that this returns.
std::string expectInChild(const Work& work) {
  return inChild([&]() noexcept {
    alarm(240);
    work();
    return std::string(testing::Test::HasFailure() ? " see above" : "");
  });
}

class HostProcess : public testing::Test {
 protected:
  // A point of the evidence.
  void prove(const std::string& point, const Work& work) { row.add(point, expectInChild(work)); }
  void expectTracedSession() const {
    setAPITraceFile("/dev/null");
    setAPITraceLevel(5);
    EXPECT_EQ(tellSession(port), expected);
  }
  void repeatQueries(int rounds) const {
    Session s = {.port = port};
    EXPECT_EQ(s.open(), 0);
    for (int i = 0; i < rounds; ++i) EXPECT_EQ(getStats(s.token, &s.answer), 0);
    EXPECT_EQ(s.release(), 0);
  }
  GatewayProcess gateway;
  const int port = gateway.port();
  const std::string expected = inChild([this] { return tellSession(port); });
  const TemporaryFile file;
  Row row{"F18"};
};

struct sigaction hostAction = {};

void setHostAction() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_RESTART;
  sigaddset(&action.sa_mask, SIGUSR2);
  sigaction(SIGPIPE, &action, nullptr);
  sigaction(SIGPIPE, nullptr, &hostAction);
}

void expectHostAction() {
  struct sigaction found = {};
  sigaction(SIGPIPE, nullptr, &found);
  EXPECT_TRUE(found.sa_handler == hostAction.sa_handler && found.sa_flags == hostAction.sa_flags &&
              sigismember(&found.sa_mask, SIGUSR2) == 1);
}

TEST_F(HostProcess, KeepsItsSigpipeHandlerThroughSendsSideBySideAndInAForkedChild) {
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
    const Work change = setHostAction;
    duringNextSend = &change;
    repeatQueries(2);
    expectHostAction();
  });
}

TEST_F(HostProcess, MayDefineEveryInnerNameOfTheLibrary) {
  prove("the host of names", [&] {
    execl(ZEB_NAMES_HOST, ZEB_NAMES_HOST, std::to_string(port).c_str(), file.path().c_str(),
          nullptr);
    FAIL() << "no host";
  });
  EXPECT_NE(file.text().find("EXIT   API.closeAllGatewayConnections()"), std::string::npos);
}

TEST_F(HostProcess, HandsNoDescriptorToAProgramThatItExecutes) {
  const auto countInherited = [] {
    int count = 0;
    for (int descriptor = 0; descriptor < 2000; ++descriptor)
      count += (fcntl(descriptor, F_GETFD) + 1) % 2;  // -1: none, 1: closed by exec
    return count;
  };
  for (const int closed : {0, 1, 2}) {  // so that the library moves its socket, and its file
    prove(formatText("the first %d closed", closed), [&] {
      for (int descriptor = 0; descriptor < closed; ++descriptor) close(descriptor);
      const int inherited = countInherited();
      const auto count = countDescriptors();
      Session s = {.port = port};
      EXPECT_EQ(initTrace() + initGTL(), 0);  // as in a start that fails half-way
      EXPECT_EQ(s.open(), 0);
      EXPECT_EQ(setAPITraceFile(file.path().c_str()), 0);
      EXPECT_EQ(countDescriptors(), count + 2);
      EXPECT_GT(s.token->socket, 2);
      EXPECT_GT(fileno(statAPITraceHandle), 2);
      EXPECT_EQ(countInherited(), inherited);
    });
  }
}

TEST_F(HostProcess, ForksAmidTracesAndOpensWithoutChildrenThatHang) {
  prove("100 forks", [&] {
    setAPITraceFile("/dev/null");
    setAPITraceLevel(5);
    std::atomic<bool> isOver = false;
    const auto repeat = [&](const Work& work) {
      return std::thread([&isOver, work] {
        while (!isOver) work();
      });
    };
    const Work query = [&] { repeatQueries(1); };
    std::thread threads[] = {repeat(query), repeat(query), repeat([] {
                               dumpState(), setAPITraceFile("/dev/null"), setAPITraceLevel(5);
                             })};
    for (int i = 0; i < 100 && !HasFailure(); ++i)
      EXPECT_EQ(expectInChild([&] { dumpState(), repeatQueries(1); }), "") << i;
    isOver = true;
    for (std::thread& thread : threads) thread.join();
  });
}

TEST_F(HostProcess, ForgetsInAChildTheConnectionWhoseQueryItsParentIsWaitingFor) {
  prove("close-all in a child", [&] {
    std::promise<void> asked, end;
    zebsim::GatewayServer server(
        {.clock = [&] { return asked.set_value(), end.get_future().wait(), 0U; }});
    std::thread owner([&] {
      Session s = {.port = server.port()};
      EXPECT_EQ(s.open(), 0);
      EXPECT_EQ(getStats(s.token, &s.answer), 0);
      EXPECT_EQ(s.release(), 0);
    });
    asked.get_future().wait();
    EXPECT_EQ(expectInChild([] {
                const auto count = countDescriptors();
                EXPECT_EQ(closeAllGatewayConnections(), 0);
                EXPECT_EQ(countDescriptors(), count - 1);
              }),
              "");
    end.set_value();
    owner.join();
  });
}

// A session of the library as the dynamic loader finds it.
void runLoadedSession(void* library, int port) {
#define LOADED(name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))
  Session s;
  EXPECT_EQ(LOADED(setAPITraceFile)("/dev/null"), 0);
  EXPECT_EQ(LOADED(setAPITraceLevel)(5), 0);
  EXPECT_EQ(LOADED(openGatewayConnection)(port, &s.token, &s.version), 0);
  EXPECT_EQ(LOADED(getStats)(s.token, &s.answer), 0);
  EXPECT_EQ(LOADED(closeGatewayConnection)(&s.token), 0);
  std::free(s.version);
#undef LOADED
}

TEST_F(HostProcess, IsLeftAsItWasWhenTheLibraryIsUnloaded) {
  prove("cycles of loading and unloading", [&] {
    constexpr int kCycles = 200, kWarmUp = 20;
    // 0 under the address sanitiser, whose heap is another.
    const auto countHeldBytes = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
    const std::ptrdiff_t descriptors = countDescriptors();
    std::size_t held = 0;
    for (int i = 0; i < kCycles + kWarmUp && !HasFailure(); ++i) {
      if (i == kWarmUp) held = countHeldBytes();
      void* const library = dlopen(ZEB_LIBRARY, RTLD_NOW | RTLD_LOCAL);
      ASSERT_NE(library, nullptr);
      std::promise<void> used, unloaded;
      std::thread outliving([&] {
        runLoadedSession(library, port);
        used.set_value();
        unloaded.get_future().wait();
      });
      used.get_future().wait();
      dlclose(library);
      unloaded.set_value();
      outliving.join();
    }
    EXPECT_LT(countHeldBytes(), held + 16 * kCycles);
    EXPECT_EQ(countDescriptors(), descriptors);
    std::ifstream maps("/proc/self/maps");
    const std::string mapped((std::istreambuf_iterator<char>(maps)), {});
    EXPECT_EQ(mapped.find("libzebstats.so"), mapped.npos);
    EXPECT_EQ(expectInChild([] {}), "");
  });
}

// ---- Threads of the host ------------------------------------------------------------------------

// Runs the work in a thread of its own with a stack of 32 KiB, which may be cancelled after it.
pthread_t startThread(const Work& work) {
  pthread_t thread = {};
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  const long size = std::max(sysconf(_SC_THREAD_STACK_MIN), 32768L) * (kIsSanitized ? 16 : 1);
  EXPECT_EQ(pthread_attr_setstacksize(&attributes, static_cast<std::size_t>(size)), 0);
  const auto run = [](void* argument) -> void* {
    (*static_cast<const Work*>(argument))();
    pthread_testcancel();
    return nullptr;
  };
  EXPECT_EQ(pthread_create(&thread, &attributes, run, const_cast<Work*>(&work)), 0);
  return thread;
}

void joinCancelled(pthread_t thread) {
  void* ending = nullptr;
  pthread_join(thread, &ending);
  EXPECT_EQ(ending, PTHREAD_CANCELED);
}

TEST_F(HostProcess, KeepsItsErrnoAndACancelledThreadThroughEachCallOnASmallStack) {
  constexpr int kCanary = 4711;
  for (const int level : {0, 5}) {
    for (const char* destination : {"/dev/null", "/dev/full"}) {
      for (const PublicCall& last : kPublicCalls) {
        prove(formatText("%s, level %d to %s", last.name, level, destination), [&] {
          int rc = -1, left = 0;
          const Work work = [&] {
            Variables variables;
            for (const PublicCall* call = kPublicCalls; call <= &last; ++call) {
              if (call == &last) pthread_cancel(pthread_self());
              errno = kCanary;
              rc = variables.make(*call, port, level, destination);
              left = errno;
            }
          };
          joinCancelled(startThread(work));
          EXPECT_EQ(rc, 0);
          EXPECT_EQ(left, kCanary);
          EXPECT_EQ(closeAllGatewayConnections(), 0);
        });
      }
    }
  }
}

TEST_F(HostProcess, ChangesItsTimeZoneForTheNextTimeStamp) {
  prove("12 hours apart", [] {
    const auto readHours = [](const char* zone) {
      char text[24];
      setenv("TZ", zone, 1);
      return std::stoi(std::string(getTimestamp(text)).substr(9, 2));
    };
    const int west = readHours("AAA0");
    EXPECT_EQ((readHours("BBB-12") - west + 24) % 24, 12);
  });
}

// ---- Trace destinations -------------------------------------------------------------------------

// The thread's pending and blocked signals, and the process's pending, ignored and handled ones.
std::string describeSignals() {
  std::ifstream status("/proc/thread-self/status");
  std::string text;
  for (std::string line; std::getline(status, line);)
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
  EXPECT_EQ(pipe(ends), 0);
  EXPECT_EQ(dup2(ends[1], 2), 2);
  close(ends[1]);
  return ends[0];
}

void limitFileSize(rlim_t size) {
  const rlimit limit = {size, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &limit);
}

TEST_F(HostProcess, LosesTraceLinesButNeverItsLifeOrTime) {
  const TemporaryFile fifoFile;
  const char *const fifo = fifoFile.path().c_str(), *const trace = file.path().c_str();
  unlink(fifo);
  ASSERT_EQ(mkfifo(fifo, 0600), 0);
  int reader = -1;
  const auto openFifo = [&] { reader = open(fifo, O_RDONLY | O_NONBLOCK); };
  // What makes writes fail, and what makes them succeed again for the reader.
  const struct {
    const char* name;
    Work obstruct, relieve;
  } rows[] = {
      {"full disk", [] { EXPECT_EQ(setAPITraceFile("/dev/full"), 0); }, {}},
      {"standard error without reader", [] { close(redirectStandardError()); }, {}},
      {"FIFO without reader", [&] { EXPECT_EQ(setAPITraceFile(fifo), ZEB_TRACE_FILE_FAILED); }, {}},
      {"sleeping reader",
       [&] {
         reader = redirectStandardError();
         setAPITraceLevel(5);
         repeatQueries(200);
       },
       [&] { EXPECT_GT(readAll(reader).size(), 1000U); }},
      {"FIFO whose reader goes and comes",
       [&] {
         openFifo();
         EXPECT_EQ(setAPITraceFile(fifo), 0);
         close(reader);
       },
       openFifo},
      {"file at its size limit",
       [&] {
         limitFileSize(4000);
         EXPECT_EQ(setAPITraceFile(trace), 0);
       },
       [&] {
         limitFileSize(RLIM_INFINITY);
         reader = open(trace, O_RDONLY);
         readAll(reader);
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
        EXPECT_EQ(before != kPending ? tellSession(port) : expected, expected);
        EXPECT_EQ(describeSignals(), signals);
        EXPECT_EQ(fcntl(2, F_GETFL), flags);
        if (!sink.relieve) return;
        sink.relieve();
        dumpState();
        EXPECT_NE(readAll(reader).find("Gateway Token List dump"), std::string::npos);
      });
    }
  }
}

}  // namespace
