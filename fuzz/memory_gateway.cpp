#include "memory_gateway.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sanitizer/asan_interface.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "zebstats_private.h"

namespace zebfuzz {
namespace {

constexpr int kSocket = 1 << 20;  // not a descriptor that the system uses
constexpr std::size_t kLargestBlock = 256 * 1024;

thread_local MemoryGateway* current = nullptr;

// Blocks of the size of a result set buffer are used again: the address sanitiser would map and
// unmap each one, which takes longer than a session. While they are not in use they are poisoned,
// so that an access is found as with freed blocks.
class KeptBlocks {
 public:
  void* take() {
    const auto slot =
        std::find_if(std::begin(slots_), std::end(slots_), [](const Slot& s) { return !s.isOut; });
    if (slot == std::end(slots_)) return nullptr;
    if (slot->block == nullptr) slot->block = std::calloc(1, kResultSetBufferSize);
    ASAN_UNPOISON_MEMORY_REGION(slot->block, kResultSetBufferSize);
    slot->isOut = slot->block != nullptr;
    return slot->block;
  }
  bool giveBack(const void* block) {
    const auto slot = std::find_if(std::begin(slots_), std::end(slots_),
                                   [&](const Slot& s) { return s.isOut && s.block == block; });
    if (slot == std::end(slots_)) return false;
    slot->isOut = false;
    ASAN_POISON_MEMORY_REGION(slot->block, kResultSetBufferSize);
    return true;
  }

 private:
  struct Slot {
    void* block;
    bool isOut;
  };
  Slot slots_[4] = {};
} keptBlocks;

int fail(int error) {
  errno = error;
  return -1;
}

std::size_t nextPiece(const MemoryGateway& gateway, std::size_t wanted) {
  std::size_t size = std::min({wanted, gateway.piece, gateway.replies.size() - gateway.received});
  if (gateway.received < gateway.splitAt) size = std::min(size, gateway.splitAt - gateway.received);
  return size;
}

}  // namespace

MemoryGatewayScope::MemoryGatewayScope(MemoryGateway& gateway) {
  current = &gateway;
}
MemoryGatewayScope::~MemoryGatewayScope() {
  current = nullptr;
}

}  // namespace zebfuzz

using namespace zebfuzz;

// The linker's --wrap redirects each call to __wrap_...; __real_... is the original function.
#define ZEBFUZZ_WRAP(type, name, arguments, passed, ...) \
  type __real_##name arguments;                          \
  type __wrap_##name arguments {                         \
    if (current == nullptr) return __real_##name passed; \
    __VA_ARGS__                                          \
  }

extern "C" {

ZEBFUZZ_WRAP(int, getaddrinfo,
             (const char* node, const char* service, const addrinfo* hints, addrinfo** found),
             (node, service, hints, found), {
               static sockaddr_in address = {};
               static addrinfo only = {};
               only.ai_family = AF_INET;
               only.ai_socktype = SOCK_STREAM;
               only.ai_addr = reinterpret_cast<sockaddr*>(&address);
               only.ai_addrlen = sizeof address;
               *found = &only;
               return 0;
             })
ZEBFUZZ_WRAP(void, freeaddrinfo, (addrinfo * found), (found), { return; })
ZEBFUZZ_WRAP(int, socket, (int family, int type, int protocol), (family, type, protocol), {
  ++current->sockets;
  return kSocket;
})
ZEBFUZZ_WRAP(int, setsockopt, (int fd, int level, int name, const void* value, socklen_t size),
             (fd, level, name, value, size), { return 0; })
ZEBFUZZ_WRAP(int, ioctl, (int fd, unsigned long request, void* argument), (fd, request, argument),
             { return fail(EFAULT); })
ZEBFUZZ_WRAP(int, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size),
             { return 0; })
ZEBFUZZ_WRAP(int, poll, (pollfd * waited, nfds_t count, int timeout), (waited, count, timeout), {
  waited->revents = waited->events;
  return 1;
})
ZEBFUZZ_WRAP(ssize_t, send, (int fd, const void* data, size_t size, int flags),
             (fd, data, size, flags), {
               if (current->sends <= 0) return fail(EPIPE);
               --current->sends;
               return static_cast<ssize_t>(size);
             })
ZEBFUZZ_WRAP(ssize_t, recv, (int fd, void* data, size_t size, int flags), (fd, data, size, flags), {
  if ((flags & MSG_PEEK) != 0) return fail(EAGAIN);  // nothing comes before it is asked for
  const std::size_t taken = nextPiece(*current, size);
  if (taken == 0 && current->endError != 0) return fail(current->endError);
  if (taken > 0) std::memcpy(data, current->replies.data() + current->received, taken);
  current->received += taken;
  return static_cast<ssize_t>(taken);
})
ZEBFUZZ_WRAP(int, shutdown, (int fd, int how), (fd, how), { return 0; })
ZEBFUZZ_WRAP(int, close, (int fd), (fd), {
  if (fd != kSocket) return __real_close(fd);
  --current->sockets;
  return 0;
})
ZEBFUZZ_WRAP(int, sigaction,
             (int number, const struct sigaction* action, struct sigaction* previous),
             (number, action, previous), { return 0; })
ZEBFUZZ_WRAP(void*, malloc, (size_t size), (size), {
  void* block = size == kResultSetBufferSize ? keptBlocks.take() : nullptr;
  if (block == nullptr && size <= kLargestBlock) block = __real_malloc(size);
  current->blocks += block != nullptr;
  return block;
})
ZEBFUZZ_WRAP(void, free, (void* block), (block), {
  current->blocks -= block != nullptr;
  if (!keptBlocks.giveBack(block)) __real_free(block);
})

}  // extern "C"
