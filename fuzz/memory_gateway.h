// A gateway in memory. It replaces the program's socket calls, so that a whole session takes
// microseconds and the test decides how much each receive returns.
#ifndef ZEBFUZZ_MEMORY_GATEWAY_H
#define ZEBFUZZ_MEMORY_GATEWAY_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <span>

namespace zebfuzz {

// The behaviour of the gateway, which ignores the requests, and what it has counted.
struct MemoryGateway {
  std::span<const std::uint8_t> replies;
  std::size_t piece = SIZE_MAX;  // the most bytes that one receive returns
  std::size_t splitAt = 0;       // a receive ends at this offset of the replies; 0: no split
  int sends = INT_MAX;           // the number of sends that succeed
  int endError = 0;              // errno of the receives after the last reply; 0: end of stream

  std::size_t received = 0;
  int sockets = 0;  // open sockets
  int blocks = 0;   // allocated blocks
};

// While it lives, the calls of its thread go to the gateway, and malloc refuses blocks that are
// larger than any that a session needs.
class MemoryGatewayScope {
 public:
  explicit MemoryGatewayScope(MemoryGateway& gateway);
  ~MemoryGatewayScope();
  MemoryGatewayScope(const MemoryGatewayScope&) = delete;
  MemoryGatewayScope& operator=(const MemoryGatewayScope&) = delete;
};

}  // namespace zebfuzz

#endif
