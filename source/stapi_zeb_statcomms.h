// The parsers of answers as the exchange calls them: with the length of the call data.
#ifndef STAPI_ZEB_STATCOMMS_H
#define STAPI_ZEB_STATCOMMS_H

#include <cstdint>
#include <span>

namespace zeb {

// Both fill buffer (kResultSetBufferSize bytes) and return 0, or leave it reading as empty and return non-zero
// when the answer is malformed or outgrows the buffer.
int parseIds(std::span<const std::uint8_t> callData, char* buffer) noexcept;
int parseStats(std::span<const std::uint8_t> callData, char* buffer) noexcept;

}  // namespace zeb

#endif
