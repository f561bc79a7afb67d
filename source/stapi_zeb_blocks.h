// Block data that the serialiser cut into several blocks, read as if it were whole.
//
// A Java serialiser collects block data in a buffer of 1,024 bytes and writes a block each time the
// buffer is full. The cut falls anywhere: between two fields, inside a text, inside a length.
#ifndef STAPI_ZEB_BLOCKS_H
#define STAPI_ZEB_BLOCKS_H

#include "stapi_zeb_wire.h"

namespace zeb {

constexpr std::uint8_t kShortBlock = 'w';  // a 1-byte length follows
constexpr std::uint8_t kLongBlock = 'z';   // a 4-byte length follows
constexpr std::size_t kFullBlock = 1024;

// Reads the head of a block and returns the block's length. Fails unless that is 1 to kFullBlock.
inline std::size_t readBlockHead(ByteReader& in) noexcept {
  const std::int32_t size = in.u8() == kShortBlock ? in.u8() : in.i32();
  if (size < 1 || size > static_cast<std::int32_t>(kFullBlock)) in.fail();
  return in.ok() ? static_cast<std::size_t>(size) : 0;
}

struct CutText;

// How many block heads may be stepped over for one answer. That is far more than an answer of the
// greatest size has, but it limits what a hostile one costs in which each response seems to begin a
// long walk.
constexpr int kMostHeads = 1 << 16;

// Reads like ByteReader, but steps over the heads between the blocks. Use it only if next() is not
// 0: the constructor has then seen that every block is there.
class BlockReader {
 public:
  // blocks begins after the head of a first block of kFullBlock bytes. headsLeft counts down to 0,
  // which ends the walk like a block that is not there.
  BlockReader(std::span<const std::uint8_t> blocks, int& headsLeft) noexcept : in_(blocks) {
    ByteReader in(blocks);
    std::size_t size = kFullBlock;
    in.skip(size);
    while (size == kFullBlock && (in.peek() == kShortBlock || in.peek() == kLongBlock)) {
      if (--headsLeft <= 0) in.fail();
      size = readBlockHead(in);
      in.skip(size);
      left_ += size;
    }
    if (!in.ok() || left_ == kFullBlock) return;
    next_ = in.peek();
    size_ = blocks.size() - in.left();
  }
  // The byte after the last block; 0 if the blocks are not whole, or there is only one.
  [[nodiscard]] std::uint8_t next() const noexcept { return next_; }
  // The length of all blocks, from the start of blocks to next().
  [[nodiscard]] std::size_t size() const noexcept { return size_; }
  [[nodiscard]] bool ok() const noexcept { return ok_; }

  std::int16_t i16() noexcept { return static_cast<std::int16_t>(number(2)); }
  std::int32_t i32() noexcept { return static_cast<std::int32_t>(number(4)); }
  CutText text16() noexcept;
  // Whether a text of this length is left. Fails if not.
  bool holds(std::int32_t length) noexcept {
    if (length < 0 || static_cast<std::size_t>(length) > left_) ok_ = false;
    return ok_;
  }
  // The next bytes up to the end of their block, at most `most`. The caller has asked holds().
  std::string_view piece(std::size_t most) noexcept {
    if (inBlock_ == 0 && most > 0) inBlock_ = readBlockHead(in_);
    const std::size_t size = std::min(most, inBlock_);
    inBlock_ -= size;
    left_ -= size;
    return in_.text(static_cast<std::int32_t>(size));
  }

 private:
  std::uint32_t number(std::size_t width) noexcept {
    if (width > left_) ok_ = false;
    std::uint32_t value = 0;
    while (ok_ && width > 0) {
      const std::string_view bytes = piece(width);
      for (const char byte : bytes) value = value << 8 | static_cast<std::uint8_t>(byte);
      width -= bytes.size();
    }
    return value;
  }

  ByteReader in_;
  std::size_t inBlock_ = kFullBlock;  // left of the block that in_ is in
  std::size_t left_ = kFullBlock;     // left of all blocks, without their heads
  std::size_t size_ = 0;
  std::uint8_t next_ = 0;
  bool ok_ = true;
};

// A text that may lie in several blocks: what the reader reads next, all of it there.
struct CutText {
  BlockReader from;
  std::int32_t length;
  [[nodiscard]] int size() const noexcept { return length; }
};

inline CutText BlockReader::text16() noexcept {
  const std::int32_t length = i16();
  const CutText text = {*this, holds(length) ? length : 0};
  for (auto left = static_cast<std::size_t>(text.length); left > 0;) left -= piece(left).size();
  return text;
}

}  // namespace zeb

#endif
