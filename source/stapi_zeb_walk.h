// The walk of a result set, entry by entry, for statistics and for ids.
//
// Each entry belongs to a query header, which names the element of the query that it answers. The
// state of the walk is in these fields of the result set token:
//
//   next                what the next step reads: an entry, a query header, or the terminator
//   queryCount          number of query headers; it is only traced, the terminator ends the walk
//   queryIndex          number of the query header of the entry at next, or of the header at next,
//                       from 1; 0 before the first step
//   elementCount        number of entries of the last query header taken
//   elementResultIndex  number of the entry at next, from 1; 0 if no entry is there
//   queryElement...     the element and the code of the last query header taken, which each of its
//                       entries repeats
//
// The state changes only when a step succeeds. The host must not walk one result set in two threads
// at once.
//
// Programs parse the texts of the trace points, so they stay as they are.
#ifndef STAPI_ZEB_WALK_H
#define STAPI_ZEB_WALK_H

#include <cstring>
#include <string_view>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_impl.h"
#include "stapi_zeb_resultsetbuffer.h"

namespace zeb {

// One of the public calls, and its trace points. A point is 0 if the call never writes it.
struct WalkCall {
  const char* name;
  bool first;
  int refusedPoint;
  int noFirstPoint = 0;  // a walk begins without a first call
  int cachedPoint = 0;   // a query header was read, by a first call
  int headerPoint = 0;   // a query header was read, by a next call
  int negativePoint = 0;
  int entryPoint = 0;
  int endPoint;  // after the last entry of a query header
  int takenPoint;
};

// How the two walks differ: their calls, the texts in their trace lines, and their entries. Entry
// is an entry as it is read from the buffer, Record is what the host gets.
struct StatWalk {
  using Record = StatData;
  static constexpr WalkCall kFirst = {.name = "getFirstStat",
                                      .first = true,
                                      .refusedPoint = 1135,
                                      .cachedPoint = 1112,
                                      .endPoint = 1101,
                                      .takenPoint = 1102};
  static constexpr WalkCall kNext = {.name = "getNextStat",
                                     .first = false,
                                     .refusedPoint = 1136,
                                     .noFirstPoint = 1111,
                                     .headerPoint = 1113,
                                     .negativePoint = 1114,
                                     .entryPoint = 1115,
                                     .endPoint = 1116,
                                     .takenPoint = 1117};
  static constexpr const char* kMarker = kStatsMarker;
  static constexpr int kNullRecord = ZEB_STAT_DATA_NULL;
  static constexpr const char* kContentName = "statistics";
  static constexpr const char* kRecordName = "statDataPtr";
  static constexpr const char* kEntryName = "stat";
  static constexpr const char* kLengthName = "statIdLen";
  static constexpr auto getFirst = getFirstStat;
  static constexpr auto getNext = getNextStat;

  struct Entry {
    std::int32_t idLen;
    char* id;
    std::int32_t valueLen;
    char* value;
  };
  static Entry read(ResultSetReader& in) noexcept {
    Entry entry;
    entry.idLen = in.integer();
    entry.id = in.chars(entry.idLen);
    entry.valueLen = in.integer();
    entry.value = in.chars(entry.valueLen);
    return entry;
  }
  static void fill(StatData& record, const Entry& entry) noexcept {
    record.statIdLen = entry.idLen;
    record.statIdPtr = entry.id;
    record.statValueLen = entry.valueLen;
    record.statValuePtr = entry.value;
  }
  static std::string_view id(const StatData& record) noexcept {
    return {record.statIdPtr, static_cast<std::size_t>(record.statIdLen)};
  }
};

struct IdWalk {
  using Record = IdData;
  static constexpr WalkCall kFirst = {.name = "getFirstId",
                                      .first = true,
                                      .refusedPoint = 1110,
                                      .negativePoint = 1104,
                                      .endPoint = 1108,
                                      .takenPoint = 1109};
  static constexpr WalkCall kNext = {.name = "getNextId",
                                     .first = false,
                                     .refusedPoint = 1140,
                                     .noFirstPoint = 1119,
                                     .headerPoint = 1120,
                                     .negativePoint = 1121,
                                     .entryPoint = 1122,
                                     .endPoint = 1123,
                                     .takenPoint = 1118};
  static constexpr const char* kMarker = kIdsMarker;
  static constexpr int kNullRecord = ZEB_ID_DATA_NULL;
  static constexpr const char* kContentName = "id data";
  static constexpr const char* kRecordName = "idDataPtr";
  static constexpr const char* kEntryName = "Id";
  static constexpr const char* kLengthName = "idLen";
  static constexpr auto getFirst = getFirstId;
  static constexpr auto getNext = getNextId;

  struct Entry {
    std::int32_t idLen;
    char* id;
  };
  static Entry read(ResultSetReader& in) noexcept {
    Entry entry;
    entry.idLen = in.integer();
    entry.id = in.chars(entry.idLen);
    return entry;
  }
  static void fill(IdData& record, const Entry& entry) noexcept {
    record.idLen = entry.idLen;
    record.idPtr = entry.id;
  }
  static std::string_view id(const IdData& record) noexcept {
    return {record.idPtr, static_cast<std::size_t>(record.idLen)};
  }
};

// Checks that the calling thread may use the result set: a copy, or one of its own connection.
// Returns 0, ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD.
inline int checkResultSetOwner(const ResultSetToken& resultSet) noexcept {
  return resultSet.owner == kOwnerGateway ? verifyAPIResultSetTokenOwner(&resultSet) : 0;
}

// Checks the arguments of a call. Returns 0 or the code with which the call is refused.
template <typename Walk>
int checkWalk(const WalkCall& call, const ResultSetToken* rsPtr,
              const typename Walk::Record* record) noexcept {
  if (rsPtr == nullptr) {
    TRACE_EXC(call.refusedPoint, "API.%s() Supplied result set token is NULL\n", call.name);
    return ZEB_RESULT_SET_NULL;
  }
  if (record == nullptr) {
    TRACE_EXC(call.refusedPoint, "API.%s() Supplied %s is NULL\n", call.name, Walk::kRecordName);
    return Walk::kNullRecord;
  }
  if (rsPtr->head == nullptr) {
    TRACE_EXC(call.refusedPoint, "API.%s(rsPtr=%p) resultSetBuf is NULL\n", call.name, rsPtr);
    return ZEB_NO_RESULT_SET_BUFFER;
  }
  if (!hasContent(rsPtr->head, Walk::kMarker)) {
    TRACE_EXC(call.refusedPoint, "API.%s Resultset does not contain %s\n", call.name,
              Walk::kContentName);
    return ZEB_WRONG_CONTENT;
  }
  return checkResultSetOwner(*rsPtr);
}

inline int refuseDamaged(const WalkCall& call, const ResultSetToken& resultSet) noexcept {
  TRACE_EXC(call.refusedPoint, "API.%s(rsPtr=%p) Resultset is damaged\n", call.name, &resultSet);
  return ZEB_WRONG_CONTENT;
}

// A query header that a step has read. It is stored in the token when the step succeeds.
struct QueryHeader {
  std::int32_t queryCount;
  std::int32_t queryIndex;
  char* elementPtr = nullptr;
  std::int32_t elementLen = 0;
  std::int32_t elementRC = 0;
  std::int32_t entryCount = 0;

  void store(ResultSetToken& resultSet, std::int32_t elementResultIndex) const noexcept {
    resultSet.queryCount = queryCount;
    resultSet.queryIndex = queryIndex;
    resultSet.queryElementPtr = elementPtr;
    resultSet.queryElementLen = elementLen;
    resultSet.queryElementRC = elementRC;
    resultSet.elementCount = entryCount;
    resultSet.elementResultIndex = elementResultIndex;
  }
};

template <typename Record>
void fillQueryElement(Record& record, const ResultSetToken& resultSet) noexcept {
  record.queryElementPtr = resultSet.queryElementPtr;
  record.queryElementLen = resultSet.queryElementLen;
  record.queryElementRC = resultSet.queryElementRC;
}

// Reads the query header at in. If it is not whole, in has failed.
inline void readQueryHeader(const WalkCall& call, const ResultSetToken& resultSet,
                            ResultSetReader& in, QueryHeader& header) noexcept {
  const char* const cursor = in.position();
  header.elementLen = in.integer();
  header.elementPtr = in.chars(header.elementLen);
  header.elementRC = in.integer();
  header.entryCount = in.ok() && header.elementRC >= 0 ? in.integer() : 0;
  if (!in.ok()) return;
  if (call.cachedPoint != 0) {
    TRACE_DEBUG(
        call.cachedPoint,
        "API.%s Caching new query element details. Resultset=%p, Datacursor=%p, queryElementLen=%d, "
        "queryElementPtr=%p, queryElementRC=%d\n",
        call.name, &resultSet, cursor, header.elementLen, header.elementPtr, header.elementRC);
  }
  if (call.headerPoint != 0) {
    TRACE_DEBUG(
        call.headerPoint,
        "API.%s Processing query header %d of %d. Resultset=%p, Datacursor=%p, queryElementLen=%d, "
        "queryElementPtr=%p, queryElementRC=%d\n",
        call.name, header.queryIndex, header.queryCount, &resultSet, cursor, header.elementLen,
        header.elementPtr, header.elementRC);
  }
}

// queryIndex is the number of the header that comes next.
inline void showEndOfElement(const WalkCall& call, std::int32_t queryIndex,
                             const ResultSetToken& resultSet) noexcept {
  TRACE_DEBUG(call.endPoint, "API.%s End of subset queryIndex=%d. Resultset=%p\n", call.name,
              queryIndex, &resultSet);
}

// Counts an entry as read. Returns true if it was the last one of its query header.
inline bool passEntry(ResultSetToken& resultSet) noexcept {
  if (++resultSet.elementResultIndex <= resultSet.elementCount) [[likely]]
    return false;
  resultSet.elementResultIndex = 0;
  ++resultSet.queryIndex;
  return true;
}

// Reads the entry at in into *record and advances the walk. header is its query header if that was
// read in the same step, otherwise null. Returns 0, or ZEB_WRONG_CONTENT (damaged).
template <typename Walk>
int takeEntry(const WalkCall& call, ResultSetToken& resultSet, ResultSetReader& in,
              const QueryHeader* header, typename Walk::Record& record) noexcept {
  const char* const cursor = in.position();
  const auto entry = Walk::read(in);
  if (!in.ok()) return refuseDamaged(call, resultSet);
  if (header != nullptr) header->store(resultSet, 1);
  Walk::fill(record, entry);
  fillQueryElement(record, resultSet);
  if (!call.first) {
    TRACE_DEBUG(
        call.entryPoint,
        "API.%s Processing queryIndex=%d, elementResultIndex=%d. Resultset=%p, dataCursor=%p, %s=%d\n",
        call.name, resultSet.queryIndex, resultSet.elementResultIndex, &resultSet, cursor,
        Walk::kLengthName, entry.idLen);
  }
  if (passEntry(resultSet)) showEndOfElement(call, resultSet.queryIndex, resultSet);
  TRACE_EVENT(call.takenPoint, "API.%s Successfully retrieved %s %s from resultset %p\n", call.name,
              call.first ? "first" : "the next", Walk::kEntryName, &resultSet);
  resultSet.next = in.position();
  return 0;
}

// Takes a query header with a negative code: the gateway could not answer that element of the
// query. The header counts as an entry without an id; no entries follow it, so in is at the next
// header.
template <typename Walk>
int takeNegative(const WalkCall& call, ResultSetToken& resultSet, const ResultSetReader& in,
                 QueryHeader& header, typename Walk::Record& record) noexcept {
  if (call.negativePoint != 0) {
    TRACE_EVENT(call.negativePoint, "API.%s(rsPtr=%p,%s=%p) Found negative queryElementRC(%d)\n",
                call.name, &resultSet, Walk::kRecordName, &record, header.elementRC);
  }
  ++header.queryIndex;
  header.store(resultSet, 0);
  fillQueryElement(record, resultSet);
  resultSet.next = in.position();
  return 0;
}

// Takes the first entry of the next query header, at in. Skips headers with an empty list; one with
// a negative code counts as an entry. header comes with queryCount and queryIndex set; the rest is
// read here.
// Returns 0, ZEB_END_OF_RESULTS, or ZEB_WRONG_CONTENT (damaged).
template <typename Walk>
int takeFromNextElement(const WalkCall& call, ResultSetToken& resultSet, ResultSetReader& in,
                        QueryHeader& header, typename Walk::Record& record) noexcept {
  while (!in.atEnd()) {
    readQueryHeader(call, resultSet, in, header);
    if (!in.ok()) return refuseDamaged(call, resultSet);
    if (header.elementRC < 0) return takeNegative<Walk>(call, resultSet, in, header, record);
    if (header.entryCount > 0) return takeEntry<Walk>(call, resultSet, in, &header, record);
    showEndOfElement(call, ++header.queryIndex, resultSet);
  }
  return ZEB_END_OF_RESULTS;
}

// Takes the first entry of the result set.
template <typename Walk>
int startWalk(const WalkCall& call, ResultSetToken& resultSet,
              typename Walk::Record& record) noexcept {
  memcpy(record.contentMarker, resultSet.head, kMarkerLength);
  ResultSetReader in(resultSet.head + kMarkerLength, resultSet.head);
  // quirk: only a first call looks for the terminator in place of the number of headers, too
  if (call.first && in.atEnd()) return ZEB_END_OF_RESULTS;
  QueryHeader header = {.queryCount = in.integer(), .queryIndex = 1};
  if (!call.first) {
    TRACE_DEBUG(call.noFirstPoint, "API.%s No %s() called on Resultset=%p. Datacursor=%p\n",
                call.name, Walk::kFirst.name, &resultSet, in.position());
  }
  return takeFromNextElement<Walk>(call, resultSet, in, header, record);
}

// Makes a step that starts a walk, or goes on to the next query header.
template <typename Walk>
int stepAcross(const WalkCall& call, ResultSetToken& resultSet,
               typename Walk::Record& record) noexcept {
  if (call.first || resultSet.queryIndex == 0) return startWalk<Walk>(call, resultSet, record);
  ResultSetReader in(resultSet.next, resultSet.head);
  QueryHeader header = {.queryCount = resultSet.queryCount, .queryIndex = resultSet.queryIndex};
  return takeFromNextElement<Walk>(call, resultSet, in, header, record);
}

// Does what a public call does between its ENTRY and EXIT lines, and returns the codes that
// zebstats.h documents for it.
template <typename Walk>
int walk(const WalkCall& call, ResultSetToken* rsPtr, typename Walk::Record* record) noexcept {
  const int rc = checkWalk<Walk>(call, rsPtr, record);
  if (rc != 0) return rc;
  if (call.first || rsPtr->queryIndex == 0 || rsPtr->elementResultIndex == 0)
    return stepAcross<Walk>(call, *rsPtr, *record);
  ResultSetReader in(rsPtr->next, rsPtr->head);
  if (in.atEnd()) return ZEB_END_OF_RESULTS;  // fewer entries than the header announced
  const QueryHeader* const noHeader = nullptr;
  return takeEntry<Walk>(call, *rsPtr, in, noHeader, *record);
}

// Fast path of a next call, in half of the time that walk() takes: reads the next entry of the same
// query header and returns true. In any other case, also if something is wrong or is to be traced,
// it changes nothing and returns false; then the caller uses walk().
//
// It calls no function, so that its caller has no registers to save. It does not initialise the
// library: within a walk, where elementResultIndex is not 0, that has been done. It does not look
// for a terminator: read as a length, that exceeds any buffer, and the read fails.
template <typename Walk>
inline bool stepWithinElement(ResultSetToken* rsPtr, typename Walk::Record* record) noexcept {
  if (traceLevel() >= kLevelEvent) return false;
  if (rsPtr == nullptr || record == nullptr || rsPtr->head == nullptr) return false;
  if (!hasContent(rsPtr->head, Walk::kMarker)) return false;
  if (rsPtr->owner == kOwnerGateway) [[likely]] {
    if (!isKnownCaller(rsPtr->owningPid, rsPtr->owningTid)) return false;
  }
  if (rsPtr->elementResultIndex == 0) return false;
  ResultSetReader in(rsPtr->next, rsPtr->head);
  const auto entry = Walk::read(in);
  if (!in.ok()) return false;
  Walk::fill(*record, entry);
  fillQueryElement(*record, *rsPtr);
  passEntry(*rsPtr);
  rsPtr->next = in.position();
  return true;
}

}  // namespace zeb

#endif
