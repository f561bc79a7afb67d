// Lock records: mutexes that know whether they have been initialised. The library has two of them,
// and takes gtlLock (the list of gateway tokens) before traceLock.
#ifndef STAPI_ZEB_LOCK_H
#define STAPI_ZEB_LOCK_H

#include "zebstats_private.h"

// The operations take the address of a record that is zero at first, and never a null pointer. They
// trace their entry and exit at level 5 and their failures at level 1, without taking traceLock.
// isLockInitialized traces nothing.

// Makes the lock usable, also one that has been destroyed. Two threads must not do so at once.
// Returns 0, 1 (initialised already: nothing is changed), or -2 (pthread_mutex_init failed).
ZEB_INTERNAL int initializeLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
// Waits for the lock; a thread that holds it must not request it again. Returns 0, -1 (not
// initialised, or destroyed), or -4 (pthread_mutex_lock failed).
ZEB_INTERNAL int requestLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
// Releases a lock that the calling thread holds. Returns 0, -1 (not initialised, or destroyed), or
// -5 (pthread_mutex_unlock failed).
ZEB_INTERNAL int releaseLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
// Destroys a lock that nobody holds. Returns 0, -1 (not initialised, or destroyed already), or -4
// (pthread_mutex_destroy failed; the lock stays usable).
ZEB_INTERNAL int destroyLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
// quirk: returns the lock's state word, not a truth value: kLockInitialized, 0xCCDDEEFF
// (destroyed), or anything else (never initialised).
ZEB_INTERNAL std::uint32_t isLockInitialized(const LockRecord* lockPtr) ZEB_NOEXCEPT;

namespace zeb {

constexpr std::uint32_t kLockInitialized = 0xFFEEDDCC;
constexpr int kLockRequestFailed = -4;

// Holds a lock for a scope. If it is not initialised or cannot be locked, the work of the scope
// runs without it. Only after a failed pthread_mutex_lock is the release left out: for a lock that
// is not initialised it only writes trace lines, the counterparts of the request's.
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

// Takes a lock before a fork, without a trace line. Returns false, having taken nothing, if the
// lock is not initialised or pthread_mutex_lock fails.
bool lockForFork(LockRecord& lock) noexcept;
// Releases a lock that lockForFork has taken; parent and child both call it after the fork.
void unlockAfterFork(LockRecord& lock) noexcept;

}  // namespace zeb

#endif
