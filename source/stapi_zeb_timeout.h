// What can end a wait for a gateway: the deadline of the public call, which is set when the call
// starts and observed by every wait within it, and another thread that cancels the call.
#ifndef STAPI_ZEB_TIMEOUT_H
#define STAPI_ZEB_TIMEOUT_H

#include <cstdint>

namespace zeb {

// The timeout of the process in milliseconds; 0, the value at the start, is none. Each public call
// uses the value that it finds when it starts.
void setTimeout(int milliseconds) noexcept;
int getTimeout() noexcept;

// Lives as long as a public call. If the process has a timeout, the object gives the calling thread
// a deadline, that long from now. A public call may make another one: then only the outermost
// object of the thread counts, and those within it change nothing.
class TimedCall {
 public:
  TimedCall() noexcept;
  ~TimedCall();
  TimedCall(const TimedCall&) = delete;
  TimedCall& operator=(const TimedCall&) = delete;

 private:
  bool isOutermost_;
};

// True if the call that this thread is in has a deadline.
bool hasDeadline() noexcept;
// True if a wait of this thread's call ended because the deadline had passed.
bool hasTimedOut() noexcept;
// True if a wait has ended at the deadline, and half of the tenth that the call may still take has
// gone since.
bool isOverdue() noexcept;
// The timeout of this thread's call in milliseconds, 0 if it has none.
int callTimeout() noexcept;

// Lives while a call opens a connection, and makes it possible to cancel that: as long as the
// object lives, isCancelled() in its thread returns whether *flag is not 0. A thread that cancels
// the call first sets the flag and then shuts down the call's socket, if there is one already. The
// caller owns the flag. A thread has at most one such object.
class CancellableCall {
 public:
  explicit CancellableCall(std::uint32_t* flag) noexcept;
  ~CancellableCall();
  CancellableCall(const CancellableCall&) = delete;
  CancellableCall& operator=(const CancellableCall&) = delete;
};

// True if another thread has set the flag of this thread's CancellableCall; false without one.
bool isCancelled() noexcept;

// Waits until descriptor is ready for one of events (poll's), with the deadline of this thread's
// call or, if it has none, without limit. Returns a positive number, with *readyEvents set to the
// events that have come; or 0 if the deadline has passed, even if the descriptor is ready; or -1
// with errno, which is EBADF for a negative descriptor. A handled signal ends only a wait without a
// deadline (EINTR). Unlike select, it takes descriptors above 1023.
int waitForEvents(int descriptor, short events, short* readyEvents) noexcept;

}  // namespace zeb

#endif
