// The deadline and the flag are thread-local, because the functions between a public call and its
// waits are exported, so that their arguments cannot change.

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
  std::int64_t at;   // time of the monotonic clock in nanoseconds; unused if there is no timeout
  int milliseconds;  // the timeout; 0 if there is none
  bool isActive;     // this thread is in a public call
  bool hasPassed;    // a wait of the call has ended because of it
};

std::atomic<int> processTimeout{0};
constinit thread_local Deadline deadline = {};
constinit thread_local std::uint32_t* cancelFlag = nullptr;

std::int64_t now() noexcept {
  timespec clock = {};
  clock_gettime(CLOCK_MONOTONIC, &clock);
  return std::int64_t{clock.tv_sec} * 1000 * kNanosecondsPerMillisecond + clock.tv_nsec;
}

// Returns how long poll may wait: 0 after the deadline, -1 without one, which poll takes as no
// limit. Rounded up, so that poll does not return before the deadline.
int remainingMilliseconds() noexcept {
  if (!hasDeadline()) return -1;
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
  deadline = {.at = milliseconds > 0 ? now() + milliseconds * kNanosecondsPerMillisecond : 0,
              .milliseconds = milliseconds,
              .isActive = true,
              .hasPassed = false};
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

bool isOverdue() noexcept {
  const std::int64_t grace = deadline.milliseconds * kNanosecondsPerMillisecond / 20;
  return hasTimedOut() && now() > deadline.at + grace;
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

// Sequentially consistent, as the other thread's accesses to flag and descriptor: either this
// thread sees the flag before it connects, or the other one sees the descriptor and shuts it down.
bool isCancelled() noexcept {
  return cancelFlag != nullptr && std::atomic_ref(*cancelFlag).load(std::memory_order_seq_cst) != 0;
}

int waitForEvents(int descriptor, short events, short* readyEvents) noexcept {
  // poll would ignore a negative descriptor and wait for ever.
  if (descriptor < 0) {
    errno = EBADF;
    return -1;
  }
  pollfd waited = {.fd = descriptor, .events = events, .revents = 0};
  int ready;
  do {
    const int milliseconds = remainingMilliseconds();
    // A gateway that sends faster than it is read must not keep the call going after the deadline.
    ready = milliseconds == 0 ? 0 : poll(&waited, 1, milliseconds);
  } while (ready < 0 && errno == EINTR && hasDeadline());
  if (ready == 0) deadline.hasPassed = true;
  *readyEvents = waited.revents;
  return ready;
}

}  // namespace zeb
