// Trace points: one line a point, nothing but a comparison when the level is below it.
#ifndef STAPI_ZEB_DIAG_H
#define STAPI_ZEB_DIAG_H

#include <atomic>

#include "zebstats_private.h"

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

// Where the process id stands between two questions to the kernel: on a page that the kernel clears in every
// child that has memory of its own. Until there is one, and where no such page is to be had, this is a 0, and
// every question goes to the kernel.
extern std::atomic<std::uint32_t*> rememberedPid;
[[gnu::cold]] void startRememberingPid() noexcept;
[[gnu::cold]] std::uint32_t askPid() noexcept;
inline std::uint32_t knownPid() noexcept {
  return std::atomic_ref(*rememberedPid.load(std::memory_order_relaxed)).load(std::memory_order_relaxed);
}
inline std::uint32_t currentPid() noexcept {
  const std::uint32_t pid = knownPid();
  return pid != 0 ? pid : askPid();
}

// Where pthread_self's answer stands once a thread has asked: the call itself costs as much as half the step of
// a walk that it checks. Every thread begins with a 0.
extern constinit thread_local ThreadId rememberedTid;
inline ThreadId currentTid() noexcept {
  if (rememberedTid == 0) [[unlikely]]
    rememberedTid = pthread_self();
  return rememberedTid;
}

// The low 32 bits of a thread id, this thread's or another's, as trace lines show them.
[[gnu::cold]] std::uint32_t shownTid() noexcept;
inline std::uint32_t shownTid(ThreadId tid) noexcept {
  return static_cast<std::uint32_t>(tid);
}

// Whether these are the ids of the calling thread, as far as they are remembered. A no may be wrong.
inline bool isKnownCaller(std::uint32_t pid, ThreadId tid) noexcept {
  return pid != 0 && tid != 0 && pid == knownPid() && pthread_equal(rememberedTid, tid) != 0;
}

// An address that is only printed, and may have been freed by then.
const void* addressToShow(const void* block) noexcept;

// A text for %s, which may be missing.
inline const char* textToShow(const char* text) noexcept {
  return text != nullptr ? text : "NULL";
}

// The name of the trace destination; valid to print under traceLock, as every trace line does.
const char* traceFilename() noexcept;

// All write one line, prefix included, and leave errno as it was. The first takes traceLock; the second does
// too but repeats the time of the line before; the third is for the lock operations, which can not take the
// lock that they report on and therefore share no buffer with the others.
[[gnu::format(printf, 1, 2), gnu::cold]] void writeTraceLine(const char* format, ...) noexcept;
[[gnu::format(printf, 1, 2), gnu::cold]] void writeTraceLineSameTime(const char* format, ...) noexcept;
[[gnu::format(printf, 1, 2), gnu::cold]] void writeLockTraceLine(const char* format, ...) noexcept;

// A trace line and behind it the storage dump of length bytes, or up to stopWord when length is 0, but never
// more than size bytes.
struct TracedStorage {
  const void* address;
  int length;
  std::uint32_t stopWord;
  std::size_t size;
};
[[gnu::format(printf, 2, 3), gnu::cold]] void writeTraceData(const TracedStorage& storage, const char* format,
                                                             ...) noexcept;

// Writes text without a prefix; the caller holds traceLock.
[[gnu::format(printf, 1, 2)]] void writeRaw(const char* format, ...) noexcept;
// A rule of 80 "-".
void writeRule() noexcept;
// The storage dump of traceOutStorage that stays within storage.size bytes.
int dumpStorage(const TracedStorage& storage) noexcept;
// The state line of dumpState, which takes no traceLock.
void writeStateLine() noexcept;

// Sets the level, with the banner ahead of the first line where the destination has none yet.
void changeTraceLevel(int level) noexcept;

struct TraceSwitch {
  bool switched;
  int error;  // errno of a failed open, else 0
};
TraceSwitch switchTraceFile(const char* traceFile) noexcept;

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

// A point whose level test was made before, once for several points of a loop.
#define ZEB_TRACE_IF(allowed, word, point, text, ...) \
  ZEB_TRACE_WITH(writeTraceLine, allowed, timeStamp, word, point, text __VA_OPT__(, ) __VA_ARGS__)
#define ZEB_TRACE(level, word, point, text, ...) \
  ZEB_TRACE_IF(zeb::traceLevel() >= (level), word, point, text __VA_OPT__(, ) __VA_ARGS__)

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

// function is a literal, "module.function", or holds a %s for which a name follows the storage.
#define TRACE_DATA(point, function, storage, shownStopWord, ...)                                           \
  do {                                                                                                     \
    if (zeb::traceLevel() >= zeb::kLevelDetail) [[unlikely]] {                                             \
      const zeb::TracedStorage traced = storage;                                                           \
      zeb::writeTraceData(traced, ZEB_TRACE_PREFIX function " data=%p len=%d stopword=%8.8X\n", timeStamp, \
                          zeb::currentPid(), zeb::shownTid(), point, "DATA" __VA_OPT__(, ) __VA_ARGS__,    \
                          traced.address, traced.length, static_cast<std::uint32_t>(shownStopWord));       \
    }                                                                                                      \
  } while (0)

#endif
