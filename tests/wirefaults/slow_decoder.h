// A second decoder of answers, slow and obvious: every field at the position that the layout gives
// it, every byte through one bounds test. It shares no line with the library.
//
//   answer      form 1: byte 0, number of responses (4), responses; else: byte 0, one response
//   response    c+6 length A (2), A bytes, 13 bytes, h0: length B (2), B bytes, h: 13 bytes, marker,
//               then 1 byte behind a 'w' or 4 behind any other, query element (2 + Q), q: return
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

#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

namespace zebtest {

class SlowDecoder {
 public:
  SlowDecoder(std::span<const std::uint8_t> bytes, std::string& out) : bytes_(bytes), out_(out) {}

  // False: malformed, or too long for a result set buffer.
  bool decode(bool isStats) {
    const bool isList = byteAt(0) == 1;
    const std::int64_t responses = isList ? int32At(1) : 1;
    out_.assign(isStats ? "ZEBSTSET" : "ZEBIDSET");
    put(responses);
    std::int64_t c = isList ? 5 : 1;
    for (std::int64_t i = 0; i < responses && good_; ++i) c = decodeResponse(isStats, c);
    return good_ && out_.size() <= 153600 - 4;
  }

 private:
  std::int64_t byteAt(std::int64_t at) {
    good_ = good_ && at < std::ssize(bytes_);
    return good_ ? bytes_[static_cast<std::size_t>(at)] : 0;
  }
  std::int64_t len16At(std::int64_t at) {
    return static_cast<std::int16_t>(byteAt(at) << 8 | byteAt(at + 1));
  }
  std::int64_t int32At(std::int64_t at) {
    return static_cast<std::int32_t>(byteAt(at) << 24 | byteAt(at + 1) << 16 | byteAt(at + 2) << 8 |
                                     byteAt(at + 3));
  }
  // A length that counts bytes which must be there.
  std::int64_t sizeAt(std::int64_t at) {
    const std::int64_t size = len16At(at);
    require(size >= 0 && at + 2 + size <= std::ssize(bytes_));
    return good_ ? size : 0;
  }
  void require(bool holds) { good_ = good_ && holds; }

  void put(std::int64_t value) {
    const auto word = static_cast<std::int32_t>(value);
    out_.append(reinterpret_cast<const char*>(&word), sizeof word);
  }
  void putBytes(std::int64_t at, std::int64_t size) {
    require(size >= 0 && at + size <= std::ssize(bytes_));
    if (good_ && size > 0)
      out_.append(reinterpret_cast<const char*>(&bytes_[static_cast<std::size_t>(at)]),
                  static_cast<std::size_t>(size));
  }
  // A text with its length ahead. Returns the position behind it.
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
    const std::string_view all(reinterpret_cast<const char*>(bytes_.data()), bytes_.size());
    std::string joined;
    for (std::size_t size = 1024, from = static_cast<std::size_t>(at);;) {
      if (from + size >= all.size()) return "";
      joined += all.substr(from, size);
      from += size;
      const bool isBlock = all[from] == 'w' || all[from] == 'z';
      if (size < 1024 || !isBlock) {
        end = static_cast<std::int64_t>(from);
        return joined.size() > 1024 && followers.find(all[from]) != followers.npos ? joined : "";
      }
      SlowDecoder head(bytes_, out_);  // writes nothing, but has its own idea of what is good
      const auto next = static_cast<std::int64_t>(from) + 1;
      const std::int64_t length = all[from] == 'w' ? head.byteAt(next) : head.int32At(next);
      if (!head.good_ || length < 1 || length > 1024) return "";
      from += all[from] == 'w' ? 2 : 5;
      size = static_cast<std::size_t>(length);
    }
  }
  // Decodes from the joined data instead. Returns what the decoding returned.
  template <typename Decode>
  std::int64_t decodeJoined(const std::string& joined, Decode decode) {
    const auto whole = bytes_;
    bytes_ = {reinterpret_cast<const std::uint8_t*>(joined.data()), joined.size()};
    const std::int64_t result = decode();
    bytes_ = whole;
    return result;
  }

  std::int64_t decodeResponse(bool isStats, std::int64_t c) {
    const std::int64_t h0 = c + 8 + sizeAt(c + 6) + 13;
    const std::int64_t h = h0 + 2 + sizeAt(h0);
    std::int64_t end = 0;
    std::string joined;
    if (byteAt(h + 13) == 'z' && int32At(h + 14) == 1024)
      joined = joinBlocks(h + 18, "\x78\x73", end);
    std::int64_t count = 0;
    if (!joined.empty()) {
      decodeJoined(joined, [&] { return decodeHead(isStats, 0, count); });
    } else {
      end = decodeHead(isStats, byteAt(h + 13) == 'w' ? h + 15 : h + 18, count);
    }
    return isStats && count != kNoCount ? decodeStats(end, count) : end + 1;
  }

  // From the query element to the last id, or to the count of statistics. Returns the position
  // after that.
  std::int64_t decodeHead(bool isStats, std::int64_t at, std::int64_t& count) {
    const std::int64_t q = putText(at);
    const std::int64_t rc = int32At(q);
    put(rc);
    count = kNoCount;
    if (rc < 0) return q + 4;
    count = int32At(q + 4);
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

  // Behind a count of 0 the object may just end: with the answer, or ahead of the next one.
  bool endsAt(std::int64_t at) const {
    const auto rest = bytes_.subspan(static_cast<std::size_t>(at));
    if (rest.empty() || rest[0] != 0x78) return false;
    return rest.size() == 1 ||
           (rest.size() >= 5 && std::memcmp(&rest[1], "\xAC\xED\x00\x05", 4) == 0);
  }

  std::int64_t decodeRecord(std::int64_t s) {
    const bool isLong = byteAt(s + 5) == 'z';
    const std::int64_t idAt = isLong ? s + 10 : s + 7;
    if (isLong && len16At(s + 8) == 1024 && len16At(idAt) > 1020) {
      std::int64_t end = 0;
      const std::string joined = joinBlocks(idAt, "\x78", end);
      if (!joined.empty()) {
        decodeJoined(joined, [&] { return putText(putText(0)); });
        return end + 2;
      }
    }
    const std::int64_t lengthAt = putText(idAt);
    if (!isLong) return putText(lengthAt) + 2;
    const std::int64_t idSize = lengthAt - idAt - 2;
    const std::int64_t room = static_cast<std::int16_t>(len16At(s + 8) - idSize - 4);
    const std::int64_t length = len16At(lengthAt);
    require(room >= 0 && length >= 0);
    put(length);
    if (length <= room) {
      putBytes(lengthAt + 2, length);
      return lengthAt + 2 + length + 2;
    }
    putBytes(lengthAt + 2, room);
    return decodePieces(lengthAt + 2 + room, length - room) + 2;
  }

  std::int64_t decodePieces(std::int64_t p, std::int64_t remaining) {
    bool isShort = false;
    while (remaining > 0 && good_) {
      const std::int64_t marker = byteAt(p);
      isShort = isShort || marker == 'w';
      require(isShort || marker == 'z');
      const std::int64_t n = isShort ? byteAt(p + 1) : len16At(p + 3);
      const std::int64_t head = isShort ? 2 : 5;
      require(n <= remaining);
      putBytes(p + head, n);
      remaining -= n;
      p += head + n;
    }
    return p;
  }

  static constexpr std::int64_t kNoCount = INT64_MIN;  // of a response whose code is negative

  std::span<const std::uint8_t> bytes_;
  std::string& out_;
  bool good_ = true;
};

// The content that a result set buffer is to hold, without its terminator.
inline bool decodeSlowly(bool isStats, std::span<const std::uint8_t> answer, std::string& content) {
  return SlowDecoder(answer, content).decode(isStats);
}

}  // namespace zebtest

#endif
