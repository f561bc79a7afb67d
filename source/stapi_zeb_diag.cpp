// The trace: one destination, one line format, the storage dump.
//
// Lines, the banner and the storage dump are written, and the destination is switched, under
// traceLock, because the line buffer and the time stamp are shared. Some lines are written without
// it, from buffers of their own: those of the lock operations, which cannot take it, the state line
// of dumpState, and that of a failed initialisation. streamMutex is held for each write and keeps
// the destination from being closed meanwhile. It and zoneMutex are the innermost locks: no other
// one is taken under them, except by a fork.
//
// The trace must not harm the host: what the destination does not take at once is lost, and the
// signal of a failed write is blocked and then taken away.

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
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
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

std::uint32_t noPid = 0;  // the cache of the process id while there is no page for it; stays 0
bool hasBanner = false;   // whether the destination has the banner; guarded by traceLock
pthread_mutex_t streamMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t zoneMutex = PTHREAD_MUTEX_INITIALIZER;  // for a fork: see toLocalTime
char lastTimeStamp[sizeof timeStamp];  // of the last line written; guarded by streamMutex

// Room for a query string and the rest of its line. A longer line, which shows a longer query or a
// long name, is cut.
char lineBuffer[kQueryStringSize + 2048];  // guarded by traceLock
bool isTraceLockedForFork = false;         // set and read by the thread that forks

// The caller holds streamMutex.
FILE* destination() noexcept {
  return statAPITraceHandle != nullptr ? statAPITraceHandle : stderr;
}

// Writes value to `at` as `width` digits with leading zeros, then the character `after`. Returns
// the place after what it wrote, as every put... function with a result does.
char* putDigits(char* at, int value, int width, char after) noexcept {
  for (int i = width - 1; i >= 0; --i, value /= 10) at[i] = static_cast<char>('0' + value % 10);
  at[width] = after;
  return at + width + 1;
}

// A date as "%d/%m/%y", and the character after.
char* putDate(char* at, const tm& local, char after) noexcept {
  at = putDigits(at, local.tm_mday, 2, '/');
  at = putDigits(at, local.tm_mon + 1, 2, '/');
  return putDigits(at, local.tm_year % 100, 2, after);
}

constexpr std::size_t kMillisecondsAt = 18;  // in a time stamp: "dd/mm/yy hh:mm:ss:mmm"

void putMilliseconds(char* dst, const timeval& now) noexcept {
  putDigits(dst + kMillisecondsAt, static_cast<int>(now.tv_usec / 1000), 3, '\0');
}

// Calls tzset because the host may have changed TZ, which localtime_r alone does not notice. Both
// take a lock of the C library that a forked child inherits locked if another thread holds it; a
// fork therefore waits for zoneMutex.
tm toLocalTime(time_t second) noexcept {
  const MutexGuard guard(zoneMutex);
  tm local = {};
  tzset();
  localtime_r(&second, &local);
  return local;
}

// A whole time stamp, NUL-terminated.
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
  static char known[64];
  const char* const value = getenv("TZ");
  const char* const zone = value != nullptr ? value : "?";  // an unset TZ is not an empty one
  if (strncmp(known, zone, sizeof known) == 0) return false;
  strncpy(known, zone, sizeof known - 1);  // a value that does not fit counts as changed each time
  return true;
}

// Sets timeStamp to now. The caller holds traceLock. localtime_r is slow, so it is called only once
// for all lines of a second.
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

// Writes to a descriptor of the host, and does not wait if it is full. For a pipe or a socket,
// which another writer may fill after a poll, there are calls that never wait. For a terminal, and
// for a pipe on older kernels, there is only the poll.
ssize_t writeAtOnce(int descriptor, const char* text, std::size_t length) noexcept {
  struct stat status = {};
  fstat(descriptor, &status);
  if (S_ISSOCK(status.st_mode)) return send(descriptor, text, length, MSG_DONTWAIT);
  if (S_ISFIFO(status.st_mode)) {
    const iovec piece = {.iov_base = const_cast<char*>(text), .iov_len = length};
    const ssize_t written = pwritev2(descriptor, &piece, 1, -1, RWF_NOWAIT);
    if (written >= 0 || errno == EAGAIN || errno == EPIPE) return written;
  }
  pollfd waited = {.fd = descriptor, .events = POLLOUT, .revents = 0};
  return poll(&waited, 1, 0) > 0 ? write(descriptor, text, length) : -1;
}

// Standard error may be a pipe whose reader sleeps. The stream is bypassed, because it may buffer
// output of the host, and because a thread of the host may hold its lock while it is blocked.
bool writeToStandardError(const char* text, std::size_t length) noexcept {
  return writeAtOnce(fileno(stderr), text, length) == static_cast<ssize_t>(length);
}

// Does not wait either: openTraceFile makes files non-blocking.
bool writeToFile(FILE* stream, const char* text, std::size_t length) noexcept {
  if (fwrite(text, 1, length, stream) == length && fflush(stream) == 0) return true;
  const ErrnoKeeper keeper;
  __fpurge(stream);  // otherwise a later write would write the rest of this one first
  clearerr(stream);
  return false;
}

// The caller holds streamMutex. A pipe takes a piece of PIPE_BUF bytes either as a whole or not at
// all; once a piece, or a part of it that a socket did not take, is lost, the rest of the text is
// dropped.
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

// stamp, the time stamp of the line, has sizeof timeStamp bytes.
void writeStampedLine(const char* text, std::size_t length, const char* stamp) noexcept {
  const MutexGuard guard(streamMutex);
  writeToStream(text, length);
  memcpy(lastTimeStamp, stamp, sizeof lastTimeStamp);
}

// Called after vsnprintf has printed a line to a buffer of size bytes and returned written. Returns
// the length of the line; ends a cut line with a newline.
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

// Prints what ZEB_TRACE_PREFIX describes, without printf, which saves a fifth of the time of a
// line.
char* putPrefix(char* at, const Prefix& prefix) noexcept {
  constexpr std::size_t kWordWidth = 7;  // the six columns of %-6.6s, and a blank
  at = putText(at, prefix.stamp);
  at = putHex(putText(at, " [0x"), prefix.pid);
  at = putHex(putText(at, ",0x"), prefix.tid);
  at = putDigits(putText(at, "] ["), prefix.point, prefix.point < 10000 ? 4 : 5, ']');
  *at++ = ' ';
  const std::string_view word = prefix.word;
  at = putText(at, word);
  return putText(at, std::string_view("       ", kWordWidth - word.size()));
}

// Formats a whole line to buffer, which has more room than the prefix needs. arguments begins with
// those of the prefix; message is the format of the rest. Returns the length of the line, and in
// *stamp its time stamp.
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

// What writeTraceLine does; the caller holds traceLock. The message is copied to traceFmtStr, which
// is exported for diagnosis, after the prefix that always stays there, and is formatted from there.
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

// The caller holds traceLock.
void writeBanner() noexcept {
  writeRaw("*** %s KRO Velora ZEBSTATS DLL trace V%s API V%s Build Level %s ***\n",
           getTraceDate(dateBuf), kProductVersion, kApiVersion, kBuildLevel);
}

// Opens a file for append. With O_NONBLOCK, opening a FIFO that nobody reads fails at once, and so
// does a write to one that is full. O_LARGEFILE lets the file grow past 2 GiB on 32-bit hosts, too.
// Returns null, and the reason in error, if it fails.
FILE* openTraceFile(const char* name, int& error) noexcept {
  if (strlen(name) >= kTraceFilenameSize) {
    error = ENAMETOOLONG;
    return nullptr;
  }
  const int descriptor = moveOffStandardStreams(
      open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_LARGEFILE, 0666));
  FILE* const opened = descriptor >= 0 ? fdopen(descriptor, "a") : nullptr;
  if (opened != nullptr) return opened;
  error = errno;
  if (descriptor >= 0) close(descriptor);
  return nullptr;
}

// The caller holds traceLock and streamMutex, and then sets statAPITraceHandle, which is no longer
// valid.
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

// Returns whether the count bytes that start at a position of the line lie below the dump's limit.
bool isReadable(const StorageDump& dump, int position, std::ptrdiff_t count) noexcept {
  return dump.limit == nullptr || dump.limit - dump.address - position >= count;
}

// Returns whether the byte at a position of the line, which is readable, is the first one that does
// not belong to the dump.
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
    const bool isFull = count == dump.lineWidth;
    if (!isFull || (lengthMode && dump.remaining < 1) || !isReadable(dump, 0, 1)) break;
  }
  return total;
}

}  // namespace

constinit std::atomic<std::uint32_t*> rememberedPid = &noPid;

// The page is a part of the library's own data, so that it goes when the library is unloaded. area
// contains a whole page of any size up to kMaxPageSize; the rest of it is never touched and takes
// no memory.
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
  // Some emulators accept any advice and ignore it. If even an invalid one is accepted,
  // MADV_WIPEONFORK cannot be trusted.
  constexpr int kNoAdvice = -1;
  if (madvise(page, size, kNoAdvice) == 0 || madvise(page, size, MADV_WIPEONFORK) != 0) return;
  rememberedPid = static_cast<std::uint32_t*>(page);
  // Stores the id now: a vfork child shares the page, and if the page were still empty, the child
  // would store its own id there.
  askPid();
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
  constexpr std::size_t kShownNumbers = 64;  // the room that the message's arguments may take
  const ErrnoKeeper keeper;
  char line[kTracePrefixLength + kTraceMessageSize + sizeof timeStamp + kShownNumbers];
  va_list arguments;
  va_start(arguments, format);
  const char* stamp;
  const std::size_t size =
      formatLine(line, sizeof line, &stamp, format + kTracePrefixLength, arguments);
  va_end(arguments);
  writeStampedLine(line, size, stamp);
}

void writeRaw(const char* format, ...) noexcept {
  char line[kTraceFilenameSize + 256];  // the longest text shows the name of the trace file
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
  return dumpLines({.address = bytes,
                    .limit = bytes + storage.size,
                    .remaining = storage.length,
                    .stopWord = storage.stopWord,
                    .lineWidth = 16,
                    .textLength = 0,
                    .text = {}});
}

void writeStateLine() noexcept {
  const ErrnoKeeper keeper;
  char name[kTraceFilenameSize];
  {
    const MutexGuard guard(streamMutex);  // the name is written under it
    strcpy(name, traceFilename());
  }
  writeRaw("zebstats state dump: API Version=%s Trace Level=%d statAPITraceFile=%s\n", kApiVersion,
           traceLevel(), name);
}

void changeTraceLevel(int level) noexcept {
  const LockGuard guard(traceLock);
  // quirk: does not set hasBanner, so until switchTraceFile has set it, each rise from level 0
  // writes the banner again.
  if (traceLevel() == 0 && level > 0 && !hasBanner) writeBanner();
  setTraceLevel(level);
}

TraceSwitch switchTraceFile(const char* traceFile) noexcept {
  const LockGuard guard(traceLock);
  TraceSwitch result = {false, 0};
  if (statAPITraceFilename == nullptr) return {false, ENOMEM};  // after releaseTrace()
  FILE* const opened = traceFile != nullptr ? openTraceFile(traceFile, result.error) : stderr;
  const bool stays = traceFile == nullptr && destination() == stderr;
  if (opened != nullptr && !stays) {
    const MutexGuard streamGuard(streamMutex);
    closeTraceFile();
    const char* const name = traceFile != nullptr ? traceFile : defaultTraceFilename;
    // memmove, because a host that passes statAPITraceFilename passes the buffer itself.
    memmove(statAPITraceFilename, name, strlen(name) + 1);
    statAPITraceHandle = opened;
    hasBanner = false;
    result.switched = true;
  }
  if (traceLevel() >= kLevelException && !hasBanner) {
    writeBanner();
    hasBanner = true;
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
  if (isLockInitialized(&traceLock) != kLockInitialized ||
      pthread_mutex_trylock(&traceLock.mutex) != 0)
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

int moveOffStandardStreams(int descriptor) noexcept {
  if (descriptor < 0 || descriptor > STDERR_FILENO) return descriptor;
  const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const ErrnoKeeper keeper;
  close(descriptor);
  return moved;
}

}  // namespace zeb

using namespace zeb;

int initTrace(void) noexcept {
  {
    const MutexGuard guard(streamMutex);
    statAPITraceHandle = stderr;
  }
  const int lockRc = initializeLock(&traceLock);
  if (lockRc != 0 && lockRc != 1) return ZEB_TRACE_LOCK_FAILED;  // 1: initialised already
  if (statAPITraceFilename != nullptr) return 0;
  Block<char> name = allocate<char>(kTraceFilenameSize);
  if (name == nullptr) return ZEB_NO_MEMORY;
  strcpy(name.get(), defaultTraceFilename);
  const MutexGuard guard(streamMutex);
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
  return dumpLines({.address = static_cast<const unsigned char*>(address),
                    .limit = nullptr,
                    .remaining = length,
                    .stopWord = stopWord,
                    .lineWidth = lineWidth,
                    .textLength = 0,
                    .text = {}});
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
    const bool isByteReadable = isReadable(*dump, i, 1);
    // quirk: a further stop word on the line moves the end
    if (isByteReadable ? endsAt(*dump, i) : !ended) {
      ended = true;
      end = i;
    }
    // quirk: a line that ends before its first byte shows all bytes
    if (isByteReadable && (!ended || end == 0)) {
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
