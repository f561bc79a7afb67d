#include "fault_injector.h"

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <filesystem>
#include <unordered_set>

#include "stapi_zeb_memory.h"

namespace zebtest {
namespace {

thread_local Injection* active = nullptr;

// Of the one thread that holds an Injection.
std::unordered_set<const void*> blocks;
std::vector<const pthread_mutex_t*> heldLocks;
std::string lockComplaint;

int failureOf(Call call) {
  return active != nullptr ? active->next(call) : 0;
}

template <typename Result, typename Real>
Result failOr(Call call, Result failed, Real real) {
  const int error = failureOf(call);
  if (error == 0) return real();
  errno = error;
  return failed;
}

// The call is made, and fails all the same.
template <typename Real>
int failBehind(Call call, Real real) {
  const int rc = real();
  return failOr(call, -1, [rc] { return rc; });
}

template <typename Block>
Block* book(Block* block) {
  if (active != nullptr && block != nullptr) blocks.insert(block);
  return block;
}

}  // namespace

Injection::Injection(std::vector<Fault> faults) : faults_(std::move(faults)) {
  active = this;
}

Injection::~Injection() {
  active = nullptr;
}

int Injection::next(Call call) {
  const int count = ++counts_[call];
  if (index_ == faults_.size() || faults_[index_].call != call || count < faults_[index_].at)
    return 0;
  const Fault& fault = faults_[index_];
  ++strikes_;
  if (!fault.onwards) {
    ++index_;
    strikes_ = 0;
    counts_.fill(0);
  }
  return fault.error;
}

std::pair<std::size_t, std::size_t> countHoldings() {
  zeb::freeRetired();
  const std::filesystem::directory_iterator open("/proc/self/fd");
  return {blocks.size(), std::distance(begin(open), end(open))};
}

std::string takeLockComplaint() {
  std::string complaint = std::exchange(lockComplaint, {});
  if (!std::exchange(heldLocks, {}).empty()) complaint += " a lock is still held;";
  return complaint;
}

}  // namespace zebtest

using namespace zebtest;

// What the linker's --wrap makes of the calls; __real_... are the C library's.
#define ZEB_WRAP(type, name, parameters) \
  decltype(name) __real_##name;          \
  type __wrap_##name parameters
#define ZEB_WRAP_FAILING(call, failed, type, name, parameters, arguments)       \
  ZEB_WRAP(type, name, parameters) {                                            \
    return failOr<type>(call, failed, [&] { return __real_##name arguments; }); \
  }

extern "C" {

ZEB_WRAP(void*, malloc, (size_t size)) {
  return failOr<void*>(kAllocate, nullptr, [&] { return book(__real_malloc(size)); });
}

ZEB_WRAP(void*, calloc, (size_t count, size_t size)) {
  return failOr<void*>(kAllocate, nullptr, [&] { return book(__real_calloc(count, size)); });
}

ZEB_WRAP(void, free, (void* block)) {
  if (!blocks.empty()) blocks.erase(block);
  __real_free(block);
}

ZEB_WRAP(int, getaddrinfo,
         (const char* host, const char* port, const addrinfo* hints, addrinfo** found)) {
  if (const int error = failureOf(kGetaddrinfo); error != 0) return error;
  const int rc = __real_getaddrinfo(host, port, hints, found);
  if (rc == 0) book(*found);
  return rc;
}

ZEB_WRAP(void, freeaddrinfo, (addrinfo * found)) {
  blocks.erase(found);
  __real_freeaddrinfo(found);
}

ZEB_WRAP_FAILING(kSocket, -1, int, socket, (int family, int type, int protocol),
                 (family, type, protocol))
ZEB_WRAP_FAILING(kSetsockopt, -1, int, setsockopt,
                 (int socket, int level, int option, const void* value, socklen_t length),
                 (socket, level, option, value, length))
ZEB_WRAP_FAILING(kFdopen, nullptr, FILE*, fdopen, (int descriptor, const char* mode),
                 (descriptor, mode))
ZEB_WRAP_FAILING(kFflush, EOF, int, fflush, (FILE * stream), (stream))

ZEB_WRAP(int, open, (const char* path, int flags, ...)) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  return failOr(kOpen, -1, [&] { return __real_open(path, flags, mode); });
}

ZEB_WRAP(int, ioctl, (int descriptor, unsigned long request, ...)) {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return failOr(kIoctl, -1, [&] { return __real_ioctl(descriptor, request, argument); });
}

// A connect in progress has been made.
ZEB_WRAP(int, connect, (int socket, const sockaddr* address, socklen_t length)) {
  const int error = failureOf(kConnect);
  if (error == 0 || error == EINPROGRESS) {
    const int rc = __real_connect(socket, address, length);
    if (error == 0 || rc != 0) return rc;
  }
  errno = error;
  return -1;
}

// The wait for a connect goes on after a signal, so there the signals must come to an end.
ZEB_WRAP(int, poll, (pollfd * waited, nfds_t count, int timeout)) {
  const int error = failureOf(kPoll);
  const bool hasEnded = error == EINTR && timeout >= 0 && active->strikes() > 3;
  if (error == 0 || hasEnded) return __real_poll(waited, count, timeout);
  errno = error;
  return -1;
}

ZEB_WRAP(int, getsockopt, (int socket, int level, int option, void* value, socklen_t* length)) {
  const int error = failureOf(kGetsockopt);
  if (error == 0) return __real_getsockopt(socket, level, option, value, length);
  if (error >= kPending) {
    *static_cast<int*>(value) = error - kPending;
    return 0;
  }
  errno = error;
  return -1;
}

ZEB_WRAP(ssize_t, send, (int socket, const void* data, size_t size, int flags)) {
  const int error = failureOf(kSend);
  if (error == 0) return __real_send(socket, data, size, flags);
  if (error == kEnd) return 0;
  if (error == kShort || error == kCut) {
    const ssize_t sent = __real_send(socket, data, error == kCut ? size / 2 : size, flags);
    if (error == kCut) shutdown(socket, SHUT_WR);
    return std::min<ssize_t>(sent, 1);
  }
  errno = error;
  return -1;
}

ZEB_WRAP(ssize_t, recv, (int socket, void* buffer, size_t size, int flags)) {
  const int error = failureOf(kRecv);
  if (error == 0) return __real_recv(socket, buffer, size, flags);
  if (error == kShort) return __real_recv(socket, buffer, std::min<size_t>(size, 1), flags);
  if (error == kEnd) return 0;
  errno = error;
  return -1;
}

ZEB_WRAP(int, close, (int descriptor)) {
  return failBehind(kClose, [&] { return __real_close(descriptor); });
}

ZEB_WRAP(int, fclose, (FILE * stream)) {
  return failBehind(kFclose, [&] { return __real_fclose(stream); });
}

ZEB_WRAP(int, pthread_mutex_init,
         (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes)) {
  const int error = failureOf(kInitLock);
  return error != 0 ? error : __real_pthread_mutex_init(mutex, attributes);
}

ZEB_WRAP(int, pthread_mutex_lock, (pthread_mutex_t * mutex)) {
  if (const int error = failureOf(kLock); error != 0) return error;
  if (active != nullptr) {
    if (std::find(heldLocks.begin(), heldLocks.end(), mutex) != heldLocks.end()) {
      lockComplaint += " a lock is taken twice;";
      return EDEADLK;
    }
    heldLocks.push_back(mutex);
  }
  return __real_pthread_mutex_lock(mutex);
}

ZEB_WRAP(int, pthread_mutex_unlock, (pthread_mutex_t * mutex)) {
  if (active != nullptr && std::erase(heldLocks, mutex) == 0) {
    lockComplaint += " a lock is released that is not held;";
    return EPERM;
  }
  const int rc = __real_pthread_mutex_unlock(mutex);
  const int error = failureOf(kUnlock);
  return error != 0 ? error : rc;
}

}  // extern "C"
