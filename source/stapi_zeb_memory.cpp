// The records of closed connections: a ring in which each new record replaces, and frees, the
// oldest one.

#include "stapi_zeb_memory.h"

#include <array>
#include <atomic>
#include <cstdint>

namespace zeb {
namespace {

constexpr std::size_t kRecordsPerConnection = 2;

std::array<std::atomic<void*>, kRetiredConnections * kRecordsPerConnection> retired;
// It may overflow: the length of the ring divides 2^32.
std::atomic<std::uint32_t> retiredCount{0};
static_assert((retired.size() & (retired.size() - 1)) == 0);

}  // namespace

void freeRetired() noexcept {
  for (std::atomic<void*>& slot : retired) free(slot.exchange(nullptr));
}

void retire(void* record) noexcept {
  const std::uint32_t turn = retiredCount.fetch_add(1, std::memory_order_relaxed);
  free(retired[turn % retired.size()].exchange(record, std::memory_order_acq_rel));
}

}  // namespace zeb
