// The bytes of a result set buffer, written and read in one place.
//
//   0   8  content marker, "ZEBSTSET" (statistics) or "ZEBIDSET" (ids)
//   8   4  number of query headers
//   12     then per element: length, element, return code; if not negative, count and entries, each
//          of an id length and an id, and for statistics a value length and a value
//          terminator; an empty buffer has it at offset 0
//
// Integers are in host order, at any address. The last word of a buffer is always a terminator.
#ifndef STAPI_ZEB_RESULTSETBUFFER_H
#define STAPI_ZEB_RESULTSETBUFFER_H

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string_view>

#include "stapi_zeb_diag.h"
#include "zebstats_private.h"

// Allocates a result set without a buffer and stores it in *newRsTokPtr; the caller frees it with
// deleteResultSet. A kOwnerGateway one belongs to the calling thread. Returns 0, ZEB_BUFFER_NULL (a
// null argument), ZEB_OWNER_INVALID, or ZEB_NO_MEMORY.
ZEB_INTERNAL int createResultSet(ResultSetToken** newRsTokPtr, const char* eyecatcher,
                                 std::uint32_t owner) ZEB_NOEXCEPT;
// Frees a result set, but not the buffer at its head, and sets *rsPtr to null. Returns 0,
// ZEB_RESULT_SET_POINTER_NULL, or ZEB_RESULT_SET_NULL.
ZEB_INTERNAL int deleteResultSet(ResultSetToken** rsPtr) ZEB_NOEXCEPT;
// Whether the calling thread owns the result set of a connection. Returns 0, ZEB_OTHER_PROCESS, or
// ZEB_OTHER_THREAD.
ZEB_INTERNAL int verifyAPIResultSetTokenOwner(const ResultSetToken* rsPtr) ZEB_NOEXCEPT;
// Writes a result set to the trace destination; takes traceLock. Returns 0, or ZEB_BUFFER_NULL.
ZEB_INTERNAL int dumpResultSetInternal(const ResultSetToken* rsPtr) ZEB_NOEXCEPT;

// The write operations make no bounds check: the caller ensures that there is room. They advance
// the cursor, but for the terminator. Each returns 0, or ZEB_BUFFER_NULL for a null argument.
ZEB_INTERNAL int addTerminator(char* writeCursor) ZEB_NOEXCEPT;
ZEB_INTERNAL int checkTerminator(const char* dataCursor, int* isRSTermPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int addInteger(char** bufWPtr, int rsInt) ZEB_NOEXCEPT;
ZEB_INTERNAL int addPlatformChars(char** bufWPtr, const char* textPtr, int charCount) ZEB_NOEXCEPT;
ZEB_INTERNAL int addChars(char** bufWPtr, const char* textPtr, int charCount) ZEB_NOEXCEPT;
ZEB_INTERNAL int addIdStr(char** bufWPtr, const char* idString) ZEB_NOEXCEPT;

namespace zeb {

constexpr std::size_t kMarkerLength = 8;
constexpr char kStatsMarker[] = "ZEBSTSET";
constexpr char kIdsMarker[] = "ZEBIDSET";
constexpr std::size_t kContentSize = kResultSetBufferSize - sizeof kTerminator;
// A dump reads up to 19 bytes past the content: a line of 16 bytes, and a word at the last of them.
constexpr std::size_t kDumpReach = 19;

inline std::int32_t loadInteger(const char* at) noexcept {
  std::int32_t value;
  memcpy(&value, at, sizeof value);
  return value;
}
inline bool isTerminator(const char* at) noexcept {
  return loadInteger(at) == static_cast<std::int32_t>(kTerminator);
}
inline bool hasContent(const char* buffer, const char* marker) noexcept {
  return memcmp(buffer, marker, kMarkerLength) == 0;
}
inline bool hasKnownContent(const char* buffer) noexcept {
  return hasContent(buffer, kIdsMarker) || hasContent(buffer, kStatsMarker);
}

// memcpy, inlined for the short texts that ids and values are: calling it takes twice the time of
// the copy. Two pieces of a fixed size, which may overlap, cover any length between theirs and
// twice that.
inline void copyBytes(char* to, const void* from, std::size_t length) noexcept {
  const auto copyEnds = [&](auto piece) {
    constexpr std::size_t kSize = sizeof piece;
    const char* const text = static_cast<const char*>(from);
    auto last = piece;
    memcpy(&piece, text, kSize);
    memcpy(&last, text + length - kSize, kSize);
    memcpy(to, &piece, kSize);
    memcpy(to + length - kSize, &last, kSize);
  };
  struct Sixteen {
    std::uint64_t words[2];
  };
  if (length > 32) {
    memcpy(to, from, length);
  } else if (length >= 16) {
    copyEnds(Sixteen{});
  } else if (length >= 8) {
    copyEnds(std::uint64_t{});
  } else if (length >= 4) {
    copyEnds(std::uint32_t{});
  } else if (length > 0) {
    to[0] = *static_cast<const char*>(from);
    if (length > 1) memcpy(to + length - 2, static_cast<const char*>(from) + length - 2, 2);
  }
}

// Makes a new buffer empty and writes its final terminator, which no content reaches.
void sealBuffer(char* buffer) noexcept;

// The only writer. A write that does not fit is dropped, as are all later ones. Other threads may
// dump the buffer meanwhile, so it reads as empty until finish(): a dump must not run on into what
// the host's memory held before.
class ResultSetWriter {
 public:
  explicit ResultSetWriter(char* buffer) noexcept
      : start_(buffer),
        cursor_(buffer),
        traced_(traceLevel() >= kLevelFunction),
        ok_(buffer != nullptr) {
    addTerminator(start_);
  }
  [[nodiscard]] bool ok() const noexcept { return ok_; }
  [[nodiscard]] bool isNull() const noexcept { return start_ == nullptr; }

  // Must come first; hidden under the terminator until finish().
  void marker(const char* text) noexcept {
    if (!fits(kMarkerLength)) return;
    addPlatformChars(&cursor_, text, static_cast<int>(kMarkerLength));
    memcpy(start_, &kTerminator, sizeof kTerminator);
    marker_ = text;
  }
  void integer(std::int32_t value) noexcept {
    if (!fits(sizeof value)) return;
    if (traced_) [[unlikely]] {
      addInteger(&cursor_, value);
      return;
    }
    memcpy(cursor_, &value, sizeof value);
    cursor_ += sizeof value;
  }
  void chars(std::string_view text) noexcept {
    if (!fits(text.size())) return;
    if (traced_) [[unlikely]] {
      addChars(&cursor_, text.data(), static_cast<int>(text.size()));
      return;
    }
    copyBytes(cursor_, text.data(), text.size());
    cursor_ += text.size();
  }
  // A length and that many characters.
  void counted(std::string_view text) noexcept {
    integer(static_cast<std::int32_t>(text.size()));
    chars(text);
  }
  // counted() for a caller that has asked room() and traces nothing: it calls nothing, so that a
  // copy of the writer stays in registers.
  void countedUnchecked(const void* text, std::size_t length) noexcept {
    const auto count = static_cast<std::int32_t>(length);
    memcpy(cursor_, &count, sizeof count);
    copyBytes(cursor_ + sizeof count, text, length);
    cursor_ += sizeof count + length;
  }
  [[nodiscard]] std::size_t room() const noexcept {
    return kContentSize - static_cast<std::size_t>(cursor_ - start_);
  }
  // With 1 to 3 bytes left the terminator is cut off; the last word ends the content.
  void finish() noexcept {
    memset(cursor_, 0, std::min(room(), kDumpReach));
    if (room() == 0 || room() >= sizeof kTerminator) {
      addTerminator(cursor_);
    } else {
      memcpy(cursor_, &kTerminator, room());
    }
    // The marker comes last. A fence for the compiler is enough: a thread that dumps the buffer
    // does so without a lock whatever the order, and a host only walks it on the thread that filled
    // it.
    std::atomic_signal_fence(std::memory_order_release);
    if (marker_ != nullptr) memcpy(start_, marker_, kMarkerLength);
  }
  void discard() noexcept { addTerminator(start_); }

 private:
  bool fits(std::size_t size) noexcept {
    ok_ = ok_ && size <= room();
    return ok_;
  }

  char* start_;
  char* cursor_;
  const char* marker_ = nullptr;
  bool traced_;
  bool ok_;
};

// The bounded reader of a walk. Once failed it stays failed.
class ResultSetReader {
 public:
  ResultSetReader(char* cursor, char* bufferStart) noexcept
      : cursor_(cursor), end_(bufferStart + kContentSize) {}
  [[nodiscard]] bool ok() const noexcept { return ok_; }
  [[nodiscard]] char* position() const noexcept { return cursor_; }
  [[nodiscard]] std::size_t left() const noexcept {
    return static_cast<std::size_t>(end_ - cursor_);
  }
  // At the terminator, or too near the end for one.
  [[nodiscard]] bool atEnd() const noexcept {
    return left() < sizeof kTerminator || isTerminator(cursor_);
  }

  std::int32_t integer() noexcept {
    if (left() < sizeof(std::int32_t)) ok_ = false;
    if (!ok_) return 0;
    const std::int32_t value = loadInteger(cursor_);
    cursor_ += sizeof value;
    return value;
  }
  // The length that was read is checked here, whatever it is: a negative one, without its sign, is
  // longer than any buffer.
  char* chars(std::int32_t length) noexcept {
    const auto size = static_cast<std::uint32_t>(length);
    if (size > left()) ok_ = false;
    if (!ok_) return nullptr;
    char* start = cursor_;
    cursor_ += size;
    return start;
  }

 private:
  char* cursor_;
  char* end_;
  bool ok_ = true;
};

// The dump of a result set: its token line, a rule, its buffer, a rule. Returns the number of bytes
// dumped; the caller holds traceLock.
int writeResultSet(const ResultSetToken& resultSet) noexcept;

}  // namespace zeb

#endif
