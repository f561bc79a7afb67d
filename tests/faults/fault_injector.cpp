#include "fault_injector.h"

#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sanitizer/asan_interface.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <unordered_map>
#include <utility>

#include "stapi_zeb_memory.h"
#include "zebstats_private.h"

extern "C" int __real_close(int descriptor);

namespace zebtest {
namespace {

constexpr int kFirstSocket = 1 << 20;              // not a descriptor of the system
constexpr std::size_t kLargestBlock = 256 * 1024;  // of those that are granted

thread_local Injection* active = nullptr;

// Of the one thread that has an Injection. The set is never destroyed: free() is called to the end.
auto& blocks = *new std::unordered_map<const void*, std::size_t>;
// Freed blocks of the size of an answer's buffer, which are used again: to map and unmap each one
// takes a sanitiser longer than a session. Until then nobody may touch them.
auto& kept = *new std::vector<void*>;
std::set<int> sockets, closedForSending, files;
std::set<const pthread_mutex_t*> heldLocks;
std::string complaint;

int fail(int error) {
  errno = error;
  return -1;
}

// Whether this call fails; then errno says how.
bool fails(std::string_view call) {
  const int error = active->next(call);
  return error != 0 && fail(error) != 0;
}

template <typename Block>
Block* book(Block* block, std::size_t size = 0) {
  if (block != nullptr) blocks[block] = size;
  return block;
}

int openSocket() {
  static int last = kFirstSocket;
  return *sockets.insert(++last).first;
}

// A token without a socket is closed like any other.
int closeBooked(int descriptor) {
  closedForSending.erase(descriptor);
  if (files.erase(descriptor) > 0) return __real_close(descriptor);
  if (sockets.erase(descriptor) == 0 && descriptor >= 0)
    complaint += " closes " + std::to_string(descriptor) + ", which it has not opened;";
  return descriptor >= 0 ? 0 : fail(EBADF);
}

zebsim::Bytes replyTo(const zebsim::Request& request) {
  using namespace zebsim;
  if (request.header.name == kBaseName) return reply(kBaseName, "");
  if (request.header.name == kAuthName)
    return reply(kAuthName, request.data.size() == 4 ? authFirstData(1, 2, 3) : authSecondData());
  const AdminCall call = readAdminCall(request.data);
  return reply(kAdminName,
               call.kind == kOpening ? openingData(7) : callData(call.kind, answerOf(call.target)));
}

}  // namespace

Injection::Injection(std::vector<Fault> plan, Wire change)
    : faults(std::move(plan)), wire(std::move(change)) {
  active = this;
}

Injection::~Injection() {
  active = nullptr;
}

int Injection::next(std::string_view call) {
  const int count = ++counts[call];
  if (faults.empty() || faults[0].call != call || count < faults[0].at) return 0;
  const Fault fault = faults[0];
  ++strikes;
  if (fault.onwards) return fault.error;
  faults.erase(faults.begin());
  strikes = 0;
  counts.clear();
  return fault.error;
}

bool Injection::goesOn(int error, bool isBounded) const {
  return error == 0 || ((error == EINTR || error == EAGAIN) && isBounded && strikes > 3);
}

std::string_view Injection::stream() const {
  return wire.replies.value_or(replies).substr(0, wire.endsAt);
}

bool Injection::isReady(int socket) const {
  return wire.replies.has_value() || received < stream().size() || received >= wire.endsAt ||
         closedForSending.count(socket) > 0;
}

void Injection::serve(std::string_view bytes) {
  sent += bytes;
  if (wire.replies.has_value()) return;
  unread += bytes;
  try {
    for (zebsim::Request request; zebsim::takeRequest(unread, request);) {
      const std::size_t start = replies.size();
      replies += replyTo(request);
      for (std::size_t i = 0; i < wire.change.size(); ++i) {
        const std::size_t at = wire.changedAt + i;
        if (at >= start && at < replies.size()) replies[at] = wire.change[i];
      }
    }
  } catch (const zebsim::BadRequest& bad) {
    wire.endsAt = replies.size();  // as a gateway does that had its reply changed on the way
    if (wire.change.empty()) complaint += std::string(" sends a bad request: ") + bad.what() + ";";
  }
}

ssize_t Injection::send(int socket, std::string_view bytes, int flags) {
  const bool isBounded = (flags & MSG_DONTWAIT) != 0;
  const int error = next("send");
  if (error == kEnd) return 0;
  if (error < kShort && !goesOn(error, isBounded)) return fail(error);
  if (socket < 0 || closedForSending.count(socket) > 0) return fail(socket < 0 ? EBADF : EPIPE);
  if (hasEnded) complaint += " sends on a connection that has ended;";
  const auto size = static_cast<ssize_t>(bytes.size());
  if (received >= wire.endsAt) return wire.error != 0 ? fail(wire.error) : size;
  if (error == kCut) closedForSending.insert(socket);
  if (error == kCut || (error == kShort && isBounded))
    bytes = bytes.substr(0, error == kCut ? bytes.size() / 2 : 1);
  serve(bytes);
  return error >= kShort ? 1 : size;
}

ssize_t Injection::receive(int socket, void* buffer, std::size_t size, int flags) {
  const int error = next("recv");
  if (error == kEnd || closedForSending.count(socket) > 0) return 0;
  if (error < kShort && !goesOn(error, (flags & MSG_DONTWAIT) != 0)) return fail(error);
  std::size_t most = std::min({size, wire.piece, stream().size() - received});
  if (error == kShort) most = std::min<std::size_t>(most, 1);
  if (received < wire.splitAt) most = std::min(most, wire.splitAt - received);
  if ((flags & MSG_PEEK) != 0)  // given replies are not there before they are asked for
    return most > 0 && !wire.replies.has_value() ? 1 : fail(EAGAIN);
  hasEnded = most == 0;
  if (hasEnded && wire.error != 0) return fail(wire.error);
  std::copy_n(stream().data() + received, most, static_cast<char*>(buffer));
  received += most;
  return static_cast<ssize_t>(most);
}

std::size_t countHoldings() {
  zeb::freeRetired();
  return blocks.size() + sockets.size() + files.size();
}

std::string takeComplaint() {
  if (!std::exchange(heldLocks, {}).empty()) complaint += " a lock is still held;";
  return std::exchange(complaint, {});
}

}  // namespace zebtest

using namespace zebtest;

// __real_... are the functions of the C library.
#define ZEB_WRAP(type, name, parameters, arguments, ...)   \
  type __real_##name parameters;                           \
  type __wrap_##name parameters {                          \
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
  if (block == nullptr) return;
  const auto booked = blocks.extract(block);
  if (booked.empty() || booked.mapped() != kResultSetBufferSize) return __real_free(block);
  ASAN_POISON_MEMORY_REGION(block, kResultSetBufferSize);
  kept.push_back(block);
}

// What the memory held before is not zero.
ZEB_WRAP(void*, malloc, (size_t size), (size), {
  if (fails("malloc")) return nullptr;
  const bool isKept = size == kResultSetBufferSize && !kept.empty();
  void* block = isKept ? kept.back() : size <= kLargestBlock ? __real_malloc(size) : nullptr;
  if (isKept) kept.pop_back();
  if (block == nullptr) return nullptr;
  ASAN_UNPOISON_MEMORY_REGION(block, size);
  return std::memset(book(block, size), 0xA5, std::min<size_t>(size, 4096));
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
ZEB_WRAP(int, shutdown, (int socket, int how), (socket, how),
         return closedForSending.insert(socket).second ? 0 : 0;)
ZEB_WRAP(int, poll, (pollfd * waited, nfds_t count, int timeout), (waited, count, timeout), {
  if (waited->fd == STDERR_FILENO) return __real_poll(waited, count, timeout);
  const int error = active->next("poll");
  if (error == kEnd) return 0;
  if (!active->goesOn(error, timeout >= 0)) return fail(error);
  if ((waited->events & POLLIN) != 0 && !active->isReady(waited->fd))
    complaint += " waits for what nobody will send;";
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
         (socket, buffer, size, flags), return active->receive(socket, buffer, size, flags);)

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
  complaint += " a lock is taken twice;";
  return EDEADLK;
})
ZEB_WRAP(int, pthread_mutex_unlock, (pthread_mutex_t * mutex), (mutex), {
  if (heldLocks.erase(mutex) == 0) complaint += " a lock is released that is not held;";
  const int rc = __real_pthread_mutex_unlock(mutex);
  const int error = active->next("pthread_mutex_unlock");
  return error != 0 ? error : rc;
})

}  // extern "C"
