// The two cursors for bytes on the wire: big-endian, bounded, and once failed they stay failed.
#ifndef STAPI_ZEB_WIRE_H
#define STAPI_ZEB_WIRE_H

#include <endian.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace zeb {

// 16-bit length; the caller has checked two bytes.
inline std::uint16_t loadLength(const std::uint8_t* at) noexcept {
  return static_cast<std::uint16_t>(at[0] << 8 | at[1]);
}

// Ask ok() before a value decides anything, and in every loop condition.
class ByteReader {
 public:
  explicit ByteReader(std::span<const std::uint8_t> bytes) noexcept : rest_(bytes) {}
  [[nodiscard]] bool ok() const noexcept { return ok_; }
  // Marks complete input as malformed.
  void fail() noexcept { ok_ = false; }
  [[nodiscard]] std::size_t left() const noexcept { return rest_.size(); }
  [[nodiscard]] const std::uint8_t* position() const noexcept { return rest_.data(); }

  std::uint8_t u8() noexcept { return load<std::uint8_t>(); }
  std::int16_t i16() noexcept { return static_cast<std::int16_t>(be16toh(load<std::uint16_t>())); }
  std::int32_t i32() noexcept { return static_cast<std::int32_t>(be32toh(load<std::uint32_t>())); }
  // A negative length fails.
  std::string_view text(std::int32_t length) noexcept {
    if (length < 0) ok_ = false;
    const auto size = static_cast<std::size_t>(length);
    const std::uint8_t* start = take(size);
    return {reinterpret_cast<const char*>(start), start != nullptr ? size : 0};
  }
  std::string_view text16() noexcept { return text(i16()); }
  void skip(std::size_t count) noexcept { take(count); }
  // Skips closing bytes that may be missing at the end of the input.
  void skipClosing(std::size_t count) noexcept { take(std::min(count, rest_.size())); }
  // The next byte, which stays there; 0 at the end.
  [[nodiscard]] std::uint8_t peek() const noexcept {
    return rest_.empty() ? std::uint8_t{0} : rest_[0];
  }
  [[nodiscard]] std::span<const std::uint8_t> rest() const noexcept { return rest_; }

 private:
  const std::uint8_t* take(std::size_t count) noexcept {
    if (!ok_ || count > rest_.size()) {
      ok_ = false;
      return nullptr;
    }
    const std::uint8_t* start = rest_.data();
    rest_ = {start + count, rest_.size() - count};
    return start;
  }
  // As it is on the wire; 0 if it is not there.
  template <typename Number>
  Number load() noexcept {
    Number value = 0;
    const std::uint8_t* bytes = take(sizeof value);
    if (bytes != nullptr) std::memcpy(&value, bytes, sizeof value);
    return value;
  }

  std::span<const std::uint8_t> rest_;
  bool ok_ = true;
};

class ByteWriter {
 public:
  explicit ByteWriter(std::span<std::uint8_t> room) noexcept : rest_(room) {}
  [[nodiscard]] bool ok() const noexcept { return ok_; }

  void bytes(const void* source, std::size_t count) noexcept {
    ok_ = ok_ && count <= rest_.size();
    if (!ok_ || count == 0) return;
    std::memcpy(rest_.data(), source, count);
    rest_ = {rest_.data() + count, rest_.size() - count};
  }
  void u8(std::uint8_t value) noexcept { bytes(&value, 1); }
  void u16(std::uint16_t value) noexcept {
    value = htobe16(value);
    bytes(&value, sizeof value);
  }
  void u32(std::uint32_t value) noexcept {
    value = htobe32(value);
    bytes(&value, sizeof value);
  }
  void i32(std::int32_t value) noexcept { u32(static_cast<std::uint32_t>(value)); }
  void text16(std::string_view text) noexcept {
    if (text.size() > UINT16_MAX) ok_ = false;
    u16(static_cast<std::uint16_t>(text.size()));
    bytes(text.data(), text.size());
  }
  // Zero-fills the rest, so no old heap contents are sent.
  void zeroRest() noexcept { std::fill(rest_.begin(), rest_.end(), std::uint8_t{0}); }

 private:
  std::span<std::uint8_t> rest_;
  bool ok_ = true;
};

}  // namespace zeb

#endif
