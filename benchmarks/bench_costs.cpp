// The costs of the calls that are counted, not timed: system calls, heap calls, resident memory.

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <fstream>
#include <memory>
#include <string>

#include "connection.h"

// ---- Heap calls: all calls of malloc, calloc and realloc come here, the library's too -----------

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
}

namespace {
thread_local int heapCalls = 0;
}

extern "C" {
void* malloc(size_t size) {
  ++heapCalls;
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
  ++heapCalls;
  return __libc_calloc(count, size);
}
void* realloc(void* block, size_t size) {
  ++heapCalls;
  return __libc_realloc(block, size);
}
}

namespace {

using namespace zebbench;
using benchmark::State;

constexpr std::size_t kMany = 1000;

template <typename Call>
int countHeapCalls(Call call) {
  call();
  const int before = heapCalls;
  call();
  return heapCalls - before;
}

int heapCallsOfQuery(std::size_t statistics) {
  Peer peer(statsAnswer(statistics));
  Connection library(peer.port());
  return countHeapCalls([&] { library.query(); });
}

void heapOfQuery(State& state, Goal goal) {
  report(state, goal, heapCallsOfQuery(kMany));
}

void heapPerStatistic(State& state, Goal goal) {
  report(state, goal, heapCallsOfQuery(kMany) - heapCallsOfQuery(1));
}

void heapOfTextQuery(State& state, Goal goal) {
  Peer peer(statsAnswer(kMany));
  Connection library(peer.port());
  report(state, goal, countHeapCalls([&] {
           ResultSetToken* answer = nullptr;
           require(getStatsByStatId(library.token(), "VM_UPTIME", &answer) == ZEB_OK,
                   "the query failed");
         }));
}

// ---- System calls: the parent counts those that a child makes between two calls of getppid ------

template <typename Prepare>
[[noreturn]] void runTraced(const Peer& peer, Prepare prepare) {
  Connection library(peer.port());
  auto call = prepare(library);
  call();
  ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
  raise(SIGSTOP);
  syscall(SYS_getppid);
  call();
  syscall(SYS_getppid);
  _exit(0);
}

// Lets the child run to its next system call. Returns the number of that call, or -1 if the child
// has ended.
long nextSystemCall(pid_t child) {
  for (;;) {
    int status;
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status)) return -1;
    __ptrace_syscall_info info = {};
    if (ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) < 0) return -1;
    if (info.op == PTRACE_SYSCALL_INFO_ENTRY) return static_cast<long>(info.entry.nr);
  }
}

template <typename Prepare>
void countSystemCalls(State& state, Goal goal, const Bytes& answer, Prepare prepare) {
  const Peer peer(answer);
  const pid_t child = fork();
  if (child == 0) runTraced(peer, prepare);
  int status;
  waitpid(child, &status, 0);
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
  long call = WIFSTOPPED(status) ? nextSystemCall(child) : -1;
  while (call != SYS_getppid && call >= 0) call = nextSystemCall(child);
  int count = 0;
  while ((call = nextSystemCall(child)) != SYS_getppid && call >= 0) ++count;
  if (call < 0) {
    state.SkipWithError("this process may not trace its child");
    kill(child, SIGKILL);
  } else {
    ptrace(PTRACE_DETACH, child, nullptr, nullptr);
    report(state, goal, count);
  }
  waitpid(child, &status, 0);
}

void callsOfQuery(State& state, Goal goal) {
  countSystemCalls(state, goal, statsAnswer(kMany),
                   [](Connection& library) { return [&] { library.query(); }; });
}

void callsOfLimitedQuery(State& state, Goal goal) {
  setAPITimeout(60000);
  callsOfQuery(state, goal);
  setAPITimeout(0);
}

void callsOfWalk(State& state, Goal goal) {
  countSystemCalls(state, goal, statsAnswer(kMany), [](Connection& library) {
    return [answer = library.query()] { walk(answer); };
  });
}

void callsOfIdQuery(State& state, Goal goal) {
  countSystemCalls(state, goal, idsAnswer(kMany), [](Connection& library) {
    return [ids = library.queryIds()] {
      char* joined;
      require(getIdQuery(ids, &joined) == ZEB_OK, "getIdQuery failed");
    };
  });
}

// ---- Memory -------------------------------------------------------------------------------------

double residentKilobytes() {
  std::ifstream file("/proc/self/smaps_rollup");
  for (std::string word; file >> word;) {
    if (double size; word == "Rss:" && file >> size) return size;
  }
  require(false, "cannot read /proc/self/smaps_rollup");
  return 0;
}

constexpr int kIdle = 200;

void idleMemory(State& state, Goal goal) {
  const PeerProcess peer(1, kIdle + 2);  // in another process, whose memory is not counted
  // One connection is closed first, as in any monitor that has run for a while: from then on the
  // allocator takes the buffers of connections from its heap, where their ends share pages. A
  // second one stays open, so that the memory that all connections share is not counted.
  { const Connection closed(peer.port()); }
  const Connection first(peer.port());
  std::vector<std::unique_ptr<Connection>> idle(kIdle);
  residentKilobytes();
  const double before = residentKilobytes();
  for (auto& connection : idle) connection = std::make_unique<Connection>(peer.port());
  report(state, goal, (residentKilobytes() - before) / kIdle);
}

}  // namespace

int main(int argc, char** argv) {
  pinToOneCore();
  addRow("P14 resident kB that an idle connection adds", {9, 8.5}, idleMemory);
  addRow("P12 system calls of getStats", {13, 13}, callsOfQuery);
  addRow("P12 system calls of getStats with a time limit", {15, 13}, callsOfLimitedQuery);
  addRow("P12 system calls of a walk of 1,000", {0, 0}, callsOfWalk);
  addRow("P12 system calls of getIdQuery over 1,000 ids", {0, 0}, callsOfIdQuery);
  addRow("P13 heap calls of getStats", {7, 6}, heapOfQuery);
  addRow("P13 heap calls of getStatsByStatId", {8, 7}, heapOfTextQuery);
  addRow("P13 heap calls that 999 more statistics add", {0, 0}, heapPerStatistic);
  return runRows(argc, argv);
}
