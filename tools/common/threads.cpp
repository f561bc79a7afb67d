#include "threads.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <list>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "fault.h"
#include "process.h"
#include "zebstats.h"

namespace zebtool {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The end gives the threads this time to close their connections themselves, and later calls of the
// library the same. It lasts less than half a second in all, so that Ctrl-C feels immediate.
constexpr milliseconds kFarewellTime{150};
constexpr milliseconds kMaxEndingTime{400};
constexpr milliseconds kWakeInterval{20};

class Threads {
 public:
  void start(std::function<void()> work) {
    std::lock_guard lock(mutex_);
    joinEnded();
    SignalsHeld inherited;  // a signal is for the main thread, which holds it while it writes
    std::list<std::thread> started(1);
    auto self = started.begin();
    *self = std::thread([this, self, work = std::move(work)] {
      work();
      noteEnd(self);
    });
    running_.splice(running_.end(), started);
  }

  // Returns whether all threads have ended within that time, and been joined.
  bool join(milliseconds time) {
    std::unique_lock lock(mutex_);
    bool haveEnded = changed_.wait_for(lock, time, [this] { return running_.empty(); });
    joinEnded();
    return haveEnded;
  }

 private:
  void noteEnd(std::list<std::thread>::iterator self) {
    std::lock_guard lock(mutex_);
    ended_.splice(ended_.end(), running_, self);
    changed_.notify_all();
  }

  // The caller holds the mutex; ended threads no longer need it.
  void joinEnded() {
    for (std::thread& thread : ended_) thread.join();
    ended_.clear();
  }

  std::mutex mutex_;  // guards both lists
  std::condition_variable changed_;
  std::list<std::thread> running_;
  std::list<std::thread> ended_;  // but not joined
};

Threads threads;
std::shared_mutex answers;
std::atomic<bool> hasEndBegun = false;

// Returns a descriptor that is readable after beginEnding().
int endingEvent() {
  static const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return event;
}

void closeConnections() {
  std::lock_guard lock(answers);
  (void)closeAllGatewayConnections();
}

}  // namespace

void startThread(std::function<void()> work) {
  try {
    threads.start(std::move(work));
  } catch (const std::system_error& error) {
    throw Fault(kNotConnected,
                std::string("cannot start a thread for each gateway: ") + error.what());
  }
}

void beginEnding() {
  (void)setAPITimeout(kFarewellTime.count());
  hasEndBegun = true;
  eventfd_write(endingEvent(), 1);
}

bool isEnding() {
  return hasEndBegun;
}

bool waitForEvent(int file, short event, Clock::time_point deadline) {
  pollfd waited[] = {{file, event, 0}, {endingEvent(), POLLIN, 0}};
  int ready;
  do {
    auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
    ready = poll(waited, 2, static_cast<int>(std::max<long>(left, 0)));
  } while (ready < 0 && errno == EINTR);
  return ready > 0 && waited[0].revents != 0;
}

std::shared_lock<std::shared_mutex> holdAnswers() {
  return std::shared_lock(answers);
}

// A thread that was about to connect when the connections were closed does so afterwards; so they
// are closed again until no thread is left. What cannot be woken is the resolution of a host name,
// and the closing of a connection that had begun before beginEnding() shortened the timeout.
int endThreads(int exitCode) {
  beginEnding();
  Clock::time_point deadline = Clock::now() + kMaxEndingTime;
  bool haveEnded = threads.join(kFarewellTime);
  while (!haveEnded) {
    if (Clock::now() >= deadline) endNow(exitCode);
    closeConnections();
    haveEnded = threads.join(kWakeInterval);
  }
  return exitCode;
}

}  // namespace zebtool
