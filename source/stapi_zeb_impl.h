// The initialisation of the library, and the duplication of strings.
#ifndef STAPI_ZEB_IMPL_H
#define STAPI_ZEB_IMPL_H

#include <atomic>
#include <cstdint>

#include "zebstats_private.h"

// Like dup2ASCIIString, below, for a text that is handed to the host, which frees the copy. Returns
// the same codes.
ZEB_INTERNAL int dup2NativeString(const char* dataPtr, char** outputPtr) ZEB_NOEXCEPT;

namespace zeb {

extern std::atomic<std::int32_t> stapiState;  // 0: not initialised, 1: initialised

inline bool isStarted() noexcept {
  return stapiState.load(std::memory_order_acquire) != 0;
}

// Initialises the library once; any number of threads may call it at the same time. After a failure
// the next call tries again. Returns 0, ZEB_NO_MEMORY, ZEB_TRACE_LOCK_FAILED, or -2 (gtlLock could
// not be initialised).
int stapiInit() noexcept;

// Copies a query string to a new block, which the caller frees, and stores its address in
// *outputPtr. Returns 0, -1 (no memory; *outputPtr is null), or -2 (a null argument, or a text of
// 32,766 characters or more; *outputPtr is not written).
int dup2ASCIIString(const char* dataPtr, char** outputPtr) noexcept;

}  // namespace zeb

#endif
