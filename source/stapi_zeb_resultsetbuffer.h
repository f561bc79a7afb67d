// The bytes of a result set buffer, written and read in one place.
//
//   0   8  content marker, "ZEBSTSET" (statistics) or "ZEBIDSET" (ids)
//   8   4  number of query headers
//   12     the query headers: element length, element, return code; unless that is negative a count and that
//          many entries: id length, id, and for statistics value length, value
//          terminator, also where the content would otherwise begin in a buffer that holds none
//
// Integers are in host order and stand at any address. The last word of a buffer always is a terminator.
#ifndef STAPI_ZEB_RESULTSETBUFFER_H
#define STAPI_ZEB_RESULTSETBUFFER_H

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string_view>

#include "stapi_zeb_diag.h"
#include "zebstats_private.h"

namespace zeb {

constexpr std::size_t kMarkerLength = 8;
constexpr char kStatsMarker[] = "ZEBSTSET";
constexpr char kIdsMarker[] = "ZEBIDSET";
constexpr std::size_t kContentSize = kResultSetBufferSize - sizeof kTerminator;
// A dump reads so much where content ends: a line of 16 bytes, and a word at the last of them.
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

// Makes a new buffer read as empty, and stamps the last word, which no content ever reaches.
void sealBuffer(char* buffer) noexcept;

// Texts of up to so many characters are copied as so many where source and target have them, because a fixed
// width costs less than a call of memcpy.
constexpr std::size_t kShortText = 32;

// The one bounded writer: what does not fit is not written, and once that happened nothing more is. While it
// writes, other threads may dump the buffer: it reads as empty until it is finished, so that they do not run on
// into what the host's memory held before.
class ResultSetWriter {
 public:
  explicit ResultSetWriter(char* buffer) noexcept
      : start_(buffer), cursor_(buffer), traced_(traceLevel() >= kLevelFunction), ok_(buffer != nullptr) {
    addTerminator(start_);
  }
  [[nodiscard]] bool ok() const noexcept { return ok_; }
  [[nodiscard]] bool isNull() const noexcept { return start_ == nullptr; }

  // The first to be written; finish() writes it over the terminator again.
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
    if (!text.empty()) memcpy(cursor_, text.data(), text.size());
    cursor_ += text.size();
  }
  // A length and that many characters.
  void counted(std::string_view text) noexcept {
    integer(static_cast<std::int32_t>(text.size()));
    chars(text);
  }
  // For a caller that asks room() itself and is not traced: writes kShortText characters, whatever the length.
  void countedShort(const void* text, std::size_t length) noexcept {
    const auto count = static_cast<std::int32_t>(length);
    memcpy(cursor_, &count, sizeof count);
    memcpy(cursor_ + sizeof count, text, kShortText);
    cursor_ += sizeof count + length;
  }
  [[nodiscard]] bool isTraced() const noexcept { return traced_; }
  [[nodiscard]] std::size_t room() const noexcept {
    return kContentSize - static_cast<std::size_t>(cursor_ - start_);
  }
  // Content that ends within a word of the last one is ended by that.
  void finish() noexcept {
    memset(cursor_, 0, std::min(room(), kDumpReach));
    if (room() == 0 || room() >= sizeof kTerminator) {
      addTerminator(cursor_);
    } else {
      memcpy(cursor_, &kTerminator, room());
    }
    std::atomic_signal_fence(std::memory_order_release);  // the marker comes last
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
  [[nodiscard]] std::size_t left() const noexcept { return static_cast<std::size_t>(end_ - cursor_); }
  // The end of the results, also where content ended too near to the last word for a terminator of its own.
  [[nodiscard]] bool atEnd() const noexcept { return left() < sizeof kTerminator || isTerminator(cursor_); }

  std::int32_t integer() noexcept {
    if (left() < sizeof(std::int32_t)) ok_ = false;
    if (!ok_) return 0;
    const std::int32_t value = loadInteger(cursor_);
    cursor_ += sizeof value;
    return value;
  }
  // The length that was read is checked here, whatever it is.
  char* chars(std::int32_t length) noexcept {
    if (length < 0 || static_cast<std::size_t>(length) > left()) ok_ = false;
    if (!ok_) return nullptr;
    char* start = cursor_;
    cursor_ += length;
    return start;
  }

 private:
  char* cursor_;
  char* end_;
  bool ok_ = true;
};

// The dump of a result set: its token line, a rule, its buffer, a rule. Returns the number of bytes dumped;
// the caller holds traceLock.
int writeResultSet(const ResultSetToken& resultSet) noexcept;

}  // namespace zeb

#endif
