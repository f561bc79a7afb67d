// The public calls, by family. Each has the same frame: it initialises the library, traces its
// entry, checks its arguments in a fixed order, does its work and traces its exit. The functions
// that the calls of a family share are above them.

#include "stapi_zeb_impl.h"

#include <stdlib.h>

#include <cstring>
#include <utility>

#include "stapi_zeb_codes.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwytok.h"
#include "stapi_zeb_id_query.h"
#include "stapi_zeb_memory.h"
#include "stapi_zeb_resultsetbuffer.h"
#include "stapi_zeb_signal.h"
#include "stapi_zeb_socketcomms.h"
#include "stapi_zeb_statquery.h"
#include "stapi_zeb_timeout.h"
#include "stapi_zeb_version.h"
#include "stapi_zeb_walk.h"

extern "C" {
extern const char stapi_zeb_impl_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_impl_notice[] = ZEB_NOTICE("stapi_zeb_impl");
}

namespace zeb {

std::atomic<std::int32_t> stapiState{0};

namespace {

// ---- Start --------------------------------------------------------------------------------------

constexpr std::size_t kVersionAreaSize = 32000;  // quirk: the text has 8 bytes

char stapiVersion[kVersionAreaSize];  // getStatsAPIVersion hands out its address
pthread_mutex_t initMutex = PTHREAD_MUTEX_INITIALIZER;

// The caller holds initMutex. Returns stapiInit's codes. During initialisation the level is 1, so
// that a failure is traced; after a failure it stays so.
int initialize() noexcept {
  setTraceLevel(kLevelException);
  startRememberingPid();
  int rc = initTrace();
  if (rc != 0) {
    writeRaw("API.stapiInit() Initialization of zebstats API trace has failed. rc=%d\n", rc);
    return rc;
  }
  rc = initGTL();
  // 1: a host has called initGTL itself.
  if (rc != 0 && rc != 1) {
    TRACE_EXC(
        1000,
        "API.stapiInit() Initialization of zebstats API Gateway Token List has failed. rc=%d\n",
        rc);
    return rc;
  }
  memcpy(stapiVersion, kApiVersion, sizeof kApiVersion);
  setTraceLevel(0);
  stapiState.store(1, std::memory_order_release);
  return 0;
}

[[gnu::noinline, gnu::cold]] int initializeOnce() noexcept {
  const MutexGuard guard(initMutex);
  return isStarted() ? 0 : initialize();
}

// A forked child has none of its parent's other threads, so a lock that one of them holds at the
// fork would never be released there. The thread that forks therefore takes all locks before, in
// their order, and parent and child both release them after.
void prepareFork() noexcept {
  pthread_mutex_lock(&initMutex);
  lockListForFork();
  lockTraceForFork();
  lockSigpipeForFork();
}

void releaseOtherLocks() noexcept {
  unlockTraceAfterFork();
  unlockListAfterFork();
  pthread_mutex_unlock(&initMutex);
}

void continueParent() noexcept {
  unlockSigpipeInParent();
  releaseOtherLocks();
}

void continueChild() noexcept {
  unlockSigpipeInChild();
  releaseOtherLocks();
}

// Runs when the library is unloaded, and at the end of the process, when other threads may still be
// inside a call. If one of them is writing a line, nothing is released; the process ends anyway.
[[gnu::destructor]] void unload() noexcept {
  if (releaseTrace()) freeRetired();
}

// The C library removes the handlers when this library is unloaded.
[[gnu::constructor]] void registerForkHandlers() noexcept {
  pthread_atfork(prepareFork, continueParent, continueChild);
}

// Exists for the length of a public call. It restores errno, and holds off the cancellation of the
// thread, so that a thread that is cancelled inside the call ends only after it.
class PublicCall {
 public:
  PublicCall() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState_); }
  ~PublicCall() { pthread_setcancelstate(cancelState_, nullptr); }
  PublicCall(const PublicCall&) = delete;
  PublicCall& operator=(const PublicCall&) = delete;

 private:
  const ErrnoKeeper errnoKeeper_;
  int cancelState_ = PTHREAD_CANCEL_ENABLE;
};

// A public call that does not wait for a gateway. If the trace is on, the signals of failed writes
// are held off once for all lines of the call, which is cheaper than once for each line.
struct LocalCall : PublicCall {
  const HeldWriteSignals signals{/*isNeeded=*/traceLevel() > 0};
};

// A public call that may wait for a gateway, until its deadline.
struct WaitingCall : PublicCall {
  const TimedCall limit;
};

}  // namespace

int stapiInit() noexcept {
  return isStarted() ? 0 : initializeOnce();
}

}  // namespace zeb

using namespace zeb;

// ---- Library and trace --------------------------------------------------------------------------

int getStatsAPIVersion(char** apiVersPtr) noexcept {
  const LocalCall call;
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
  const LocalCall call;
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

namespace {
int applyTraceLevel(int level) noexcept {
  if (static_cast<unsigned>(level) > kLevelLock) {
    TRACE_EXC(1008, "API.setAPITraceLevel() Supplied trace state value %d was invalid\n", level);
    return ZEB_TRACE_LEVEL_INVALID;
  }
  changeTraceLevel(level);
  return 0;
}
}  // namespace

int setAPITraceLevel(int traceState) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1007, "API.setAPITraceLevel(traceState=%d) current trace level=%d\n", traceState,
              traceLevel());
  if (rc == 0) rc = applyTraceLevel(traceState);
  TRACE_EXIT(1009, "API.setAPITraceLevel(traceState=%d) new trace level=%d rc=%d\n", traceState,
             traceLevel(), rc);
  return rc;
}

namespace {
int applyTraceFile(const char* traceFile) noexcept {
  const TraceSwitch result = switchTraceFile(traceFile);
  if (result.error != 0) {
    TRACE_EXC(
        1011,
        "API.setAPITraceFile(%s) file append failed with errno=%d. Trace file destination is unchanged. "
        "Filename=%s\n",
        textToShow(traceFile), result.error, traceFilename());
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
}  // namespace

int setAPITraceFile(const char* traceFile) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1010, "API.setAPITraceFile(traceFile=%p) current trace destination=%s\n", traceFile,
              traceFilename());
  if (rc == 0) rc = applyTraceFile(traceFile);
  TRACE_EXIT(1014, "API.setAPITraceFile(traceFile=%p) new trace destination=%s rc=%d\n", traceFile,
             traceFilename(), rc);
  return rc;
}

int setAPITimeout(int milliseconds) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1017, "API.setAPITimeout(milliseconds=%d) current timeout=%d\n", milliseconds,
              getTimeout());
  if (rc == 0 && milliseconds < 0) {
    rc = ZEB_TIMEOUT_INVALID;
    TRACE_EXC(1018, "API.setAPITimeout() Supplied timeout value %d was invalid\n", milliseconds);
  } else if (rc == 0) {
    setTimeout(milliseconds);
  }
  TRACE_EXIT(1019, "API.setAPITimeout(milliseconds=%d) new timeout=%d rc=%d\n", milliseconds,
             getTimeout(), rc);
  return rc;
}

int getAPITimeout(int* millisecondsPtr) noexcept {
  const LocalCall call;
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
  const LocalCall call;
  stapiInit();
  TRACE_ENTRY(1043, "API.getAPICodeText(code=%d)\n", code);
  const char* const text = codeText(code);
  TRACE_EXIT(1044, "API.getAPICodeText(code=%d) text=%s\n", code, text);
  return text;
}

int dumpState(void) noexcept {
  const LocalCall call;
  const int rc = stapiInit();
  TRACE_ENTRY(1015, "API.dumpState()\n");
  if (rc == 0) {
    writeStateLine();
    dumpGatewayTokens();
  }
  // quirk: the EXIT line repeats the time stamp of the last line
  ZEB_TRACE_WITH(writeTraceLineSameTime, traceLevel() >= kLevelFunction, timeStamp, "EXIT", 1016,
                 "API.dumpState()\n");
  return rc;
}

// ---- Copies of strings --------------------------------------------------------------------------

namespace zeb {
namespace {

constexpr std::size_t kDuplicateLimit = 32767;  // a text with its NUL must be smaller
constexpr int kDuplicateFailed = -1;
constexpr int kDuplicateRefused = -2;

// The two functions that duplicate a string do the same and trace it with different lines.
struct Duplicator {
  const char* name;
  bool isNative;
  int refusedPoint;
  int failedPoint;
  int exitPoint;
};
constexpr Duplicator kNative = {"dup2NativeString", true, 1024, 1026, 1028};
constexpr Duplicator kAscii = {"dup2ASCIIString", false, 1046, 1047, 1048};

// size is that of the text with its NUL, or 0 if there is no text. Returns dup2ASCIIString's codes.
int copyString(const Duplicator& call, const char* dataPtr, std::size_t size,
               char** outputPtr) noexcept {
  const int shownSize = static_cast<int>(size);
  if (size == 0 || outputPtr == nullptr || size >= kDuplicateLimit) {
    TRACE_EXC(call.refusedPoint, "API.%s() supplied input data pointer was NULL or overlength\n",
              call.name);
    return kDuplicateRefused;
  }
  *outputPtr = allocate<char>(size).release();
  if (call.isNative) {
    // quirk: says strdup for malloc
    TRACE_DEBUG(1025, "API.dup2NativeString() called strdup for %d bytes. rc=0x%p\n", shownSize,
                *outputPtr);
  } else {
    TRACE_DEBUG(1042, "API.dup2ASCIIString() called malloc for %d bytes. rc=%p\n", shownSize,
                *outputPtr);
  }
  if (*outputPtr == nullptr) {
    TRACE_EXC(call.failedPoint, "API.%s() malloc failed for %d bytes\n", call.name, shownSize);
    return kDuplicateFailed;
  }
  if (call.isNative)
    TRACE_DEBUG(1027, "API.dup2NativeString() about to memcpy for %d bytes. \n", shownSize);
  memcpy(*outputPtr, dataPtr, size);
  return 0;
}

// What both functions do after their ENTRY line. Returns dup2ASCIIString's codes.
int duplicateString(const Duplicator& call, const char* dataPtr, char** outputPtr) noexcept {
  const std::size_t size = dataPtr != nullptr ? strlen(dataPtr) + 1 : 0;
  const int rc = copyString(call, dataPtr, size, outputPtr);
  TRACE_EXIT(call.exitPoint, "API.%s() readByteCount=%d rc=%d\n", call.name, static_cast<int>(size),
             rc);
  return rc;
}

}  // namespace

int dup2ASCIIString(const char* dataPtr, char** outputPtr) noexcept {
  TRACE_ENTRY(1040, "API.dup2ASCIIString(source dataPtr=%p, &outputPtr=%p)\n", dataPtr, outputPtr);
  return duplicateString(kAscii, dataPtr, outputPtr);
}

}  // namespace zeb

int dup2NativeString(const char* dataPtr, char** outputPtr) noexcept {
  TRACE_ENTRY(1023, "API.dup2NativeString(source dataPtr=%p, &outputPtr=%p) \n", dataPtr,
              outputPtr);
  return duplicateString(kNative, dataPtr, outputPtr);
}

// ---- Connections --------------------------------------------------------------------------------

namespace zeb {
namespace {

constexpr int kMaxPort = 65535;

// quirk: the failures are not traced.
int checkOpenArguments(const char* hostname, int port, GatewayToken** gwTokPtr,
                       char** protoColVersion) noexcept {
  if (port < 1 || port > kMaxPort) return ZEB_PORT_INVALID;
  if (gwTokPtr == nullptr) return ZEB_TOKEN_POINTER_NULL;
  if (protoColVersion == nullptr) return ZEB_VERSION_POINTER_NULL;
  if (hostname == nullptr) return ZEB_HOST_NULL;
  return 0;
}

// Returns a copy of the token's protocol version, which the host frees, or null if there is none.
// protoColVersion, the host's variable, is passed on because a trace line prints its address; it
// keeps its value.
//
// quirk: the connection is open, so a version that cannot be copied is no failure of the call.
char* copyProtocolVersion(const GatewayToken& token, char** protoColVersion) noexcept {
  if (token.protocolVersion == nullptr) {
    TRACE_EXC(
        1021,
        "API.openRemoteGatewayConnection(gwTokPtr=0x%p) New gateway token has NULL protocolVersion pointer\n",
        &token);
    return nullptr;
  }
  char* const former = std::exchange(*protoColVersion, nullptr);
  dup2NativeString(token.protocolVersion, protoColVersion);
  char* const copy = std::exchange(*protoColVersion, former);
  TRACE_EVENT(
      1022,
      "API.openRemoteGatewayConnection(&protoColVersion=0x%p) created String for proto@0x%p\n",
      protoColVersion, copy);
  return copy;
}

// Opens a connection. The host's variables change only on success.
int openToken(const char* hostname, int port, GatewayToken** gwTokPtr,
              char** protoColVersion) noexcept {
  int rc = checkOpenArguments(hostname, port, gwTokPtr, protoColVersion);
  GatewayToken* token = nullptr;
  if (rc == 0) rc = createHeldToken(gwTokPtr, hostname, port, token);
  if (rc == ZEB_TOKEN_LIST_CORRUPT) {
    TRACE_EXC(1045, "API.openRemoteGatewayConnection() No room in the list of %d connections\n",
              kRunawayLimit);
  }
  if (rc != 0) return rc;
  Block<char> version(copyProtocolVersion(*token, protoColVersion));
  if (leaveToken(token)) {
    *protoColVersion = version.release();
    *gwTokPtr = token;
    return 0;
  }
  return ZEB_TOKEN_UNKNOWN;
}

}  // namespace
}  // namespace zeb

int openRemoteGatewayConnection(const char* hostname, int port, GatewayToken** gwTokPtr,
                                char** protoColVersion) noexcept {
  const WaitingCall call;
  int rc = stapiInit();
  TRACE_ENTRY(
      1020,
      "API.openRemoteGatewayConnection(hostname=%s, port=%d, &gwTokPtr=0x%p, &protoColVersion=0x%p\n",
      textToShow(hostname), port, gwTokPtr, protoColVersion);
  if (rc == 0) rc = openToken(hostname, port, gwTokPtr, protoColVersion);
  TRACE_EXIT(1029, "API.openRemoteGatewayConnection(port=%d) rc=%d\n", port, rc);
  return rc;
}

int openGatewayConnection(int port, GatewayToken** gwTokPtr, char** protoColVersion) noexcept {
  const WaitingCall call;
  stapiInit();
  TRACE_ENTRY(1030, "API.openGatewayConnection(port=%d, &gwTokPtr=0x%p, &protoColVersion=0x%p\n",
              port, gwTokPtr, protoColVersion);
  const int rc = openRemoteGatewayConnection("127.0.0.1", port, gwTokPtr, protoColVersion);
  // quirk: has the number of openRemoteGatewayConnection's EXIT line
  TRACE_EXIT(1029, "API.openGatewayConnection(port=%d) rc=%d\n", port, rc);
  return rc;
}

namespace {
// quirk: checks its arguments even if initialisation has failed with initRc.
int closeToken(GatewayToken** gwTokPtr, int initRc) noexcept {
  if (gwTokPtr == nullptr) {
    TRACE_EXC(1034, "API.closeGatewayConnection(&gwTokPtr=%p) Null gateway token Pointer\n",
              gwTokPtr);
    return ZEB_TOKEN_POINTER_NULL;
  }
  if (*gwTokPtr == nullptr) {
    TRACE_EXC(1034, "API.closeGatewayConnection(gwTokPtr=%p) Null gateway token\n", *gwTokPtr);
    return ZEB_TOKEN_NULL;
  }
  if (initRc != 0) return initRc;
  const int rc = deleteGatewayToken(gwTokPtr, 1);
  TRACE_EVENT(1035, "API.closeGatewayConnection Closed Gateway connection for token %p\n",
              gwTokPtr);
  return rc;
}
}  // namespace

int closeGatewayConnection(GatewayToken** gwTokPtr) noexcept {
  const WaitingCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1033, "API.closeGatewayConnection(&gwTokPtr=%p)\n", gwTokPtr);
  rc = closeToken(gwTokPtr, rc);
  TRACE_EXIT(1036, "API.closeGatewayConnection(&gwTokPtrPtr=%p) rc=%d\n", gwTokPtr, rc);
  return rc;
}

int closeAllGatewayConnections(void) noexcept {
  const WaitingCall call;
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

// ---- Queries ------------------------------------------------------------------------------------

namespace zeb {
namespace {

// The name of a query and the numbers of its trace points in the functions that all queries share.
struct QueryCall {
  const char* name;
  int answerPoint;
  int removalPoint;
  int refusedPoint;
};
constexpr QueryCall kGetStats = {"getStats", 1050, 1056, 1089};
constexpr QueryCall kGetStatIds = {"getStatIds", 1051, 1057, 1098};
constexpr QueryCall kGetResourceGroupIds = {"getResourceGroupIds", 1052, 1058, 1099};
constexpr QueryCall kGetStatsByStatId = {"getStatsByStatId", 1053, 1059, 1105};
constexpr QueryCall kGetStatsByStatGroupId = {"getStatsByStatGroupId", 1054, 1079, 1106};
constexpr QueryCall kGetStatIdsByStatGroupId = {"getStatIdsByStatGroupId", 1055, 1088, 1107};

int refuseQuery(const QueryCall& call, const char* what, int rc) noexcept {
  TRACE_EXC(call.refusedPoint, "API.%s() Supplied %s is NULL\n", call.name, what);
  return rc;
}

// Checks what every query needs, and takes a hold of the token. Returns 0 with the hold, or a code
// without it.
int takeToken(const QueryCall& call, GatewayToken* gwTok, ResultSetToken** rsPtr) noexcept {
  if (rsPtr == nullptr) return refuseQuery(call, "result set pointer", ZEB_RESULT_SET_POINTER_NULL);
  const int rc = enterToken(gwTok);
  if (rc != 0) return rc;
  if (gwTok->resultSetBuf == nullptr) {
    TRACE_EXC(call.refusedPoint,
              "API.%s(gwTok=%p) resultSetBuf is NULL. Connection may have gone.\n", call.name,
              gwTok);
    leaveToken(gwTok);
    return ZEB_NO_RESULT_SET_BUFFER;
  }
  return 0;
}

// Checks the arguments of a query without a query string. Returns 0 with a hold of the token,
// which endQuery gives back, or the code of the query without one.
int beginQuery(const QueryCall& call, GatewayToken* gwTok, ResultSetToken** rsPtr) noexcept {
  if (gwTok == nullptr) return refuseQuery(call, "gateway token", ZEB_TOKEN_NULL);
  return takeToken(call, gwTok, rsPtr);
}

// Replaces the result set's copy of the query string, which is what the library sends. Returns 0,
// ZEB_NO_MEMORY, or ZEB_QUERY_TOO_LONG.
int copyQuery(ResultSetToken& resultSet, const char* query) noexcept {
  free(resultSet.queryCopy);
  resultSet.queryCopy = nullptr;
  const int rc = dup2ASCIIString(query, &resultSet.queryCopy);
  return rc == kDuplicateFailed ? ZEB_NO_MEMORY : rc;
}
static_assert(kDuplicateRefused == ZEB_QUERY_TOO_LONG);

// beginQuery for a query with a query string, of which it makes the library's copy.
int beginTextQuery(const QueryCall& call, GatewayToken* gwTok, const char* query,
                   ResultSetToken** rsPtr) noexcept {
  if (gwTok == nullptr) return refuseQuery(call, "gateway token", ZEB_TOKEN_NULL);
  if (query == nullptr) return refuseQuery(call, "query string", ZEB_QUERY_NULL);
  int rc = takeToken(call, gwTok, rsPtr);
  if (rc != 0) return rc;
  rc = copyQuery(*gwTok->connRSToken, query);
  if (rc != 0) leaveToken(gwTok);
  return rc;
}

// The next walk of the connection's result set begins at the start of its buffer.
void resetWalk(const GatewayToken& gwTok) noexcept {
  ResultSetToken& resultSet = *gwTok.connRSToken;
  resultSet.queryIndex = resultSet.elementResultIndex = 0;
  resultSet.head = resultSet.next = gwTok.resultSetBuf;
}

// quirk: also sets the owner, which it has already.
void resetResultSet(const GatewayToken& gwTok) noexcept {
  resetWalk(gwTok);
  gwTok.connRSToken->owner = kOwnerGateway;
}

void showResultSet(const QueryCall& call, const GatewayToken& gwTok) noexcept {
  TRACE_DEBUG(call.answerPoint, "API.%s() result set pointer (%p)\n", call.name, gwTok.connRSToken);
}

// Ends a query whose exchange with the gateway returned rc, and gives back the hold. If rc is 0, it
// stores the result set in *rsPtr, unless another thread has closed the connection; otherwise it
// removes the connection, which has failed. Returns the code of the query.
int endQuery(const QueryCall& call, GatewayToken* gwTok, int rc, ResultSetToken** rsPtr) noexcept {
  ResultSetToken* const answer = gwTok->connRSToken;
  if (rc == 0) {
    if (!leaveToken(gwTok)) return ZEB_CONNECTION_LOST;
    *rsPtr = answer;
    return 0;
  }
  const int queryRc = hasTimedOut() ? ZEB_TIMED_OUT : rc;
  TRACE_EVENT(call.removalPoint, "API.%s Removing GatewayToken %p due to comms failure %d\n",
              call.name, gwTok, queryRc);
  removeHeldToken(gwTok);
  return queryRc;
}

}  // namespace
}  // namespace zeb

int getStats(GatewayToken* gwTok, ResultSetToken** statRSPtr) noexcept {
  const WaitingCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1060, "API.getStats(gwTok=%p,statRSPtr=%p)\n", gwTok, statRSPtr);
  if (rc == 0) rc = beginQuery(kGetStats, gwTok, statRSPtr);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1061, "API.getStats Getting all Stats from the Gateway Daemon\n");
    rc = checkInStep(gwTok->socket);
    if (rc == 0) rc = commsStats(gwTok->socket, gwTok->resultSetBuf);
    showResultSet(kGetStats, *gwTok);
    rc = endQuery(kGetStats, gwTok, rc, statRSPtr);
  }
  TRACE_EXIT(1062, "API.getStats(gwTok=%p,rs=%p) rc=%d\n", gwTok, statRSPtr, rc);
  return rc;
}

int getStatIds(GatewayToken* gwTok, ResultSetToken** rs) noexcept {
  const WaitingCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1063, "API.getStatIds(gwTok=%p,rs=%p)\n", gwTok, rs);
  if (rc == 0) rc = beginQuery(kGetStatIds, gwTok, rs);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1064, "API.getStatIds Getting Stat Ids from the Gateway\n");
    rc = checkInStep(gwTok->socket);
    if (rc == 0) rc = commsStatIds(gwTok->socket, gwTok->resultSetBuf);
    showResultSet(kGetStatIds, *gwTok);
    rc = endQuery(kGetStatIds, gwTok, rc, rs);
  }
  TRACE_EXIT(1065, "API.getStatIds(gwTok=%p,rs=%p) rc=%d\n", gwTok, rs, rc);
  return rc;
}

int getResourceGroupIds(GatewayToken* gwTok, ResultSetToken** resGrpIdRSPtr) noexcept {
  const WaitingCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1066, "API.getResourceGroupIds(gwTok=%p resGrpIdRSPtr=%p)\n", gwTok, resGrpIdRSPtr);
  if (rc == 0) rc = beginQuery(kGetResourceGroupIds, gwTok, resGrpIdRSPtr);
  if (rc == 0) {
    TRACE_EVENT(1067, "API.getResourceGroupIds Getting Resource Group Ids\n");
    rc = checkInStep(gwTok->socket);
    if (rc == 0) rc = commsResourceGroupsIds(gwTok->socket, gwTok->resultSetBuf);
    resetWalk(*gwTok);  // quirk: after the exchange, even a failed one, and without the owner
    showResultSet(kGetResourceGroupIds, *gwTok);
    TRACE_DEBUG(1068, "API.getResourceGroupIds() result set buffer (%p)\n", gwTok->resultSetBuf);
    rc = endQuery(kGetResourceGroupIds, gwTok, rc, resGrpIdRSPtr);
  }
  TRACE_EXIT(1069, "API.getResourceGroupIds() rc=%d\n", rc);
  return rc;
}

int getStatsByStatId(GatewayToken* gwTok, const char* statIdsPtr,
                     ResultSetToken** statRSPtr) noexcept {
  const WaitingCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1070, "API.getStatsByStatId(gwTok=%p,statIdsPtr=%p,statRSPtr=%p)\n", gwTok,
              statIdsPtr, statRSPtr);
  if (rc == 0) rc = beginTextQuery(kGetStatsByStatId, gwTok, statIdsPtr, statRSPtr);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1071, "API.getStatsByStatId Getting Stats for Stat Ids %s\n", statIdsPtr);
    rc = checkInStep(gwTok->socket);
    if (rc == 0) {
      rc = commsStatsByStatId(gwTok->socket, gwTok->resultSetBuf, gwTok->connRSToken->queryCopy);
    }
    showResultSet(kGetStatsByStatId, *gwTok);
    rc = endQuery(kGetStatsByStatId, gwTok, rc, statRSPtr);
  }
  TRACE_EXIT(1072, "API.getStatsByStatId(gwTok=%p,statIdsPtr=%p,statRSPtr=%p) rc=%d\n", gwTok,
             statIdsPtr, statRSPtr, rc);
  return rc;
}

int getStatsByStatGroupId(GatewayToken* gwTok, const char* providerIdPtr,
                          ResultSetToken** statRSPtr) noexcept {
  const WaitingCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1073, "API.getStatsByStatGroupId(gwTok=%p,providerIdPtr=%p,statRSPtr=%p)\n", gwTok,
              providerIdPtr, statRSPtr);
  if (rc == 0) rc = beginTextQuery(kGetStatsByStatGroupId, gwTok, providerIdPtr, statRSPtr);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1074, "API.getStatsByStatGroupId Getting Stats for Stat Group Ids %s\n",
                providerIdPtr);
    rc = checkInStep(gwTok->socket);
    if (rc == 0) {
      rc = commsStatsByStatGroupId(gwTok->socket, gwTok->resultSetBuf,
                                   gwTok->connRSToken->queryCopy);
    }
    showResultSet(kGetStatsByStatGroupId, *gwTok);
    rc = endQuery(kGetStatsByStatGroupId, gwTok, rc, statRSPtr);
  }
  TRACE_EXIT(1075, "API.getStatsByStatGroupId(gwTok=%p,providerIdPtr=%p,statRSPtr=%p) rc=%d\n",
             gwTok, providerIdPtr, statRSPtr, rc);
  return rc;
}

int getStatIdsByStatGroupId(GatewayToken* gwTok, const char* providerIdsPtr,
                            ResultSetToken** statIdRsPtr) noexcept {
  const WaitingCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1076, "API.getStatIdsByStatGroupId(gwTok=%p,providerIdsPtr=%p,statIdRsPtr=%p)\n",
              gwTok, providerIdsPtr, statIdRsPtr);
  if (rc == 0) rc = beginTextQuery(kGetStatIdsByStatGroupId, gwTok, providerIdsPtr, statIdRsPtr);
  if (rc == 0) {
    resetResultSet(*gwTok);
    TRACE_EVENT(1077, "API.getStatIdsByStatGroupId Getting Stat Ids for Stat Group Ids %s\n",
                providerIdsPtr);
    rc = checkInStep(gwTok->socket);
    if (rc == 0) {
      rc = commsStatIdsByStatGroupId(gwTok->socket, gwTok->resultSetBuf,
                                     gwTok->connRSToken->queryCopy);
    }
    showResultSet(kGetStatIdsByStatGroupId, *gwTok);
    rc = endQuery(kGetStatIdsByStatGroupId, gwTok, rc, statIdRsPtr);
  }
  TRACE_EXIT(1078, "API.getStatIdsByStatGroupId(gwTok=%p,query=%s,rs=%p) rc=%d\n", gwTok,
             textToShow(providerIdsPtr), statIdRsPtr, rc);
  return rc;
}

// ---- Walking an answer --------------------------------------------------------------------------

int getFirstStat(ResultSetToken* rsPtr, StatData* statDataPtr) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1080, "API.getFirstStat(rsPtr=%p,statDataPtr=%p)\n", rsPtr, statDataPtr);
  if (rc == 0) rc = walk<StatWalk>(StatWalk::kFirst, rsPtr, statDataPtr);
  TRACE_EXIT(1081, "API.getFirstStat() last=%d rc=%d\n", rc == ZEB_END_OF_RESULTS, rc);
  return rc;
}

namespace {
// The steps of getNextStat that stepWithinElement does not make. Not inlined, so that the steps of
// stepWithinElement do not pay for the frame of a public call.
[[gnu::noinline, gnu::cold]] int goToNextStat(ResultSetToken* rsPtr,
                                              StatData* statDataPtr) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1082, "API.getNextStat(rsPtr=%p,statDataPtr=%p)\n", rsPtr, statDataPtr);
  if (rc == 0) rc = walk<StatWalk>(StatWalk::kNext, rsPtr, statDataPtr);
  TRACE_EXIT(1083, "API.getNextStat() rc=%d\n", rc);
  return rc;
}
}  // namespace

int getNextStat(ResultSetToken* rsPtr, StatData* statDataPtr) noexcept {
  return stepWithinElement<StatWalk>(rsPtr, statDataPtr) ? ZEB_OK
                                                         : goToNextStat(rsPtr, statDataPtr);
}

int getFirstId(ResultSetToken* rsPtr, IdData* idDataPtr) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1084, "API.getFirstId(rsPtr=%p,idDataPtr=%p)\n", rsPtr, idDataPtr);
  if (rc == 0) rc = walk<IdWalk>(IdWalk::kFirst, rsPtr, idDataPtr);
  TRACE_EXIT(1085, "API.getFirstId() endOfResults=%d zebStatRc=%d\n", rc == ZEB_END_OF_RESULTS, rc);
  return rc;
}

namespace {
// The steps of getNextId that stepWithinElement does not make; not inlined either.
[[gnu::noinline, gnu::cold]] int goToNextId(ResultSetToken* rsPtr, IdData* idDataPtr) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1086, "API.getNextId(rsPtr=%p,idDataPtr=%p)\n", rsPtr, idDataPtr);
  if (rc == 0) rc = walk<IdWalk>(IdWalk::kNext, rsPtr, idDataPtr);
  TRACE_EXIT(1087, "API.getNextId() rc=%d\n", rc);
  return rc;
}
}  // namespace

int getNextId(ResultSetToken* rsPtr, IdData* idDataPtr) noexcept {
  return stepWithinElement<IdWalk>(rsPtr, idDataPtr) ? ZEB_OK : goToNextId(rsPtr, idDataPtr);
}

// ---- Result sets as a whole ---------------------------------------------------------------------

namespace zeb {
namespace {

// The numbers of these calls are used up, so all *EXC* lines of a call have the same one.
constexpr int kCopyRefusedPoint = 1137;
constexpr int kDumpRefusedPoint = 1134;
constexpr int kIdQueryRefusedPoint = 1142;

// The words in which the lines of copyResultSet and dumpResultSet differ.
struct ContentCall {
  const char* name;
  const char* argument;  // the name of the result set's argument
  const char* purpose;   // completes the message about a missing buffer
  int refusedPoint;
};
constexpr ContentCall kCopyResultSet = {"copyResultSet", "srcRs", "copy", kCopyRefusedPoint};
constexpr ContentCall kDumpResultSet = {"dumpResultSet", "rsPtr", "dump", kDumpRefusedPoint};

// Checks what copyResultSet and dumpResultSet need: a buffer with an answer, and the owner's
// thread. Returns 0 or the code of the call.
int checkContent(const ContentCall& call, const ResultSetToken& resultSet) noexcept {
  if (resultSet.head == nullptr) {
    TRACE_EXC(call.refusedPoint, "API.%s(%s=%p) resultSetBuf is NULL - no data to %s\n", call.name,
              call.argument, &resultSet, call.purpose);
    return ZEB_NO_RESULT_SET_BUFFER;
  }
  if (!hasKnownContent(resultSet.head)) {
    TRACE_EXC(call.refusedPoint, "API.%s Resultset does not contain recognised content\n",
              call.name);
    return ZEB_WRONG_CONTENT;
  }
  return checkResultSetOwner(resultSet);
}

// quirk: if there is no memory for the buffer, the caller gets a copy without one, and frees it.
int copyToNewResultSet(const ResultSetToken* srcRsPtr, ResultSetToken** tarRsPtr) noexcept {
  if (srcRsPtr == nullptr) {
    TRACE_EXC(kCopyRefusedPoint, "API.copyResultSet(srcRs=%p) Supplied result set token is NULL\n",
              srcRsPtr);
    return ZEB_RESULT_SET_NULL;
  }
  if (tarRsPtr == nullptr) {
    TRACE_EXC(kCopyRefusedPoint,
              "API.copyResultSet(&tarRsPtr=%p) Supplied result set pointer is NULL\n", tarRsPtr);
    return ZEB_RESULT_SET_POINTER_NULL;
  }
  int rc = checkContent(kCopyResultSet, *srcRsPtr);
  if (rc != 0) return rc;
  rc = createResultSet(tarRsPtr, "ZEBRSUSR", kOwnerUser);
  if (rc != 0) {
    // quirk: prints no code, because the % of %d is missing
    TRACE_EXC(kCopyRefusedPoint, "API.copyResultSet() Invalid source resultset zebStatRc=d\n");
    return rc;
  }
  ResultSetToken& copy = **tarRsPtr;
  TRACE_EVENT(1124, "API.copyResultSet(srcRs=%p,&tarRsPtr=%p) Created result set token(%p)\n",
              srcRsPtr, tarRsPtr, &copy);
  constexpr int size = kResultSetBufferSize;
  copy.head = allocate<char>(kResultSetBufferSize).release();
  TRACE_DEBUG(1125, "API.copyResultSet Called malloc for %d bytes. rc=%p\n", size, copy.head);
  if (copy.head == nullptr) {
    TRACE_EXC(kCopyRefusedPoint, "API.copyResultSet() Malloc failed for %d bytes\n", size);
    return ZEB_NO_MEMORY;
  }
  copy.next = copy.head;
  copy.spare = srcRsPtr->spare;
  memcpy(copy.head, srcRsPtr->head, kResultSetBufferSize);
  TRACE_EVENT(1127, "API.copyResultSet Copied resultsetbuffer from %p to %p\n", srcRsPtr, &copy);
  return 0;
}

}  // namespace
}  // namespace zeb

int copyResultSet(ResultSetToken* srcRsPtr, ResultSetToken** tarRsPtr) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1090, "API.copyResultSet(srcRs=%p,&tarRsPtr=%p)\n", srcRsPtr, tarRsPtr);
  if (rc == 0) rc = copyToNewResultSet(srcRsPtr, tarRsPtr);
  TRACE_EXIT(1091, "API.copyResultSet(srcRs=%p,&tarRsPtr=%p) rc=%d\n", srcRsPtr, tarRsPtr, rc);
  return rc;
}

namespace {

// Returns the code of freeResultSet for a result set that is not a copy.
int refuseToFree(const ResultSetToken& resultSet) noexcept {
  if (resultSet.head == nullptr) {
    TRACE_EXC(1141, "API.freeResultSet(rsPtr=%p) resultSetBuf is NULL. Connection may have gone.\n",
              &resultSet);
    return ZEB_NO_RESULT_SET_BUFFER;
  }
  TRACE_EXC(1130, "API.freeResultSet(rsPtr=%p) Cannot free result sets with owner=%d\n", &resultSet,
            static_cast<int>(resultSet.owner));
  return ZEB_NOT_A_COPY;
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
  if (resultSet->owner != kOwnerUser) return refuseToFree(*resultSet);
  if (resultSet->head != nullptr) {
    TRACE_DEBUG(1131, "API.freeResultSet() free result set buffer storage (%p)\n", resultSet->head);
    free(resultSet->head);
    resultSet->head = nullptr;
  } else {
    TRACE_EXC(1132, "API.freeResultSet(rsPtr=%p) Result set buffer pointer was already null\n",
              resultSet);
  }
  const void* const freed = addressToShow(resultSet);
  deleteResultSet(rsPtr);
  TRACE_EVENT(1133, "API.freeResultSetFreed result set %p\n", freed);
  return 0;
}

}  // namespace

int freeResultSet(ResultSetToken** rsPtr) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1092, "API.freeResultSet(&rsPtr=%p)\n", rsPtr);
  if (rc == 0) rc = freeCopy(rsPtr);
  TRACE_EXIT(1093, "API.freeResultSet(&rsPtr=%p) rc=%d\n", rsPtr, rc);
  return rc;
}

namespace {
int dumpContent(const ResultSetToken* rsPtr) noexcept {
  if (rsPtr == nullptr) {
    TRACE_EXC(kDumpRefusedPoint, "API.dumpResultSet(rsPtr=%p) Supplied result set token is NULL\n",
              rsPtr);
    return ZEB_RESULT_SET_NULL;
  }
  const int rc = checkContent(kDumpResultSet, *rsPtr);
  if (rc != 0) return rc;
  dumpResultSetInternal(rsPtr);
  return 0;
}
}  // namespace

int dumpResultSet(ResultSetToken* rsPtr) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  TRACE_ENTRY(1094, "API.dumpResultSet(rsPtr=%p)\n", rsPtr);
  if (rc == 0) rc = dumpContent(rsPtr);
  TRACE_EXIT(1095, "API.dumpResultSet(rsPtr=%p) rc=%d\n", rsPtr, rc);
  return rc;
}

namespace {

int refuseIdQuery(const char* what, int rc) noexcept {
  TRACE_EXC(kIdQueryRefusedPoint, "API.getIdQuery() Supplied %s is NULL\n", what);
  return rc;
}

// Returns 0 or the code of getIdQuery. working is the block in which the query is to be built, or
// null if there was no memory.
//
// quirk: the buffer is checked even after another failure, and a failure there replaces its code.
int checkIdQuery(const ResultSetToken& resultSet, const char* working,
                 char** idQueryStringPtr) noexcept {
  int rc = 0;
  if (working == nullptr) {
    TRACE_EXC(kIdQueryRefusedPoint, "API.getIdQuery() Malloc failed for %d bytes\n",
              static_cast<int>(kQueryStringSize));
    rc = ZEB_NO_MEMORY;
  } else if (idQueryStringPtr == nullptr) {
    rc = refuseIdQuery("query string pointer", ZEB_OUTPUT_POINTER_NULL);
  } else {
    rc = checkResultSetOwner(resultSet);
  }
  if (resultSet.head == nullptr) {
    TRACE_EXC(kIdQueryRefusedPoint, "API.getIdQuery(rsPtr=%p) resultSetBuf is NULL\n", &resultSet);
    return ZEB_NO_RESULT_SET_BUFFER;
  }
  if (!hasKnownContent(resultSet.head)) {
    TRACE_EXC(kIdQueryRefusedPoint,
              "API.getIdQuery Resultset does not contain recognised content\n");
    return ZEB_WRONG_CONTENT;
  }
  return rc;
}

// The query is built in a block of its own, so that a failure leaves the result set's former one.
int buildIdQuery(ResultSetToken* rsPtr, char** idQueryStringPtr, int& goodIdCount) noexcept {
  if (rsPtr == nullptr) return refuseIdQuery("result set token", ZEB_RESULT_SET_NULL);
  const Block<char> working = allocate<char>(kQueryStringSize);
  const int rc = checkIdQuery(*rsPtr, working.get(), idQueryStringPtr);
  if (rc != 0) return rc;
  QueryString joined(working.get());
  goodIdCount = hasContent(rsPtr->head, kIdsMarker) ? joinIds<IdWalk>(rsPtr, joined)
                                                    : joinIds<StatWalk>(rsPtr, joined);
  joined.end();
  if (joined.length() == 0) return ZEB_NO_GOOD_ID;
  memcpy(rsPtr->verifiedQueryString, working.get(), joined.length() + 1);
  *idQueryStringPtr = rsPtr->verifiedQueryString;
  TRACE_EVENT(1139, "API.getIdQuery Created query string %s from results in result set token %p\n",
              *idQueryStringPtr, rsPtr);
  return 0;
}

}  // namespace

int getIdQuery(ResultSetToken* rsPtr, char** idQueryStringPtr) noexcept {
  const LocalCall call;
  int rc = stapiInit();
  int goodIdCount = 0;
  TRACE_ENTRY(1096, "API.getIdQuery(rsPtr=%p,&idQueryString=%p)\n", rsPtr, idQueryStringPtr);
  if (rc == 0) rc = buildIdQuery(rsPtr, idQueryStringPtr, goodIdCount);
  TRACE_EXIT(1097, "API.getIdQuery(rsPtr=%p,idQueryString=%s) goodIdCount=%d rc=%d\n", rsPtr,
             rc == 0 ? *idQueryStringPtr : "NULL", goodIdCount, rc);
  return rc;
}
