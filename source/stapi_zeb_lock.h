// Holds a lock for a scope. Order: gtlLock before traceLock. If locking fails, the work runs unlocked and nothing
// is released.
#ifndef STAPI_ZEB_LOCK_H
#define STAPI_ZEB_LOCK_H

#include "zebstats_private.h"

namespace zeb {

constexpr int kLockRequestFailed = -4;

class LockGuard {
 public:
  explicit LockGuard(LockRecord& lock) noexcept
      : lock_(lock), isRefused_(requestLock(&lock) == kLockRequestFailed) {}
  ~LockGuard() {
    if (!isRefused_) releaseLock(&lock_);
  }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  LockRecord& lock_;
  bool isRefused_;
};

// For a fork: takes a lock without a trace line, and releases it in the parent and in the child. Returns false,
// having taken nothing, if the lock is not initialised.
bool lockForFork(LockRecord& lock) noexcept;
void unlockAfterFork(LockRecord& lock) noexcept;

}  // namespace zeb

#endif
