// A reader and a writer for the bytes of messages. Integers are big-endian there, and at any
// address.
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

// Returns the 16-bit length at `at`, as an unsigned number. The caller has checked that both bytes
// are there.
inline std::uint16_t loadLength(const std::uint8_t* at) noexcept {
  return static_cast<std::uint16_t>(at[0] << 8 | at[1]);
}

// Reads bytes in order. A read past the end fails: it returns 0 or an empty text, as all later
// reads do, and ok() is false from then on. So ask ok() before a value decides anything, and in
// every loop condition. The reader refers to the bytes, which must live as long as it and its texts
// are used.
class ByteReader {
 public:
  explicit ByteReader(std::span<const std::uint8_t> bytes) noexcept : rest_(bytes) {}
  [[nodiscard]] bool ok() const noexcept { return ok_; }
  // Fails the reader for bytes that are all there but malformed.
  void fail() noexcept { ok_ = false; }
  [[nodiscard]] std::size_t left() const noexcept { return rest_.size(); }
  // The next byte, which must not be read if left() is 0.
  [[nodiscard]] const std::uint8_t* position() const noexcept { return rest_.data(); }

  std::uint8_t u8() noexcept { return load<std::uint8_t>(); }
  std::int16_t i16() noexcept { return static_cast<std::int16_t>(be16toh(load<std::uint16_t>())); }
  std::int32_t i32() noexcept { return static_cast<std::int32_t>(be32toh(load<std::uint32_t>())); }
  // A text of that many bytes, not NUL-terminated. A negative length fails.
  std::string_view text(std::int32_t length) noexcept {
    if (length < 0) ok_ = false;
    const auto size = static_cast<std::size_t>(length);
    const std::uint8_t* start = take(size);
    return {reinterpret_cast<const char*>(start), start != nullptr ? size : 0};
  }
  // A text after its 16-bit length.
  std::string_view text16() noexcept { return text(i16()); }
  void skip(std::size_t count) noexcept { take(count); }
  // Skips up to count bytes, as an answer may end before its last closing bytes. Never fails.
  void skipClosing(std::size_t count) noexcept { take(std::min(count, rest_.size())); }
  // The next byte, which is not consumed; 0 at the end.
  [[nodiscard]] std::uint8_t peek() const noexcept {
    return rest_.empty() ? std::uint8_t{0} : rest_[0];
  }
  // The bytes that have not been read.
  [[nodiscard]] std::span<const std::uint8_t> rest() const noexcept { return rest_; }

 private:
  // The only bounds check: returns the next count bytes and steps over them, or fails and returns
  // null.
  const std::uint8_t* take(std::size_t count) noexcept {
    if (!ok_ || count > rest_.size()) {
      ok_ = false;
      return nullptr;
    }
    const std::uint8_t* start = rest_.data();
    rest_ = {start + count, rest_.size() - count};
    return start;
  }
  // A number in the byte order of the wire; 0 if it is not there as a whole.
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

// Writes bytes in order into room. A write that does not fit fails: it and all later ones write
// nothing, and ok() is false from then on.
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
  // A 16-bit length and the text. Fails if the text has more than 65,535 bytes.
  void text16(std::string_view text) noexcept {
    if (text.size() > UINT16_MAX) ok_ = false;
    u16(static_cast<std::uint16_t>(text.size()));
    bytes(text.data(), text.size());
  }
  // Fills the rest of the room with zeros, so that no old contents of the heap are sent.
  void zeroRest() noexcept { std::fill(rest_.begin(), rest_.end(), std::uint8_t{0}); }

 private:
  std::span<std::uint8_t> rest_;
  bool ok_ = true;
};

}  // namespace zeb

#endif
