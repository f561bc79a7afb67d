// Writes and reads the big-endian integers and the texts of the wire. Reading is bounded.
#ifndef ZEBSIM_GATEWAY_BYTES_H
#define ZEBSIM_GATEWAY_BYTES_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zebsim {

// A sequence of bytes, text or not.
using Bytes = std::string;

// Thrown for a request that no correct client sends; the server closes the connection. The text
// never quotes the client's bytes, so that it can be shown on a terminal.
class BadRequest : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws BadRequest with that fault if the request is not right.
void require(bool isRight, const char* fault);

void appendU8(Bytes& out, std::uint8_t value);
void appendU16(Bytes& out, std::uint16_t value);
void appendU32(Bytes& out, std::uint32_t value);
void appendU64(Bytes& out, std::uint64_t value);

// Appends a 16-bit length and the text. Throws std::length_error if the text has more than 65,535
// bytes.
void appendText16(Bytes& out, std::string_view text);

// Reads from the front of `bytes`. Every read throws BadRequest if it would pass their end.
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) : rest_(bytes) {}
  [[nodiscard]] std::size_t left() const { return rest_.size(); }
  std::uint8_t u8() { return static_cast<std::uint8_t>(number(1)); }
  std::uint16_t u16() { return static_cast<std::uint16_t>(number(2)); }
  std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }
  std::uint64_t u64() { return number(8); }
  std::string_view take(std::size_t n);
  std::string_view text16() { return take(u16()); }

 private:
  std::uint64_t number(std::size_t width);
  std::string_view rest_;
};

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_BYTES_H
