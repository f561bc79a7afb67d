// Holds a lock for a scope. Order: gtlLock before traceLock. If locking fails, the work runs
// unlocked and nothing is released.
#ifndef STAPI_ZEB_LOCK_H
#define STAPI_ZEB_LOCK_H

#include "zebstats_private.h"

// The operations trace their entry and exit at level 5 and their failures at level 1.

// Returns 0, 1 (initialised already), or -2 (pthread_mutex_init failed).
ZEB_INTERNAL int initializeLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
// Waits for the lock. Returns 0, -1 (not initialised), or -4 (pthread_mutex_lock failed).
ZEB_INTERNAL int requestLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
// Returns 0, -1 (not initialised), or -5 (pthread_mutex_unlock failed).
ZEB_INTERNAL int releaseLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
// Returns 0, -1 (not initialised), or -4 (pthread_mutex_destroy failed).
ZEB_INTERNAL int destroyLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
// Returns the lock's state word, 0xFFEEDDCC if it is initialised.
ZEB_INTERNAL std::uint32_t isLockInitialized(const LockRecord* lockPtr) ZEB_NOEXCEPT;

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

// For a fork: takes a lock without a trace line, and releases it in the parent and in the child.
// Returns false, having taken nothing, if the lock is not initialised.
bool lockForFork(LockRecord& lock) noexcept;
void unlockAfterFork(LockRecord& lock) noexcept;

}  // namespace zeb

#endif
