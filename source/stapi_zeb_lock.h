// Holds a lock of the library for the life of a scope. gtlLock is taken before traceLock, never behind it.
// Where the system refuses a lock, the work goes on without it, and nobody else's hold of it is released.
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

}  // namespace zeb

#endif
