// The library as a guest in its host's process: nothing that it does is felt outside of its calls.
// Each story runs in a child process that an alarm ends, so that a hang or a crash is a failure of
// that story alone.
#include <dlfcn.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "client_session.h"
#include "public_calls.h"
#include "scripted_gateway.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwytok.h"

namespace {

using namespace zebtest;

std::atomic<void (*)()> duringNextSend = nullptr;

}  // namespace

// The library's sends, for what a host does while one is under way.
extern "C" ssize_t send(int socket, const void* data, std::size_t size, int flags) {
  if (const auto work = duringNextSend.exchange(nullptr); work != nullptr) work();
  return sendto(socket, data, size, flags, nullptr, 0);
}

namespace {

std::string unless(bool isWell, const std::string& complaint) {
  return isWell ? "" : " " + complaint + ";";
}

std::string differ(const std::string& is, const std::string& expected) {
  return unless(is == expected, "is " + is + "\ninstead of " + expected);
}

class HostProcess : public testing::Test {
 protected:
  // A point of the evidence: the work returns its complaints.
  template <typename Work>
  void prove(const std::string& point, Work work) {
    row.add(point, inChild([&]() noexcept {
              alarm(kIsSanitized ? 240 : 60);
              return work();
            }));
  }
  // A session whose trace is written.
  std::string checkTracedSession() const {
    setAPITraceFile("/dev/null");
    setAPITraceLevel(5);
    return differ(tellSession(port), expected);
  }
  GatewayProcess gateway;
  const int port = gateway.port();
  const std::string expected = inChild([this] { return tellSession(port); });
  const TemporaryFile file;
  Row row{"F18"};
};

void repeatQueries(int port, int rounds) {
  Session s = {.port = port};
  if (s.open() != 0) return;
  for (int i = 0; i < rounds; ++i) getStats(s.token, &s.answer);
  s.release();
}

// ---- Signals ------------------------------------------------------------------------------------

void handlePipe(int /*number*/, siginfo_t* /*info*/, void* /*context*/) {}

void setAction() {
  struct sigaction action = {};
  action.sa_sigaction = handlePipe;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigaddset(&action.sa_mask, SIGUSR2);
  sigaction(SIGPIPE, &action, nullptr);
}

bool isActionSet() {
  struct sigaction found = {};
  sigaction(SIGPIPE, nullptr, &found);
  return found.sa_sigaction == handlePipe &&
         (found.sa_flags & (SA_SIGINFO | SA_RESTART | SA_NODEFER)) == (SA_SIGINFO | SA_RESTART) &&
         sigismember(&found.sa_mask, SIGUSR2) == 1 && sigismember(&found.sa_mask, SIGUSR1) == 0;
}

TEST_F(HostProcess, KeepsItsSigpipeHandlerThroughSendsSideBySide) {
  prove("a send that begins in another and ends after it", [&] {
    static std::atomic<bool> isSecondInside = false, isFirstOver = false;
    static std::thread second;
    static const int gatewayPort = port;
    setAction();
    duringNextSend = [] {
      duringNextSend = [] {
        for (isSecondInside = true; !isFirstOver;) std::this_thread::yield();
      };
      second = std::thread(repeatQueries, gatewayPort, 1);
      while (!isSecondInside) std::this_thread::yield();
    };
    repeatQueries(port, 1);
    isFirstOver = true;
    second.join();
    return unless(isActionSet(), "another handler");
  });
  prove("a change by the host", [&] {
    duringNextSend = setAction;
    repeatQueries(port, 2);
    return unless(isActionSet(), "the change is lost");
  });
  prove("a child", [&] {
    static int status = -1;
    setAction();
    duringNextSend = [] {
      std::thread([] {
        const pid_t child = fork();
        if (child == 0) _exit(isActionSet() ? 0 : 1);
        waitpid(child, &status, 0);
      }).join();
    };
    repeatQueries(port, 1);
    return unless(status == 0, "the child has another handler") +
           unless(isActionSet(), "another handler");
  });
}

// ---- Start, names, children, unloading ----------------------------------------------------------

TEST_F(HostProcess, MayInitialiseModulesItselfBeforeTheFirstCall) {
  prove("a start after one that failed half-way", [&] {
    const bool isHalfStarted = initTrace() == 0 && initGTL() == 0;
    return unless(isHalfStarted, "no such start") + checkTracedSession();
  });
}

TEST_F(HostProcess, MayDefineEveryInnerNameOfTheLibrary) {
  prove("the host of names", [&] {
    const std::string number = std::to_string(port);
    execl(ZEB_NAMES_HOST, ZEB_NAMES_HOST, number.c_str(), file.path().c_str(), nullptr);
    return std::string("no host");
  });
  EXPECT_NE(file.text().find("EXIT   API.closeAllGatewayConnections()"), std::string::npos);
}

int countInherited() {
  int count = 0;
  for (int descriptor = 0; descriptor < 2000; ++descriptor) {
    const int flags = fcntl(descriptor, F_GETFD);
    count += flags >= 0 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
  }
  return count;
}

TEST_F(HostProcess, HandsNoDescriptorToAProgramThatItExecutes) {
  for (const int closed : {0, 1, 2}) {  // so that the library moves the trace, the socket, or none
    prove(formatText("the first %d closed", closed), [&] {
      for (int descriptor = 0; descriptor < closed; ++descriptor) close(descriptor);
      const int inherited = countInherited();
      const auto count = countDescriptors();
      Session s = {.port = port};
      const bool isOpen = s.open() == 0 && setAPITraceFile(file.path().c_str()) == 0;
      return unless(isOpen && countDescriptors() == count + 2, "no trace file and socket") +
             unless(s.token->socket > 2, "the socket is a standard stream") +
             unless(countInherited() == inherited, "an inherited descriptor");
    });
  }
}

TEST_F(HostProcess, ForksAmidTracesAndOpensWithoutChildrenThatHang) {
  prove("100 forks", [&] {
    std::atomic<bool> isOver = false;
    const auto repeat = [&](auto work) {
      return std::thread([&isOver, work] {
        while (!isOver) work();
      });
    };
    const auto query = [&] { repeatQueries(port, 1); };
    const auto dump = [] { dumpState(), setAPITraceFile("/dev/null"), setAPITraceLevel(5); };
    dump();
    std::thread threads[] = {repeat(query), repeat(query), repeat(dump)};
    std::string complaint;
    for (int i = 0; i < 100 && complaint.empty(); ++i) {
      complaint = inChild([&] {
        alarm(kIsSanitized ? 60 : 20);
        Session s = {.port = port};
        const bool isWell = dumpState() == 0 && s.open() == 0 &&
                            getStats(s.token, &s.answer) == 0 && s.release() == 0;
        return unless(isWell, "a call fails");
      });
    }
    isOver = true;
    for (std::thread& thread : threads) thread.join();
    return complaint;
  });
}

TEST_F(HostProcess, LeavesAWaitingQueryOfItsParentAloneAndForgetsItsConnection) {
  prove("close-all in a child", [&] {
    std::promise<void> asked, end;
    zebsim::ServerOptions options;
    options.clock = [&] { return asked.set_value(), end.get_future().wait(), 0U; };
    zebsim::GatewayServer server(options);
    int rc = 1;
    std::thread owner([&] {
      Session s = {.port = server.port()};
      s.open();
      rc = getStats(s.token, &s.answer);
      s.release();
    });
    asked.get_future().wait();
    const std::string complaint = inChild([] {
      const auto count = countDescriptors();
      const int closeRc = closeAllGatewayConnections();
      return unless(closeRc == 0 && countDescriptors() == count - 1, "the child keeps the socket");
    });
    end.set_value();
    owner.join();
    return complaint + unless(rc == 0, formatText("the query returns %d", rc));
  });
}

// 0 under the address sanitiser, whose heap is another.
std::size_t countHeldBytes() {
  const struct mallinfo2 held = mallinfo2();
  return held.uordblks + held.hblkhd;
}

// A session of the library as the dynamic loader finds it.
std::string runLoadedSession(void* library, int port) {
#define LOAD(name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))
  Session s;
  int rc = LOAD(setAPITraceFile)("/dev/null");
  if (rc == 0) rc = LOAD(setAPITraceLevel)(5);
  if (rc == 0) rc = LOAD(openGatewayConnection)(port, &s.token, &s.version);
  if (rc == 0) rc = LOAD(getStats)(s.token, &s.answer);
  if (rc == 0) rc = LOAD(closeGatewayConnection)(&s.token);
#undef LOAD
  std::free(s.version);
  return unless(rc == 0, formatText("a loaded session: %d", rc));
}

TEST_F(HostProcess, IsLeftAsItWasWhenTheLibraryIsUnloaded) {
  prove("cycles of loading and unloading", [&] {
    constexpr int kCycles = 200, kWarmUp = 20;
    const std::ptrdiff_t descriptors = countDescriptors();
    std::size_t held = 0;
    std::string complaints;
    for (int i = 0; i < kCycles + kWarmUp && complaints.empty(); ++i) {
      if (i == kWarmUp) held = countHeldBytes();
      void* const library = dlopen(ZEB_LIBRARY, RTLD_NOW | RTLD_LOCAL);
      if (library == nullptr) return std::string(" no library");
      complaints += runLoadedSession(library, port);
      std::promise<void> used, unloaded;
      std::thread thread;
      if (i % 20 == 0) {  // a thread that outlives the library
        thread = std::thread([&] {
          complaints += runLoadedSession(library, port);
          used.set_value();
          unloaded.get_future().wait();
        });
        used.get_future().wait();
      }
      dlclose(library);
      unloaded.set_value();
      if (thread.joinable()) thread.join();
    }
    const auto grown = static_cast<std::ptrdiff_t>(countHeldBytes() - held);
    complaints += unless(grown < 16 * kCycles, formatText("%td bytes more", grown));
    complaints += unless(countDescriptors() == descriptors, "more descriptors");
    std::ifstream maps("/proc/self/maps");
    const std::string mapped((std::istreambuf_iterator<char>(maps)), {});
    complaints += unless(mapped.find("libzebstats.so") == mapped.npos, "still mapped");
    return complaints + inChild([] { return std::string(); });
  });
}

// ---- Threads of the host ------------------------------------------------------------------------

// Runs the work in a thread of its own, which may be cancelled after it.
pthread_t startThread(std::function<void()>& work, const pthread_attr_t* attributes = nullptr) {
  pthread_t thread = {};
  const auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    pthread_testcancel();
    return nullptr;
  };
  if (pthread_create(&thread, attributes, run, &work) != 0) throw std::runtime_error("no thread");
  return thread;
}

std::string joinCancelled(pthread_t thread) {
  void* ending = nullptr;
  pthread_join(thread, &ending);
  return unless(ending == PTHREAD_CANCELED, "the thread is not cancelled");
}

TEST_F(HostProcess, KeepsItsErrnoAndItsCancelledThreadThroughEachCall) {
  constexpr int kCanary = 4711;
  for (const int level : {0, 5}) {
    for (const char* destination : {"/dev/null", "/dev/full"}) {
      for (std::size_t last = 0; last < std::size(kPublicCalls); ++last) {
        prove(formatText("%s, level %d to %s", kPublicCalls[last].name, level, destination), [&] {
          int rc = -1, left = 0;
          std::function<void()> work = [&] {
            GatewayToken* token = nullptr;
            ResultSetToken *answer = nullptr, *copy = nullptr;
            char* text = nullptr;
            StatData stat = {};
            IdData id = {};
            int number = 0;
            for (std::size_t i = 0; i <= last; ++i) {
              const PublicCall& call = kPublicCalls[i];
              const bool isOfCopy = call.kind == Kind::kCopy || call.kind == Kind::kFree;
              if (i == last) pthread_cancel(pthread_self());
              errno = kCanary;
              rc = call.make({token, &token, answer, isOfCopy ? &copy : &answer, "A", "127.0.0.1",
                              destination, &text, &stat, &id, level, port, &number});
              left = errno;
            }
          };
          const std::string complaint = joinCancelled(startThread(work));
          return complaint +
                 unless(rc == 0 && left == kCanary, formatText("%d, errno %d", rc, left)) +
                 unless(closeAllGatewayConnections() == 0, "close-all");
        });
      }
    }
  }
}

TEST_F(HostProcess, MayCancelAThreadThatHangsInACall) {
  const struct {
    const char* call;
    Script script;
    int rc;
  } rows[] = {{"open", Script().expect().ignoreAll(), ZEB_TOKEN_UNKNOWN},
              {"query", Script().answerOpen().expect().ignoreAll(), ZEB_CONNECTION_LOST},
              {"close", Script().answerOpen().expect().ignoreAll(), 0}};
  for (const auto& hanging : rows) {
    prove(hanging.call, [&] {
      auto silent = std::make_unique<ScriptedGateway>(hanging.script);
      std::atomic<int> rc = 1;
      std::function<void()> work = [&] {
        Session s = {.port = silent->port()};
        int code = s.open();
        if (*hanging.call == 'q') code = getStats(s.token, &s.answer);
        if (*hanging.call == 'c') code = closeGatewayConnection(&s.token);
        rc = code;
      };
      const pthread_t thread = startThread(work);
      silent->awaitSilence();
      pthread_cancel(thread);
      std::string complaints = checkTracedSession();
      complaints += unless(rc == 1, "ended too early");
      complaints += unless(closeAllGatewayConnections() == 0, "close-all");
      silent.reset();
      complaints += joinCancelled(thread);
      const TraceCapture trace(0);
      dumpState();
      return complaints + unless(rc == hanging.rc, formatText("returns %d", rc.load())) +
             unless(trace.text().find("List is EMPTY") != std::string::npos, trace.text());
    });
  }
}

TEST_F(HostProcess, MayHaveThreadStacksOf32KiB) {
  prove("a session at level 5", [&] {
    std::string complaint;
    std::function<void()> work = [&] { complaint = checkTracedSession(); };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    const long least = std::max(sysconf(_SC_THREAD_STACK_MIN), 32768L) * (kIsSanitized ? 16 : 1);
    if (pthread_attr_setstacksize(&attributes, static_cast<std::size_t>(least)) != 0)
      return std::string(" no such stack");
    pthread_join(startThread(work, &attributes), nullptr);
    return complaint;
  });
}

TEST_F(HostProcess, ChangesItsTimeZoneForTheNextTimeStamp) {
  prove("12 hours apart", [&] {
    const auto readHours = [](const char* zone) {
      setenv("TZ", zone, 1);
      char text[24];
      const TraceCapture trace(3);
      const int ours = std::stoi(std::string(getTimestamp(text)).substr(9, 2));
      setAPITimeout(0);
      return std::array<int, 2>{ours, std::stoi(trace.text().substr(9, 2))};
    };
    const auto west = readHours("AAA0"), east = readHours("BBB-12");
    return unless((east[0] - west[0] + 24) % 24 == 12, "getTimestamp") +
           unless((east[1] - west[1] + 24) % 24 == 12, "the trace");
  });
}

// ---- Trace destinations -------------------------------------------------------------------------

constexpr std::array<int, 2> kWriteSignals = {SIGPIPE, SIGXFSZ};

std::string describeSignals() {
  std::string text;
  sigset_t blocked, pending;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  sigpending(&pending);
  for (const int number : kWriteSignals) {
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    text += formatText("%d %s %d %d;", number, action.sa_handler == SIG_DFL ? "default" : "handled",
                       sigismember(&blocked, number), sigismember(&pending, number));
  }
  return text;
}

enum class Before { kNothing, kBlocked, kPending };

void prepareSignals(Before before) {
  sigset_t both;
  sigemptyset(&both);
  for (const int number : kWriteSignals) {
    signal(number, SIG_DFL);
    sigaddset(&both, number);
  }
  if (before != Before::kNothing) pthread_sigmask(SIG_BLOCK, &both, nullptr);
  if (before != Before::kPending) return;
  raise(SIGPIPE);
  kill(getpid(), SIGXFSZ);
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
  if (pipe(ends) != 0 || dup2(ends[1], 2) != 2) throw std::runtime_error("no pipe");
  close(ends[1]);
  return ends[0];
}

TEST_F(HostProcess, LosesTraceLinesButNeverItsLifeOrTime) {
  const TemporaryFile fifoFile;
  const char* const fifo = fifoFile.path().c_str();
  unlink(fifo);
  ASSERT_EQ(mkfifo(fifo, 0600), 0);
  int reader = -1;
  rlimit limit = {4000, RLIM_INFINITY};
  // What makes writes fail; and what makes them succeed again and returns the lines of a dump then,
  // if anything does.
  const struct {
    const char* name;
    std::function<int()> obstruct;
    std::function<std::string()> relieve;
  } rows[] = {
      {"full disk", [] { return setAPITraceFile("/dev/full"); }, {}},
      {"file at its size limit",
       [&] { return setrlimit(RLIMIT_FSIZE, &limit) + setAPITraceFile(file.path().c_str()); },
       [&] {
         limit.rlim_cur = RLIM_INFINITY;
         setrlimit(RLIMIT_FSIZE, &limit);
         const std::size_t size = file.text().size();
         dumpState();
         const std::string later = file.text().substr(size);
         return truncate(file.path().c_str(), 0) == 0 ? later : "not truncated";
       }},
      {"standard error without reader", [] { return close(redirectStandardError()); }, {}},
      {"reader of a FIFO that goes and comes",
       [&] {
         reader = open(fifo, O_RDONLY | O_NONBLOCK);
         const int rc = setAPITraceFile(fifo);
         return close(reader) + rc;
       },
       [&] {
         reader = open(fifo, O_RDONLY | O_NONBLOCK);
         dumpState();
         return readAll(reader);
       }},
      {"FIFO without reader", [&] { return setAPITraceFile(fifo) - ZEB_TRACE_FILE_FAILED; }, {}},
      {"sleeping reader",
       [&] {
         reader = redirectStandardError();
         const int flags = fcntl(2, F_GETFL);
         setAPITraceLevel(5);
         repeatQueries(port, 200);
         return fcntl(2, F_GETFL) - flags;
       },
       [&] {
         const bool hasLines = readAll(reader).size() > 1000;
         dumpState();
         return hasLines ? readAll(reader) : "no lines at first";
       }},
  };
  // A traced session goes as one without trace, and leaves the host's signals as they were. A send,
  // for which SIGPIPE is ignored, takes one that is pending away, so that one is only traced over.
  for (const auto& sink : rows) {
    for (const Before before : {Before::kNothing, Before::kBlocked, Before::kPending}) {
      prove(formatText("%s %d", sink.name, static_cast<int>(before)), [&] {
        prepareSignals(before);
        std::string complaints = unless(sink.obstruct() == 0, "not obstructed");
        const std::string signals = describeSignals();
        setAPITraceLevel(5);
        complaints += unless(dumpState() == 0, "dumpState");
        if (before != Before::kPending) complaints += differ(tellSession(port), expected);
        complaints += differ(describeSignals(), signals);
        if (!sink.relieve) return complaints;
        const std::string later = sink.relieve();
        return complaints +
               unless(later.find("Gateway Token List dump") != later.npos, "no dump: " + later);
      });
    }
  }
}

}  // namespace
