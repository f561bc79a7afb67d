// The time limit of public calls. The deadline belongs to the calling thread, because the functions
// between the public call and its waits have signatures that leave no room for it.

#include "stapi_zeb_timeout.h"

#include <errno.h>
#include <poll.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <climits>

namespace zeb {
namespace {

constexpr std::int64_t kNanosecondsPerMillisecond = 1000000;

struct Deadline {
  std::int64_t at;   // of the monotonic clock, in nanoseconds
  int milliseconds;  // the limit; 0 if there is none
  bool isActive;     // a public call of this thread has begun
  bool hasPassed;    // a wait was given up
};

std::atomic<int> processTimeout{0};
constinit thread_local Deadline deadline = {};
constinit thread_local std::uint32_t* cancelFlag = nullptr;

std::int64_t now() noexcept {
  timespec clock = {};
  clock_gettime(CLOCK_MONOTONIC, &clock);
  return std::int64_t{clock.tv_sec} * 1000 * kNanosecondsPerMillisecond + clock.tv_nsec;
}

// What poll may wait, rounded up so that it does not return early and spin.
int remainingMilliseconds() noexcept {
  const std::int64_t left = deadline.at - now() + kNanosecondsPerMillisecond - 1;
  return static_cast<int>(std::clamp<std::int64_t>(left / kNanosecondsPerMillisecond, 0, INT_MAX));
}

}  // namespace

void setTimeout(int milliseconds) noexcept {
  processTimeout.store(milliseconds, std::memory_order_relaxed);
}

int getTimeout() noexcept {
  return processTimeout.load(std::memory_order_relaxed);
}

TimedCall::TimedCall() noexcept : isOutermost_(!deadline.isActive) {
  if (!isOutermost_) return;
  const int milliseconds = getTimeout();
  deadline = {milliseconds > 0 ? now() + milliseconds * kNanosecondsPerMillisecond : 0,
              milliseconds, true, false};
}

TimedCall::~TimedCall() {
  if (isOutermost_) deadline = {};
}

bool hasDeadline() noexcept {
  return deadline.milliseconds > 0;
}

bool hasTimedOut() noexcept {
  return deadline.hasPassed;
}

int callTimeout() noexcept {
  return deadline.milliseconds;
}

CancellableCall::CancellableCall(std::uint32_t* flag) noexcept {
  cancelFlag = flag;
}

CancellableCall::~CancellableCall() {
  cancelFlag = nullptr;
}

bool isCancelled() noexcept {
  return cancelFlag != nullptr && std::atomic_ref(*cancelFlag).load(std::memory_order_seq_cst) != 0;
}

int waitForEvents(int descriptor, short events, short* readyEvents) noexcept {
  if (descriptor < 0) {  // poll would ignore it and wait for ever
    errno = EBADF;
    return -1;
  }
  pollfd waited = {descriptor, events, 0};
  int ready;
  do {
    ready = poll(&waited, 1, hasDeadline() ? remainingMilliseconds() : -1);
  } while (ready < 0 && errno == EINTR && hasDeadline());
  if (ready == 0) deadline.hasPassed = true;
  *readyEvents = waited.revents;
  return ready;
}

}  // namespace zeb
