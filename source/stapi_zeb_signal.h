// Keeps the library's writes from sending signals to the host.
#ifndef STAPI_ZEB_SIGNAL_H
#define STAPI_ZEB_SIGNAL_H

#include <signal.h>

namespace zeb {

// SIGPIPE is ignored in the whole process while such an object lives. The first one of the process
// keeps the host's disposition and the last one puts it back with its flags and mask, unless the
// host has set another one meanwhile, which then stays. One object alone costs two system calls.
class IgnoredSigpipe {
 public:
  IgnoredSigpipe() noexcept;
  ~IgnoredSigpipe();
  IgnoredSigpipe(const IgnoredSigpipe&) = delete;
  IgnoredSigpipe& operator=(const IgnoredSigpipe&) = delete;
};

// Holds off the signals that a failing write sends to its thread, SIGPIPE and SIGXFSZ. The host's
// dispositions stay as they are.
// One object within another of the same thread costs nothing: the outermost holds the signals.
class HeldWriteSignals {
 public:
  HeldWriteSignals() noexcept;
  ~HeldWriteSignals();
  HeldWriteSignals(const HeldWriteSignals&) = delete;
  HeldWriteSignals& operator=(const HeldWriteSignals&) = delete;

  // Takes away the signal of a write that failed with error. A signal that was pending before
  // stays.
  void takeSignalOf(int error) noexcept;

 private:
  bool isOutermost_;
  sigset_t blockedBefore_;
  sigset_t pendingBefore_;
};

// For a fork: no other thread is in the midst of a change of SIGPIPE's disposition between the
// first call and one of the others. In the child no send is under way, so the host's disposition is
// put back.
void lockSigpipeForFork() noexcept;
void unlockSigpipeInParent() noexcept;
void unlockSigpipeInChild() noexcept;

}  // namespace zeb

#endif
