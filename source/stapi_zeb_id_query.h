// The joining of a result set's ids into one query string, for getIdQuery.
#ifndef STAPI_ZEB_ID_QUERY_H
#define STAPI_ZEB_ID_QUERY_H

#include <cstring>
#include <string_view>

#include "stapi_zeb_resultsetbuffer.h"
#include "stapi_zeb_walk.h"

namespace zeb {

// A string in the caller's block of kQueryStringSize bytes, in which there is always room for a
// NUL. A text that does not fit as a whole is not appended.
class QueryString {
 public:
  explicit QueryString(char* room) noexcept : text_(room) {}
  [[nodiscard]] std::size_t length() const noexcept { return length_; }
  // Returns false, having appended nothing, if the text does not fit.
  bool append(std::string_view text) noexcept {
    if (text.size() >= kQueryStringSize - length_) return false;
    copyBytes(text_ + length_, text.data(), text.size());
    length_ += text.size();
    return true;
  }
  // Appends a separator and an id, or neither.
  bool appendNext(std::string_view id) noexcept {
    if (id.size() + 1 >= kQueryStringSize - length_) return false;
    text_[length_] = ':';
    copyBytes(text_ + length_ + 1, id.data(), id.size());
    length_ += id.size() + 1;
    return true;
  }
  void end() noexcept { text_[length_] = '\0'; }

 private:
  char* text_;
  std::size_t length_ = 0;
};

// Fast path: appends the remaining ids of the element that is being walked in one loop, which takes
// a third of the time of single steps, and advances the walk. It stops before an id that does not
// fit or is damaged; the next step of the walk deals with that. It does nothing if the walk is
// between two elements or if its steps are to be traced. Returns the number of ids.
template <typename Walk>
int joinElement(ResultSetToken& resultSet, QueryString& joined) noexcept {
  if (traceLevel() >= kLevelEvent || resultSet.elementResultIndex == 0) return 0;
  ResultSetReader in(resultSet.next, resultSet.head);
  QueryString longer = joined;  // a copy, which stays in registers
  const std::int32_t left = resultSet.elementCount - resultSet.elementResultIndex + 1;
  std::int32_t count = 0;
  for (; count < left && !in.atEnd(); ++count) {
    ResultSetReader ahead = in;
    const auto entry = Walk::read(ahead);
    if (!ahead.ok()) break;
    if (!longer.appendNext({entry.id, static_cast<std::size_t>(entry.idLen)})) break;
    in = ahead;
  }
  joined = longer;
  resultSet.next = in.position();
  resultSet.elementResultIndex += count;
  if (count == left) {
    resultSet.elementResultIndex = 0;
    ++resultSet.queryIndex;
  }
  return count;
}

// Walks a result set to its end, or to the first id that does not fit, and appends the ids of the
// elements whose return code is 0. Returns the number of ids.
template <typename Walk>
int joinIds(ResultSetToken* rsPtr, QueryString& joined) noexcept {
  int goodIdCount = 0;
  typename Walk::Record record;
  int rc = Walk::getFirst(rsPtr, &record);
  while (rc == 0) {
    if (record.queryElementRC == 0) {
      if (!joined.append(Walk::id(record))) break;
      goodIdCount += 1 + joinElement<Walk>(*rsPtr, joined);
    }
    rc = Walk::getNext(rsPtr, &record);
    // quirk: ':' is appended whenever the next entry is good, so it may be the first or the last
    // character
    if (rc == 0 && record.queryElementRC == 0 && !joined.append(":")) break;
  }
  return goodIdCount;
}

}  // namespace zeb

#endif
