// Blocks of memory that free themselves, and guards for mutexes that are not traced.
#ifndef STAPI_ZEB_MEMORY_H
#define STAPI_ZEB_MEMORY_H

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

#include <cstddef>
#include <memory>

namespace zeb {

struct Free {
  void operator()(void* block) const noexcept { free(block); }
};

template <typename T>
using Block = std::unique_ptr<T, Free>;

template <typename T = unsigned char>
Block<T> allocate(std::size_t size = sizeof(T)) noexcept {
  return Block<T>(static_cast<T*>(malloc(size)));
}

// How many further connections can be closed before the memory of a closed one is used again.
constexpr std::size_t kRetiredConnections = 1024;

// Takes over a malloc'ed record of a connection that has been closed, the token or its result set.
// Its memory stays readable until the records of kRetiredConnections further connections have been
// retired, so that an old handle is neither a crash nor the handle of another connection. Two
// records are retired for each connection.
void retire(void* record) noexcept;

// Frees all retired records when the library is unloaded: nobody has a handle any more.
void freeRetired() noexcept;

// Holds a mutex for a scope. If it cannot be locked, the work is done without it and nothing is
// released.
class MutexGuard {
 public:
  explicit MutexGuard(pthread_mutex_t& mutex) noexcept
      : mutex_(mutex), isHeld_(pthread_mutex_lock(&mutex) == 0) {}
  ~MutexGuard() {
    if (isHeld_) pthread_mutex_unlock(&mutex_);
  }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  pthread_mutex_t& mutex_;
  bool isHeld_;
};

// Leaves errno as it was.
class ErrnoKeeper {
 public:
  ~ErrnoKeeper() { errno = kept_; }

 private:
  int kept_ = errno;
};

}  // namespace zeb

#endif
