// A second decoder of answers, slow and obvious: field by field as the layout has them, every byte
// through one bounds test. It shares no line with the library. The layout, with the sizes in bytes:
//
//   answer      a byte; if that is 1, the number of responses (4); the responses, otherwise one
//   response    6 bytes, a text (its length (2) and the characters), 13 bytes, a text, 13 bytes, a
//               tag, 1 byte after a 'w' or 4 after any other, query element, return code (4), body
//   ids body    code < 0: 1 byte; otherwise count (4), ids, 1 byte
//   stats body  code < 0: 1 byte; otherwise count (4), 2 bytes, a text, 8 bytes, records
//   record      5 bytes, a tag; 'z': 2 bytes, room (2), id, length of the value (2), its part that
//               fills the room, the rest of it in pieces; other: 1 byte, id, value; then 2 bytes
//   pieces      'z' blocks (a 4-byte length), then 'w' blocks (1 byte) whatever their tag
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
#include <memory>
#include <string>
#include <string_view>

#include "stapi_zeb_resultsetbuffer.h"
#include "stapi_zeb_statcomms.h"

namespace zebtest {

// Bytes that are taken from the front. Taking more than there are is an exception.
struct SlowReader {
  struct Malformed {};
  std::string_view rest;

  static void require(bool holds) {
    if (!holds) throw Malformed();
  }
  std::string_view take(std::size_t size) {
    require(size <= rest.size());
    const std::string_view taken = rest.substr(0, size);
    rest.remove_prefix(size);
    return taken;
  }
  void skipUpTo(std::size_t size) { take(std::min(size, rest.size())); }
  std::int64_t number(std::size_t width, bool isSigned = true) {
    const bool isNegative = isSigned && !rest.empty() && (rest[0] & 0x80) != 0;
    std::int64_t value = isNegative ? -1 : 0;
    for (const char byte : take(width)) value = value << 8 | static_cast<std::uint8_t>(byte);
    return value;
  }
  std::string_view text() { return sized(number(2)); }
  std::string_view sized(std::int64_t size) {
    require(size >= 0);
    return take(static_cast<std::size_t>(size));
  }

  // The joined data of blocks, which this is moved past; a full one begins here. Empty, and not
  // moved, if they are not as a serialiser cuts them or none of the followers comes after them.
  std::string joinBlocks(std::string_view followers) {
    SlowReader in = *this;
    std::string joined;
    try {
      for (std::int64_t size = 1024;;) {
        require(size >= 1 && size <= 1024);
        joined += in.sized(size);
        require(!in.rest.empty());
        const char tag = in.rest[0];
        if (size < 1024 || (tag != 'w' && tag != 'z')) {
          require(joined.size() > 1024 && followers.find(tag) != followers.npos);
          *this = in;
          return joined;
        }
        in.take(1);
        size = in.number(tag == 'w' ? 1 : 4, tag != 'w');
      }
    } catch (const Malformed&) {
      return "";
    }
  }
};

class SlowDecoder {
 public:
  SlowDecoder(std::string_view answer, std::string& out) : in_{answer}, out_(out) {}

  // False: malformed, or too long for a result set buffer.
  bool decode(bool isStats) try {
    const bool isList = in_.number(1) == 1;
    const std::int64_t responses = isList ? in_.number(4) : 1;
    out_.assign(isStats ? "ZEBSTSET" : "ZEBIDSET");
    put(responses);
    for (std::int64_t i = 0; i < responses; ++i) decodeResponse(isStats);
    return out_.size() <= 153600 - 4;
  } catch (const SlowReader::Malformed&) {
    return false;
  }

 private:
  static constexpr std::int64_t kNoCount = INT64_MIN;  // of a response whose code is negative

  std::int64_t put(std::int64_t value) {
    const auto word = static_cast<std::int32_t>(value);
    out_.append(reinterpret_cast<const char*>(&word), sizeof word);
    return value;
  }
  void putText(SlowReader& in) {
    const std::string_view text = in.text();
    put(std::ssize(text));
    out_ += text;
  }

  void decodeResponse(bool isStats) {
    in_.take(6);
    in_.text();
    in_.take(13);
    in_.text();
    in_.take(13);
    const std::string_view tag = in_.take(1);
    const std::int64_t size = in_.number(tag == "w" ? 1 : 4);
    const std::string joined = tag == "z" && size == 1024 ? in_.joinBlocks("xs") : "";
    SlowReader blocks = {joined};
    const std::int64_t count = decodeHead(isStats, joined.empty() ? in_ : blocks);
    if (isStats && count != kNoCount) {
      decodeStats(count);
    } else {
      in_.skipUpTo(1);
    }
  }

  // From the query element to the last id, or to the count of statistics, which it returns.
  std::int64_t decodeHead(bool isStats, SlowReader& in) {
    putText(in);
    if (put(in.number(4)) < 0) return kNoCount;
    const std::int64_t count = put(in.number(4));
    for (std::int64_t i = 0; !isStats && i < count; ++i) putText(in);
    return count;
  }

  // After a count of 0 the object may just end: with the answer, or before the next one.
  void decodeStats(std::int64_t count) {
    const bool ends = in_.rest == "x" || in_.rest.starts_with(std::string_view("x\xAC\xED\0\5", 5));
    if (count == 0 && ends) {
      in_.take(1);
      return;
    }
    in_.take(2);
    in_.text();
    in_.skipUpTo(8);
    for (std::int64_t i = 0; i < count; ++i) {
      decodeRecord();
      in_.skipUpTo(2);
    }
  }

  void decodeRecord() {
    in_.take(5);
    if (in_.take(1) != "z") {
      in_.take(1);
      putText(in_);
      return putText(in_);
    }
    in_.take(2);
    const std::int64_t block = in_.number(2);
    if (block == 1024 && SlowReader(in_).number(2) > 1020) {
      const std::string joined = in_.joinBlocks("x");
      SlowReader blocks = {joined};
      if (!joined.empty()) {
        putText(blocks);
        return putText(blocks);
      }
    }
    const std::size_t before = in_.rest.size();
    putText(in_);
    const auto idSize = static_cast<std::int64_t>(before - in_.rest.size()) - 2;
    const std::int64_t room = static_cast<std::int16_t>(block - idSize - 4);
    const std::int64_t length = put(in_.number(2));
    SlowReader::require(room >= 0 && length >= 0);
    out_ += in_.sized(std::min(length, room));
    bool isShort = false;
    for (std::int64_t left = length - room; left > 0;) {
      const char marker = in_.take(1)[0];
      isShort = isShort || marker == 'w';
      SlowReader::require(isShort || marker == 'z');
      if (!isShort) in_.take(2);
      const std::int64_t size = isShort ? in_.number(1, false) : in_.number(2);
      SlowReader::require(size <= left);
      out_ += in_.sized(size);
      left -= size;
    }
  }

  SlowReader in_;
  std::string& out_;
};

// The content that a result set buffer is to hold, without its terminator. False if the answer is
// to be refused.
inline bool decodeSlowly(bool isStats, std::string_view answer, std::string& content) {
  return SlowDecoder(answer, content).decode(isStats);
}

// A result set buffer of the exact size, which lives as long as the process.
inline char* sealedBuffer() {
  static char* const buffer = static_cast<char*>(std::calloc(kResultSetBufferSize, 1));
  std::memcpy(buffer + zeb::kContentSize, &kTerminator, sizeof kTerminator);
  return buffer;
}

// What the library's parser does wrong, or null. The slow decoder is asked first; it has to agree
// if the content is known. The parser writes into sealedBuffer(), and the answer is a block of its
// exact size, so that a sanitiser sees every step outside.
inline const char* compareParser(bool isStats, std::string_view answer,
                                 const std::string* known = nullptr) {
  static std::string content;
  const bool isGood = decodeSlowly(isStats, answer, content);
  if (known != nullptr && (isGood != (known->size() <= zeb::kContentSize) || content != *known))
    return "the slow decoder differs";
  const auto block = std::make_unique<std::uint8_t[]>(answer.size());
  std::copy(answer.begin(), answer.end(), block.get());
  char* const buffer = sealedBuffer();
  const int rc = (isStats ? zeb::parseStats : zeb::parseIds)({block.get(), answer.size()}, buffer);
  if ((rc == 0) != isGood) return isGood ? "an answer is refused" : "a bad answer is accepted";
  const std::string end(reinterpret_cast<const char*>(&kTerminator), sizeof kTerminator);
  const std::string expected = (isGood ? content + end : end).substr(0, zeb::kContentSize);
  const std::string_view written(buffer, kResultSetBufferSize);
  return written.starts_with(expected) && written.ends_with(end) ? nullptr : "content is another";
}

}  // namespace zebtest

#endif
