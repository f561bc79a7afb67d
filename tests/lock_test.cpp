// The lock records: their codes and their lines.

#include <gtest/gtest.h>

#include <cerrno>

#include "stapi_zeb_lock.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace {

TEST(Lock, IsMadeOnceAndAnewBehindItsEnd) {
  LockRecord lock = {};
  EXPECT_EQ(initializeLock(&lock), 0);
  EXPECT_EQ(initializeLock(&lock), 1);
  EXPECT_EQ(isLockInitialized(&lock), 0xFFEEDDCC);
  EXPECT_EQ(destroyLock(&lock), 0);
  EXPECT_EQ(isLockInitialized(&lock), 0xCCDDEEFF);
  EXPECT_EQ(requestLock(&lock), -1);
  EXPECT_EQ(initializeLock(&lock), 0);
  EXPECT_EQ(destroyLock(&lock), 0);
}

TEST(Lock, ReportsFailuresFromLevelOneOn) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "misuses a mutex on purpose";
#endif
  zebtest::TraceCapture trace(1);
  LockRecord lock = {};
  EXPECT_EQ(requestLock(&lock), -1);
  EXPECT_EQ(releaseLock(&lock), -1);
  EXPECT_EQ(destroyLock(&lock), -1);
  pthread_mutexattr_t checking;
  pthread_mutexattr_init(&checking);
  pthread_mutexattr_settype(&checking, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&lock.mutex, &checking);
  lock.state = 0xFFEEDDCC;
  errno = 4711;  // the calls on the mutex return their error and leave this as it is
  EXPECT_EQ(releaseLock(&lock), -5);
  EXPECT_EQ(requestLock(&lock), 0);
  EXPECT_EQ(requestLock(&lock), -4);
  EXPECT_EQ(destroyLock(&lock), -4);
  EXPECT_EQ(trace.story({{"LOCK", &lock}}),
            R"(*EXC*  stapi_zeb_lock.requestLock(lockPtr=LOCK) Lock not initialized
*EXC*  stapi_zeb_lock.releaseLock(lockPtr=LOCK) Lock not initialized
*EXC*  stapi_zeb_lock.destroyLock(lockPtr=LOCK) Lock not initialized
*EXC*  stapi_zeb_lock.releaseLock(lockPtr=LOCK) Lock release failed errno=4711
*EXC*  stapi_zeb_lock.requestLock(lockPtr=LOCK) Lock request failed errno=4711
*EXC*  stapi_zeb_lock.destroyLock(lockPtr=LOCK) Lock destroy failed errno=4711
)");
  setAPITraceLevel(5);
  trace.restart();
  destroyLock(&lock);
  EXPECT_NE(trace.story().find(zebtest::formatText(") mutexRc=%d rc=-4\n", EBUSY)),
            std::string::npos);
  EXPECT_EQ(isLockInitialized(&lock), 0xFFEEDDCC);
  pthread_mutex_unlock(&lock.mutex);
}

}  // namespace
