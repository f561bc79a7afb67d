// The trace: its state, the macros that write a trace point, and the functions under them. A trace
// point is one line of code; below its level it costs one comparison.
//
// Programs parse the texts of trace points, so they stay byte for byte as they are, even if a blank
// is missing or a name is wrong.
#ifndef STAPI_ZEB_DIAG_H
#define STAPI_ZEB_DIAG_H

#include <stdio.h>

#include <atomic>
#include <cstring>

#include "zebstats_private.h"

extern "C" {
// The level. Every access is atomic: traceLevel() and setTraceLevel().
extern ZEB_INTERNAL_DATA int statAPITrace;
// Exported for diagnosis; nothing uses it.
extern ZEB_INTERNAL_DATA int statAPIDump;
// The destination and its name; null before the library is initialised and after it has ended. Once
// the library is initialised, it changes them only under both traceLock and streamMutex (in
// stapi_zeb_diag.cpp), so either lock is enough to read them.
extern ZEB_INTERNAL_DATA FILE* statAPITraceHandle;
extern ZEB_INTERNAL_DATA char* statAPITraceFilename;
// "stderr"; never changed.
extern ZEB_INTERNAL_DATA const char* defaultTraceFilename;
// The parts of the line, or of the banner, that is being written. They are used under traceLock.
extern ZEB_INTERNAL_DATA char traceFmtStr[kTracePrefixLength + kTraceMessageSize];
extern ZEB_INTERNAL_DATA char timeStamp[24];
extern ZEB_INTERNAL_DATA char dateBuf[10];
extern ZEB_INTERNAL_DATA std::uint32_t tracePid;
extern ZEB_INTERNAL_DATA std::uint32_t traceTid;
// The thread of the last line; exported for diagnosis.
extern ZEB_INTERNAL_DATA std::uint32_t iTid;
extern ZEB_INTERNAL_DATA LockRecord traceLock;
}

// Initialises traceLock unless it is initialised, and makes standard error the destination. One
// thread at a time may call it. Returns 0, ZEB_TRACE_LOCK_FAILED, or ZEB_NO_MEMORY (no memory for
// the name of the destination); after a failure it may be called again.
ZEB_INTERNAL int initTrace(void) ZEB_NOEXCEPT;
// Writes the local date to dst, which has room for 9 characters with the NUL, and returns dst.
ZEB_INTERNAL char* getTraceDate(char* dst) ZEB_NOEXCEPT;
// Writes the local time to dst, which has room for 22 characters with the NUL, and returns dst.
ZEB_INTERNAL char* getTimestamp(char* dst) ZEB_NOEXCEPT;
// Returns 1 if both are ids of the same thread, otherwise 0.
ZEB_INTERNAL int compareTids(ThreadId tid1, ThreadId tid2) ZEB_NOEXCEPT;
// Stores the ids of the calling process and thread; a null pointer skips its half.
ZEB_INTERNAL void getPidTid(std::uint32_t* pidPtr, ThreadId* tidPtr) ZEB_NOEXCEPT;

// Writes the bytes at address to the trace destination, lineWidth bytes a line; the caller holds
// traceLock. If length is positive, it writes length bytes; if length is 0, the bytes before the
// first place at which the bytes of stopWord begin. Returns the number of bytes. Writes nothing,
// and returns 0, if address is null, lineWidth below 1, length negative, or both length and
// stopWord 0. spare is ignored.
ZEB_INTERNAL int traceOutStorage(const void* address, int length, std::uint32_t stopWord,
                                 int lineWidth, int spare) ZEB_NOEXCEPT;
// Appends both columns and the newline to a line that so far has the address, and writes the line
// to the destination. Returns the number of bytes on the line that belong to the dump.
ZEB_INTERNAL int writeStorageLineDual(StorageDump* dump) ZEB_NOEXCEPT;
// Appends the hexadecimal column to the line. Returns the same number.
ZEB_INTERNAL int writeStorageLineHex(StorageDump* dump) ZEB_NOEXCEPT;
// Appends the column of characters, count of them, to the line.
ZEB_INTERNAL void writeStorageLineChar(StorageDump* dump, int count) ZEB_NOEXCEPT;

#define ZEB_TRACE_PREFIX "%s [0x%8.8X,0x%8.8X] [%4.4d] %-6.6s "
static_assert(sizeof(ZEB_TRACE_PREFIX) == kTracePrefixLength + 1);

namespace zeb {

constexpr int kLevelException = 1;
constexpr int kLevelEvent = 2;
constexpr int kLevelFunction = 3;
constexpr int kLevelDetail = 4;
constexpr int kLevelLock = 5;

// A benchmark defines ZEB_NO_TRACE to measure what the trace points cost.
#ifdef ZEB_NO_TRACE
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

// Points to a cache of getpid() on a page that the kernel zeroes in a forked child
// (MADV_WIPEONFORK). A cached 0 means that the id is not known; without such a page it stays 0, and
// each use calls getpid().
extern std::atomic<std::uint32_t*> rememberedPid;
// Looks for such a page, once. Only initialisation calls it.
[[gnu::cold]] void startRememberingPid() noexcept;
// Calls getpid(), and stores the id in the cache if there is a page for it.
[[gnu::cold]] std::uint32_t askPid() noexcept;
// Returns the cached id, or 0.
inline std::uint32_t knownPid() noexcept {
  return std::atomic_ref(*rememberedPid.load(std::memory_order_relaxed))
      .load(std::memory_order_relaxed);
}
inline std::uint32_t currentPid() noexcept {
  const std::uint32_t pid = knownPid();
  return pid != 0 ? pid : askPid();
}

// Per-thread cache of pthread_self(), 0 until its first use. A call of pthread_self() takes half as
// long as a whole getNextStat().
extern constinit thread_local ThreadId rememberedTid;
inline ThreadId currentTid() noexcept {
  if (rememberedTid == 0) [[unlikely]]
    rememberedTid = pthread_self();
  return rememberedTid;
}

// Returns the low 32 bits of a thread id, which is what lines show; without an argument, of the
// calling thread's id.
[[gnu::cold]] std::uint32_t shownTid() noexcept;
inline std::uint32_t shownTid(ThreadId tid) noexcept {
  return static_cast<std::uint32_t>(tid);
}

// Returns true if pid and tid, the ids of an owner, are in the caches as the caller's. False may
// only mean that they are not cached yet. An owner's ids are never 0, so an empty cache does not
// match.
inline bool isKnownCaller(std::uint32_t pid, ThreadId tid) noexcept {
  return pid == knownPid() && pthread_equal(rememberedTid, tid) != 0;
}

// Returns its argument. The compiler warns about printing the address of a freed block, but not
// about this one, of which it does not know where it comes from.
inline const void* addressToShow(const void* block) noexcept {
  asm("" : "+r"(block));
  return block;
}

// Returns what %s prints for a text: "NULL" for a null pointer.
inline const char* textToShow(const char* text) noexcept {
  return text != nullptr ? text : "NULL";
}

// The first 24 characters of a text, for %s. As an argument of a trace point, it is constructed
// only if the line is written.
struct ShownText {
  explicit ShownText(const char* text) noexcept { strncpy(chars, text, sizeof chars - 1); }
  char chars[25] = {};
};

// Returns the address of the name of the trace destination, which stays the same from
// initialisation to releaseTrace(). The text there may change: read it under traceLock or
// streamMutex. As an argument of a trace line it is safe until releaseTrace(): the writer reads it
// under traceLock.
const char* traceFilename() noexcept;

// The writers of the macros below. format is ZEB_TRACE_PREFIX and a message as one literal, so that
// the compiler checks the arguments; the arguments are those of the prefix (time stamp, process,
// thread, number, word) and then those of the message. Each writes one whole line and leaves errno
// as it was.
//
// Takes traceLock, and sets timeStamp, which has to be the time stamp among the arguments.
[[gnu::format(printf, 1, 2), gnu::cold]] void writeTraceLine(const char* format, ...) noexcept;
// The same, but timeStamp is set to that of the last line written.
[[gnu::format(printf, 1, 2), gnu::cold]] void writeTraceLineSameTime(const char* format,
                                                                     ...) noexcept;
// For the lock operations, which cannot take traceLock: it may be the lock they work on. Uses no
// shared buffer; the caller's time stamp has sizeof timeStamp bytes.
[[gnu::format(printf, 1, 2), gnu::cold]] void writeLockTraceLine(const char* format, ...) noexcept;

// Storage to dump: length bytes, or if length is 0 the bytes before stopWord. The dump never reads
// more than size bytes.
struct TracedStorage {
  const void* address;
  int length;
  std::uint32_t stopWord;
  std::size_t size;
};
// Writes a line as writeTraceLine does, and then a dump of the storage.
[[gnu::format(printf, 2, 3), gnu::cold]] void writeTraceData(const TracedStorage& storage,
                                                             const char* format, ...) noexcept;

// Writes text without a prefix, at any level. A caller that needs several pieces of text to stay
// together holds traceLock.
[[gnu::format(printf, 1, 2)]] void writeRaw(const char* format, ...) noexcept;
// Writes a line of 80 dashes with writeRaw.
void writeRule() noexcept;
// traceOutStorage with 16 bytes a line, which reads at most storage.size bytes. The caller holds
// traceLock.
int dumpStorage(const TracedStorage& storage) noexcept;
// Writes the state line of dumpState, without taking traceLock.
void writeStateLine() noexcept;

// Sets the level, 0 to 5, under traceLock. A rise from level 0 writes the banner first, unless the
// destination has it.
void changeTraceLevel(int level) noexcept;

struct TraceSwitch {
  bool switched;  // false, with error 0: the destination was standard error already
  int error;      // 0, or the errno with which the file could not be opened
};
// Makes a file the destination, to which lines are appended, or standard error if traceFile is
// null, and closes the file that was the destination. Takes traceLock. On an error the destination
// stays. Writes the banner if the level is above 0 and the destination does not have it.
TraceSwitch switchTraceFile(const char* traceFile) noexcept;

// Sets the level to 0, closes the trace file and frees the name of the destination. It is called
// when the library is unloaded, and at the end of the process, when other threads may still be
// inside the library: if one of them is writing a line, or traceLock is not initialised, it returns
// false and has done nothing.
bool releaseTrace() noexcept;

// Take and release the locks of this module around a fork, so that no other thread holds one of
// them when the child is made.
void lockTraceForFork() noexcept;
void unlockTraceAfterFork() noexcept;

// Replaces a descriptor of 0 to 2 by a duplicate above 2, which is closed on exec, and returns
// that; returns any other descriptor, and -1, unchanged. A host may have closed descriptors 0 to 2:
// then a new socket or file gets one of them, and would receive what the process prints. If
// the duplication fails, closes the descriptor and returns -1, with errno.
int moveOffStandardStreams(int descriptor) noexcept;

}  // namespace zeb

// Writes a trace point with one of the writers above if allowed is true; the other arguments are
// evaluated only then. text is a literal, which starts with the name of its function.
#define ZEB_TRACE_WITH(writer, allowed, stamp, word, point, text, ...)                      \
  do {                                                                                      \
    static_assert(sizeof("" text) <= kTraceMessageSize); /* "" refuses all but a literal */ \
    if (allowed) [[unlikely]]                                                               \
      zeb::writer(ZEB_TRACE_PREFIX text, stamp, zeb::currentPid(), zeb::shownTid(), point,  \
                  word __VA_OPT__(, ) __VA_ARGS__);                                         \
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

#define ZEB_TRACE_DATA_TEXT " data=%p len=%d stopword=%8.8X\n"
// Writes a DATA line and a dump of storage, a TracedStorage. function is the literal
// "module.function"; if it contains %s, the argument after shownStopWord is the name printed there.
// shownStopWord is what the line shows as the stop word.
#define TRACE_DATA(point, function, storage, shownStopWord, ...)                            \
  do {                                                                                      \
    static_assert(sizeof("" function ZEB_TRACE_DATA_TEXT) <= kTraceMessageSize);            \
    if (zeb::traceLevel() >= zeb::kLevelDetail) [[unlikely]] {                              \
      const zeb::TracedStorage traced = storage;                                            \
      zeb::writeTraceData(traced, ZEB_TRACE_PREFIX function ZEB_TRACE_DATA_TEXT, timeStamp, \
                          zeb::currentPid(), zeb::shownTid(), point,                        \
                          "DATA" __VA_OPT__(, ) __VA_ARGS__, traced.address, traced.length, \
                          static_cast<std::uint32_t>(shownStopWord));                       \
    }                                                                                       \
  } while (0)

#endif
