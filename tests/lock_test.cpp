// The lock records: what each operation returns, and its trace.

#include <gtest/gtest.h>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_lock.h"
#include "trace_capture.h"

namespace {

TEST(Lock, ReturnsAndTracesTheCodeOfEachOperation) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "misuses a mutex on purpose";
#endif
  LockRecord lock = {};
  // A lock whose mutex reports its misuse.
  const auto initializeChecking = [](LockRecord* record) noexcept {
    pthread_mutexattr_t checking;
    pthread_mutexattr_init(&checking);
    pthread_mutexattr_settype(&checking, PTHREAD_MUTEX_ERRORCHECK);
    const int rc = initializeLock(record) + pthread_mutex_init(&record->mutex, &checking);
    return isLockInitialized(record) == 0xFFEEDDCC ? rc : 1;
  };
  const struct {
    int (*call)(LockRecord*) noexcept;
    int mutexRc, rc;
  } steps[] = {{requestLock, 0, -1},       {releaseLock, 0, -1},     {destroyLock, 0, -1},
               {initializeLock, 0, 0},     {initializeLock, 0, 1},   {requestLock, 0, 0},
               {releaseLock, 0, 0},        {destroyLock, 0, 0},      {requestLock, 0, -1},
               {initializeChecking, 0, 0}, {releaseLock, EPERM, -5}, {requestLock, 0, 0},
               {requestLock, EDEADLK, -4}, {destroyLock, EBUSY, -4}, {releaseLock, 0, 0},
               {destroyLock, 0, 0}};
  zebtest::TraceCapture trace(5);
  for (const auto& step : steps) {
    SCOPED_TRACE(&step - steps);
    trace.restart();
    errno = 4711;  // which the calls on the mutex leave as it is
    EXPECT_EQ(step.call(&lock), step.rc);
    const std::string story = trace.story();
    const std::string end = zebtest::formatText("mutexRc=%d rc=%d\n", step.mutexRc, step.rc);
    EXPECT_TRUE(story.ends_with(end)) << story;
    EXPECT_EQ(story.find("*EXC*") != story.npos, step.rc < 0);
    EXPECT_EQ(story.find("errno=4711\n") != story.npos, step.mutexRc != 0);
  }
  EXPECT_EQ(isLockInitialized(&lock), 0xCCDDEEFF);
}

TEST(Lock, OfTheListIsTakenBeforeTheOneOfTheTrace) {
  zebtest::TraceCapture trace(5);
  dumpState();
  const std::string story = trace.story({{"TRACE", &traceLock}});
  EXPECT_NE(story.find("requestLock(lockPtr=ADDRESS) mutexRc=0 rc=0\n"
                       "ENTRY  stapi_zeb_lock.requestLock(lockPtr=TRACE)\n"),
            story.npos);
  EXPECT_NE(story.find("releaseLock(lockPtr=TRACE) mutexRc=0 rc=0\n"
                       "ENTRY  stapi_zeb_lock.releaseLock(lockPtr=ADDRESS)\n"),
            story.npos);
}

}  // namespace
