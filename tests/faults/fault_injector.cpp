#include "fault_injector.h"

#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <unordered_set>
#include <utility>

#include "stapi_zeb_memory.h"

extern "C" int __real_close(int descriptor);

namespace zebtest {
namespace {

constexpr int kFirstSocket = 1 << 20;              // not a descriptor of the system
constexpr std::size_t kLargestBlock = 256 * 1024;  // of those that are granted

// Of the one thread that has an Injection. The set is never destroyed: free() is called to the end.
auto& blocks = *new std::unordered_set<const void*>;
std::set<int> sockets, files;
std::set<const pthread_mutex_t*> heldLocks;

// Whether this call fails; then errno says how.
bool fails(std::string_view call) {
  const int error = Injection::active->next(call);
  return error != 0 && fail(error) != 0;
}

template <typename Block>
Block* book(Block* block) {
  if (block != nullptr) blocks.insert(block);
  return block;
}

int openSocket() {
  static int last = kFirstSocket;
  return *sockets.insert(++last).first;
}

// A token without a socket is closed like any other.
int closeBooked(int descriptor) {
  if (files.erase(descriptor) > 0) return __real_close(descriptor);
  if (sockets.erase(descriptor) == 0 && descriptor >= 0)
    complaints += " closes " + std::to_string(descriptor) + ", which it has not opened;";
  return descriptor >= 0 ? 0 : fail(EBADF);
}

}  // namespace

std::size_t countHoldings() {
  zeb::freeRetired();
  return blocks.size() + sockets.size() + files.size();
}

std::string takeComplaint() {
  if (!std::exchange(heldLocks, {}).empty()) complaints += " a lock is still held;";
  return std::exchange(complaints, {});
}

}  // namespace zebtest

using namespace zebtest;

// __real_... are the functions of the C library.
#define ZEB_WRAP(type, name, parameters, arguments, ...)   \
  type __real_##name parameters;                           \
  type __wrap_##name parameters {                          \
    Injection* const active = Injection::active;           \
    if (active == nullptr) return __real_##name arguments; \
    __VA_ARGS__                                            \
  }
// One that returns a value, or -1.
#define ZEB_WRAP_VALUE(value, type, name, parameters, arguments) \
  ZEB_WRAP(type, name, parameters, arguments, return fails(#name) ? -1 : (value);)
// One that does its work and may fail all the same.
#define ZEB_WRAP_DONE(work, name, parameters, arguments) \
  ZEB_WRAP(int, name, parameters, arguments, const int rc = (work); return fails(#name) ? -1 : rc;)

extern "C" {

void __real_free(void* block);
void __wrap_free(void* block) {
  blocks.erase(block);
  __real_free(block);
}

// What the memory held before is not zero.
ZEB_WRAP(void*, malloc, (size_t size), (size), {
  if (fails("malloc") || size > kLargestBlock) return nullptr;
  return std::memset(book(__real_malloc(size)), 0xA5, std::min<size_t>(size, 4096));
})

ZEB_WRAP(int, getaddrinfo,
         (const char* host, const char* port, const addrinfo* hints, addrinfo** found),
         (host, port, hints, found), {
           const int error = active->next("getaddrinfo");
           if (error == 0) *found = book(new addrinfo{});
           return error;
         })
ZEB_WRAP(void, freeaddrinfo, (addrinfo * found), (found), {
  blocks.erase(found);
  delete found;
})

ZEB_WRAP_VALUE(openSocket(), int, socket, (int family, int type, int protocol),
               (family, type, protocol))
ZEB_WRAP_VALUE(0, int, setsockopt,
               (int socket, int level, int option, const void* value, socklen_t size),
               (socket, level, option, value, size))
ZEB_WRAP_VALUE(0, int, connect, (int socket, const sockaddr* address, socklen_t size),
               (socket, address, size))
ZEB_WRAP(int, shutdown, (int socket, int how), (socket, how), active->isShut = true; return 0;)
ZEB_WRAP(int, poll, (pollfd * waited, nfds_t count, int timeout), (waited, count, timeout), {
  if (waited->fd == STDERR_FILENO) return __real_poll(waited, count, timeout);
  const int error = active->next("poll");
  if (error == kEnd) return 0;
  if (!active->goesOn(error, timeout >= 0)) return fail(error);
  const bool isServed = active->wire.replies.has_value() || active->isShut;
  const bool isReady =
      active->received < active->stream().size() || active->received >= active->wire.endsAt;
  if ((waited->events & POLLIN) != 0 && !isServed && !isReady)
    complaints += " waits for what nobody will send;";
  waited->revents = waited->events;
  return 1;
})
ZEB_WRAP(int, getsockopt, (int socket, int level, int option, void* value, socklen_t* size),
         (socket, level, option, value, size), {
           const int error = active->next("getsockopt");
           if (error != 0 && error < kPending) return fail(error);
           *static_cast<int*>(value) = error != 0 ? error - kPending : 0;
           return 0;
         })
ZEB_WRAP(ssize_t, send, (int socket, const void* data, size_t size, int flags),
         (socket, data, size, flags),
         return active->send(socket, {static_cast<const char*>(data), size}, flags);)
ZEB_WRAP(ssize_t, recv, (int socket, void* buffer, size_t size, int flags),
         (socket, buffer, size, flags), return active->receive(buffer, size, flags);)

ZEB_WRAP_DONE(closeBooked(descriptor), close, (int descriptor), (descriptor))
ZEB_WRAP_DONE((blocks.erase(stream), __real_fclose(stream)), fclose, (FILE * stream), (stream))
ZEB_WRAP_VALUE(*files.insert(__real_open(path, flags, mode)).first, int, open,
               (const char* path, int flags, mode_t mode), (path, flags, mode))
ZEB_WRAP(FILE*, fdopen, (int descriptor, const char* mode), (descriptor, mode), {
  if (fails("fdopen")) return nullptr;
  files.erase(descriptor);
  return book(__real_fdopen(descriptor, mode));
})
ZEB_WRAP_VALUE(__real_fflush(stream), int, fflush, (FILE * stream), (stream))

ZEB_WRAP(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes),
         (mutex, attributes), {
           const int error = active->next("pthread_mutex_init");
           return error != 0 ? error : __real_pthread_mutex_init(mutex, attributes);
         })
ZEB_WRAP(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), {
  if (const int error = active->next("pthread_mutex_lock"); error != 0) return error;
  if (heldLocks.insert(mutex).second) return __real_pthread_mutex_lock(mutex);
  complaints += " a lock is taken twice;";
  return EDEADLK;
})
ZEB_WRAP(int, pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex), {
  if (heldLocks.erase(mutex) == 0) complaints += " a lock is released that is not held;";
  const int rc = __real_pthread_mutex_unlock(mutex);
  const int error = active->next("pthread_mutex_unlock");
  return error != 0 ? error : rc;
})

}  // extern "C"
