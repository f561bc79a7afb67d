// SIGPIPE around sends to a gateway, and SIGPIPE and SIGXFSZ around writes of the trace.
//
// sigpipeMutex guards the count of senders and the disposition that they keep; nothing else is
// taken while it is held.

#include "stapi_zeb_signal.h"

#include <errno.h>
#include <pthread.h>
#include <time.h>

#include "stapi_zeb_memory.h"

namespace zeb {
namespace {

pthread_mutex_t sigpipeMutex = PTHREAD_MUTEX_INITIALIZER;
int senders = 0;
struct sigaction hostDisposition = {};
struct sigaction ownDisposition = {};  // static, because clearing its mask at each send costs time

// The host may ignore SIGPIPE too. Ours is recognised by flags that have no effect on an ignored
// signal.
constexpr int kOwnFlags = SA_NODEFER | SA_ONSTACK | SA_RESTART;

bool isOwn(const struct sigaction& disposition) noexcept {
  return disposition.sa_handler == SIG_IGN && (disposition.sa_flags & kOwnFlags) == kOwnFlags;
}

void ignoreSigpipe() noexcept {
  ownDisposition.sa_handler = SIG_IGN;
  ownDisposition.sa_flags = kOwnFlags;
  struct sigaction found;
  // A host that puts back what it found during an earlier send puts back ours: it is not the
  // host's.
  if (sigaction(SIGPIPE, &ownDisposition, &found) == 0 && !isOwn(found)) hostDisposition = found;
}

void putBackHostDisposition() noexcept {
  struct sigaction found;
  if (sigaction(SIGPIPE, &hostDisposition, &found) == 0 && !isOwn(found))
    sigaction(SIGPIPE, &found, nullptr);  // the host's newer one
}

constinit thread_local HeldWriteSignals* outermost = nullptr;

}  // namespace

IgnoredSigpipe::IgnoredSigpipe() noexcept {
  const MutexGuard guard(sigpipeMutex);
  if (senders++ == 0) ignoreSigpipe();
}

IgnoredSigpipe::~IgnoredSigpipe() {
  const int error = errno;
  {
    const MutexGuard guard(sigpipeMutex);
    if (--senders == 0) putBackHostDisposition();
  }
  errno = error;
}

HeldWriteSignals::HeldWriteSignals() noexcept : isOutermost_(outermost == nullptr) {
  if (!isOutermost_) return;
  outermost = this;
  sigset_t held;
  sigemptyset(&held);
  sigaddset(&held, SIGPIPE);
  sigaddset(&held, SIGXFSZ);
  pthread_sigmask(SIG_BLOCK, &held, &blockedBefore_);
  sigemptyset(&pendingBefore_);
  if (sigismember(&blockedBefore_, SIGPIPE) == 1 || sigismember(&blockedBefore_, SIGXFSZ) == 1)
    sigpending(&pendingBefore_);
}

HeldWriteSignals::~HeldWriteSignals() {
  if (!isOutermost_) return;
  outermost = nullptr;
  pthread_sigmask(SIG_SETMASK, &blockedBefore_, nullptr);
}

void HeldWriteSignals::takeSignalOf(int error) noexcept {
  const int signal = error == EPIPE ? SIGPIPE : error == EFBIG ? SIGXFSZ : 0;
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
    putBackHostDisposition();
  }
  pthread_mutex_unlock(&sigpipeMutex);
}

}  // namespace zeb
