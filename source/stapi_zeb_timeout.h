// The time limit of a public call, which is taken when the call starts and kept by every wait
// within it, and the cancellation of a call by another thread.
#ifndef STAPI_ZEB_TIMEOUT_H
#define STAPI_ZEB_TIMEOUT_H

#include <cstdint>

namespace zeb {

// The limit of the process in milliseconds, 0 for none. It holds for calls that start after it was
// set.
void setTimeout(int milliseconds) noexcept;
int getTimeout() noexcept;

// Gives the calling thread a deadline for as long as the object lives, if the process has a limit.
// The outermost object of a thread decides; one inside of it changes nothing.
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
// The limit that the call started with, for messages.
int callTimeout() noexcept;

// For as long as the object lives, isCancelled() on the thread that made it returns whether *flag
// is set. Another thread sets the flag before it looks for the call's socket, to shut it down.
class CancellableCall {
 public:
  explicit CancellableCall(std::uint32_t* flag) noexcept;
  ~CancellableCall();
  CancellableCall(const CancellableCall&) = delete;
  CancellableCall& operator=(const CancellableCall&) = delete;
};

// True if another thread has cancelled the call that this thread is in.
bool isCancelled() noexcept;

// Waits until descriptor is ready for one of events (poll's). Returns poll's answer: positive and
// *readyEvents, 0 if the deadline has passed, or -1 with errno. With a deadline a handled signal
// does not end the wait; without one it does (EINTR), and the wait has no limit. Works for
// descriptors of any number; a negative one is EBADF.
int waitForEvents(int descriptor, short events, short* readyEvents) noexcept;

}  // namespace zeb

#endif
