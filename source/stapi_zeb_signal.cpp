// Ignores SIGPIPE around sends to a gateway; blocks SIGPIPE and SIGXFSZ around writes of the trace.
//
// sigpipeMutex guards senders and hostDisposition. No other lock is taken while it is held.

#include "stapi_zeb_signal.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include "stapi_zeb_memory.h"

namespace zeb {
namespace {

pthread_mutex_t sigpipeMutex = PTHREAD_MUTEX_INITIALIZER;
int senders = 0;  // objects of IgnoredSigpipe that live
struct sigaction hostDisposition = {};
struct sigaction ownDisposition =
    {};  // static, so that its large mask is not cleared for each send

// The host may ignore SIGPIPE, too. These flags and this signal in the mask have no effect on
// an ignored signal; they mark the library's own disposition.
constexpr int kOwnFlags = SA_NODEFER | SA_ONSTACK | SA_RESTART;
constexpr int kOwnSignal = SIGSYS;

bool isOwn(const struct sigaction& disposition) noexcept {
  return disposition.sa_handler == SIG_IGN && (disposition.sa_flags & kOwnFlags) == kOwnFlags &&
         sigismember(&disposition.sa_mask, kOwnSignal) == 1;
}

void ignoreSigpipe() noexcept {
  ownDisposition.sa_handler = SIG_IGN;
  ownDisposition.sa_flags = kOwnFlags;
  sigaddset(&ownDisposition.sa_mask, kOwnSignal);
  struct sigaction found;
  // Our own disposition is found if the host read it during an earlier send and has set it again
  // since: then the saved one is still the host's.
  if (sigaction(SIGPIPE, &ownDisposition, &found) == 0 && !isOwn(found)) hostDisposition = found;
}

// One call both restores the disposition and returns the one before. If that was not our own, the
// host has set it during the send, and gets it back.
void restoreHostDisposition() noexcept {
  struct sigaction found;
  if (sigaction(SIGPIPE, &hostDisposition, &found) == 0 && !isOwn(found))
    sigaction(SIGPIPE, &found, nullptr);
}

constinit thread_local HeldWriteSignals* outermost = nullptr;  // of this thread; null: none

// The signal that a write which failed with this errno has sent, or 0.
int signalOf(int error) noexcept {
  if (error == EPIPE) return SIGPIPE;
  if (error == EFBIG) return SIGXFSZ;
  return 0;
}

}  // namespace

IgnoredSigpipe::IgnoredSigpipe() noexcept {
  const MutexGuard guard(sigpipeMutex);
  if (senders++ == 0) ignoreSigpipe();
}

IgnoredSigpipe::~IgnoredSigpipe() {
  const int error = errno;
  {
    const MutexGuard guard(sigpipeMutex);
    if (--senders == 0) restoreHostDisposition();
  }
  errno = error;
}

void HeldWriteSignals::hold() noexcept {
  if (outermost != nullptr) return;
  isOutermost_ = true;
  outermost = this;
  sigset_t held;
  sigemptyset(&held);
  sigaddset(&held, SIGPIPE);
  sigaddset(&held, SIGXFSZ);
  pthread_sigmask(SIG_BLOCK, &held, &blockedBefore_);
  sigemptyset(&pendingBefore_);
  // Only a signal that the thread had blocked already can have been pending.
  if (sigismember(&blockedBefore_, SIGPIPE) == 1 || sigismember(&blockedBefore_, SIGXFSZ) == 1)
    sigpending(&pendingBefore_);
}

void HeldWriteSignals::release() noexcept {
  outermost = nullptr;
  pthread_sigmask(SIG_SETMASK, &blockedBefore_, nullptr);
}

void HeldWriteSignals::takeSignalOf(int error) noexcept {
  const int signal = signalOf(error);
  if (signal == 0 || sigismember(&outermost->pendingBefore_, signal) == 1) return;
  sigset_t taken;
  sigemptyset(&taken);
  sigaddset(&taken, signal);
  const timespec noWait = {};
  sigtimedwait(&taken, nullptr, &noWait);
}

void lockSigpipeForFork() noexcept {
  pthread_mutex_lock(&sigpipeMutex);
}

void unlockSigpipeInParent() noexcept {
  pthread_mutex_unlock(&sigpipeMutex);
}

void unlockSigpipeInChild() noexcept {
  if (senders > 0) {
    senders = 0;
    restoreHostDisposition();
  }
  pthread_mutex_unlock(&sigpipeMutex);
}

}  // namespace zeb
