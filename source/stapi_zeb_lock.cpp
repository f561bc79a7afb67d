// Mutexes that know whether they have been initialised. The use of a lock before its initialisation
// or after its destruction is reported, and does not touch an invalid mutex.
//
// The operations write their trace lines without taking traceLock, since that may be the lock they
// work on.
//
// quirk: the failure lines show errno, which pthread functions do not set; the EXIT line shows the
// error as mutexRc.

#include "stapi_zeb_lock.h"

#include <errno.h>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_version.h"

extern "C" {
extern const char stapi_zeb_lock_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_lock_notice[] = ZEB_NOTICE("stapi_zeb_lock");
}

// A trace point without traceLock. Its time stamp is on the stack, because only traceLock protects
// the shared one.
#define TRACE_LOCK(level, word, point, text, ...)                                \
  do {                                                                           \
    if (zeb::traceLevel() >= (level)) [[unlikely]] {                             \
      char stamp[sizeof timeStamp] = {};                                         \
      ZEB_TRACE_WITH(writeLockTraceLine, true, getTimestamp(stamp), word, point, \
                     text __VA_OPT__(, ) __VA_ARGS__);                           \
    }                                                                            \
  } while (0)
#define TRACE_LOCK_ENTRY(point, text, ...) \
  TRACE_LOCK(zeb::kLevelLock, "ENTRY", point, text __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_LOCK_EXIT(point, text, ...) \
  TRACE_LOCK(zeb::kLevelLock, "EXIT", point, text __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_LOCK_EXC(point, text, ...) \
  TRACE_LOCK(zeb::kLevelException, "*EXC*", point, text __VA_OPT__(, ) __VA_ARGS__)

namespace {

constexpr std::uint32_t kDestroyed = 0xCCDDEEFF;

constexpr int kAlreadyInitialized = 1;
constexpr int kNotInitialized = -1;
constexpr int kInitFailed = -2;
constexpr int kReleaseFailed = -5;
constexpr int kDestroyFailed = zeb::kLockRequestFailed;  // quirk: the same code

}  // namespace

namespace zeb {

bool lockForFork(LockRecord& lock) noexcept {
  return lock.state == kLockInitialized && pthread_mutex_lock(&lock.mutex) == 0;
}

void unlockAfterFork(LockRecord& lock) noexcept {
  pthread_mutex_unlock(&lock.mutex);
}

}  // namespace zeb

int initializeLock(LockRecord* lockPtr) noexcept {
  int rc = 0;
  int mutexRc = 0;
  TRACE_LOCK_ENTRY(3100, "stapi_zeb_lock.initializeLock(lockPtr=%p)\n", lockPtr);
  if (lockPtr->state == zeb::kLockInitialized) {
    rc = kAlreadyInitialized;
  } else if ((mutexRc = pthread_mutex_init(&lockPtr->mutex, nullptr)) == 0) {
    lockPtr->state = zeb::kLockInitialized;
  } else {
    rc = kInitFailed;
    TRACE_LOCK_EXC(
        3101, "stapi_zeb_lock.initializeLock(lockPtr=%p) Lock initialization failed errno=%d\n",
        lockPtr, errno);
  }
  TRACE_LOCK_EXIT(3102, "stapi_zeb_lock.initializeLock(lockPtr=%p) mutexRc=%d rc=%d\n", lockPtr,
                  mutexRc, rc);
  return rc;
}

int requestLock(LockRecord* lockPtr) noexcept {
  int rc = 0;
  int mutexRc = 0;
  TRACE_LOCK_ENTRY(3103, "stapi_zeb_lock.requestLock(lockPtr=%p)\n", lockPtr);
  if (lockPtr->state != zeb::kLockInitialized) {
    rc = kNotInitialized;
    TRACE_LOCK_EXC(3104, "stapi_zeb_lock.requestLock(lockPtr=%p) Lock not initialized\n", lockPtr);
  } else if ((mutexRc = pthread_mutex_lock(&lockPtr->mutex)) != 0) {
    rc = zeb::kLockRequestFailed;
    TRACE_LOCK_EXC(3105, "stapi_zeb_lock.requestLock(lockPtr=%p) Lock request failed errno=%d\n",
                   lockPtr, errno);
  }
  TRACE_LOCK_EXIT(3106, "stapi_zeb_lock.requestLock(lockPtr=%p) mutexRc=%d rc=%d\n", lockPtr,
                  mutexRc, rc);
  return rc;
}

int releaseLock(LockRecord* lockPtr) noexcept {
  int rc = 0;
  int mutexRc = 0;
  TRACE_LOCK_ENTRY(3107, "stapi_zeb_lock.releaseLock(lockPtr=%p)\n", lockPtr);
  if (lockPtr->state != zeb::kLockInitialized) {
    rc = kNotInitialized;
    TRACE_LOCK_EXC(3108, "stapi_zeb_lock.releaseLock(lockPtr=%p) Lock not initialized\n", lockPtr);
  } else if ((mutexRc = pthread_mutex_unlock(&lockPtr->mutex)) != 0) {
    rc = kReleaseFailed;
    TRACE_LOCK_EXC(3109, "stapi_zeb_lock.releaseLock(lockPtr=%p) Lock release failed errno=%d\n",
                   lockPtr, errno);
  }
  TRACE_LOCK_EXIT(3110, "stapi_zeb_lock.releaseLock(lockPtr=%p) mutexRc=%d rc=%d\n", lockPtr,
                  mutexRc, rc);
  return rc;
}

int destroyLock(LockRecord* lockPtr) noexcept {
  int rc = 0;
  int mutexRc = 0;
  TRACE_LOCK_ENTRY(3111, "stapi_zeb_lock.destroyLock(lockPtr=%p)\n", lockPtr);
  if (lockPtr->state != zeb::kLockInitialized) {
    rc = kNotInitialized;
    TRACE_LOCK_EXC(3112, "stapi_zeb_lock.destroyLock(lockPtr=%p) Lock not initialized\n", lockPtr);
  } else if ((mutexRc = pthread_mutex_destroy(&lockPtr->mutex)) == 0) {
    lockPtr->state = kDestroyed;
  } else {
    rc = kDestroyFailed;
    TRACE_LOCK_EXC(3113, "stapi_zeb_lock.destroyLock(lockPtr=%p) Lock destroy failed errno=%d\n",
                   lockPtr, errno);
  }
  TRACE_LOCK_EXIT(3114, "stapi_zeb_lock.destroyLock(lockPtr=%p) mutexRc=%d rc=%d\n", lockPtr,
                  mutexRc, rc);
  return rc;
}

std::uint32_t isLockInitialized(const LockRecord* lockPtr) noexcept {
  return lockPtr->state;
}
