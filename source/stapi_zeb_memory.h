// Blocks of memory that free themselves, the records of closed connections, and guards for mutexes
// and errno.
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

// Returns a new block of size bytes, or null.
template <typename T = unsigned char>
Block<T> allocate(std::size_t size = sizeof(T)) noexcept {
  return Block<T>(static_cast<T*>(malloc(size)));
}

// The number of further connections that must be closed before the records of a closed one are
// freed.
constexpr std::size_t kRetiredConnections = 1024;

// Takes ownership of a malloc'ed record of a closed connection: its token or its result set, so two
// records for each connection. The record is freed when those of kRetiredConnections further
// connections have been retired. Until then no other connection gets its address, and a call with
// the old handle can recognise it. Any thread may call this.
void retire(void* record) noexcept;

// Frees all retired records. It is called when the library is unloaded, when nobody can use a
// handle any more, and at the end of the process, when a thread that still runs must not use the
// handle of a closed connection.
void freeRetired() noexcept;

// Holds a mutex for a scope, without a trace line. If the mutex cannot be locked, the work of the
// scope runs without it and nothing is released.
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

// Restores errno at the end of its scope.
class ErrnoKeeper {
 public:
  ~ErrnoKeeper() { errno = kept_; }

 private:
  int kept_ = errno;
};

}  // namespace zeb

#endif
