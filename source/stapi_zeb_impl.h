// Start of the library, and the private functions of the public module.
#ifndef STAPI_ZEB_IMPL_H
#define STAPI_ZEB_IMPL_H

#include <atomic>
#include <cstdint>

#include "zebstats_private.h"

// dup2ASCIIString for a text that the host gets; it frees the copy. The same codes.
ZEB_INTERNAL int dup2NativeString(const char* dataPtr, char** outputPtr) ZEB_NOEXCEPT;

namespace zeb {

extern std::atomic<std::int32_t> stapiState;  // 1: initialised

inline bool isStarted() noexcept {
  return stapiState.load(std::memory_order_acquire) != 0;
}

// Initialises the library once, thread-safe; after a failure the next call tries again. Returns 0,
// -111, -121 or the failure of the list's lock (-2).
int stapiInit() noexcept;

// Copies a query string into a new block that the caller frees. Returns 0, -2 (missing or too long,
// the output is not written) or -1 (no memory, the output is null).
int dup2ASCIIString(const char* dataPtr, char** outputPtr) noexcept;

}  // namespace zeb

#endif
