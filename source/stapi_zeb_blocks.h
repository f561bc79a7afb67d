// Reads block data that the Java serialiser has cut into several blocks as if it were one block.
//
// The serialiser collects block data in a buffer of 1,024 bytes and writes a block each time the
// buffer is full, so every block but the last has that length. The cut falls anywhere: between two
// fields, inside a text, inside a length. Each block has a head of its own: a marker and a length.
#ifndef STAPI_ZEB_BLOCKS_H
#define STAPI_ZEB_BLOCKS_H

#include "stapi_zeb_wire.h"

namespace zeb {

constexpr std::uint8_t kShortBlock = 'w';  // a 1-byte length follows
constexpr std::uint8_t kLongBlock = 'z';   // a 4-byte length follows
constexpr std::size_t kFullBlock = 1024;   // the length of every block but the last

// Reads the head of a block and returns the block's length, without the head. Unless that is 1 to
// kFullBlock, in fails and the result is 0.
inline std::size_t readBlockHead(ByteReader& in) noexcept {
  const std::int32_t size = in.u8() == kShortBlock ? in.u8() : in.i32();
  if (size < 1 || size > static_cast<std::int32_t>(kFullBlock)) in.fail();
  return in.ok() ? static_cast<std::size_t>(size) : 0;
}

struct CutText;

// The number of block heads at which the reading of one answer fails. The largest permitted answer
// has fewer; a hostile one, in which every response seems to begin a long run of blocks, would
// otherwise cost a time that grows with the square of its size.
constexpr int kMaxHeads = 1 << 16;

// Reads numbers and texts like ByteReader, across blocks: it skips the heads between them. The
// constructor looks at every head; if next() is 0 after it, the blocks are incomplete, there is
// only one, or no byte or a 0 follows them, and nothing else may be called.
class BlockReader {
 public:
  // blocks begins with the first block, which has kFullBlock bytes; its head has been read. Each
  // further head takes 1 from headsLeft, which the readers of one answer share; at 0, the blocks
  // count as incomplete.
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
    const bool isCut = left_ > kFullBlock;
    if (!in.ok() || !isCut) return;
    next_ = in.peek();
    wireSize_ = blocks.size() - in.left();
  }
  // The byte after the last block, or 0 as said above.
  [[nodiscard]] std::uint8_t next() const noexcept { return next_; }
  // The number of bytes from the start of blocks to next(), heads included.
  [[nodiscard]] std::size_t wireSize() const noexcept { return wireSize_; }
  [[nodiscard]] bool ok() const noexcept { return ok_; }

  std::int16_t i16() noexcept { return static_cast<std::int16_t>(number(2)); }
  std::int32_t i32() noexcept { return static_cast<std::int32_t>(number(4)); }
  // A text after its 16-bit length. It is empty, and the reader fails, if it is not all there.
  CutText text16() noexcept;
  // Returns whether a text of this length is left; the reader fails if not.
  bool holds(std::int32_t length) noexcept {
    if (length < 0 || static_cast<std::size_t>(length) > left_) ok_ = false;
    return ok_;
  }
  // The next bytes of one block, at most `most`; empty if the reader fails, so a loop must ask
  // ok(). The caller has asked holds().
  std::string_view piece(std::size_t most) noexcept {
    if (inBlock_ == 0 && most > 0) inBlock_ = readBlockHead(in_);
    const std::size_t size = std::min(most, inBlock_);
    inBlock_ -= size;
    left_ -= size;
    const std::string_view bytes = in_.text(static_cast<std::int32_t>(size));
    if (!in_.ok()) ok_ = false;
    return bytes;
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
  std::size_t inBlock_ = kFullBlock;  // unread bytes of the current block
  std::size_t left_ = kFullBlock;     // unread bytes of all blocks, without their heads
  std::size_t wireSize_ = 0;
  std::uint8_t next_ = 0;
  bool ok_ = true;
};

// A text that may lie in several blocks: the next `length` bytes that `from` reads, all of which
// are there. size() is named as in std::string_view, the type of a text that
// is not cut, so that templates take either.
struct CutText {
  BlockReader from;
  std::int32_t length;
  [[nodiscard]] int size() const noexcept { return length; }
};

inline CutText BlockReader::text16() noexcept {
  const std::int32_t length = i16();
  const CutText text = {*this, holds(length) ? length : 0};
  auto unskipped = static_cast<std::size_t>(text.length);
  while (ok_ && unskipped > 0) unskipped -= piece(unskipped).size();
  return text;
}

}  // namespace zeb

#endif
