// The trace: one destination, one line format, the storage dump.
//
// Every line, the banner and the switch of destination are written under traceLock, because the
// format buffer and the time stamp are shared. The lines of the lock operations, which cannot take
// it, and the state line of dumpState use buffers of their own. streamMutex keeps the destination
// from being closed while they write; it is the innermost lock.
//
// The trace must not harm the host: what the destination does not take at once is lost, and the
// signals of a failed write are held off and taken away.

#include "stapi_zeb_diag.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "stapi_zeb_lock.h"
#include "stapi_zeb_memory.h"
#include "stapi_zeb_signal.h"
#include "stapi_zeb_version.h"

extern "C" {
extern const char stapi_zeb_diag_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_diag_notice[] = ZEB_NOTICE("stapi_zeb_diag");

int statAPITrace = 0;
int statAPIDump = 0;
FILE* statAPITraceHandle = nullptr;
char* statAPITraceFilename = nullptr;
const char* defaultTraceFilename = "stderr";
char traceFmtStr[kTracePrefixLength + kTraceMessageSize] = ZEB_TRACE_PREFIX;
char timeStamp[24] = {};
char dateBuf[10] = {};
std::uint32_t tracePid = 0;
std::uint32_t traceTid = 0;
std::uint32_t iTid = 0;
LockRecord traceLock = {};
}

namespace zeb {
namespace {

std::uint32_t noPid = 0;
int traceHeaderWrite = 0;  // 1: the destination already has the banner
pthread_mutex_t streamMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t zoneMutex = PTHREAD_MUTEX_INITIALIZER;  // for a fork: see toLocalTime
char lastTimeStamp[sizeof timeStamp];  // of the last line written; guarded by streamMutex

// A line that is longer than this is cut: it shows a query string, which has a limit of its own, or
// a name that the host gave.
char lineBuffer[kQueryStringSize + 2048];  // guarded by traceLock
bool isTraceLockedForFork = false;         // set between a fork's two halves

FILE* destination() noexcept {
  return statAPITraceHandle != nullptr ? statAPITraceHandle : stderr;
}

char* putDigits(char* at, int value, int width, char after) noexcept {
  for (int i = width - 1; i >= 0; --i, value /= 10) at[i] = static_cast<char>('0' + value % 10);
  at[width] = after;
  return at + width + 1;
}

// "%d/%m/%y" and the character after it.
char* putDate(char* at, const tm& local, char after) noexcept {
  at = putDigits(at, local.tm_mday, 2, '/');
  at = putDigits(at, local.tm_mon + 1, 2, '/');
  return putDigits(at, local.tm_year % 100, 2, after);
}

constexpr std::size_t kMillisecondsAt = 18;

void putMilliseconds(char* dst, const timeval& now) noexcept {
  putDigits(dst + kMillisecondsAt, static_cast<int>(now.tv_usec / 1000), 3, '\0');
}

// The host may have changed TZ, which localtime_r alone would not notice. The C library has a lock
// of its own here that it does not release in a forked child, so that no thread may be in it while
// another one forks.
tm toLocalTime(time_t second) noexcept {
  const MutexGuard guard(zoneMutex);
  tm local = {};
  tzset();
  localtime_r(&second, &local);
  return local;
}

void putTimestamp(char* dst, const timeval& now) noexcept {
  const tm local = toLocalTime(now.tv_sec);
  char* at = putDate(dst, local, ' ');
  at = putDigits(at, local.tm_hour, 2, ':');
  at = putDigits(at, local.tm_min, 2, ':');
  putDigits(at, local.tm_sec, 2, ':');
  putMilliseconds(dst, now);
}

// The caller holds traceLock. Returns true if TZ is not what it was at the call before.
bool hasZoneChanged() noexcept {
  static char known[64] = "?";
  const char* const zone = getenv("TZ");
  const char* const shown = zone != nullptr ? zone : "?";
  if (strncmp(known, shown, sizeof known) == 0) return false;
  strncpy(known, shown, sizeof known - 1);  // a longer one always counts as changed
  return true;
}

// The caller holds traceLock. Local time is cached per second: localtime_r is slow.
void refreshTimeStamp() noexcept {
  static time_t second = -1;
  static char text[sizeof timeStamp];
  timeval now = {};
  gettimeofday(&now, nullptr);
  if (hasZoneChanged() || now.tv_sec != second) {
    putTimestamp(text, now);
    second = now.tv_sec;
  }
  putMilliseconds(text, now);
  memcpy(timeStamp, text, sizeof timeStamp);
}

// The trace's own files do not block, but standard error may be a pipe whose reader sleeps. It is
// written without its stream, which may hold output of the host's, and whose lock a thread of the
// host may hold while it is blocked.
bool writeToStandardError(const char* text, std::size_t length) noexcept {
  const int descriptor = fileno(stderr);
  pollfd waited = {descriptor, POLLOUT, 0};
  if (poll(&waited, 1, 0) <= 0) return false;
  return write(descriptor, text, length) == static_cast<ssize_t>(length);
}

bool writeToFile(FILE* stream, const char* text, std::size_t length) noexcept {
  if (fwrite(text, 1, length, stream) == length && fflush(stream) == 0) return true;
  const ErrnoKeeper keeper;
  __fpurge(stream);  // or it would be written at some later time
  clearerr(stream);
  return false;
}

// The caller holds streamMutex. Writes in pieces that a pipe takes as a whole; once a piece is
// lost, the rest is.
void writeToStream(const char* text, std::size_t length) noexcept {
  FILE* const stream = destination();
  HeldWriteSignals signals;
  while (length > 0) {
    const std::size_t piece = std::min<std::size_t>(length, PIPE_BUF);
    errno = 0;
    const bool isWritten =
        stream == stderr ? writeToStandardError(text, piece) : writeToFile(stream, text, piece);
    if (!isWritten) {
      signals.takeSignalOf(errno);
      return;
    }
    text += piece;
    length -= piece;
  }
}

void writeText(const char* text, std::size_t length) noexcept {
  const MutexGuard guard(streamMutex);
  writeToStream(text, length);
}

void writeStampedLine(const char* text, std::size_t length, const char* stamp) noexcept {
  const MutexGuard guard(streamMutex);
  writeToStream(text, length);
  memmove(lastTimeStamp, stamp, sizeof lastTimeStamp);
}

// What is in a buffer of that size after vsnprintf has returned written; a line that was cut still
// ends.
std::size_t endLine(char* buffer, std::size_t size, int written) noexcept {
  if (written < 0) return 0;
  if (static_cast<std::size_t>(written) < size) return static_cast<std::size_t>(written);
  buffer[size - 2] = '\n';
  return size - 1;
}

// What the prefix of a line shows; the arguments of every trace point begin with it.
struct Prefix {
  const char* stamp;
  std::uint32_t pid;
  std::uint32_t tid;
  int point;
  const char* word;
};

char* putHex(char* at, std::uint32_t value) noexcept {
  for (int shift = 28; shift >= 0; shift -= 4) *at++ = "0123456789ABCDEF"[value >> shift & 0xF];
  return at;
}

char* putText(char* at, std::string_view text) noexcept {
  memcpy(at, text.data(), text.size());
  return at + text.size();
}

// Prints ZEB_TRACE_PREFIX by hand, which saves a fifth of the time of a line.
char* putPrefix(char* at, const Prefix& prefix) noexcept {
  at = putText(at, prefix.stamp);
  at = putHex(putText(at, " [0x"), prefix.pid);
  at = putHex(putText(at, ",0x"), prefix.tid);
  at = putDigits(putText(at, "] ["), prefix.point, prefix.point < 10000 ? 4 : 5, ']');
  *at++ = ' ';
  const std::string_view word = prefix.word;
  at = putText(at, word);
  return putText(at, std::string_view("       ", 7 - word.size()));
}

// Formats a whole line to buffer. Returns its length, and its time stamp in *stamp.
std::size_t formatLine(char* buffer, std::size_t size, const char** stamp, const char* message,
                       va_list arguments) noexcept {
  Prefix prefix;
  prefix.stamp = *stamp = va_arg(arguments, const char*);
  prefix.pid = va_arg(arguments, std::uint32_t);
  prefix.tid = va_arg(arguments, std::uint32_t);
  prefix.point = va_arg(arguments, int);
  prefix.word = va_arg(arguments, const char*);
  char* const at = putPrefix(buffer, prefix);
  const std::size_t room = size - static_cast<std::size_t>(at - buffer);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int written = vsnprintf(at, room, message, arguments);
#pragma GCC diagnostic pop
  return static_cast<std::size_t>(at - buffer) + endLine(at, room, written);
}

enum class Time { fresh, asBefore };

void setTimeStamp(Time time) noexcept {
  if (time == Time::fresh) {
    refreshTimeStamp();
  } else {
    const MutexGuard guard(streamMutex);
    memcpy(timeStamp, lastTimeStamp, sizeof timeStamp);
  }
}

// The caller holds traceLock. format is prefix and message as one literal, so the compiler can
// check it; the first argument is timeStamp.
void writeFormatted(Time time, const char* format, va_list arguments) noexcept {
  const std::size_t length = std::min(strlen(format + kTracePrefixLength), kTraceMessageSize - 1);
  memcpy(traceFmtStr + kTracePrefixLength, format + kTracePrefixLength, length);
  traceFmtStr[kTracePrefixLength + length] = '\0';
  setTimeStamp(time);
  tracePid = currentPid();
  traceTid = shownTid();
  iTid = traceTid;
  const char* stamp;
  const std::size_t size = formatLine(lineBuffer, sizeof lineBuffer, &stamp,
                                      traceFmtStr + kTracePrefixLength, arguments);
  writeStampedLine(lineBuffer, size, stamp);
}

void writeBannerOnce() noexcept {
  if (traceHeaderWrite != 0) return;
  writeRaw("*** %s KRO Velora ZEBSTATS DLL trace V%s API V%s Build Level %s ***\n",
           getTraceDate(dateBuf), kProductVersion, kApiVersion, kBuildLevel);
}

// Opens a file for append. It never blocks: not the opening of a FIFO that nobody reads, nor a
// write to one whose reader sleeps.
FILE* openTraceFile(const char* name, int& error) noexcept {
  if (strlen(name) >= kTraceFilenameSize) {
    error = ENAMETOOLONG;
    return nullptr;
  }
  const int descriptor = open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0666);
  FILE* const opened = descriptor >= 0 ? fdopen(descriptor, "ae") : nullptr;
  if (opened != nullptr) return opened;
  error = errno;
  if (descriptor >= 0) close(descriptor);
  return nullptr;
}

// The caller holds traceLock and streamMutex, and makes another destination the current one.
void closeTraceFile() noexcept {
  if (statAPITraceHandle != nullptr && statAPITraceHandle != stderr) fclose(statAPITraceHandle);
}

void writeDumpText(StorageDump& dump) noexcept {
  writeText(dump.text, dump.textLength);
  dump.textLength = 0;
}

void appendText(StorageDump& dump, char c) noexcept {
  if (dump.textLength == sizeof dump.text) writeDumpText(dump);
  dump.text[dump.textLength++] = c;
}

void appendHex(StorageDump& dump, unsigned value, int digits) noexcept {
  for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
    appendText(dump, "0123456789ABCDEF"[value >> shift & 0xF]);
}

void appendAddress(StorageDump& dump) noexcept {
  appendText(dump, '0');
  appendText(dump, 'x');
  appendHex(dump, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(dump.address)), 8);
  appendText(dump, ':');
  appendText(dump, ' ');
}

bool isReadable(const StorageDump& dump, int position, std::ptrdiff_t bytes) noexcept {
  return dump.limit == nullptr || dump.limit - dump.address - position >= bytes;
}

// Whether the dump ends before this column.
bool endsAt(const StorageDump& dump, int position) noexcept {
  if (dump.remaining > 0) return position == dump.remaining;
  return isReadable(dump, position, sizeof dump.stopWord) &&
         memcmp(dump.address + position, &dump.stopWord, sizeof dump.stopWord) == 0;
}

int dumpLines(StorageDump dump) noexcept {
  const bool lengthMode = dump.remaining > 0;
  int total = 0;
  for (;;) {
    appendAddress(dump);
    const int count = writeStorageLineDual(&dump);
    dump.address += count;
    total += count;
    if (lengthMode) dump.remaining -= count;
    if (count == 0 || (lengthMode ? dump.remaining < 1 : count != dump.lineWidth)) break;
  }
  return total;
}

}  // namespace

constinit std::atomic<std::uint32_t*> rememberedPid = &noPid;

// A whole page of the library's own data, whatever the size of a page up to 64 kB: it goes when the
// library is unloaded, and its memory is not touched but for that page.
void startRememberingPid() noexcept {
  constexpr std::size_t kMaxPageSize = 65536;
  static char area[2 * kMaxPageSize];
  const ErrnoKeeper keeper;
  if (rememberedPid != &noPid) return;
  const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  if (size > kMaxPageSize) return;
  void* page = area;
  std::size_t space = sizeof area;
  std::align(size, size, page, space);
  // Some emulators accept any advice and ignore it; if an invalid one is accepted, WIPEONFORK
  // cannot be trusted.
  constexpr int kNoAdvice = -1;
  if (madvise(page, size, kNoAdvice) == 0 || madvise(page, size, MADV_WIPEONFORK) != 0) return;
  rememberedPid = static_cast<std::uint32_t*>(page);
  askPid();  // stored now, or a vfork child would store its id on the shared page
}

std::uint32_t askPid() noexcept {
  const auto pid = static_cast<std::uint32_t>(getpid());
  std::uint32_t* const remembered = rememberedPid;
  if (remembered != &noPid) std::atomic_ref(*remembered).store(pid, std::memory_order_relaxed);
  return pid;
}

constinit thread_local ThreadId rememberedTid = 0;

std::uint32_t shownTid() noexcept {
  return shownTid(currentTid());
}

const void* addressToShow(const void* block) noexcept {
  return block;
}

const char* traceFilename() noexcept {
  return statAPITraceFilename != nullptr ? statAPITraceFilename : defaultTraceFilename;
}

void writeTraceLine(const char* format, ...) noexcept {
  const ErrnoKeeper keeper;
  va_list arguments;
  va_start(arguments, format);
  {
    const LockGuard guard(traceLock);
    writeFormatted(Time::fresh, format, arguments);
  }
  va_end(arguments);
}

void writeTraceLineSameTime(const char* format, ...) noexcept {
  const ErrnoKeeper keeper;
  va_list arguments;
  va_start(arguments, format);
  {
    const LockGuard guard(traceLock);
    writeFormatted(Time::asBefore, format, arguments);
  }
  va_end(arguments);
}

void writeTraceData(const TracedStorage& storage, const char* format, ...) noexcept {
  const ErrnoKeeper keeper;
  va_list arguments;
  va_start(arguments, format);
  {
    const LockGuard guard(traceLock);
    writeFormatted(Time::fresh, format, arguments);
    dumpStorage(storage);
  }
  va_end(arguments);
}

void writeLockTraceLine(const char* format, ...) noexcept {
  const ErrnoKeeper keeper;
  char line[kTracePrefixLength + kTraceMessageSize + sizeof timeStamp + 64];
  va_list arguments;
  va_start(arguments, format);
  const char* stamp;
  const std::size_t size =
      formatLine(line, sizeof line, &stamp, format + kTracePrefixLength, arguments);
  va_end(arguments);
  writeStampedLine(line, size, stamp);
}

void writeRaw(const char* format, ...) noexcept {
  char line[kTraceFilenameSize + 256];  // the longest one shows the name of the trace file
  va_list arguments;
  va_start(arguments, format);
  const int written = vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  writeText(line, endLine(line, sizeof line, written));
}

void writeRule() noexcept {
  writeRaw("--------------------------------------------------------------------------------\n");
}

int dumpStorage(const TracedStorage& storage) noexcept {
  if (storage.address == nullptr || (storage.length <= 0 && storage.stopWord == 0)) return 0;
  const auto* bytes = static_cast<const unsigned char*>(storage.address);
  return dumpLines({bytes, bytes + storage.size, storage.length, storage.stopWord, 16, 0, {}});
}

void writeStateLine() noexcept {
  const ErrnoKeeper keeper;
  char name[kTraceFilenameSize];
  {
    const MutexGuard guard(streamMutex);  // the name changes under it
    strcpy(name, traceFilename());
  }
  writeRaw("zebstats state dump: API Version=%s Trace Level=%d statAPITraceFile=%s\n", kApiVersion,
           traceLevel(), name);
}

void changeTraceLevel(int level) noexcept {
  const LockGuard guard(traceLock);
  // quirk: only a switch of file marks the banner as written, so each rise from 0 on standard error
  // repeats it.
  if (traceLevel() == 0 && level > 0) writeBannerOnce();
  setTraceLevel(level);
}

TraceSwitch switchTraceFile(const char* traceFile) noexcept {
  const LockGuard guard(traceLock);
  TraceSwitch result = {false, 0};
  if (statAPITraceFilename == nullptr) return {false, ENOMEM};  // the library has been unloaded
  FILE* opened = traceFile != nullptr ? openTraceFile(traceFile, result.error) : stderr;
  const bool isThereAlready =
      traceFile == nullptr && (statAPITraceHandle == nullptr || statAPITraceHandle == stderr);
  if (opened != nullptr && !isThereAlready) {
    const MutexGuard streamGuard(streamMutex);
    closeTraceFile();
    const char* const name = traceFile != nullptr ? traceFile : defaultTraceFilename;
    memmove(statAPITraceFilename, name, strlen(name) + 1);  // traceFile may be the buffer itself
    statAPITraceHandle = opened;
    traceHeaderWrite = 0;
    result.switched = true;
  }
  if (traceLevel() >= kLevelException && traceHeaderWrite == 0) {
    writeBannerOnce();
    traceHeaderWrite = 1;
  }
  return result;
}

void lockTraceForFork() noexcept {
  isTraceLockedForFork = lockForFork(traceLock);
  pthread_mutex_lock(&streamMutex);
  pthread_mutex_lock(&zoneMutex);
}

void unlockTraceAfterFork() noexcept {
  pthread_mutex_unlock(&zoneMutex);
  pthread_mutex_unlock(&streamMutex);
  if (isTraceLockedForFork) unlockAfterFork(traceLock);
}

bool releaseTrace() noexcept {
  if (isLockInitialized(&traceLock) == 0 || pthread_mutex_trylock(&traceLock.mutex) != 0)
    return false;
  const bool isFree = pthread_mutex_trylock(&streamMutex) == 0;
  if (isFree) {
    setTraceLevel(0);
    closeTraceFile();
    statAPITraceHandle = nullptr;
    free(std::exchange(statAPITraceFilename, nullptr));
    pthread_mutex_unlock(&streamMutex);
  }
  pthread_mutex_unlock(&traceLock.mutex);
  return isFree;
}

}  // namespace zeb

using namespace zeb;

int initTrace(void) noexcept {
  {
    const MutexGuard guard(streamMutex);
    statAPITraceHandle = stderr;
  }
  const int lockRc = initializeLock(&traceLock);
  if (lockRc != 0 && lockRc != 1) return ZEB_TRACE_LOCK_FAILED;
  if (statAPITraceFilename != nullptr) return 0;
  Block<char> name = allocate<char>(kTraceFilenameSize);
  if (name == nullptr) return ZEB_NO_MEMORY;
  strcpy(name.get(), defaultTraceFilename);
  statAPITraceFilename = name.release();
  return 0;
}

char* getTraceDate(char* dst) noexcept {
  const ErrnoKeeper keeper;
  putDate(dst, toLocalTime(time(nullptr)), '\0');
  return dst;
}

char* getTimestamp(char* dst) noexcept {
  const ErrnoKeeper keeper;
  timeval now = {};
  gettimeofday(&now, nullptr);
  putTimestamp(dst, now);
  return dst;
}

int compareTids(ThreadId tid1, ThreadId tid2) noexcept {
  return pthread_equal(tid1, tid2) != 0 ? 1 : 0;
}

void getPidTid(std::uint32_t* pidPtr, ThreadId* tidPtr) noexcept {
  if (pidPtr != nullptr) *pidPtr = currentPid();
  if (tidPtr != nullptr) *tidPtr = currentTid();
}

int traceOutStorage(const void* address, int length, std::uint32_t stopWord, int lineWidth,
                    int /*spare*/) noexcept {
  if (address == nullptr || lineWidth < 1 || length < 0 || (length == 0 && stopWord == 0)) return 0;
  return dumpLines(
      {static_cast<const unsigned char*>(address), nullptr, length, stopWord, lineWidth, 0, {}});
}

int writeStorageLineDual(StorageDump* dump) noexcept {
  const int count = writeStorageLineHex(dump);
  for (const char c : {' ', ':', ' '}) appendText(*dump, c);
  writeStorageLineChar(dump, count);
  appendText(*dump, '\n');
  writeDumpText(*dump);
  return count;
}

int writeStorageLineHex(StorageDump* dump) noexcept {
  bool ended = false;
  int end = dump->lineWidth;
  for (int i = 0; i < dump->lineWidth; ++i) {
    const bool readable = isReadable(*dump, i, 1);
    // quirk: a later stop word of the same line moves the end
    if (readable ? (!ended || dump->remaining == 0) && endsAt(*dump, i) : !ended) {
      ended = true;
      end = i;
    }
    if (readable &&
        (!ended || end == 0)) {  // quirk: a line that ends on its first byte is shown whole
      appendHex(*dump, dump->address[i], 2);
    } else {
      appendText(*dump, ' ');
      appendText(*dump, ' ');
    }
    const int written = i + 1;
    if (written == dump->lineWidth) break;
    if (written % 4 == 0) appendText(*dump, ' ');
    if (written % 16 == 0) appendText(*dump, ' ');
  }
  return end;
}

void writeStorageLineChar(StorageDump* dump, int count) noexcept {
  for (int i = 0; i < count; ++i) {
    const int c = dump->address[i];
    appendText(*dump, static_cast<char>(isprint(c) != 0 ? c : '.'));
    if ((i + 1) % 16 == 0) appendText(*dump, ' ');
  }
}
