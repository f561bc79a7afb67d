// Holds a lock of the library for the life of a scope. gtlLock is taken before traceLock, never behind it.
// The codes of the lock operations are not looked at: where a lock fails, the work goes on without it.
#ifndef STAPI_ZEB_LOCK_H
#define STAPI_ZEB_LOCK_H

#include "zebstats_private.h"

namespace zeb {

class LockGuard {
 public:
  explicit LockGuard(LockRecord& lock) noexcept : lock_(lock) { requestLock(&lock_); }
  ~LockGuard() { releaseLock(&lock_); }
  LockGuard(const LockGuard&) = delete;
  LockGuard& operator=(const LockGuard&) = delete;

 private:
  LockRecord& lock_;
};

}  // namespace zeb

#endif
