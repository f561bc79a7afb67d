// The walk of a result set, entry by entry, for statistics and for ids.
//
// The walk's state is in the result set token and changes only when a step succeeds. The caller
// serialises the walks of one result set.
#ifndef STAPI_ZEB_WALK_H
#define STAPI_ZEB_WALK_H

#include <cstring>
#include <string_view>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_impl.h"
#include "stapi_zeb_resultsetbuffer.h"

namespace zeb {

// The public call that steps, and its trace points. A call that never writes a point has 0 there.
struct WalkCall {
  const char* name;
  bool first;
  int refusedPoint;
  int noFirstPoint;
  int cachedPoint;  // a query header, of a first call
  int headerPoint;  // a query header, of a next call
  int negativePoint;
  int entryPoint;
  int endPoint;
  int takenPoint;
};

// How the two walks differ.
struct StatWalk {
  using Record = StatData;
  static constexpr WalkCall kFirst = {"getFirstStat", true, 1135, 0, 1112, 0, 0, 0, 1101, 1102};
  static constexpr WalkCall kNext = {"getNextStat", false, 1136, 1111, 0,
                                     1113,          1114,  1115, 1116, 1117};
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
  static constexpr WalkCall kFirst = {"getFirstId", true, 1110, 0, 0, 0, 1104, 0, 1108, 1109};
  static constexpr WalkCall kNext = {"getNextId", false, 1140, 1119, 0,
                                     1120,        1121,  1122, 1123, 1118};
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

inline int checkResultSetOwner(const ResultSetToken& resultSet) noexcept {
  return resultSet.owner == kOwnerGateway ? verifyAPIResultSetTokenOwner(&resultSet) : 0;
}

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

// A query header that has been read but not yet stored; the token changes only if the step
// succeeds.
struct QueryHeader {
  std::int32_t queryCount;
  std::int32_t queryIndex;
  char* elementPtr;
  std::int32_t elementLen;
  std::int32_t elementRC;
  std::int32_t entryCount;

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

inline void showEndOfElement(const WalkCall& call, std::int32_t queryIndex,
                             const ResultSetToken& resultSet) noexcept {
  TRACE_DEBUG(call.endPoint, "API.%s End of subset queryIndex=%d. Resultset=%p\n", call.name,
              queryIndex, &resultSet);
}

// Advances past an entry; true after the last one of its query element.
inline bool passEntry(ResultSetToken& resultSet) noexcept {
  if (++resultSet.elementResultIndex <= resultSet.elementCount) [[likely]]
    return false;
  resultSet.elementResultIndex = 0;
  ++resultSet.queryIndex;
  return true;
}

// Reads one entry and advances; header is its query header, or null if it is not the first of its
// element.
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

// An element that the gateway could not answer is one entry without an id.
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

// Continues with the next element that has entries.
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

template <typename Walk>
int startWalk(const WalkCall& call, ResultSetToken& resultSet,
              typename Walk::Record& record) noexcept {
  memcpy(record.contentMarker, resultSet.head, kMarkerLength);
  ResultSetReader in(resultSet.head + kMarkerLength, resultSet.head);
  if (call.first && in.atEnd()) return ZEB_END_OF_RESULTS;
  QueryHeader header = {in.integer(), 1, nullptr, 0, 0, 0};
  if (!call.first) {
    TRACE_DEBUG(call.noFirstPoint, "API.%s No %s() called on Resultset=%p. Datacursor=%p\n",
                call.name, Walk::kFirst.name, &resultSet, in.position());
  }
  return takeFromNextElement<Walk>(call, resultSet, in, header, record);
}

// A step that starts a walk or goes on to another element.
template <typename Walk>
int stepAcross(const WalkCall& call, ResultSetToken& resultSet,
               typename Walk::Record& record) noexcept {
  if (call.first || resultSet.queryIndex == 0) return startWalk<Walk>(call, resultSet, record);
  ResultSetReader in(resultSet.next, resultSet.head);
  QueryHeader header = {resultSet.queryCount, resultSet.queryIndex, nullptr, 0, 0, 0};
  return takeFromNextElement<Walk>(call, resultSet, in, header, record);
}

// What a public call does after its entry line. Returns the codes that zebstats.h names.
template <typename Walk>
int walk(const WalkCall& call, ResultSetToken* rsPtr, typename Walk::Record* record) noexcept {
  const int rc = checkWalk<Walk>(call, rsPtr, record);
  if (rc != 0) return rc;
  if (call.first || rsPtr->queryIndex == 0 || rsPtr->elementResultIndex == 0)
    return stepAcross<Walk>(call, *rsPtr, *record);
  ResultSetReader in(rsPtr->next, rsPtr->head);
  if (in.atEnd()) return ZEB_END_OF_RESULTS;
  return takeEntry<Walk>(call, *rsPtr, in, nullptr, *record);
}

// Fast path: the next entry of the same element, nothing to trace, nothing wrong. It makes no
// calls, so that it saves no register of its caller's, which is half of the time that walk takes.
// In any other case it changes nothing and returns false. elementResultIndex is not 0 only within
// an element, so the library is started and a walk is under way. A terminator ends the step too: as
// a length it is longer than any buffer.
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
