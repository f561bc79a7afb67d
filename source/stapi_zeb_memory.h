// Blocks of memory that free themselves.
#ifndef STAPI_ZEB_MEMORY_H
#define STAPI_ZEB_MEMORY_H

#include <stdlib.h>

#include <cstddef>
#include <memory>

namespace zeb {

struct Free {
  void operator()(void* block) const noexcept { free(block); }
};

template <typename T>
using Block = std::unique_ptr<T, Free>;

template <typename T = unsigned char>
Block<T> allocate(std::size_t size = sizeof(T)) noexcept {
  return Block<T>(static_cast<T*>(malloc(size)));
}

}  // namespace zeb

#endif
