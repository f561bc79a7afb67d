// The public calls. Each is a frame: start the library, trace the entry, check the arguments in order, work,
// trace the exit. Calls of one family share the helpers that do the work.

#include "stapi_zeb_impl.h"

#include <stdlib.h>

#include <atomic>
#include <cstring>

#include "stapi_zeb_codes.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwytok.h"
#include "stapi_zeb_memory.h"
#include "stapi_zeb_resultsetbuffer.h"
#include "stapi_zeb_timeout.h"
#include "stapi_zeb_version.h"

extern "C" {
extern const char stapi_zeb_impl_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_impl_notice[] = ZEB_NOTICE("stapi_zeb_impl");
}

namespace zeb {
namespace {

constexpr std::size_t kVersionAreaSize = 32000;
constexpr int kMaxPort = 65535;

std::atomic<std::int32_t> stapiState{0};
char stapiVersion[kVersionAreaSize];
pthread_mutex_t initMutex = PTHREAD_MUTEX_INITIALIZER;

int initialize() noexcept {
  setTraceLevel(kLevelException);
  startRememberingPid();
  int rc = initTrace();
  if (rc != 0) {
    fprintf(stderr, "API.stapiInit() Initialization of zebstats API trace has failed. rc=%d\n", rc);
    return rc;
  }
  rc = initGTL();
  if (rc != 0 && rc != 1) {  // 1: an earlier attempt got as far as this
    TRACE_EXC(1000, "API.stapiInit() Initialization of zebstats API Gateway Token List has failed. rc=%d\n",
              rc);
    return rc;
  }
  memcpy(stapiVersion, kApiVersion, sizeof kApiVersion);
  setTraceLevel(0);
  stapiState.store(1, std::memory_order_release);
  return 0;
}

[[gnu::noinline, gnu::cold]] int initializeOnce() noexcept {
  const bool isHeld = pthread_mutex_lock(&initMutex) == 0;
  const int rc = stapiState.load(std::memory_order_relaxed) != 0 ? 0 : initialize();
  if (isHeld) pthread_mutex_unlock(&initMutex);
  return rc;
}

// ---- String copies -------------------------------------------------------------------------------------------

constexpr std::size_t kMaxDuplicate = 32767;  // a copy with its NUL is smaller
constexpr int kDuplicateFailed = -1;
constexpr int kDuplicateRefused = -2;
constexpr char kNativeDuplicator[] = "dup2NativeString";

int copyString(const char* call, const char* dataPtr, std::size_t size, char** outputPtr) noexcept {
  const bool native = call == kNativeDuplicator;
  const int shownSize = static_cast<int>(size);
  if (size == 0 || outputPtr == nullptr || size >= kMaxDuplicate) {
    TRACE_EXC(1024, "API.%s() supplied input data pointer was NULL or overlength\n", call);
    return kDuplicateRefused;
  }
  *outputPtr = allocate<char>(size).release();
  if (native) {
    TRACE_DEBUG(1025, "API.dup2NativeString() called strdup for %d bytes. rc=0x%p\n", shownSize, *outputPtr);
  } else {
    TRACE_DEBUG(1042, "API.dup2ASCIIString() called malloc for %d bytes. rc=%p\n", shownSize, *outputPtr);
  }
  if (*outputPtr == nullptr) {
    TRACE_EXC(1026, "API.%s() malloc failed for %d bytes\n", call, shownSize);
    return kDuplicateFailed;
  }
  if (native) TRACE_DEBUG(1027, "API.dup2NativeString() about to memcpy for %d bytes. \n", shownSize);
  memcpy(*outputPtr, dataPtr, size);
  return 0;
}

// The two duplicators behind their ENTRY lines.
int duplicateString(const char* call, const char* dataPtr, char** outputPtr) noexcept {
  const std::size_t size = dataPtr != nullptr ? strlen(dataPtr) + 1 : 0;
  const int rc = copyString(call, dataPtr, size, outputPtr);
  TRACE_EXIT(1028, "API.%s() readByteCount=%d rc=%d\n", call, static_cast<int>(size), rc);
  return rc;
}

}  // namespace

int stapiInit() noexcept {
  return stapiState.load(std::memory_order_acquire) != 0 ? 0 : initializeOnce();
}

int dup2ASCIIString(const char* dataPtr, char** outputPtr) noexcept {
  TRACE_ENTRY(1040, "API.dup2ASCIIString(source dataPtr=%p, &outputPtr=%p)\n", dataPtr, outputPtr);
  return duplicateString("dup2ASCIIString", dataPtr, outputPtr);
}

namespace {

// ---- Library and trace ---------------------------------------------------------------------------------------

int applyTraceLevel(int level) noexcept {
  if (static_cast<unsigned>(level) > kLevelLock) {
    TRACE_EXC(1008, "API.setAPITraceLevel() Supplied trace state value %d was invalid\n", level);
    return ZEB_TRACE_LEVEL_INVALID;
  }
  changeTraceLevel(level);
  return 0;
}

int applyTraceFile(const char* traceFile) noexcept {
  const TraceSwitch result = switchTraceFile(traceFile);
  if (result.error != 0) {
    TRACE_EXC(
        1011,
        "API.setAPITraceFile(%s) file append failed with errno=%d. Trace file destination is unchanged. "
        "Filename=%s\n",
        traceFile, result.error, traceFilename());
    return ZEB_TRACE_FILE_FAILED;
  }
  if (result.switched) {
    TRACE_DEBUG(1012, "API.setAPITraceFile() Trace file switched to new destination. Filename=%s\n",
                traceFilename());
  } else {
    TRACE_DEBUG(1013, "API.setAPITraceFile() Trace file destination is unchanged. Filename=%s\n",
                traceFilename());
  }
  return 0;
}

// ---- Connections ---------------------------------------------------------------------------------------------

int checkOpenArguments(const char* hostname, int port, GatewayToken** gwTokPtr,
                       char** protoColVersion) noexcept {
  if (port < 1 || port > kMaxPort) return ZEB_PORT_INVALID;
  if (gwTokPtr == nullptr) return ZEB_TOKEN_POINTER_NULL;
  if (protoColVersion == nullptr) return ZEB_VERSION_POINTER_NULL;
  if (hostname == nullptr) return ZEB_HOST_NULL;
  return 0;
}

// kept: the connection stands, so a version that can not be copied is no failure of the call.
void handOutProtocolVersion(GatewayToken* token, char** protoColVersion) noexcept {
  char version[kProtocolVersionSize];
  if (readProtocolVersion(token, version) == nullptr) {
    TRACE_EXC(
        1021,
        "API.openRemoteGatewayConnection(gwTokPtr=0x%p) New gateway token has NULL protocolVersion pointer\n",
        token);
    *protoColVersion = nullptr;
    return;
  }
  dup2NativeString(version, protoColVersion);
  TRACE_EVENT(1022, "API.openRemoteGatewayConnection(&protoColVersion=0x%p) created String for proto@0x%p\n",
              protoColVersion, *protoColVersion);
}

int closeToken(GatewayToken** gwTokPtr, int initRc) noexcept {
  if (gwTokPtr == nullptr) {
    TRACE_EXC(1034, "API.closeGatewayConnection(&gwTokPtr=%p) Null gateway token Pointer\n", gwTokPtr);
    return ZEB_TOKEN_POINTER_NULL;
  }
  if (*gwTokPtr == nullptr) {
    TRACE_EXC(1034, "API.closeGatewayConnection(gwTokPtr=%p) Null gateway token\n", *gwTokPtr);
    return ZEB_TOKEN_NULL;
  }
  if (initRc != 0) return initRc;
  const int rc = deleteGatewayToken(gwTokPtr, 1);
  TRACE_EVENT(1035, "API.closeGatewayConnection Closed Gateway connection for token %p\n", gwTokPtr);
  return rc;
}

// ---- Queries -------------------------------------------------------------------------------------------------

int refuseQuery(const char* call, const char* what, int rc) noexcept {
  TRACE_EXC(1050, "API.%s() Supplied %s is NULL\n", call, what);
  return rc;
}

// Checks what every query needs, and that the token is the caller's own.
int checkToken(const char* call, const GatewayToken* gwTok, ResultSetToken** rsPtr) noexcept {
  if (rsPtr == nullptr) return refuseQuery(call, "result set pointer", ZEB_RESULT_SET_POINTER_NULL);
  const int rc = verifyGatewayToken(gwTok);
  if (rc != 0) return rc;
  if (gwTok->resultSetBuf == nullptr) {
    TRACE_EXC(1051, "API.%s(gwTok=%p) resultSetBuf is NULL. Connection may have gone.\n", call, gwTok);
    return ZEB_NO_RESULT_SET_BUFFER;
  }
  return 0;
}

void resetWalk(const GatewayToken& gwTok) noexcept {
  ResultSetToken& resultSet = *gwTok.connRSToken;
  resultSet.queryIndex = 0;
  resultSet.head = resultSet.next = gwTok.resultSetBuf;
}

int beginQuery(const char* call, GatewayToken* gwTok, ResultSetToken** rsPtr) noexcept {
  if (gwTok == nullptr) return refuseQuery(call, "gateway token", ZEB_TOKEN_NULL);
  return checkToken(call, gwTok, rsPtr);
}

// The query string goes out as the copy that the result set keeps.
int copyQuery(ResultSetToken& resultSet, const char* query) noexcept {
  free(resultSet.queryCopy);
  resultSet.queryCopy = nullptr;
  const int rc = dup2ASCIIString(query, &resultSet.queryCopy);
  return rc == kDuplicateFailed ? ZEB_NO_MEMORY : rc;
}

int beginTextQuery(const char* call, GatewayToken* gwTok, const char* query,
                   ResultSetToken** rsPtr) noexcept {
  if (gwTok == nullptr) return refuseQuery(call, "gateway token", ZEB_TOKEN_NULL);
  if (query == nullptr) return refuseQuery(call, "query string", ZEB_QUERY_NULL);
  const int rc = checkToken(call, gwTok, rsPtr);
  return rc != 0 ? rc : copyQuery(*gwTok->connRSToken, query);
}

void resetResultSet(const GatewayToken& gwTok) noexcept {
  resetWalk(gwTok);
  gwTok.connRSToken->owner = kOwnerGateway;
}

void showResultSet(const char* call, const GatewayToken& gwTok) noexcept {
  TRACE_DEBUG(1052, "API.%s() result set pointer (%p)\n", call, gwTok.connRSToken);
}

// Hands the answer out, or removes the token of a connection that failed.
int endQuery(const char* call, GatewayToken* gwTok, int rc, ResultSetToken** rsPtr) noexcept {
  if (rc == 0) {
    *rsPtr = gwTok->connRSToken;
  } else if (rc == ZEB_CONNECTION_LOST || rc == ZEB_COMMUNICATION_FAILED) {
    TRACE_EVENT(1053, "API.%s Removing GatewayToken %p due to comms failure %d\n", call, gwTok, rc);
    deleteGatewayToken(&gwTok, 1);
  }
  return rc;
}

// ---- Walks ---------------------------------------------------------------------------------------------------

// What the walks of statistics and of ids differ in.
struct StatWalk {
  using Record = StatData;
  static constexpr const char* kMarker = kStatsMarker;
  static constexpr int kNullRecord = ZEB_STAT_DATA_NULL;
  static constexpr const char* kFirst = "getFirstStat";
  static constexpr const char* kContent = "statistics";
  static constexpr const char* kRecord = "statDataPtr";
  static constexpr const char* kEntry = "stat";
  static constexpr const char* kLengthName = "statIdLen";
  static constexpr bool kFirstShowsHeader = true;
  static constexpr bool kFirstShowsNegative = false;
  static constexpr auto getFirst = getFirstStat;
  static constexpr auto getNext = getNextStat;

  struct Element {
    std::int32_t idLen;
    char* id;
    std::int32_t valueLen;
    char* value;
  };
  static Element read(ResultSetReader& in) noexcept {
    Element element;
    element.idLen = in.integer();
    element.id = in.chars(element.idLen);
    element.valueLen = in.integer();
    element.value = in.chars(element.valueLen);
    return element;
  }
  static void fill(StatData& record, const Element& element) noexcept {
    record.statIdLen = element.idLen;
    record.statIdPtr = element.id;
    record.statValueLen = element.valueLen;
    record.statValuePtr = element.value;
  }
  static std::string_view id(const StatData& record) noexcept {
    return {record.statIdPtr, static_cast<std::size_t>(record.statIdLen)};
  }
};

struct IdWalk {
  using Record = IdData;
  static constexpr const char* kMarker = kIdsMarker;
  static constexpr int kNullRecord = ZEB_ID_DATA_NULL;
  static constexpr const char* kFirst = "getFirstId";
  static constexpr const char* kContent = "id data";
  static constexpr const char* kRecord = "idDataPtr";
  static constexpr const char* kEntry = "Id";
  static constexpr const char* kLengthName = "idLen";
  static constexpr bool kFirstShowsHeader = false;
  static constexpr bool kFirstShowsNegative = true;
  static constexpr auto getFirst = getFirstId;
  static constexpr auto getNext = getNextId;

  struct Element {
    std::int32_t idLen;
    char* id;
  };
  static Element read(ResultSetReader& in) noexcept {
    Element element;
    element.idLen = in.integer();
    element.id = in.chars(element.idLen);
    return element;
  }
  static void fill(IdData& record, const Element& element) noexcept {
    record.idLen = element.idLen;
    record.idPtr = element.id;
  }
  static std::string_view id(const IdData& record) noexcept {
    return {record.idPtr, static_cast<std::size_t>(record.idLen)};
  }
};

// The call that makes a step, and the trace level, which a step reads once.
struct WalkCall {
  const char* name;
  bool first;
  int level;
};

int checkResultSetOwner(const ResultSetToken& resultSet) noexcept {
  return resultSet.owner == kOwnerGateway ? verifyAPIResultSetTokenOwner(&resultSet) : 0;
}

template <typename Walk>
int checkWalk(WalkCall call, const ResultSetToken* rsPtr, const typename Walk::Record* record) noexcept {
  if (rsPtr == nullptr) {
    TRACE_EXC(1100, "API.%s() Supplied result set token is NULL\n", call.name);
    return ZEB_RESULT_SET_NULL;
  }
  if (record == nullptr) {
    TRACE_EXC(1101, "API.%s() Supplied %s is NULL\n", call.name, Walk::kRecord);
    return Walk::kNullRecord;
  }
  if (rsPtr->head == nullptr) {
    TRACE_EXC(1102, "API.%s(rsPtr=%p) resultSetBuf is NULL\n", call.name, rsPtr);
    return ZEB_NO_RESULT_SET_BUFFER;
  }
  if (!hasContent(rsPtr->head, Walk::kMarker)) {
    TRACE_EXC(1103, "API.%s Resultset does not contain %s\n", call.name, Walk::kContent);
    return ZEB_WRONG_CONTENT;
  }
  return checkResultSetOwner(*rsPtr);
}

int refuseDamaged(WalkCall call, const ResultSetToken& resultSet) noexcept {
  TRACE_EXC(1104, "API.%s(rsPtr=%p) Resultset is damaged\n", call.name, &resultSet);
  return ZEB_WRONG_CONTENT;
}

// A query header on its way into the token, which changes only when the step succeeds.
struct QueryHeader {
  std::int32_t queryCount;
  std::int32_t queryIndex;
  char* elementPtr;
  std::int32_t elementLen;
  std::int32_t elementRC;
  std::int32_t elementCount;

  void commit(ResultSetToken& resultSet, std::int32_t elementResultIndex) const noexcept {
    resultSet.queryCount = queryCount;
    resultSet.queryIndex = queryIndex;
    resultSet.queryElementPtr = elementPtr;
    resultSet.queryElementLen = elementLen;
    resultSet.queryElementRC = elementRC;
    resultSet.elementCount = elementCount;
    resultSet.elementResultIndex = elementResultIndex;
  }
};

template <typename Record>
void fillQueryElement(Record& record, const ResultSetToken& resultSet) noexcept {
  record.queryElementPtr = resultSet.queryElementPtr;
  record.queryElementLen = resultSet.queryElementLen;
  record.queryElementRC = resultSet.queryElementRC;
}

void readQueryHeader(WalkCall call, bool cachingShown, const ResultSetToken& resultSet, ResultSetReader& in,
                     QueryHeader& header) noexcept {
  const char* const cursor = in.position();
  header.elementLen = in.integer();
  header.elementPtr = in.chars(header.elementLen);
  header.elementRC = in.integer();
  header.elementCount = in.ok() && header.elementRC >= 0 ? in.integer() : 0;
  if (!in.ok()) return;
  if (!call.first) {
    TRACE_DEBUG(1111,
                "API.%s Processing query header %d of %d. Resultset=%p, Datacursor=%p, queryElementLen=%d, "
                "queryElementPtr=%p, queryElementRC=%d\n",
                call.name, header.queryIndex, header.queryCount, &resultSet, cursor, header.elementLen,
                header.elementPtr, header.elementRC);
  } else if (cachingShown) {
    TRACE_DEBUG(1112,
                "API.%s Caching new query element details. Resultset=%p, Datacursor=%p, queryElementLen=%d, "
                "queryElementPtr=%p, queryElementRC=%d\n",
                call.name, &resultSet, cursor, header.elementLen, header.elementPtr, header.elementRC);
  }
}

void showEndOfSubset(WalkCall call, std::int32_t queryIndex, const ResultSetToken& resultSet) noexcept {
  TRACE_DEBUG(1113, "API.%s End of subset queryIndex=%d. Resultset=%p\n", call.name, queryIndex, &resultSet);
}

template <typename Walk>
[[gnu::always_inline]] inline void fillRecord(typename Walk::Record& record,
                                              const typename Walk::Element& element,
                                              const ResultSetToken& resultSet) noexcept {
  Walk::fill(record, element);
  fillQueryElement(record, resultSet);
}

// Counts an element as taken; returns whether it was the last of its subset.
inline bool passElement(ResultSetToken& resultSet) noexcept {
  if (++resultSet.elementResultIndex <= resultSet.elementCount) return false;
  resultSet.elementResultIndex = 0;
  ++resultSet.queryIndex;
  return true;
}

// Reads the element at the cursor and makes the token step over it. header is the query header that was just
// read ahead of it, or null within a subset.
template <typename Walk>
int takeElement(WalkCall call, ResultSetToken& resultSet, ResultSetReader& in, const QueryHeader* header,
                typename Walk::Record& record) noexcept {
  const char* const cursor = in.position();
  const auto element = Walk::read(in);
  if (!in.ok()) return refuseDamaged(call, resultSet);
  if (header != nullptr) header->commit(resultSet, 1);
  fillRecord<Walk>(record, element, resultSet);
  ZEB_TRACE_IF(call.level >= kLevelDetail && !call.first, "DEBUG", 1114,
               "API.%s Processing queryIndex=%d, elementResultIndex=%d. Resultset=%p, dataCursor=%p, %s=%d\n",
               call.name, resultSet.queryIndex, resultSet.elementResultIndex, &resultSet, cursor,
               Walk::kLengthName, element.idLen);
  if (passElement(resultSet)) showEndOfSubset(call, resultSet.queryIndex, resultSet);
  ZEB_TRACE_IF(call.level >= kLevelEvent, "EVENT", 1115,
               "API.%s Successfully retrieved %s %s from resultset %p\n", call.name,
               call.first ? "first" : "the next", Walk::kEntry, &resultSet);
  resultSet.next = in.position();
  return 0;
}

// A query element that the gateway could not answer is an entry without an element.
template <typename Walk>
int takeNegative(WalkCall call, ResultSetToken& resultSet, const ResultSetReader& in, QueryHeader& header,
                 typename Walk::Record& record) noexcept {
  if (!call.first || Walk::kFirstShowsNegative) {
    TRACE_EVENT(1116, "API.%s(rsPtr=%p,%s=%p) Found negative queryElementRC(%d)\n", call.name, &resultSet,
                Walk::kRecord, &record, header.elementRC);
  }
  ++header.queryIndex;
  header.commit(resultSet, 0);
  fillQueryElement(record, resultSet);
  resultSet.next = in.position();
  return 0;
}

// Goes on behind a subset, past those that are empty.
template <typename Walk>
int takeFromNextSubset(WalkCall call, ResultSetToken& resultSet, ResultSetReader& in, QueryHeader& header,
                       typename Walk::Record& record) noexcept {
  while (!in.atEnd()) {
    readQueryHeader(call, Walk::kFirstShowsHeader, resultSet, in, header);
    if (!in.ok()) return refuseDamaged(call, resultSet);
    if (header.elementRC < 0) return takeNegative<Walk>(call, resultSet, in, header, record);
    if (header.elementCount > 0) return takeElement<Walk>(call, resultSet, in, &header, record);
    showEndOfSubset(call, ++header.queryIndex, resultSet);
  }
  return ZEB_END_OF_RESULTS;
}

template <typename Walk>
int startWalk(WalkCall call, ResultSetToken& resultSet, typename Walk::Record& record) noexcept {
  memcpy(record.contentMarker, resultSet.head, kMarkerLength);
  ResultSetReader in(resultSet.head + kMarkerLength, resultSet.head);
  if (call.first && in.atEnd()) return ZEB_END_OF_RESULTS;
  QueryHeader header = {in.integer(), 1, nullptr, 0, 0, 0};
  if (!call.first) {
    TRACE_DEBUG(1110, "API.%s No %s() called on Resultset=%p. Datacursor=%p\n", call.name, Walk::kFirst,
                &resultSet, in.position());
  }
  return takeFromNextSubset<Walk>(call, resultSet, in, header, record);
}

// A step that does not stay within a subset.
template <typename Walk>
int stepAcross(WalkCall call, ResultSetToken& resultSet, typename Walk::Record& record) noexcept {
  if (call.first || resultSet.queryIndex == 0) return startWalk<Walk>(call, resultSet, record);
  ResultSetReader in(resultSet.next, resultSet.head);
  QueryHeader header = {resultSet.queryCount, resultSet.queryIndex, nullptr, 0, 0, 0};
  return takeFromNextSubset<Walk>(call, resultSet, in, header, record);
}

template <typename Walk>
int walk(WalkCall call, ResultSetToken* rsPtr, typename Walk::Record* record) noexcept {
  const int rc = checkWalk<Walk>(call, rsPtr, record);
  if (rc != 0) return rc;
  if (call.first || rsPtr->queryIndex == 0 || rsPtr->elementResultIndex == 0)
    return stepAcross<Walk>(call, *rsPtr, *record);
  ResultSetReader in(rsPtr->next, rsPtr->head);
  if (in.atEnd()) return ZEB_END_OF_RESULTS;
  return takeElement<Walk>(call, *rsPtr, in, nullptr, *record);
}

// The step that is made a thousand times: within a subset, with nothing to trace and nothing wrong. It calls
// nothing, so that it needs no register of its caller's. Any other step it leaves to walk, and changes nothing.
template <typename Walk>
[[gnu::always_inline]] inline bool stepWithinSubset(ResultSetToken* rsPtr,
                                                    typename Walk::Record* record) noexcept {
  if (stapiState.load(std::memory_order_acquire) == 0 || traceLevel() >= kLevelEvent) return false;
  if (rsPtr == nullptr || record == nullptr || rsPtr->head == nullptr) return false;
  if (!hasContent(rsPtr->head, Walk::kMarker)) return false;
  if (rsPtr->owner == kOwnerGateway && !isKnownCaller(rsPtr->owningPid, rsPtr->owningTid)) return false;
  if (rsPtr->queryIndex == 0 || rsPtr->elementResultIndex == 0) return false;
  ResultSetReader in(rsPtr->next, rsPtr->head);
  if (in.atEnd()) return false;
  const auto element = Walk::read(in);
  if (!in.ok()) return false;
  fillRecord<Walk>(*record, element, *rsPtr);
  passElement(*rsPtr);
  rsPtr->next = in.position();
  return true;
}

// ---- Result sets as a whole ----------------------------------------------------------------------------------

// What copyResultSet and dumpResultSet need of a result set; purpose completes the message about a missing
// buffer.
int checkContent(const char* call, const char* argument, const char* purpose,
                 const ResultSetToken& resultSet) noexcept {
  if (resultSet.head == nullptr) {
    TRACE_EXC(1120, "API.%s(%s=%p) resultSetBuf is NULL - no data to %s\n", call, argument, &resultSet,
              purpose);
    return ZEB_NO_RESULT_SET_BUFFER;
  }
  if (!hasKnownContent(resultSet.head)) {
    TRACE_EXC(1121, "API.%s Resultset does not contain recognised content\n", call);
    return ZEB_WRONG_CONTENT;
  }
  return checkResultSetOwner(resultSet);
}

int copyToNewResultSet(const ResultSetToken* srcRsPtr, ResultSetToken** tarRsPtr) noexcept {
  if (srcRsPtr == nullptr) {
    TRACE_EXC(1122, "API.copyResultSet(srcRs=%p) Supplied result set token is NULL\n", srcRsPtr);
    return ZEB_RESULT_SET_NULL;
  }
  if (tarRsPtr == nullptr) {
    TRACE_EXC(1140, "API.copyResultSet(&tarRsPtr=%p) Supplied result set pointer is NULL\n", tarRsPtr);
    return ZEB_RESULT_SET_POINTER_NULL;
  }
  int rc = checkContent("copyResultSet", "srcRs", "copy", *srcRsPtr);
  if (rc != 0) return rc;
  rc = createResultSet(tarRsPtr, "ZEBRSUSR", kOwnerUser);
  if (rc != 0) {
    TRACE_EXC(1123, "API.copyResultSet() Invalid source resultset zebStatRc=d\n");  // kept: shows no code
    return rc;
  }
  ResultSetToken& copy = **tarRsPtr;
  TRACE_EVENT(1124, "API.copyResultSet(srcRs=%p,&tarRsPtr=%p) Created result set token(%p)\n", srcRsPtr,
              tarRsPtr, &copy);
  constexpr int size = kResultSetBufferSize;
  copy.head = allocate<char>(kResultSetBufferSize).release();
  TRACE_DEBUG(1125, "API.copyResultSet Called malloc for %d bytes. rc=%p\n", size, copy.head);
  if (copy.head == nullptr) {
    TRACE_EXC(1126, "API.copyResultSet() Malloc failed for %d bytes\n", size);
    return ZEB_NO_MEMORY;
  }
  copy.next = copy.head;
  copy.spare = srcRsPtr->spare;
  memcpy(copy.head, srcRsPtr->head, kResultSetBufferSize);
  TRACE_EVENT(1127, "API.copyResultSet Copied resultsetbuffer from %p to %p\n", srcRsPtr, &copy);
  return 0;
}

int freeCopy(ResultSetToken** rsPtr) noexcept {
  if (rsPtr == nullptr) {
    TRACE_EXC(1128, "API.freeResultSet(&rsPtr=%p) Supplied result set pointer is NULL\n", rsPtr);
    return ZEB_RESULT_SET_POINTER_NULL;
  }
  ResultSetToken* resultSet = *rsPtr;
  if (resultSet == nullptr) {
    TRACE_EXC(1129, "API.freeResultSet(&rsPtr=%p) Supplied result set token is NULL\n", rsPtr);
    return ZEB_RESULT_SET_NULL;
  }
  if (resultSet->owner != kOwnerUser) {
    TRACE_EXC(1130, "API.freeResultSet(rsPtr=%p) Cannot free result sets with owner=%d\n", resultSet,
              static_cast<int>(resultSet->owner));
    return ZEB_NOT_A_COPY;
  }
  if (resultSet->head != nullptr) {
    TRACE_DEBUG(1131, "API.freeResultSet() free result set buffer storage (%p)\n", resultSet->head);
    free(resultSet->head);
    resultSet->head = nullptr;
  } else {
    TRACE_EXC(1132, "API.freeResultSet(rsPtr=%p) Result set buffer pointer was already null\n", resultSet);
  }
  const void* const freed = addressToShow(resultSet);
  deleteResultSet(rsPtr);
  TRACE_EVENT(1133, "API.freeResultSetFreed result set %p\n", freed);
  return 0;
}

int dumpContent(const ResultSetToken* rsPtr) noexcept {
  if (rsPtr == nullptr) {
    TRACE_EXC(1134, "API.dumpResultSet(rsPtr=%p) Supplied result set token is NULL\n", rsPtr);
    return ZEB_RESULT_SET_NULL;
  }
  const int rc = checkContent("dumpResultSet", "rsPtr", "dump", *rsPtr);
  if (rc != 0) return rc;
  dumpResultSetInternal(rsPtr);
  return 0;
}

// A string that grows to kQueryStringSize, its NUL included. What does not fit whole is not appended.
class QueryString {
 public:
  explicit QueryString(char* room) noexcept : text_(room) {}
  [[nodiscard]] std::size_t length() const noexcept { return length_; }
  bool append(std::string_view text) noexcept {
    if (text.size() >= kQueryStringSize - length_) return false;
    if (!text.empty()) memcpy(text_ + length_, text.data(), text.size());
    length_ += text.size();
    return true;
  }
  // A separator and an id, or neither. So many characters can be read from the id's first one on.
  bool appendNext(std::string_view id, std::size_t readable) noexcept {
    const std::size_t room = kQueryStringSize - length_;
    if (id.size() + 1 >= room) return false;
    char* const to = text_ + length_;
    to[0] = ':';
    if (id.size() <= kShortText && readable >= kShortText && room > kShortText) {
      memcpy(to + 1, id.data(), kShortText);
    } else {
      memcpy(to + 1, id.data(), id.size());
    }
    length_ += id.size() + 1;
    return true;
  }
  void end() noexcept { text_[length_] = '\0'; }

 private:
  char* text_;
  std::size_t length_ = 0;
};

// Appends the rest of the subset that is being walked, unless its entries are to be traced; what does not fit
// or is damaged is left to the walk. Returns the number of ids.
template <typename Walk>
int joinSubset(ResultSetToken& resultSet, QueryString& joined) noexcept {
  if (traceLevel() >= kLevelEvent || resultSet.elementResultIndex == 0) return 0;
  ResultSetReader in(resultSet.next, resultSet.head);
  QueryString longer = joined;  // a copy, which stays in registers
  const std::int32_t left = resultSet.elementCount - resultSet.elementResultIndex + 1;
  std::int32_t count = 0;
  for (; count < left && !in.atEnd(); ++count) {
    ResultSetReader ahead = in;
    const auto element = Walk::read(ahead);
    if (!ahead.ok()) break;
    const std::string_view id(element.id, static_cast<std::size_t>(element.idLen));
    if (!longer.appendNext(id, in.left() - sizeof element.idLen)) break;
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

// Returns the number of ids appended.
template <typename Walk>
int joinIds(ResultSetToken* rsPtr, QueryString& joined) noexcept {
  int goodIdCount = 0;
  typename Walk::Record record;
  int rc = Walk::getFirst(rsPtr, &record);
  while (rc == 0) {
    if (record.queryElementRC == 0) {
      if (!joined.append(Walk::id(record))) break;
      goodIdCount += 1 + joinSubset<Walk>(*rsPtr, joined);
    }
    rc = Walk::getNext(rsPtr, &record);
    // kept: the separator depends on the entry behind it alone, and may come first or last
    if (rc == 0 && record.queryElementRC == 0 && !joined.append(":")) break;
  }
  return goodIdCount;
}

int refuseIdQuery(const char* what, int rc) noexcept {
  TRACE_EXC(1135, "API.getIdQuery() Supplied %s is NULL\n", what);
  return rc;
}

int buildIdQuery(ResultSetToken* rsPtr, char** idQueryStringPtr, int& goodIdCount) noexcept {
  if (rsPtr == nullptr) return refuseIdQuery("result set token", ZEB_RESULT_SET_NULL);
  const Block<char> working = allocate<char>(kQueryStringSize);
  int rc = 0;
  if (working == nullptr) {
    TRACE_EXC(1136, "API.getIdQuery() Malloc failed for %d bytes\n", static_cast<int>(kQueryStringSize));
    rc = ZEB_NO_MEMORY;
  } else if (idQueryStringPtr == nullptr) {
    rc = refuseIdQuery("query string pointer", ZEB_OUTPUT_POINTER_NULL);
  } else {
    rc = checkResultSetOwner(*rsPtr);
  }
  if (rsPtr->head == nullptr) {
    TRACE_EXC(1137, "API.getIdQuery(rsPtr=%p) resultSetBuf is NULL\n", rsPtr);
    return ZEB_NO_RESULT_SET_BUFFER;
  }
  if (!hasKnownContent(rsPtr->head)) {  // kept: goes ahead of the codes above
    TRACE_EXC(1138, "API.getIdQuery Resultset does not contain recognised content\n");
    return ZEB_WRONG_CONTENT;
  }
  if (rc != 0) return rc;

  QueryString joined(working.get());
  goodIdCount =
      hasContent(rsPtr->head, kIdsMarker) ? joinIds<IdWalk>(rsPtr, joined) : joinIds<StatWalk>(rsPtr, joined);
  joined.end();
  if (joined.length() == 0) return ZEB_NO_GOOD_ID;
  memcpy(rsPtr->verifiedQueryString, working.get(), joined.length() + 1);
  *idQueryStringPtr = rsPtr->verifiedQueryString;
  TRACE_EVENT(1139, "API.getIdQuery Created query string %s from results in result set token %p\n",
              *idQueryStringPtr, rsPtr);
  return 0;
}

}  // namespace
}  // namespace zeb

using namespace zeb;

// ---- Library and trace ---------------------------------------------------------------------------------------

int getStatsAPIVersion(char** apiVersPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1001, "API.getStatsAPIVersion(&apiVersPtr=%p)\n", apiVersPtr);
  if (rc == 0 && apiVersPtr == nullptr) {
    rc = ZEB_OUTPUT_POINTER_NULL;
    TRACE_EXC(1002, "API.getStatsAPIVersion() Supplied pointer is NULL\n");
  } else if (rc == 0) {
    *apiVersPtr = stapiVersion;
  }
  TRACE_EXIT(1003, "API.getStatsAPIVersion(apiVersPtr=%p), rc=%d\n", apiVersPtr, rc);
  return rc;
}

int getAPITraceLevel(int* traceStatePtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1004, "API.getAPITraceLevel(traceStatePtr=%p)\n", traceStatePtr);
  if (rc == 0 && traceStatePtr == nullptr) {
    rc = ZEB_OUTPUT_POINTER_NULL;
    TRACE_EXC(1005, "API.getAPITraceLevel() Supplied pointer is NULL\n");
  } else if (rc == 0) {
    *traceStatePtr = traceLevel();
  }
  TRACE_EXIT(1006, "API.getAPITraceLevel(traceStatePtr=%p) rc=%d\n", traceStatePtr, rc);
  return rc;
}

int setAPITraceLevel(int traceState) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1007, "API.setAPITraceLevel(traceState=%d) current trace level=%d\n", traceState, traceLevel());
  if (rc == 0) rc = applyTraceLevel(traceState);
  TRACE_EXIT(1009, "API.setAPITraceLevel(traceState=%d) new trace level=%d rc=%d\n", traceState, traceLevel(),
             rc);
  return rc;
}

int setAPITraceFile(const char* traceFile) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1010, "API.setAPITraceFile(traceFile=%p) current trace destination=%s\n", traceFile,
              traceFilename());
  if (rc == 0) rc = applyTraceFile(traceFile);
  TRACE_EXIT(1014, "API.setAPITraceFile(traceFile=%p) new trace destination=%s rc=%d\n", traceFile,
             traceFilename(), rc);
  return rc;
}

int setAPITimeout(int milliseconds) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1017, "API.setAPITimeout(milliseconds=%d) current timeout=%d\n", milliseconds, getTimeout());
  if (rc == 0 && milliseconds < 0) {
    rc = ZEB_TIMEOUT_INVALID;
    TRACE_EXC(1018, "API.setAPITimeout() Supplied timeout %d was invalid\n", milliseconds);
  } else if (rc == 0) {
    setTimeout(milliseconds);
  }
  TRACE_EXIT(1019, "API.setAPITimeout(milliseconds=%d) new timeout=%d rc=%d\n", milliseconds, getTimeout(),
             rc);
  return rc;
}

int getAPITimeout(int* millisecondsPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1031, "API.getAPITimeout(millisecondsPtr=%p)\n", millisecondsPtr);
  if (rc == 0 && millisecondsPtr == nullptr) {
    rc = ZEB_OUTPUT_POINTER_NULL;
    TRACE_EXC(1032, "API.getAPITimeout() Supplied pointer is NULL\n");
  } else if (rc == 0) {
    *millisecondsPtr = getTimeout();
  }
  TRACE_EXIT(1041, "API.getAPITimeout(millisecondsPtr=%p) rc=%d\n", millisecondsPtr, rc);
  return rc;
}

const char* getAPICodeText(int code) noexcept {
  stapiInit();
  TRACE_ENTRY(1043, "API.getAPICodeText(code=%d)\n", code);
  const char* const text = codeText(code);
  TRACE_EXIT(1044, "API.getAPICodeText(code=%d) text=%s\n", code, text);
  return text;
}

int dumpState(void) noexcept {
  const int rc = stapiInit();
  TRACE_ENTRY(1015, "API.dumpState()\n");
  if (rc == 0) {
    writeStateLine();
    dumpGatewayTokens();
  }
  // kept: the EXIT line repeats the time of the line before
  ZEB_TRACE_WITH(writeTraceLineSameTime, traceLevel() >= kLevelFunction, timeStamp, "EXIT", 1016,
                 "API.dumpState()\n");
  return rc;
}

// ---- Connections ---------------------------------------------------------------------------------------------

int dup2NativeString(const char* dataPtr, char** outputPtr) noexcept {
  TRACE_ENTRY(1023, "API.dup2NativeString(source dataPtr=%p, &outputPtr=%p) \n", dataPtr, outputPtr);
  return duplicateString(kNativeDuplicator, dataPtr, outputPtr);
}

int openRemoteGatewayConnection(const char* hostname, int port, GatewayToken** gwTokPtr,
                                char** protoColVersion) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1020,
              "API.openRemoteGatewayConnection(hostname=%s, port=%d, &gwTokPtr=0x%p, &protoColVersion=0x%p\n",
              textToShow(hostname), port, gwTokPtr, protoColVersion);
  if (rc == 0) rc = checkOpenArguments(hostname, port, gwTokPtr, protoColVersion);
  if (rc == 0) rc = createGatewayToken(gwTokPtr, hostname, port);
  if (rc == 0) handOutProtocolVersion(*gwTokPtr, protoColVersion);
  TRACE_EXIT(1029, "API.openRemoteGatewayConnection(port=%d) rc=%d\n", port, rc);
  return rc;
}

int openGatewayConnection(int port, GatewayToken** gwTokPtr, char** protoColVersion) noexcept {
  stapiInit();
  TRACE_ENTRY(1030, "API.openGatewayConnection(port=%d, &gwTokPtr=0x%p, &protoColVersion=0x%p\n", port,
              gwTokPtr, protoColVersion);
  const int rc = openRemoteGatewayConnection("127.0.0.1", port, gwTokPtr, protoColVersion);
  TRACE_EXIT(1029, "API.openGatewayConnection(port=%d) rc=%d\n", port,
             rc);  // kept: the number of the remote call
  return rc;
}

int closeGatewayConnection(GatewayToken** gwTokPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1033, "API.closeGatewayConnection(&gwTokPtr=%p)\n", gwTokPtr);
  rc = closeToken(gwTokPtr, rc);
  TRACE_EXIT(1036, "API.closeGatewayConnection(&gwTokPtrPtr=%p) rc=%d\n", gwTokPtr, rc);
  return rc;
}

int closeAllGatewayConnections(void) noexcept {
  int rc = stapiInit();
  int gwyTokRc = 0;
  TRACE_ENTRY(1037, "API.closeAllGatewayConnections()\n");
  if (rc == 0) {
    gwyTokRc = deleteGatewayTokens();
    if (gwyTokRc == kListRunaway) rc = ZEB_TOKEN_LIST_CORRUPT;
    TRACE_EVENT(1038, "API.closeAllGatewayConnections Closed all Gateway connections\n");
  }
  TRACE_EXIT(1039, "API.closeAllGatewayConnections() gwyTokRc=%d, rc=%d\n", gwyTokRc, rc);
  return rc;
}

// ---- Queries -------------------------------------------------------------------------------------------------

int getStats(GatewayToken* gwTok, ResultSetToken** statRSPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1060, "API.getStats(gwTok=%p,statRSPtr=%p)\n", gwTok, statRSPtr);
  if (rc == 0) rc = beginQuery("getStats", gwTok, statRSPtr);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1061, "API.getStats Getting all Stats from the Gateway Daemon\n");
    rc = commsStats(gwTok->socket, gwTok->resultSetBuf);
    showResultSet("getStats", *gwTok);
    rc = endQuery("getStats", gwTok, rc, statRSPtr);
  }
  TRACE_EXIT(1062, "API.getStats(gwTok=%p,rs=%p) rc=%d\n", gwTok, statRSPtr, rc);
  return rc;
}

int getStatIds(GatewayToken* gwTok, ResultSetToken** rs) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1063, "API.getStatIds(gwTok=%p,rs=%p)\n", gwTok, rs);
  if (rc == 0) rc = beginQuery("getStatIds", gwTok, rs);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1064, "API.getStatIds Getting Stat Ids from the Gateway\n");
    rc = commsStatIds(gwTok->socket, gwTok->resultSetBuf);
    showResultSet("getStatIds", *gwTok);
    rc = endQuery("getStatIds", gwTok, rc, rs);
  }
  TRACE_EXIT(1065, "API.getStatIds(gwTok=%p,rs=%p) rc=%d\n", gwTok, rs, rc);
  return rc;
}

int getResourceGroupIds(GatewayToken* gwTok, ResultSetToken** resGrpIdRSPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1066, "API.getResourceGroupIds(gwTok=%p resGrpIdRSPtr=%p)\n", gwTok, resGrpIdRSPtr);
  if (rc == 0) rc = beginQuery("getResourceGroupIds", gwTok, resGrpIdRSPtr);
  if (rc == 0) {
    TRACE_EVENT(1067, "API.getResourceGroupIds Getting Resource Group Ids\n");
    rc = commsResourceGroupsIds(gwTok->socket, gwTok->resultSetBuf);
    resetWalk(*gwTok);
    showResultSet("getResourceGroupIds", *gwTok);
    TRACE_DEBUG(1068, "API.getResourceGroupIds() result set buffer (%p)\n", gwTok->resultSetBuf);
    rc = endQuery("getResourceGroupIds", gwTok, rc, resGrpIdRSPtr);
  }
  TRACE_EXIT(1069, "API.getResourceGroupIds() rc=%d\n", rc);
  return rc;
}

int getStatsByStatId(GatewayToken* gwTok, const char* statIdsPtr, ResultSetToken** statRSPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1070, "API.getStatsByStatId(gwTok=%p,statIdsPtr=%p,statRSPtr=%p)\n", gwTok, statIdsPtr,
              statRSPtr);
  if (rc == 0) rc = beginTextQuery("getStatsByStatId", gwTok, statIdsPtr, statRSPtr);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1071, "API.getStatsByStatId Getting Stats for Stat Ids %s\n", statIdsPtr);
    rc = commsStatsByStatId(gwTok->socket, gwTok->resultSetBuf, gwTok->connRSToken->queryCopy);
    showResultSet("getStatsByStatId", *gwTok);
    rc = endQuery("getStatsByStatId", gwTok, rc, statRSPtr);
  }
  TRACE_EXIT(1072, "API.getStatsByStatId(gwTok=%p,statIdsPtr=%p,statRSPtr=%p) rc=%d\n", gwTok, statIdsPtr,
             statRSPtr, rc);
  return rc;
}

int getStatsByStatGroupId(GatewayToken* gwTok, const char* providerIdPtr,
                          ResultSetToken** statRSPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1073, "API.getStatsByStatGroupId(gwTok=%p,providerIdPtr=%p,statRSPtr=%p)\n", gwTok,
              providerIdPtr, statRSPtr);
  if (rc == 0) rc = beginTextQuery("getStatsByStatGroupId", gwTok, providerIdPtr, statRSPtr);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1074, "API.getStatsByStatGroupId Getting Stats for Stat Group Ids %s\n", providerIdPtr);
    rc = commsStatsByStatGroupId(gwTok->socket, gwTok->resultSetBuf, gwTok->connRSToken->queryCopy);
    showResultSet("getStatsByStatGroupId", *gwTok);
    rc = endQuery("getStatsByStatGroupId", gwTok, rc, statRSPtr);
  }
  TRACE_EXIT(1075, "API.getStatsByStatGroupId(gwTok=%p,providerIdPtr=%p,statRSPtr=%p) rc=%d\n", gwTok,
             providerIdPtr, statRSPtr, rc);
  return rc;
}

int getStatIdsByStatGroupId(GatewayToken* gwTok, const char* providerIdsPtr,
                            ResultSetToken** statIdRsPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1076, "API.getStatIdsByStatGroupId(gwTok=%p,providerIdsPtr=%p,statIdRsPtr=%p)\n", gwTok,
              providerIdsPtr, statIdRsPtr);
  if (rc == 0) rc = beginTextQuery("getStatIdsByStatGroupId", gwTok, providerIdsPtr, statIdRsPtr);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1077, "API.getStatIdsByStatGroupId Getting Stat Ids for Stat Group Ids %s\n", providerIdsPtr);
    rc = commsStatIdsByStatGroupId(gwTok->socket, gwTok->resultSetBuf, gwTok->connRSToken->queryCopy);
    showResultSet("getStatIdsByStatGroupId", *gwTok);
    rc = endQuery("getStatIdsByStatGroupId", gwTok, rc, statIdRsPtr);
  }
  TRACE_EXIT(1078, "API.getStatIdsByStatGroupId(gwTok=%p,query=%s,rs=%p) rc=%d\n", gwTok,
             textToShow(providerIdsPtr), statIdRsPtr, rc);
  return rc;
}

// ---- Walking an answer ---------------------------------------------------------------------------------------

int getFirstStat(ResultSetToken* rsPtr, StatData* statDataPtr) noexcept {
  int rc = stapiInit();
  const int level = traceLevel();
  ZEB_TRACE_IF(level >= kLevelFunction, "ENTRY", 1080, "API.getFirstStat(rsPtr=%p,statDataPtr=%p)\n", rsPtr,
               statDataPtr);
  if (rc == 0) rc = walk<StatWalk>({"getFirstStat", true, level}, rsPtr, statDataPtr);
  ZEB_TRACE_IF(level >= kLevelFunction, "EXIT", 1081, "API.getFirstStat() last=%d rc=%d\n",
               rc == ZEB_END_OF_RESULTS, rc);
  return rc;
}

namespace {
[[gnu::noinline]] int goToNextStat(ResultSetToken* rsPtr, StatData* statDataPtr) noexcept {
  int rc = stapiInit();
  const int level = traceLevel();
  ZEB_TRACE_IF(level >= kLevelFunction, "ENTRY", 1082, "API.getNextStat(rsPtr=%p,statDataPtr=%p)\n", rsPtr,
               statDataPtr);
  if (rc == 0) rc = walk<StatWalk>({"getNextStat", false, level}, rsPtr, statDataPtr);
  ZEB_TRACE_IF(level >= kLevelFunction, "EXIT", 1083, "API.getNextStat() rc=%d\n", rc);
  return rc;
}
}  // namespace

int getNextStat(ResultSetToken* rsPtr, StatData* statDataPtr) noexcept {
  return stepWithinSubset<StatWalk>(rsPtr, statDataPtr) ? ZEB_OK : goToNextStat(rsPtr, statDataPtr);
}

int getFirstId(ResultSetToken* rsPtr, IdData* idDataPtr) noexcept {
  int rc = stapiInit();
  const int level = traceLevel();
  ZEB_TRACE_IF(level >= kLevelFunction, "ENTRY", 1084, "API.getFirstId(rsPtr=%p,idDataPtr=%p)\n", rsPtr,
               idDataPtr);
  if (rc == 0) rc = walk<IdWalk>({"getFirstId", true, level}, rsPtr, idDataPtr);
  ZEB_TRACE_IF(level >= kLevelFunction, "EXIT", 1085, "API.getFirstId() endOfResults=%d zebStatRc=%d\n",
               rc == ZEB_END_OF_RESULTS, rc);
  return rc;
}

namespace {
[[gnu::noinline]] int goToNextId(ResultSetToken* rsPtr, IdData* idDataPtr) noexcept {
  int rc = stapiInit();
  const int level = traceLevel();
  ZEB_TRACE_IF(level >= kLevelFunction, "ENTRY", 1086, "API.getNextId(rsPtr=%p,idDataPtr=%p)\n", rsPtr,
               idDataPtr);
  if (rc == 0) rc = walk<IdWalk>({"getNextId", false, level}, rsPtr, idDataPtr);
  ZEB_TRACE_IF(level >= kLevelFunction, "EXIT", 1087, "API.getNextId() rc=%d\n", rc);
  return rc;
}
}  // namespace

int getNextId(ResultSetToken* rsPtr, IdData* idDataPtr) noexcept {
  return stepWithinSubset<IdWalk>(rsPtr, idDataPtr) ? ZEB_OK : goToNextId(rsPtr, idDataPtr);
}

// ---- Result sets as a whole ----------------------------------------------------------------------------------

int copyResultSet(ResultSetToken* srcRsPtr, ResultSetToken** tarRsPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1090, "API.copyResultSet(srcRs=%p,&tarRsPtr=%p)\n", srcRsPtr, tarRsPtr);
  if (rc == 0) rc = copyToNewResultSet(srcRsPtr, tarRsPtr);
  TRACE_EXIT(1091, "API.copyResultSet(srcRs=%p,&tarRsPtr=%p) rc=%d\n", srcRsPtr, tarRsPtr, rc);
  return rc;
}

int freeResultSet(ResultSetToken** rsPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1092, "API.freeResultSet(&rsPtr=%p)\n", rsPtr);
  if (rc == 0) rc = freeCopy(rsPtr);
  TRACE_EXIT(1093, "API.freeResultSet(&rsPtr=%p) rc=%d\n", rsPtr, rc);
  return rc;
}

int dumpResultSet(ResultSetToken* rsPtr) noexcept {
  int rc = stapiInit();
  TRACE_ENTRY(1094, "API.dumpResultSet(rsPtr=%p)\n", rsPtr);
  if (rc == 0) rc = dumpContent(rsPtr);
  TRACE_EXIT(1095, "API.dumpResultSet(rsPtr=%p) rc=%d\n", rsPtr, rc);
  return rc;
}

int getIdQuery(ResultSetToken* rsPtr, char** idQueryStringPtr) noexcept {
  int rc = stapiInit();
  int goodIdCount = 0;
  TRACE_ENTRY(1096, "API.getIdQuery(rsPtr=%p,&idQueryString=%p)\n", rsPtr, idQueryStringPtr);
  if (rc == 0) rc = buildIdQuery(rsPtr, idQueryStringPtr, goodIdCount);
  TRACE_EXIT(1097, "API.getIdQuery(rsPtr=%p,idQueryString=%s) goodIdCount=%d rc=%d\n", rsPtr,
             rc == 0 ? *idQueryStringPtr : "NULL", goodIdCount, rc);
  return rc;
}
