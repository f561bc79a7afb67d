// A gateway in memory: the program's socket calls end here instead of in the kernel, so that a
// whole session costs microseconds and every receive returns exactly as much as it is told to.
#ifndef ZEBFUZZ_MEMORY_GATEWAY_H
#define ZEBFUZZ_MEMORY_GATEWAY_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <span>

namespace zebfuzz {

// What the other end does. The requests are not looked at.
struct MemoryGateway {
  std::span<const std::uint8_t> replies;
  std::size_t piece = SIZE_MAX;  // no receive returns more
  std::size_t splitAt = 0;  // no receive reaches from below this many bytes over them; 0: no split
  int sends = INT_MAX;      // so many succeed
  int endError = 0;         // of the receives behind the last reply; 0: the stream just ends

  std::size_t received = 0;
  int sockets = 0;  // made and not yet closed
  int blocks = 0;   // allocated and not yet freed
};

// The calling thread's calls go to the gateway while this lives, and blocks beyond any that a
// session needs are refused.
class MemoryGatewayScope {
 public:
  explicit MemoryGatewayScope(MemoryGateway& gateway);
  ~MemoryGatewayScope();
  MemoryGatewayScope(const MemoryGatewayScope&) = delete;
  MemoryGatewayScope& operator=(const MemoryGatewayScope&) = delete;
};

}  // namespace zebfuzz

#endif
