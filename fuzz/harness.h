// Checks that the harnesses share. One that fails ends the process, and the fuzzer reports that as
// a finding.
#ifndef ZEBFUZZ_HARNESS_H
#define ZEBFUZZ_HARNESS_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

#include "client_calls.h"
#include "fault_injector.h"

using namespace zebtest;

// What an input leaves allocated or open, or what it did wrong on the way, is a finding. The
// library's first call, whose memory is never freed, is made before.
template <typename Run>
void runClean(Run run) {
  static const int started = setAPITraceFile("/dev/null");
  require(started == 0, "the library starts");
  run();
  const std::string complaint = takeComplaint();
  require(complaint.empty(), complaint.c_str());
  require(countHoldings() == 0, "nothing is left open or allocated");
}

// Walks, joins and perhaps copies a result set. Only the walk of a damaged one ends with
// ZEB_WRONG_CONTENT (-119) instead of ZEB_END_OF_RESULTS.
inline void useResultSet(ResultSetToken* resultSet, bool isCopied, bool mayBeDamaged) {
  const int unknown = zeb::hasKnownContent(resultSet->head) ? 0 : ZEB_WRONG_CONTENT;
  const std::string told = tellAnswer(resultSet);
  require(told.ends_with("-113") || (mayBeDamaged && told.ends_with("-119")), "a walk has its end");
  char* joined = nullptr;
  const int rc = getIdQuery(resultSet, &joined);
  require(rc == unknown || (unknown == 0 && rc == ZEB_NO_GOOD_ID), "known content is joined");
  require(rc != 0 || std::strlen(joined) < kQueryStringSize, "a query string fits");
  if (!isCopied) return;
  ResultSetToken* copy = nullptr;
  require(copyResultSet(resultSet, &copy) == unknown, "known content is copied");
  if (unknown != 0) return;
  require(std::memcmp(copy->head, resultSet->head, kResultSetBufferSize) == 0,
          "a copy has every byte");
  require(tellAnswer(copy) == told, "a copy is walked like its source");
  require(freeResultSet(&copy) == 0, "a copy can be freed");
}

extern "C" int LLVMFuzzerTestOneInput(const char* data, std::size_t size);

#endif
