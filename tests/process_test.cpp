// The library as a guest in its host's process: nothing that it does is felt outside of its calls.
// Each story runs in a child process that an alarm ends, so that a hang or a crash is a failure of
// that story alone.
#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
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

constexpr unsigned kPatience = kIsSanitized ? 240 : 60;

std::string unless(bool isWell, const std::string& complaint) {
  return isWell ? "" : " " + complaint + ";";
}

std::string differ(const std::string& told, const std::string& expected) {
  return unless(told == expected, "tells " + told + "\ninstead of " + expected);
}

class HostProcess : public testing::Test {
 protected:
  // A point of the evidence: the work returns its complaints.
  template <typename Work>
  void prove(const std::string& point, Work work) {
    row.add(point, inChild([&]() noexcept {
              alarm(kPatience);
              return work();
            }));
  }
  GatewayProcess gateway;
  const int port = gateway.port();
  const TemporaryFile file;
  Row row{"F18"};
};

// ---- Signals ------------------------------------------------------------------------------------

void handlePipe(int /*number*/, siginfo_t* /*info*/, void* /*context*/) {}
void handleOtherwise(int /*number*/) {}

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

void repeatQueries(int port, int rounds) {
  Session s = {.port = port};
  if (s.open() != 0) return;
  for (int i = 0; i < rounds; ++i) getStats(s.token, &s.answer);
  s.release();
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
    setAction();
    duringNextSend = [] { std::signal(SIGPIPE, handleOtherwise); };
    repeatQueries(port, 2);
    return unless(duringNextSend == nullptr, "no send") +
           unless(std::signal(SIGPIPE, SIG_DFL) == handleOtherwise, "the change is lost");
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

// ---- Names, children, unloading -----------------------------------------------------------------

TEST_F(HostProcess, MayDefineEveryInnerNameOfTheLibrary) {
  prove("the host of names", [&] {
    const std::string number = std::to_string(port);
    execl(ZEB_NAMES_HOST, ZEB_NAMES_HOST, number.c_str(), file.path().c_str(), nullptr);
    return std::string("no host");
  });
  EXPECT_NE(file.text().find("EXIT   API.closeAllGatewayConnections()"), std::string::npos)
      << "no trace";
}

std::string tellInherited() {
  std::string told;
  for (int descriptor = 0; descriptor < 2000; ++descriptor) {
    const int flags = fcntl(descriptor, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0) told += formatText("%d ", descriptor);
  }
  return told;
}

TEST_F(HostProcess, HandsNoDescriptorToAProgramThatItExecutes) {
  for (const bool isInputOpen : {true, false}) {
    prove(formatText("standard input open: %d", isInputOpen), [&] {
      if (!isInputOpen) close(0);  // so that the library moves its socket
      const std::string inherited = tellInherited();
      const auto count = countDescriptors();
      Session s = {.port = port};
      const bool isOpen = setAPITraceFile(file.path().c_str()) == 0 && s.open() == 0;
      return unless(isOpen && countDescriptors() == count + 2, "no trace file and socket") +
             differ(tellInherited(), inherited);
    });
  }
}

TEST_F(HostProcess, ForksAmidTracesAndOpensWithoutChildrenThatHang) {
  prove("200 forks", [&] {
    setAPITraceFile("/dev/null");
    setAPITraceLevel(5);
    std::atomic<bool> isOver = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
      threads.emplace_back([&] {
        while (!isOver) repeatQueries(port, 1);
      });
    }
    threads.emplace_back([&] {
      while (!isOver) dumpState(), setAPITraceFile("/dev/null"), setAPITraceLevel(5);
    });
    std::string complaint;
    for (int i = 0; i < 200 && complaint.empty(); ++i) {
      const pid_t child = fork();
      if (child == 0) {
        alarm(kIsSanitized ? 60 : 10);
        Session s = {.port = port};
        const bool isWell = setAPITraceLevel(5) == 0 && dumpState() == 0 && s.open() == 0 &&
                            getStats(s.token, &s.answer) == 0 && s.release() == 0;
        _exit(isWell ? 0 : 1);
      }
      int status = -1;
      waitpid(child, &status, 0);
      complaint = unless(status == 0, formatText("child %d ends with status %d", i, status));
    }
    isOver = true;
    for (std::thread& thread : threads) thread.join();
    return complaint;
  });
}

// 0 under the address sanitiser, whose heap is another.
std::size_t countHeldBytes() {
  const struct mallinfo2 held = mallinfo2();
  return held.uordblks + held.hblkhd;
}

// A session of the library as the dynamic loader finds it.
std::string runLoadedSession(void* library, int port, const char* traceFile) {
#define LOOK_UP(name) const auto name##Of = reinterpret_cast<decltype(&name)>(dlsym(library, #name))
  LOOK_UP(setAPITraceFile);
  LOOK_UP(setAPITraceLevel);
  LOOK_UP(openGatewayConnection);
  LOOK_UP(getStats);
  LOOK_UP(closeGatewayConnection);
#undef LOOK_UP
  Session s;
  int rc = setAPITraceFileOf(traceFile);
  if (rc == 0) rc = setAPITraceLevelOf(5);
  if (rc == 0) rc = openGatewayConnectionOf(port, &s.token, &s.version);
  if (rc == 0) rc = getStatsOf(s.token, &s.answer);
  if (rc == 0) rc = closeGatewayConnectionOf(&s.token);
  std::free(s.version);
  return unless(rc == 0, formatText("a loaded session: %d", rc));
}

TEST_F(HostProcess, IsLeftAsItWasWhenTheLibraryIsUnloaded) {
  prove("1,000 cycles", [&] {
    constexpr int kCycles = kIsSanitized ? 100 : 1000, kWarmUp = 20;
    const std::ptrdiff_t descriptors = countDescriptors();
    std::size_t held = 0;
    std::string complaints;
    for (int i = 0; i < kCycles + kWarmUp && complaints.empty(); ++i) {
      if (i == kWarmUp) held = countHeldBytes();
      void* const library = dlopen(ZEB_LIBRARY, RTLD_NOW | RTLD_LOCAL);
      if (library == nullptr) return std::string(" no library");
      complaints += runLoadedSession(library, port, "/dev/null");
      if (i % 100 == 0) {  // of a thread that outlives the library, too
        std::atomic<int> step = 0;
        std::thread thread([&] {
          complaints += runLoadedSession(library, port, "/dev/null");
          for (step = 1; step != 2;) std::this_thread::yield();
        });
        while (step != 1) std::this_thread::yield();
        dlclose(library);
        step = 2;
        thread.join();
      } else {
        dlclose(library);
      }
    }
    const auto grown = static_cast<std::ptrdiff_t>(countHeldBytes() - held);
    complaints += unless(grown < kCycles, formatText("%td bytes more", grown));
    complaints += unless(countDescriptors() == descriptors, "more descriptors");
    std::ifstream maps("/proc/self/maps");
    const std::string mapped((std::istreambuf_iterator<char>(maps)), {});
    complaints += unless(mapped.find("libzebstats.so") == mapped.npos, "still mapped");
    return complaints + inChild([] { return std::string(); });
  });
}

// ---- Each public call in turn -------------------------------------------------------------------

// Makes them with right arguments, and returns their codes.
struct Caller {
  int port;
  int level = 5;
  const char* path = "/dev/null";
  GatewayToken* token = nullptr;
  ResultSetToken *answer = nullptr, *copy = nullptr;
  char* text = nullptr;
  StatData stat = {};
  IdData id = {};
  int number = 0;

  int make(const PublicCall& call) {
    const bool isOfCopy = call.kind == Kind::kCopy || call.kind == Kind::kFree;
    return call.make({token, &token, answer, isOfCopy ? &copy : &answer, "A", "127.0.0.1", path,
                      &text, &stat, &id, level, port, &number});
  }
};

TEST_F(HostProcess, KeepsItsErrnoThroughEachCallThatSucceeds) {
  for (const int level : {0, 5}) {
    for (const char* destination : {"/dev/null", "/dev/full"}) {
      prove(formatText("level %d to %s", level, destination), [&] {
        Caller c = {.port = port, .level = level, .path = destination};
        std::string complaints;
        for (const PublicCall& call : kPublicCalls) {
          constexpr int kCanary = 4711;
          errno = kCanary;
          const int rc = c.make(call);
          const int left = errno;
          complaints += unless(rc == 0 && left == kCanary,
                               formatText("%s %d, errno %d", call.name, rc, left));
        }
        return complaints;
      });
    }
  }
}

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

TEST_F(HostProcess, MayCancelAThreadWhichEndsAfterItsCall) {
  const std::string expected = inChild([&] { return tellSession(port); });
  for (std::size_t i = 0; i < std::size(kPublicCalls); ++i) {
    prove(formatText("ahead of %s", kPublicCalls[i].name), [&] {
      Caller c = {.port = port};
      int made = -1, rc = -1;
      std::function<void()> work = [&] {
        for (made = 0; static_cast<std::size_t>(made) < i; ++made) c.make(kPublicCalls[made]);
        if (i < 3) setAPITraceLevel(5);
        pthread_cancel(pthread_self());
        rc = c.make(kPublicCalls[made]);
      };
      std::string complaints = joinCancelled(startThread(work));
      complaints += unless(rc == 0, formatText("the call returns %d", rc));
      complaints += unless(closeAllGatewayConnections() == 0, "close-all");
      return complaints + differ(tellSession(port), expected);
    });
  }
}

TEST_F(HostProcess, MayCancelAThreadThatHangsInACall) {
  const std::string expected = inChild([&] { return tellSession(port); });
  enum { kOpen, kQuery, kClose };
  for (const int hanging : {kOpen, kQuery, kClose}) {
    prove(formatText("hanging in call %d", hanging), [&] {
      auto silent = std::make_unique<ScriptedGateway>(
          hanging == kOpen ? Script().expect() : Script().answerOpen().expect());
      Session s = {.port = silent->port()};
      GatewayToken* handle = nullptr;
      std::atomic<int> rc = 1;
      std::function<void()> work = [&] {
        int code = s.open();
        handle = s.token;
        if (hanging == kQuery) code = getStats(s.token, &s.answer);
        if (hanging == kClose) code = closeGatewayConnection(&s.token);
        rc = code;
      };
      setAPITraceFile("/dev/null");
      setAPITraceLevel(5);
      const pthread_t thread = startThread(work);
      usleep(
          100000);  // long enough to reach the silence; a thread that has not is cancelled earlier
      pthread_cancel(thread);
      usleep(100000);
      std::string complaints =
          unless(rc == 1, "ended too early") + differ(tellSession(port), expected);
      if (hanging == kOpen) complaints += unless(closeAllGatewayConnections() == 0, "close-all");
      if (hanging == kQuery) complaints += unless(closeGatewayConnection(&handle) == 0, "close");
      if (hanging == kClose) silent.reset();
      complaints += joinCancelled(thread);
      constexpr int kCodes[] = {ZEB_TOKEN_UNKNOWN, ZEB_CONNECTION_LOST, 0};
      const TraceCapture trace(0);
      dumpState();
      return complaints +
             unless(rc == kCodes[hanging], formatText("the call returns %d", rc.load())) +
             unless(trace.text().find("List is EMPTY") != std::string::npos,
                    "tokens left: " + trace.text());
    });
  }
}

TEST_F(HostProcess, MayHaveThreadStacksOf32KiB) {
  const std::string expected = inChild([&] { return tellSession(port); });
  prove("a session at level 5", [&] {
    std::string told;
    std::function<void()> work = [&] { told = tellSession(port); };
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    const long least = sysconf(_SC_THREAD_STACK_MIN);
    const std::size_t size =
        static_cast<std::size_t>(std::max(least, 32768L)) * (kIsSanitized ? 16 : 1);
    if (pthread_attr_setstacksize(&attributes, size) != 0) return std::string(" no such stack");
    setAPITraceFile("/dev/null");
    setAPITraceLevel(5);
    pthread_join(startThread(work, &attributes), nullptr);
    return differ(told, expected);
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
    std::string complaints;
    for (const std::size_t i : {0U, 1U})
      complaints +=
          unless((east[i] - west[i] + 24) % 24 == 12, i == 0 ? "getTimestamp" : "the trace");
    return complaints;
  });
}

TEST_F(HostProcess, IsToldOfANullOutputPointer) {
  prove("createGatewayToken", [&] {
    dumpState();
    return unless(createGatewayToken(nullptr, "127.0.0.1", port) == ZEB_TOKEN_POINTER_NULL,
                  "another code");
  });
}

// ---- Trace destinations -------------------------------------------------------------------------

constexpr std::array<int, 2> kWriteSignals = {SIGPIPE, SIGXFSZ};

std::string tellSignals() {
  std::string told;
  sigset_t blocked, pending;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  sigpending(&pending);
  for (const int number : kWriteSignals) {
    struct sigaction action = {};
    sigaction(number, nullptr, &action);
    told += formatText("%d %s %d %d;", number, action.sa_handler == SIG_DFL ? "default" : "handled",
                       sigismember(&blocked, number), sigismember(&pending, number));
  }
  return told;
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

std::string checkState(const std::string& trace) {
  return unless(trace.find("Gateway Token List dump") != trace.npos, "no lines later: " + trace);
}

TEST_F(HostProcess, LosesTraceLinesButNeverItsLifeOrTime) {
  const std::string expected = inChild([&] { return tellSession(port); });
  // A traced session goes as one without trace, and leaves the host's signals as they were. A send,
  // for which SIGPIPE is ignored, takes one that is pending away, so that one is only traced over.
  const auto checkSession = [&](Before before) {
    const std::string signals = tellSignals();
    setAPITraceLevel(5);
    std::string complaints = unless(dumpState() == 0, "dumpState");
    if (before != Before::kPending) complaints += differ(tellSession(port), expected);
    return complaints + differ(tellSignals(), signals);
  };
  const TemporaryFile fifo;
  unlink(fifo.path().c_str());
  ASSERT_EQ(mkfifo(fifo.path().c_str(), 0600), 0);
  for (const Before before : {Before::kNothing, Before::kBlocked, Before::kPending}) {
    prove("full disk", [&] {
      prepareSignals(before);
      const int rc = setAPITraceFile("/dev/full");
      return unless(rc == 0, "no file") + checkSession(before);
    });
    prove("file at its size limit", [&] {
      prepareSignals(before);
      rlimit limit = {4000, RLIM_INFINITY};
      setrlimit(RLIMIT_FSIZE, &limit);
      const int rc = setAPITraceFile(file.path().c_str());
      std::string complaints = unless(rc == 0, "no file") + checkSession(before);
      limit.rlim_cur = RLIM_INFINITY;
      setrlimit(RLIMIT_FSIZE, &limit);
      const std::size_t size = file.text().size();
      dumpState();
      complaints += checkState(file.text().substr(size));
      return complaints + unless(truncate(file.path().c_str(), 0) == 0, "no empty file");
    });
    prove("standard error without reader", [&] {
      prepareSignals(before);
      int ends[2];
      if (pipe(ends) != 0 || dup2(ends[1], 2) != 2) return std::string(" no pipe");
      close(ends[0]);
      close(ends[1]);
      return checkSession(before);
    });
    prove("reader of a FIFO that goes and comes", [&] {
      prepareSignals(before);
      const int reader = open(fifo.path().c_str(), O_RDONLY | O_NONBLOCK);
      std::string complaints = unless(setAPITraceFile(fifo.path().c_str()) == 0, "no FIFO");
      close(reader);
      complaints += checkSession(before);
      const int next = open(fifo.path().c_str(), O_RDONLY | O_NONBLOCK);
      dumpState();
      return complaints + checkState(readAll(next));
    });
  }
  prove("FIFO without reader", [&] {
    const int rc = setAPITraceFile(fifo.path().c_str());
    return unless(rc == ZEB_TRACE_FILE_FAILED, formatText("code %d", rc)) +
           checkSession(Before::kNothing);
  });
  prove("sleeping reader", [&] {
    int ends[2];
    if (pipe(ends) != 0 || dup2(ends[1], 2) != 2) return std::string(" no pipe");
    const int flags = fcntl(2, F_GETFL);
    setAPITraceLevel(5);
    repeatQueries(port, 200);
    std::string complaints = checkSession(Before::kNothing);
    complaints += unless(fcntl(2, F_GETFL) == flags, "other flags");
    complaints += unless(readAll(ends[0]).size() > 1000, "no lines at first");
    dumpState();
    return complaints + checkState(readAll(ends[0]));
  });
}

}  // namespace
