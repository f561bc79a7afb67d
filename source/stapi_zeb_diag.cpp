// The trace: one destination, one line format, the storage dump.
//
// Every line, the banner and the switch of destination are written under traceLock, because the format buffer
// and the time stamp are shared. The lines of the lock operations, which can not take it, and the state line
// of dumpState use buffers of their own; streamMutex keeps the destination open under their hands. It is the
// innermost lock: nothing else is taken while it is held.

#include "stapi_zeb_diag.h"

#include <ctype.h>
#include <errno.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "stapi_zeb_lock.h"
#include "stapi_zeb_memory.h"
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
int traceHeaderWrite = 0;  // 1: the banner stands in the current destination
pthread_mutex_t streamMutex = PTHREAD_MUTEX_INITIALIZER;

class StreamGuard {
 public:
  StreamGuard() noexcept : isHeld_(pthread_mutex_lock(&streamMutex) == 0) {}
  ~StreamGuard() {
    if (isHeld_) pthread_mutex_unlock(&streamMutex);
  }
  StreamGuard(const StreamGuard&) = delete;
  StreamGuard& operator=(const StreamGuard&) = delete;

 private:
  bool isHeld_;
};

// Tracing must not disturb what it reports on: later steps read errno.
class ErrnoKeeper {
 public:
  ~ErrnoKeeper() { errno = kept_; }

 private:
  int kept_ = errno;
};

FILE* destination() noexcept {
  return statAPITraceHandle != nullptr ? statAPITraceHandle : stderr;
}

char* putDigits(char* at, int value, int width, char behind) noexcept {
  for (int i = width - 1; i >= 0; --i, value /= 10) at[i] = static_cast<char>('0' + value % 10);
  at[width] = behind;
  return at + width + 1;
}

// "%d/%m/%y" and the character behind it.
char* putDate(char* at, const tm& local, char behind) noexcept {
  at = putDigits(at, local.tm_mday, 2, '/');
  at = putDigits(at, local.tm_mon + 1, 2, '/');
  return putDigits(at, local.tm_year % 100, 2, behind);
}

constexpr std::size_t kMillisecondsAt = 18;

void putMilliseconds(char* dst, const timeval& now) noexcept {
  putDigits(dst + kMillisecondsAt, static_cast<int>(now.tv_usec / 1000), 3, '\0');
}

void putTimestamp(char* dst, const timeval& now) noexcept {
  tm local = {};
  localtime_r(&now.tv_sec, &local);
  char* at = putDate(dst, local, ' ');
  at = putDigits(at, local.tm_hour, 2, ':');
  at = putDigits(at, local.tm_min, 2, ':');
  putDigits(at, local.tm_sec, 2, ':');
  putMilliseconds(dst, now);
}

// The caller holds traceLock. Of the lines of one second only the first asks for the local time, which is slow.
void refreshTimeStamp() noexcept {
  static time_t second = -1;
  static char text[sizeof timeStamp];
  timeval now = {};
  gettimeofday(&now, nullptr);
  if (now.tv_sec != second) {
    putTimestamp(text, now);
    second = now.tv_sec;
  }
  putMilliseconds(text, now);
  memcpy(timeStamp, text, sizeof timeStamp);
}

enum class Time { fresh, asBefore };

// The caller holds traceLock. format is the prefix and the message in one literal, checked where it stands;
// the arguments begin with those of the prefix, the first of them timeStamp itself.
void writeFormatted(Time time, const char* format, va_list arguments) noexcept {
  const std::size_t length = std::min(strlen(format + kTracePrefixLength), kTraceMessageSize - 1);
  memcpy(traceFmtStr + kTracePrefixLength, format + kTracePrefixLength, length);
  traceFmtStr[kTracePrefixLength + length] = '\0';
  if (time == Time::fresh) refreshTimeStamp();
  tracePid = currentPid();
  traceTid = shownTid();
  iTid = traceTid;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  vfprintf(destination(), traceFmtStr, arguments);
#pragma GCC diagnostic pop
}

void writeBannerOnce() noexcept {
  if (traceHeaderWrite != 0) return;
  writeRaw("*** %s KRO Velora ZEBSTATS DLL trace V%s API V%s Build Level %s ***\n", getTraceDate(dateBuf),
           kProductVersion, kApiVersion, kBuildLevel);
  flushTrace();
}

FILE* openTraceFile(const char* name, int& error) noexcept {
  if (strlen(name) >= kTraceFilenameSize) {
    error = ENAMETOOLONG;
    return nullptr;
  }
  FILE* opened = fopen(name, "a");
  if (opened == nullptr) error = errno;
  return opened;
}

void appendText(StorageDump& dump, char c) noexcept {
  if (dump.textLength == sizeof dump.text) {
    fwrite(dump.text, 1, dump.textLength, destination());
    dump.textLength = 0;
  }
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

// Does the dump end ahead of this position of the line?
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
  flushTrace();
  return total;
}

}  // namespace

constinit std::atomic<std::uint32_t*> rememberedPid = &noPid;

void startRememberingPid() noexcept {
  const ErrnoKeeper keeper;
  if (rememberedPid != &noPid) return;
  const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  void* const page = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return;
  // Who takes an advice that does not exist, as emulators do, heeds none.
  constexpr int kNoAdvice = -1;
  if (madvise(page, size, kNoAdvice) != 0 && madvise(page, size, MADV_WIPEONFORK) == 0) {
    rememberedPid = static_cast<std::uint32_t*>(page);
    askPid();  // now, so that no child that shares the page leaves its own id there
  } else {
    munmap(page, size);
  }
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
    flushTrace();
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
    flushTrace();
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
    flushTrace();
  }
  va_end(arguments);
}

void writeLockTraceLine(const char* format, ...) noexcept {
  const ErrnoKeeper keeper;
  va_list arguments;
  va_start(arguments, format);
  {
    const StreamGuard guard;
    vfprintf(destination(), format, arguments);
    flushTrace();
  }
  va_end(arguments);
}

void writeRaw(const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  vfprintf(destination(), format, arguments);
  va_end(arguments);
}

void flushTrace() noexcept {
  fflush(destination());
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
  const StreamGuard guard;
  writeRaw("zebstats state dump: API Version=%s Trace Level=%d statAPITraceFile=%s\n", kApiVersion,
           traceLevel(), traceFilename());
  flushTrace();
}

void changeTraceLevel(int level) noexcept {
  const LockGuard guard(traceLock);
  // kept: only a switch of file marks the banner as written, so each rise from 0 on standard error repeats it.
  if (traceLevel() == 0 && level > 0) writeBannerOnce();
  setTraceLevel(level);
}

TraceSwitch switchTraceFile(const char* traceFile) noexcept {
  const LockGuard guard(traceLock);
  TraceSwitch result = {false, 0};
  FILE* opened = traceFile != nullptr ? openTraceFile(traceFile, result.error) : stderr;
  const bool isThereAlready =
      traceFile == nullptr && (statAPITraceHandle == nullptr || statAPITraceHandle == stderr);
  if (opened != nullptr && !isThereAlready) {
    const StreamGuard streamGuard;
    if (statAPITraceHandle != nullptr && statAPITraceHandle != stderr) fclose(statAPITraceHandle);
    const char* const name = traceFile != nullptr ? traceFile : defaultTraceFilename;
    memmove(statAPITraceFilename, name, strlen(name) + 1);  // it may be the buffer itself
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

}  // namespace zeb

using namespace zeb;

int initTrace(void) noexcept {
  {
    const StreamGuard guard;
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
  const time_t now = time(nullptr);
  tm local = {};
  localtime_r(&now, &local);
  putDate(dst, local, '\0');
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
  return dumpLines({static_cast<const unsigned char*>(address), nullptr, length, stopWord, lineWidth, 0, {}});
}

int writeStorageLineDual(StorageDump* dump) noexcept {
  const int count = writeStorageLineHex(dump);
  for (const char c : {' ', ':', ' '}) appendText(*dump, c);
  writeStorageLineChar(dump, count);
  appendText(*dump, '\n');
  fwrite(dump->text, 1, dump->textLength, destination());
  dump->textLength = 0;
  return count;
}

int writeStorageLineHex(StorageDump* dump) noexcept {
  bool ended = false;
  int end = dump->lineWidth;
  for (int i = 0; i < dump->lineWidth; ++i) {
    const bool readable = isReadable(*dump, i, 1);
    // kept: a later stop word of the same line moves the end
    if (readable ? (!ended || dump->remaining == 0) && endsAt(*dump, i) : !ended) {
      ended = true;
      end = i;
    }
    if (readable && (!ended || end == 0)) {  // kept: a line that ends on its first byte is shown whole
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
