// A second decoder of answers, slow and obvious: every field at the position that the layout gives
// it, every byte through one bounds test. It shares no line with the library.
//
//   answer      form 1: byte 0, number of responses (4), responses; else: byte 0, one response
//   response    c+6 length A (2), A bytes, 13 bytes, h0: length B (2), B bytes, h: 13 bytes, marker,
//               then 1 byte after a 'w' or 4 after any other, query element (2 + Q), q: return
//               code (4), body
//   ids body    code < 0: 1 byte; else q+4 count (4), ids (2 + I each), 1 byte
//   stats body  code < 0: 1 byte; else q+4 count (4), q+10 length D (2), D bytes, records from
//               s = q+20+D
//   record      s+5 marker; 'z': s+8 room C (2), s+10 id (2 + I), length L (2), C-I-4 bytes of the
//               value and the rest of it in pieces; other: s+7 id (2 + I), value (2 + L); 2 bytes
//   pieces      'z' blocks (length at p+3), then 'w' blocks (length at p+1) whatever their marker
//
// Block data of more than 1,024 bytes may be cut into blocks: full 'z' blocks of 1,024, then one of
// any kind and length. From the query element to the last id or the count of statistics, and in a
// record whose id is longer than 1,020, the fields are then those of the joined blocks, and what
// follows the fields begins where the last block ends.
#ifndef ZEBTEST_SLOW_DECODER_H
#define ZEBTEST_SLOW_DECODER_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "stapi_zeb_resultsetbuffer.h"
#include "stapi_zeb_statcomms.h"

namespace zebtest {

class SlowDecoder {
 public:
  SlowDecoder(std::string_view bytes, std::string& out) : bytes_(bytes), out_(out) {}

  // False: malformed, or too long for a result set buffer.
  bool decode(bool isStats) {
    const bool isList = byteAt(0) == 1;
    const std::int64_t responses = isList ? intAt(1, 4) : 1;
    out_.assign(isStats ? "ZEBSTSET" : "ZEBIDSET");
    put(responses);
    std::int64_t c = isList ? 5 : 1;
    for (std::int64_t i = 0; i < responses && good_; ++i) c = decodeResponse(isStats, c);
    return good_ && out_.size() <= 153600 - 4;
  }

 private:
  static constexpr std::int64_t kNoCount = INT64_MIN;  // of a response whose code is negative

  void require(bool holds) { good_ = good_ && holds; }
  std::uint8_t byteAt(std::int64_t at) {
    require(at < std::ssize(bytes_));
    return good_ ? static_cast<std::uint8_t>(bytes_[static_cast<std::size_t>(at)]) : 0;
  }
  std::int64_t intAt(std::int64_t at, int width) {
    std::int64_t value = static_cast<std::int8_t>(byteAt(at));
    for (int i = 1; i < width; ++i) value = value << 8 | byteAt(at + i);
    return value;
  }
  // A length that counts bytes which must be there.
  std::int64_t sizeAt(std::int64_t at) {
    const std::int64_t size = intAt(at, 2);
    require(size >= 0 && at + 2 + size <= std::ssize(bytes_));
    return good_ ? size : 0;
  }

  void put(std::int64_t value) {
    const auto word = static_cast<std::int32_t>(value);
    out_.append(reinterpret_cast<const char*>(&word), sizeof word);
  }
  void putBytes(std::int64_t at, std::int64_t size) {
    require(size >= 0 && at + size <= std::ssize(bytes_));
    if (good_) out_ += bytes_.substr(static_cast<std::size_t>(at), static_cast<std::size_t>(size));
  }
  // A text after its length. Returns the position after it.
  std::int64_t putText(std::int64_t at) {
    const std::int64_t size = sizeAt(at);
    put(size);
    putBytes(at + 2, size);
    return at + 2 + size;
  }

  // The joined data of blocks, the first of which is a full one whose data begin at this position;
  // `end` is set to where the last one ends. Empty if they are not as a serialiser cuts them, or if
  // the byte after them is none of the followers.
  std::string joinBlocks(std::int64_t at, std::string_view followers, std::int64_t& end) const {
    std::string joined;
    SlowDecoder head(bytes_, out_);  // writes nothing, but has its own idea of what is good
    for (std::int64_t size = 1024;;) {
      if (size < 1 || size > 1024 || at + size >= std::ssize(bytes_)) return "";
      joined += bytes_.substr(static_cast<std::size_t>(at), static_cast<std::size_t>(size));
      at += size;
      const std::uint8_t tag = head.byteAt(at);
      if (size < 1024 || (tag != 'w' && tag != 'z')) {
        end = at;
        return joined.size() > 1024 && followers.find(static_cast<char>(tag)) != followers.npos
                   ? joined
                   : "";
      }
      size = tag == 'w' ? head.byteAt(at + 1) : head.intAt(at + 1, 4);
      at += tag == 'w' ? 2 : 5;
      if (!head.good_) return "";
    }
  }
  template <typename Decode>
  void decodeJoined(const std::string& joined, Decode decode) {
    const auto whole = bytes_;
    bytes_ = joined;
    decode();
    bytes_ = whole;
  }

  std::int64_t decodeResponse(bool isStats, std::int64_t c) {
    const std::int64_t h0 = c + 8 + sizeAt(c + 6) + 13;
    const std::int64_t h = h0 + 2 + sizeAt(h0);
    std::int64_t count = 0;
    std::int64_t end = 0;
    std::string joined;
    if (byteAt(h + 13) == 'z' && intAt(h + 14, 4) == 1024) joined = joinBlocks(h + 18, "xs", end);
    if (!joined.empty()) {
      decodeJoined(joined, [&] { decodeHead(isStats, 0, count); });
    } else {
      end = decodeHead(isStats, byteAt(h + 13) == 'w' ? h + 15 : h + 18, count);
    }
    return isStats && count != kNoCount ? decodeStats(end, count) : end + 1;
  }

  // From the query element to the last id, or to the count of statistics. Returns the position
  // after that.
  std::int64_t decodeHead(bool isStats, std::int64_t at, std::int64_t& count) {
    const std::int64_t q = putText(at);
    const std::int64_t rc = intAt(q, 4);
    put(rc);
    count = kNoCount;
    if (rc < 0) return q + 4;
    count = intAt(q + 4, 4);
    put(count);
    at = q + 8;
    for (std::int64_t i = 0; !isStats && i < count && good_; ++i) at = putText(at);
    return at;
  }

  std::int64_t decodeStats(std::int64_t at, std::int64_t count) {
    if (count == 0 && good_ && endsAt(at)) return at + 1;
    std::int64_t s = at + 12 + sizeAt(at + 2);
    for (std::int64_t i = 0; i < count && good_; ++i) s = decodeRecord(s);
    return s;
  }

  // After a count of 0 the object may just end: with the answer, or before the next one.
  bool endsAt(std::int64_t at) const {
    const std::string_view rest = bytes_.substr(static_cast<std::size_t>(at));
    return rest == "x" || rest.starts_with(std::string_view("x\xAC\xED\0\5", 5));
  }

  std::int64_t decodeRecord(std::int64_t s) {
    const bool isLong = byteAt(s + 5) == 'z';
    const std::int64_t idAt = isLong ? s + 10 : s + 7;
    if (isLong && intAt(s + 8, 2) == 1024 && intAt(idAt, 2) > 1020) {
      std::int64_t end = 0;
      const std::string joined = joinBlocks(idAt, "x", end);
      decodeJoined(joined, [&] {
        if (!joined.empty()) putText(putText(0));
      });
      if (!joined.empty()) return end + 2;
    }
    const std::int64_t lengthAt = putText(idAt);
    if (!isLong) return putText(lengthAt) + 2;
    const std::int64_t idSize = lengthAt - idAt - 2;
    const std::int64_t room = static_cast<std::int16_t>(intAt(s + 8, 2) - idSize - 4);
    const std::int64_t length = intAt(lengthAt, 2);
    require(room >= 0 && length >= 0);
    put(length);
    const std::int64_t first = std::min(length, room);
    putBytes(lengthAt + 2, first);
    return decodePieces(lengthAt + 2 + first, length - first) + 2;
  }

  std::int64_t decodePieces(std::int64_t p, std::int64_t remaining) {
    bool isShort = false;
    while (remaining > 0 && good_) {
      const std::uint8_t marker = byteAt(p);
      isShort = isShort || marker == 'w';
      require(isShort || marker == 'z');
      const std::int64_t n = isShort ? byteAt(p + 1) : intAt(p + 3, 2);
      const std::int64_t head = isShort ? 2 : 5;
      require(n <= remaining);
      putBytes(p + head, n);
      remaining -= n;
      p += head + n;
    }
    return p;
  }

  std::string_view bytes_;
  std::string& out_;
  bool good_ = true;
};

// The content that a result set buffer is to hold, without its terminator.
inline bool decodeSlowly(bool isStats, std::span<const std::uint8_t> answer, std::string& content) {
  return SlowDecoder({reinterpret_cast<const char*>(answer.data()), answer.size()}, content)
      .decode(isStats);
}

// A result set buffer of the exact size, which lives as long as the process.
inline char* sealedBuffer() {
  static char* const buffer = [] {
    auto* made = static_cast<char*>(std::calloc(kResultSetBufferSize, 1));
    std::memcpy(made + zeb::kContentSize, &kTerminator, sizeof kTerminator);
    return made;
  }();
  return buffer;
}

// What the library's parser, which writes into sealedBuffer(), does wrong; null if nothing. content
// is what the buffer is to hold if isGood.
inline const char* compareParser(bool isStats, std::span<const std::uint8_t> answer, bool isGood,
                                 const std::string& content) {
  char* const buffer = sealedBuffer();
  const int rc = isStats ? zeb::parseStats(answer, buffer) : zeb::parseIds(answer, buffer);
  if (!zeb::isTerminator(buffer + zeb::kContentSize)) return "content reaches the last word";
  if ((rc == 0) != isGood) return isGood ? "an answer is refused" : "a bad answer is accepted";
  if (!isGood) return zeb::isTerminator(buffer) ? nullptr : "a refused answer is not read as empty";
  const char* const end = buffer + content.size();
  if (std::memcmp(buffer, content.data(), content.size()) != 0) return "the content is another";
  const bool hasRoom = content.size() + sizeof kTerminator <= zeb::kContentSize;
  return hasRoom && !zeb::isTerminator(end) ? "no terminator follows the content" : nullptr;
}

}  // namespace zebtest

#endif
