// Trace points. Each is one line of code; below its level it costs one comparison.
#ifndef STAPI_ZEB_DIAG_H
#define STAPI_ZEB_DIAG_H

#include <stdio.h>

#include <atomic>
#include <cstring>

#include "zebstats_private.h"

extern "C" {
extern ZEB_INTERNAL_DATA int statAPITrace;
extern ZEB_INTERNAL_DATA int statAPIDump;
extern ZEB_INTERNAL_DATA FILE* statAPITraceHandle;
extern ZEB_INTERNAL_DATA char* statAPITraceFilename;
extern ZEB_INTERNAL_DATA const char* defaultTraceFilename;
extern ZEB_INTERNAL_DATA char traceFmtStr[kTracePrefixLength + kTraceMessageSize];
extern ZEB_INTERNAL_DATA char timeStamp[24];
extern ZEB_INTERNAL_DATA char dateBuf[10];
extern ZEB_INTERNAL_DATA std::uint32_t tracePid;
extern ZEB_INTERNAL_DATA std::uint32_t traceTid;
extern ZEB_INTERNAL_DATA std::uint32_t iTid;
extern ZEB_INTERNAL_DATA LockRecord traceLock;
}

// Makes standard error the destination. Returns 0, -121 (no trace lock), or -111 (no memory for the
// file name).
ZEB_INTERNAL int initTrace(void) ZEB_NOEXCEPT;
// Write the local date (9 characters with the NUL) or the local time (22), and return dst.
ZEB_INTERNAL char* getTraceDate(char* dst) ZEB_NOEXCEPT;
ZEB_INTERNAL char* getTimestamp(char* dst) ZEB_NOEXCEPT;
// Returns 1 if both are ids of the same thread, otherwise 0.
ZEB_INTERNAL int compareTids(ThreadId tid1, ThreadId tid2) ZEB_NOEXCEPT;
// Stores the ids of the calling process and thread; a null pointer skips its half.
ZEB_INTERNAL void getPidTid(std::uint32_t* pidPtr, ThreadId* tidPtr) ZEB_NOEXCEPT;

// Writes the bytes at address to the trace destination; the caller holds traceLock. If length is
// positive, it writes that many bytes; if it is 0, the bytes before the first place where stopWord
// starts. Returns the number of bytes. spare is ignored.
ZEB_INTERNAL int traceOutStorage(const void* address, int length, std::uint32_t stopWord,
                                 int lineWidth, int spare) ZEB_NOEXCEPT;
// The line after its address: the hexadecimal column returns how many bytes belong to the dump, the
// character column prints them.
ZEB_INTERNAL int writeStorageLineDual(StorageDump* dump) ZEB_NOEXCEPT;
ZEB_INTERNAL int writeStorageLineHex(StorageDump* dump) ZEB_NOEXCEPT;
ZEB_INTERNAL void writeStorageLineChar(StorageDump* dump, int count) ZEB_NOEXCEPT;

#define ZEB_TRACE_PREFIX "%s [0x%8.8X,0x%8.8X] [%4.4d] %-6.6s "
static_assert(sizeof(ZEB_TRACE_PREFIX) == kTracePrefixLength + 1);

namespace zeb {

constexpr int kLevelException = 1;
constexpr int kLevelEvent = 2;
constexpr int kLevelFunction = 3;
constexpr int kLevelDetail = 4;
constexpr int kLevelLock = 5;

#ifdef ZEB_NO_TRACE  // measures what the trace points cost
inline int traceLevel() noexcept {
  return 0;
}
#else
inline int traceLevel() noexcept {
  return std::atomic_ref<int>(statAPITrace).load(std::memory_order_relaxed);
}
#endif
inline void setTraceLevel(int level) noexcept {
  std::atomic_ref<int>(statAPITrace).store(level, std::memory_order_relaxed);
}

// Cache of getpid(), on a page that the kernel zeroes in a forked child (MADV_WIPEONFORK). 0: not
// known; then getpid() is called each time.
extern std::atomic<std::uint32_t*> rememberedPid;
[[gnu::cold]] void startRememberingPid() noexcept;
[[gnu::cold]] std::uint32_t askPid() noexcept;
inline std::uint32_t knownPid() noexcept {
  return std::atomic_ref(*rememberedPid.load(std::memory_order_relaxed))
      .load(std::memory_order_relaxed);
}
inline std::uint32_t currentPid() noexcept {
  const std::uint32_t pid = knownPid();
  return pid != 0 ? pid : askPid();
}

// Per-thread cache of pthread_self(), 0 until first use; the call would cost half a step of a walk.
extern constinit thread_local ThreadId rememberedTid;
inline ThreadId currentTid() noexcept {
  if (rememberedTid == 0) [[unlikely]]
    rememberedTid = pthread_self();
  return rememberedTid;
}

// The low 32 bits of a thread id, as printed; without an argument, of this thread's.
[[gnu::cold]] std::uint32_t shownTid() noexcept;
inline std::uint32_t shownTid(ThreadId tid) noexcept {
  return static_cast<std::uint32_t>(tid);
}

// True if pid and tid are the caller's according to the caches; false may only mean "not cached
// yet". No owner's id is 0, so a cache that is empty matches none.
inline bool isKnownCaller(std::uint32_t pid, ThreadId tid) noexcept {
  return pid == knownPid() && pthread_equal(rememberedTid, tid) != 0;
}

// Returns its argument; out of line, so that the compiler does not warn about printing a freed
// address.
const void* addressToShow(const void* block) noexcept;

// A text for %s: "NULL" for a null pointer.
inline const char* textToShow(const char* text) noexcept {
  return text != nullptr ? text : "NULL";
}

// The first 24 characters of a text, for %s. Made among the arguments of a trace point, it is made
// only if the line is written.
struct ShownText {
  explicit ShownText(const char* text) noexcept { strncpy(chars, text, sizeof chars - 1); }
  char chars[25] = {};
};

// The name of the trace destination. Read it only while traceLock is held, as every trace line
// does.
const char* traceFilename() noexcept;

// Each writes one whole line and preserves errno. SameTime repeats the time stamp of the last line.
// The lock functions cannot take traceLock, so theirs uses no shared buffer.
[[gnu::format(printf, 1, 2), gnu::cold]] void writeTraceLine(const char* format, ...) noexcept;
[[gnu::format(printf, 1, 2), gnu::cold]] void writeTraceLineSameTime(const char* format,
                                                                     ...) noexcept;
[[gnu::format(printf, 1, 2), gnu::cold]] void writeLockTraceLine(const char* format, ...) noexcept;

// A trace line, then a dump of length bytes, or up to stopWord if length is 0; never more than size
// bytes.
struct TracedStorage {
  const void* address;
  int length;
  std::uint32_t stopWord;
  std::size_t size;
};
[[gnu::format(printf, 2, 3), gnu::cold]] void writeTraceData(const TracedStorage& storage,
                                                             const char* format, ...) noexcept;

// Writes a line without a prefix. The caller holds traceLock if the line belongs to others around
// it.
[[gnu::format(printf, 1, 2)]] void writeRaw(const char* format, ...) noexcept;
// A line of 80 dashes.
void writeRule() noexcept;
// traceOutStorage in lines of 16 bytes, which stays within storage.size bytes.
int dumpStorage(const TracedStorage& storage) noexcept;
// The state line of dumpState, which takes no traceLock.
void writeStateLine() noexcept;

// Sets the level; when the trace is switched on, writes the banner first unless the destination has
// it.
void changeTraceLevel(int level) noexcept;

struct TraceSwitch {
  bool switched;
  int error;  // errno of a failed open, else 0
};
// Makes a file the destination, or standard error if traceFile is null.
TraceSwitch switchTraceFile(const char* traceFile) noexcept;

// Ends the trace when the library is unloaded or the process ends. Returns false, having done
// nothing, if a thread is writing.
bool releaseTrace() noexcept;

// For a fork: no other thread writes between the two.
void lockTraceForFork() noexcept;
void unlockTraceAfterFork() noexcept;

}  // namespace zeb

#define ZEB_TRACE_WITH(writer, allowed, stamp, word, point, text, ...)                     \
  do {                                                                                     \
    static_assert(sizeof("" text) <= kTraceMessageSize); /* a literal, and not too long */ \
    if (allowed) [[unlikely]]                                                              \
      zeb::writer(ZEB_TRACE_PREFIX text, stamp, zeb::currentPid(), zeb::shownTid(), point, \
                  word __VA_OPT__(, ) __VA_ARGS__);                                        \
  } while (0)

#define ZEB_TRACE(level, word, point, text, ...)                                       \
  ZEB_TRACE_WITH(writeTraceLine, zeb::traceLevel() >= (level), timeStamp, word, point, \
                 text __VA_OPT__(, ) __VA_ARGS__)

#define TRACE_EXC(point, text, ...) \
  ZEB_TRACE(zeb::kLevelException, "*EXC*", point, text __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_EVENT(point, text, ...) \
  ZEB_TRACE(zeb::kLevelEvent, "EVENT", point, text __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_ENTRY(point, text, ...) \
  ZEB_TRACE(zeb::kLevelFunction, "ENTRY", point, text __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_EXIT(point, text, ...) \
  ZEB_TRACE(zeb::kLevelFunction, "EXIT", point, text __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_DEBUG(point, text, ...) \
  ZEB_TRACE(zeb::kLevelDetail, "DEBUG", point, text __VA_OPT__(, ) __VA_ARGS__)

// function is a literal, "module.function", or holds a %s for which a name follows shownStopWord.
#define TRACE_DATA(point, function, storage, shownStopWord, ...)                                \
  do {                                                                                          \
    if (zeb::traceLevel() >= zeb::kLevelDetail) [[unlikely]] {                                  \
      const zeb::TracedStorage traced = storage;                                                \
      zeb::writeTraceData(traced, ZEB_TRACE_PREFIX function " data=%p len=%d stopword=%8.8X\n", \
                          timeStamp, zeb::currentPid(), zeb::shownTid(), point,                 \
                          "DATA" __VA_OPT__(, ) __VA_ARGS__, traced.address, traced.length,     \
                          static_cast<std::uint32_t>(shownStopWord));                           \
    }                                                                                           \
  } while (0)

#endif
