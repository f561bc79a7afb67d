// Keeps the library's writes, to a gateway and to the trace, from sending signals to the host.
#ifndef STAPI_ZEB_SIGNAL_H
#define STAPI_ZEB_SIGNAL_H

#include <signal.h>

namespace zeb {

// The whole process ignores SIGPIPE while an object of this class lives. zebstats.h promises that
// for each send; the sends also pass MSG_NOSIGNAL, which holds even if the host sets another
// disposition meanwhile.
//
// The first object of the process saves the host's disposition. The last one restores it, flags and
// mask included, unless the host has set another one meanwhile, which then stays. One object alone
// costs two system calls.
class IgnoredSigpipe {
 public:
  IgnoredSigpipe() noexcept;
  ~IgnoredSigpipe();
  IgnoredSigpipe(const IgnoredSigpipe&) = delete;
  IgnoredSigpipe& operator=(const IgnoredSigpipe&) = delete;
};

// Blocks, in the calling thread, the signals that a failing write sends to it: SIGPIPE and SIGXFSZ.
// The host's dispositions stay as they are. If objects are nested in a thread, the outermost blocks
// the signals, and the others cost no system call.
class HeldWriteSignals {
 public:
  explicit HeldWriteSignals(bool isNeeded = true) noexcept {
    if (isNeeded) hold();
  }
  ~HeldWriteSignals() {
    if (isOutermost_) release();
  }
  HeldWriteSignals(const HeldWriteSignals&) = delete;
  HeldWriteSignals& operator=(const HeldWriteSignals&) = delete;

  // Removes the pending signal of a write that failed with this errno, so that it is not delivered
  // when the signals are unblocked. A signal that was pending before the writes stays pending.
  void takeSignalOf(int error) noexcept;

 private:
  void hold() noexcept;
  void release() noexcept;

  bool isOutermost_ = false;
  sigset_t blockedBefore_;
  sigset_t pendingBefore_;
};

// For a fork. From the first call to the second or third one, no other thread changes the
// disposition of SIGPIPE. The third one restores the host's disposition: the child has no thread
// that sends.
void lockSigpipeForFork() noexcept;
void unlockSigpipeInParent() noexcept;
void unlockSigpipeInChild() noexcept;

}  // namespace zeb

#endif
