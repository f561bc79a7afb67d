// Checks that the harnesses share. One that fails ends the process, and the fuzzer reports that as
// a finding.
#ifndef ZEBFUZZ_HARNESS_H
#define ZEBFUZZ_HARNESS_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string_view>

#include "fault_injector.h"
#include "walk_answer.h"

using namespace zebtest;

inline void requireOneOf(int rc, std::initializer_list<int> documented, const char* call) {
  if (std::find(documented.begin(), documented.end(), rc) != documented.end()) return;
  std::fprintf(stderr, "%s returned %d\n", call, rc);
  std::abort();
}

// Takes the next byte of an input, or 0 if there is none. The first bytes of an input say what is
// done with the rest.
inline std::uint8_t takeByte(std::string_view& input) {
  const auto first = static_cast<std::uint8_t>(input.empty() ? 0 : input.front());
  input.remove_prefix(std::min<std::size_t>(input.size(), 1));
  return first;
}

// What an input leaves allocated or open, or what it did wrong on the way, is a finding. The
// library's first call, whose memory is never freed, is made before.
template <typename Run>
void runClean(Run run) {
  static int level;
  static const int started = getAPITraceLevel(&level);
  require(started == 0, "the library starts");
  run();
  const std::string complaint = takeComplaint();
  require(complaint.empty(), complaint.c_str());
  require(countHoldings() == 0, "nothing is left open or allocated");
}

// Walks, joins and copies a result set. Only the walk of a damaged one ends with
// ZEB_WRONG_CONTENT.
inline void useResultSet(ResultSetToken* resultSet, bool isCopied, bool mayBeDamaged) {
  const auto walk = [](ResultSetToken* walked) { return walkAnswer(walked, [](const Entry&) {}); };
  const int unknown = zeb::hasKnownContent(resultSet->head) ? 0 : ZEB_WRONG_CONTENT;
  const int walked = walk(resultSet);
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
  require(walk(copy) == walked, "a copy is walked like its source");
  require(freeResultSet(&copy) == 0, "a copy can be freed");
}

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size);

#endif
