#include "floors.h"

#include <benchmark/benchmark.h>

#include <bit>
#include <cstdint>
#include <cstring>

#include "peer.h"

namespace zebbench {
namespace {

constexpr std::int32_t kTerminator = 0x0E0F0E0F;

template <typename T>
T load(const char* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

std::size_t wireLength(const char* at) {
  return __builtin_bswap16(load<std::uint16_t>(at));
}

}  // namespace

WireAnswer::WireAnswer(std::size_t statistics)
    : count(statistics),
      bytes(statsAnswer(statistics)),
      // An id follows its length; 7 bytes before that are the statistic's class and block head.
      first(bytes.find(makeStats(1)[0].id) - 2 - 7) {}

void WireAnswer::step() const {
  benchmark::DoNotOptimize(stepOverLengths(bytes.data() + first, count));
}

std::span<const std::uint8_t> WireAnswer::callData() const {
  return {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()};
}

const char* stepOverLengths(const char* at, std::size_t count) {
  static_assert(std::endian::native == std::endian::little);
  for (std::size_t i = 0; i < count; ++i) {
    at += 7;  // the object's class, TC_BLOCKDATA and the block's length
    at += 2 + wireLength(at);
    at += 2 + wireLength(at);
    at += 2;  // TC_ENDBLOCKDATA, and TC_OBJECT of the next statistic
  }
  return at;
}

void stepOverEntries(char* at, StatData& record) {
  for (std::int32_t length; (length = load<std::int32_t>(at)) != kTerminator;) {
    record.statIdLen = length;
    record.statIdPtr = at + 4;
    at += 4 + static_cast<std::uint32_t>(length);
    length = load<std::int32_t>(at);
    record.statValueLen = length;
    record.statValuePtr = at + 4;
    at += 4 + static_cast<std::uint32_t>(length);
    benchmark::DoNotOptimize(record);
  }
}

std::size_t joinIds(const char* at, char* joined) {
  char* out = joined;
  while (load<std::int32_t>(at) != kTerminator) {
    const auto length = static_cast<std::size_t>(load<std::int32_t>(at));
    std::memcpy(out, at + 4, length);
    out[length] = ':';
    out += length + 1;
    at += 4 + length;
  }
  out[-1] = '\0';
  return static_cast<std::size_t>(out - joined - 1);
}

char* firstEntry(char* buffer) {
  // The entries follow the marker, the query element, its return code and its count.
  return buffer + 12 + 4 + load<std::int32_t>(buffer + 12) + 8;
}

}  // namespace zebbench
