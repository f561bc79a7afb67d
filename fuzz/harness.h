// Checks and helpers that the harnesses share.
#ifndef ZEBFUZZ_HARNESS_H
#define ZEBFUZZ_HARNESS_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <span>

#include "stapi_zeb_resultsetbuffer.h"
#include "zebstats_private.h"

namespace zebfuzz {

using Input = std::span<const std::uint8_t>;

// Both end the process if the check fails, which the fuzzer reports as a finding.
inline void require(bool holds, const char* fact) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", fact);
  std::abort();
}
inline void requireOneOf(int rc, std::initializer_list<int> documented, const char* call) {
  if (std::find(documented.begin(), documented.end(), rc) != documented.end()) return;
  std::fprintf(stderr, "%s returned %d\n", call, rc);
  std::abort();
}

// Takes the next byte of an input, or 0 if there is none. The first bytes of an input say what is
// done with the rest.
inline std::uint8_t takeByte(Input& input) {
  if (input.empty()) return 0;
  const std::uint8_t first = input.front();
  input = input.subspan(1);
  return first;
}

// Makes the library's first call, which allocates memory that is never freed, so that it is not
// counted.
inline void startLibrary() {
  static const bool started = [] {
    int level;
    return getAPITraceLevel(&level) == 0;
  }();
  require(started, "the library starts");
}

// Returns a result set buffer of the exact size, which lives as long as the process.
inline char* sealedBuffer() {
  static char* const buffer = [] {
    auto* made = static_cast<char*>(std::calloc(kResultSetBufferSize, 1));
    std::memcpy(made + zeb::kContentSize, &kTerminator, sizeof kTerminator);
    return made;
  }();
  return buffer;
}

// Walks a result set to its end and returns the last code. Every text must lie in the buffer, and
// there cannot be more entries than the buffer has room for.
template <typename Record, typename First, typename Next>
int walkAll(ResultSetToken* resultSet, First getFirst, Next getNext) {
  const char* const start = resultSet->head;
  const char* const end = start + zeb::kContentSize;
  const auto isInside = [&](const char* text, int length) {
    return length >= 0 && text >= start && text <= end && length <= end - text;
  };
  Record record = {};
  int rc = getFirst(resultSet, &record);
  std::size_t entries = 0;
  for (; rc == 0; rc = getNext(resultSet, &record)) {
    require(++entries <= kResultSetBufferSize / 4, "a walk ends");
    require(isInside(record.queryElementPtr, record.queryElementLen),
            "a query element lies in the buffer");
    if (record.queryElementRC < 0) continue;
    if constexpr (requires { record.idPtr; }) {
      require(isInside(record.idPtr, record.idLen), "an id lies in the buffer");
    } else {
      require(isInside(record.statIdPtr, record.statIdLen), "a statistic's id lies in the buffer");
      require(isInside(record.statValuePtr, record.statValueLen), "a value lies in the buffer");
    }
  }
  return rc;
}

// Walks a result set with the calls for its content, and requires that the others refuse. Returns
// the last code.
inline int walkAsContent(ResultSetToken* resultSet) {
  const bool isStats = zeb::hasContent(resultSet->head, zeb::kStatsMarker);
  StatData stat;
  IdData id;
  requireOneOf(isStats ? getFirstId(resultSet, &id) : getFirstStat(resultSet, &stat),
               {ZEB_WRONG_CONTENT}, "a walk of the wrong kind");
  return isStats ? walkAll<StatData>(resultSet, getFirstStat, getNextStat)
                 : walkAll<IdData>(resultSet, getFirstId, getNextId);
}

// Walks, joins and copies a result set. If it may be damaged, the walk may end with
// ZEB_WRONG_CONTENT.
inline void useResultSet(ResultSetToken* resultSet, bool isCopied, bool mayBeDamaged) {
  const int unknown = zeb::hasKnownContent(resultSet->head) ? 0 : ZEB_WRONG_CONTENT;
  const int walked = walkAsContent(resultSet);
  requireOneOf(walked, {ZEB_END_OF_RESULTS, mayBeDamaged ? ZEB_WRONG_CONTENT : ZEB_END_OF_RESULTS},
               "walk");
  char* joined = nullptr;
  const int rc = getIdQuery(resultSet, &joined);
  requireOneOf(rc, {unknown, unknown == 0 ? ZEB_NO_GOOD_ID : unknown}, "getIdQuery");
  require(rc != 0 || std::strlen(joined) < kQueryStringSize, "a query string fits");
  if (!isCopied) return;
  ResultSetToken* copy = nullptr;
  require(copyResultSet(resultSet, &copy) == unknown, "known content is copied");
  if (unknown != 0) return;
  require(std::memcmp(copy->head, resultSet->head, kResultSetBufferSize) == 0,
          "a copy has every byte");
  require(walkAsContent(copy) == walked, "a copy is walked like its source");
  require(freeResultSet(&copy) == 0, "a copy can be freed");
}

}  // namespace zebfuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

#endif
