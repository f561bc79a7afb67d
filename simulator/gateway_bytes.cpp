#include "gateway_bytes.h"

namespace zebsim {
namespace {

void appendNumber(Bytes& out, std::uint64_t value, unsigned width) {
  for (unsigned shift = width * 8; shift > 0; shift -= 8) {
    out.push_back(static_cast<char>(static_cast<unsigned char>(value >> (shift - 8))));
  }
}

}  // namespace

void require(bool isRight, const char* fault) {
  if (!isRight) throw BadRequest(fault);
}

void appendU8(Bytes& out, std::uint8_t value) {
  appendNumber(out, value, 1);
}
void appendU16(Bytes& out, std::uint16_t value) {
  appendNumber(out, value, 2);
}
void appendU32(Bytes& out, std::uint32_t value) {
  appendNumber(out, value, 4);
}
void appendU64(Bytes& out, std::uint64_t value) {
  appendNumber(out, value, 8);
}

void appendText16(Bytes& out, std::string_view text) {
  if (text.size() > 0xFFFF) throw std::length_error("a text has more than 65535 bytes");
  appendU16(out, static_cast<std::uint16_t>(text.size()));
  out.append(text);
}

std::string_view ByteReader::take(std::size_t n) {
  require(n <= rest_.size(), "the data ends inside a field");
  std::string_view taken = rest_.substr(0, n);
  rest_.remove_prefix(n);
  return taken;
}

std::uint64_t ByteReader::number(std::size_t width) {
  std::uint64_t value = 0;
  for (char c : take(width)) value = value << 8 | static_cast<unsigned char>(c);
  return value;
}

}  // namespace zebsim
