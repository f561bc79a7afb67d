// Result set tokens, and the layout of their buffers, which the library writes and reads only with
// the classes and functions of this file.
//
//   offset  bytes  content of a buffer
//   0       8      content marker: "ZEBSTSET" (statistics) or "ZEBIDSET" (ids)
//   8       4      number of query headers
//   12             query headers, each followed by its entries
//           4      terminator
//
//   query header   length of the query element, element, return code; if the code is not negative,
//                  number of entries
//   id entry       length of the id, id
//   stat entry     length of the id, id, length of the value, value
//
// Lengths, counts and codes are integers of 4 bytes, in host order and at any address. An empty
// buffer has a terminator at offset 0. The last word of every buffer is a terminator, too.
#ifndef STAPI_ZEB_RESULTSETBUFFER_H
#define STAPI_ZEB_RESULTSETBUFFER_H

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string_view>

#include "stapi_zeb_diag.h"
#include "zebstats_private.h"

// Allocates a result set without a buffer and stores it in *newRsTokPtr; the caller frees it with
// deleteResultSet. eyecatcher has up to 8 characters; owner is kOwnerUser (a copy) or
// kOwnerGateway (the calling thread's). Returns 0, ZEB_BUFFER_NULL (a null argument),
// ZEB_OWNER_INVALID, or ZEB_NO_MEMORY.
ZEB_INTERNAL int createResultSet(ResultSetToken** newRsTokPtr, const char* eyecatcher,
                                 std::uint32_t owner) ZEB_NOEXCEPT;
// Frees a result set, but not the buffer at its head, and sets *rsPtr to null. If the host has had
// the handle, the record is retired instead. Returns 0, ZEB_RESULT_SET_POINTER_NULL (rsPtr is
// null), or ZEB_RESULT_SET_NULL (*rsPtr is null).
ZEB_INTERNAL int deleteResultSet(ResultSetToken** rsPtr) ZEB_NOEXCEPT;
// Checks that the calling thread owns the result set of a connection (kOwnerGateway). Returns 0,
// ZEB_OTHER_PROCESS, or ZEB_OTHER_THREAD.
ZEB_INTERNAL int verifyAPIResultSetTokenOwner(const ResultSetToken* rsPtr) ZEB_NOEXCEPT;
// Writes a result set to the trace destination; takes traceLock. Returns 0, or ZEB_BUFFER_NULL.
ZEB_INTERNAL int dumpResultSetInternal(const ResultSetToken* rsPtr) ZEB_NOEXCEPT;

// Operations on a buffer. None of them checks bounds: the caller ensures that there is room. Each
// returns 0, or ZEB_BUFFER_NULL for a null argument; then nothing is written.

// Writes a terminator at writeCursor; the next write is expected to overwrite it.
ZEB_INTERNAL int addTerminator(char* writeCursor) ZEB_NOEXCEPT;
// Stores 1 in *isRSTermPtr if a terminator is at dataCursor, otherwise 0.
ZEB_INTERNAL int checkTerminator(const char* dataCursor, int* isRSTermPtr) ZEB_NOEXCEPT;
// Each writes at *bufWPtr and advances that past what it has written: an integer; charCount
// characters of the library's own text (addPlatformChars) or of the gateway's (addChars); the
// length of idString and its characters. addIdStr then puts a NUL at the new *bufWPtr, which needs
// room too and which the next write overwrites.
ZEB_INTERNAL int addInteger(char** bufWPtr, int rsInt) ZEB_NOEXCEPT;
ZEB_INTERNAL int addPlatformChars(char** bufWPtr, const char* textPtr, int charCount) ZEB_NOEXCEPT;
ZEB_INTERNAL int addChars(char** bufWPtr, const char* textPtr, int charCount) ZEB_NOEXCEPT;
ZEB_INTERNAL int addIdStr(char** bufWPtr, const char* idString) ZEB_NOEXCEPT;

namespace zeb {

constexpr std::size_t kMarkerLength = 8;
constexpr char kStatsMarker[] = "ZEBSTSET";
constexpr char kIdsMarker[] = "ZEBIDSET";
// All of a buffer but its last word.
constexpr std::size_t kContentSize = kResultSetBufferSize - sizeof kTerminator;
// The bytes, from the terminator on, that a dump may read: a line of 16, and a word at the last of
// them to compare with the terminator. Those after the terminator are set to 0, so that no dump
// shows old contents of the memory.
constexpr std::size_t kDumpReach = 16 - 1 + 4;

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

// Copies as memcpy does, but inline for short texts, as ids and values are: to call memcpy would
// take longer than the copy. For lengths from N to 2 * N it copies the first N and the last N
// bytes, which may overlap.
inline void copyBytes(char* to, const void* from, std::size_t length) noexcept {
  // first is a variable of the size to copy; both ends are read before one is written.
  const auto copyEnds = [&](auto first) {
    constexpr std::size_t kSize = sizeof first;
    const char* const text = static_cast<const char*>(from);
    auto last = first;
    memcpy(&first, text, kSize);
    memcpy(&last, text + length - kSize, kSize);
    memcpy(to, &first, kSize);
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

// Makes a newly allocated buffer of kResultSetBufferSize bytes empty, and writes the terminator in
// its last word, which no content reaches.
void sealBuffer(char* buffer) noexcept;

// Writes a buffer from its start. A write that does not fit is dropped, as are all later ones, and
// ok() is false from then on. Nothing is written to a null buffer, for which ok() is false, too.
//
// Another thread may dump the state of the library meanwhile, and takes no lock for the buffer. So
// the buffer reads as empty until finish(): otherwise the dump would run on into what this memory
// held before.
//
// At trace levels of 3 and more it writes with the exported operations, which trace themselves.
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

  // Must come first. The terminator then hides the marker, so finish() writes the marker again;
  // writing it here serves only the trace of addPlatformChars.
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
  // Writes the length of text and then text.
  void counted(std::string_view text) noexcept {
    integer(static_cast<std::int32_t>(text.size()));
    chars(text);
  }
  // Does what counted() does, for a caller that has checked room() and that nothing is traced. It
  // calls no function but memcpy, so that the compiler can keep a copy of the writer in registers.
  void countedUnchecked(const void* text, std::size_t length) noexcept {
    const auto count = static_cast<std::int32_t>(length);
    memcpy(cursor_, &count, sizeof count);
    copyBytes(cursor_ + sizeof count, text, length);
    cursor_ += sizeof count + length;
  }
  [[nodiscard]] std::size_t room() const noexcept {
    return kContentSize - static_cast<std::size_t>(cursor_ - start_);
  }
  // Ends the content with a terminator and makes it readable. Where only 1 to 3 bytes are left, the
  // terminator is cut short; ResultSetReader::atEnd() knows such an end by its place. With 0 left
  // it goes into the last word.
  void finish() noexcept {
    memset(cursor_, 0, std::min(room(), kDumpReach));
    if (room() == 0 || room() >= sizeof kTerminator) {
      addTerminator(cursor_);
    } else {
      memcpy(cursor_, &kTerminator, room());
    }
    // The marker comes last, and the fence keeps the compiler from moving it up. Nothing orders the
    // writes for other cores, and nothing needs to: a dump by another thread may show a mixture of
    // old and new bytes, but the final terminator and the buffer's size bound it; and only the
    // thread that writes here may walk the buffer.
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

// Reads a buffer from cursor on, which lies within it. A read past the end fails, returns 0 or null
// and does not advance; after it all reads fail.
class ResultSetReader {
 public:
  ResultSetReader(char* cursor, char* bufferStart) noexcept
      : cursor_(cursor), end_(bufferStart + kContentSize) {}
  [[nodiscard]] bool ok() const noexcept { return ok_; }
  [[nodiscard]] char* position() const noexcept { return cursor_; }
  [[nodiscard]] std::size_t left() const noexcept {
    return static_cast<std::size_t>(end_ - cursor_);
  }
  // True at a terminator, and so near the end of the buffer that none fits.
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
  // Returns the start of that many characters and steps over them. Any length that integer() has
  // read may be passed: a negative one fails, since as an unsigned number it exceeds any buffer.
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

// Writes a result set to the trace destination: a line with the token's fields, a rule, the bytes
// of the buffer up to the terminator, a rule. The caller holds traceLock. Returns the number of
// bytes dumped.
int writeResultSet(const ResultSetToken& resultSet) noexcept;

}  // namespace zeb

#endif
