// Gateway tokens, one for each open connection, and the Gateway Token List that holds them all.
//
// gtlLock guards the head, the tail, the length and every next pointer; it is taken before
// traceLock. The library uses no socket while it holds gtlLock, except that it shuts down the
// socket of a call that it cancels. A token is listed before it is connected, so that it can be
// closed meanwhile.
//
// The field holds of a token counts the calls that use it. A thread that removes the token from the
// list adds kRemoved to the field, and also takes a hold, which it gives back at the end of the
// removal. Whoever gives back the last hold of a removed token closes the socket and frees the
// memory. If another thread's call still has a hold at the removal, that call is cancelled: its
// socket is shut down, which ends every wait.

#include "stapi_zeb_gwytok.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <utility>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwycon.h"
#include "stapi_zeb_lock.h"
#include "stapi_zeb_memory.h"
#include "stapi_zeb_resultsetbuffer.h"
#include "stapi_zeb_socketcomms.h"
#include "stapi_zeb_statcomms.h"
#include "stapi_zeb_timeout.h"
#include "stapi_zeb_version.h"

extern "C" {
extern const char stapi_zeb_gwytok_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_gwytok_notice[] = ZEB_NOTICE("stapi_zeb_gwytok");
}

namespace zeb {
namespace {

// The values of connStatus, which dumps show.
enum ConnStatus { kCreated, kConnected, kNotConnected, kCloseFailed, kClosed };

constexpr std::uint32_t kRemoved = 0x80000000;  // a bit of holds: the token is no longer listed

GatewayToken* gtListHeadPtr = nullptr;
GatewayToken* gtListTailPtr = nullptr;  // stale while the list is empty
int gtListLength = 0;
LockRecord gtlLock = {};
bool isListLockedForFork = false;  // set and read by the thread that forks

// Access to the fields of a token that one thread may write while another one formats the token.
template <typename T>
T readShared(const T& field) noexcept {
  return std::atomic_ref(const_cast<T&>(field)).load(std::memory_order_relaxed);
}
template <typename T>
void writeShared(T& field, T value) noexcept {
  std::atomic_ref(field).store(value, std::memory_order_relaxed);
}

std::atomic_ref<std::uint32_t> holdsOf(GatewayToken& token) noexcept {
  return std::atomic_ref(token.holds);
}

// findGatewayToken without its lines for entry and exit.
int searchList(const GatewayToken* target, GatewayToken** parent) noexcept {
  if (target == nullptr) {
    TRACE_EXC(2005, "stapi_zeb_gwytok.findGatewayToken() Target was a null token\n");
    return kTargetNull;
  }
  if (gtListHeadPtr == nullptr) {
    // quirk: an empty list is reported this way
    TRACE_EXC(2006,
              "stapi_zeb_gwytok.findGatewayToken() GTL state is corrupt - head(%p) tail (%p)\n",
              gtListHeadPtr, gtListTailPtr);
    return kListEmpty;
  }
  GatewayToken* before = nullptr;  // the token before the target; null for the head
  int stepped = 0;
  int rc = kTokenFound;
  if (target != gtListHeadPtr) {
    before = gtListHeadPtr;
    while (stepped < kRunawayLimit && before->nextGwyTokPtr != nullptr &&
           before->nextGwyTokPtr != target) {
      before = before->nextGwyTokPtr;
      ++stepped;
    }
    if (stepped == kRunawayLimit) {
      rc = kListRunaway;
    } else if (before->nextGwyTokPtr == nullptr) {
      rc = kTokenNotFound;
    }
  }
  if (rc == kListRunaway) {
    TRACE_EXC(2007,
              "stapi_zeb_gwytok.findGatewayTokenGTL iteration has hit RUNAWAY limit %d.....\n",
              kRunawayLimit);
  } else if (rc == kTokenFound) {
    TRACE_DEBUG(2008, "stapi_zeb_gwytok.findGatewayTokenTarget token found at GTL Entry(%d)\n",
                stepped);
    if (parent != nullptr) *parent = before;
  } else {
    TRACE_DEBUG(
        2009,
        "stapi_zeb_gwytok.findGatewayTokenTarget token not found. GTL entries(%d) head(%p) last(%p)\n",
        stepped + 1, gtListHeadPtr, before);
  }
  return rc;
}

// Returns 0, ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD.
int checkOwner(std::uint32_t owningPid, ThreadId owningTid) noexcept {
  std::uint32_t pid;
  ThreadId tid;
  getPidTid(&pid, &tid);
  if (pid != owningPid) {
    TRACE_EXC(2013,
              "stapi_zeb_gwytok.verifyGatewayToken PID mismatch: currentPid=%d, owningPid=%d\n",
              static_cast<int>(pid), static_cast<int>(owningPid));
    return ZEB_OTHER_PROCESS;
  }
  if (compareTids(tid, owningTid) == 0) {
    TRACE_EXC(2014,
              "stapi_zeb_gwytok.verifyGatewayToken TID mismatch: currentTid=%d, owningTid=%d\n",
              static_cast<int>(shownTid(tid)), static_cast<int>(shownTid(owningTid)));
    return ZEB_OTHER_THREAD;
  }
  return 0;
}

bool isOwnedByCaller(const GatewayToken& token) noexcept {
  return token.owningPid == currentPid() && compareTids(token.owningTid, currentTid()) != 0;
}

// What verifyGatewayToken and enterToken do. Nothing is known of the token before it is found in
// the list. held is null, or the token itself, which then gets a hold if the calling thread owns
// it.
int verifyToken(const GatewayToken* token, GatewayToken* held) noexcept {
  TRACE_ENTRY(2010, "stapi_zeb_gwytok.verifyGatewayToken(&gwTokPtr=%p)\n", token);
  std::uint32_t owningPid = 0;
  ThreadId owningTid = {};
  int findRc;
  {
    const LockGuard guard(gtlLock);
    findRc = findGatewayToken(token, nullptr);
    if (findRc == kTokenFound) {
      owningPid = token->owningPid;
      owningTid = token->owningTid;
      if (held != nullptr && isOwnedByCaller(*held)) holdsOf(*held).fetch_add(1);
    }
  }
  int rc = ZEB_TOKEN_UNKNOWN;
  if (findRc == kTokenFound) {
    rc = checkOwner(owningPid, owningTid);
  } else {
    TRACE_EXC(
        2012,
        "stapi_zeb_gwytok.verifyGatewayToken(&gwTokPtr=%p) Gateway token not found - findRc=%d\n",
        token, findRc);
  }
  TRACE_EXIT(2011, "stapi_zeb_gwytok.verifyGatewayToken(&gwTokPtr=%p) rc=%d\n", token, rc);
  return rc;
}

void deleteTokenResultSet(GatewayToken& token) noexcept {
  const int rc = deleteResultSet(&token.connRSToken);
  if (rc != 0)
    TRACE_EXC(2017, "stapi_zeb_gwytok.deleteGatewayToken Unable to delete ResultSet. rc=%d\n", rc);
}

// Frees what a token that was never listed owns, but not the token, and writes none of the trace
// lines of a deletion.
void discardBuffers(GatewayToken& token) noexcept {
  deleteResultSet(&token.connRSToken);
  free(token.resultSetBuf);
  free(token.protocolVersion);
}

// Frees what a token that was listed owns, but not the token.
void releaseToken(GatewayToken& token) noexcept {
  deleteTokenResultSet(token);
  if (token.resultSetBuf != nullptr) {
    TRACE_DEBUG(2018, "stapi_zeb_gwytok.deleteGatewayToken About to free resultSetBuffer (%p)\n",
                token.resultSetBuf);
    free(token.resultSetBuf);
    token.resultSetBuf = nullptr;
  }
  if (token.protocolVersion != nullptr) {
    TRACE_DEBUG(2019,
                "stapi_zeb_gwytok.deleteGatewayToken About to free protocolVersion String (%p)\n",
                token.protocolVersion);
    free(token.protocolVersion);
    token.protocolVersion = nullptr;
  }
}

// A forked child inherits the tokens of its parent. The parent still uses the socket of such a
// token, so the child only closes its own descriptor, which sends nothing.
bool isInherited(const GatewayToken& token) noexcept {
  return token.owningPid != currentPid();
}

// Sends no close request if isSilent is set or the token is inherited.
void closeSocket(GatewayToken& token, bool isSilent) noexcept {
  const int rc =
      isSilent || isInherited(token) ? close(token.socket) : closeConnection(&token.socket);
  writeShared(token.connStatus, static_cast<std::int32_t>(rc != 0 ? kCloseFailed : kClosed));
}

// The caller holds gtlLock; parent is the token before, or null for the head.
void unlinkToken(const GatewayToken& token, GatewayToken* parent) noexcept {
  --gtListLength;
  if (parent == nullptr) {
    gtListHeadPtr = token.nextGwyTokPtr;
    return;
  }
  writeShared(parent->nextGwyTokPtr, token.nextGwyTokPtr);
  if (parent->nextGwyTokPtr == nullptr) gtListTailPtr = parent;
}

// Frees the token itself. Here and below, a parameter gwTokPtr beside a token is the address of the
// caller's variable, and is only printed.
void freeToken(GatewayToken* const* gwTokPtr, GatewayToken* token) noexcept {
  TRACE_DEBUG(2020, "stapi_zeb_gwytok.deleteGatewayToken(&gwTokPtr=%p) Free gateway token(%p) \n",
              gwTokPtr, token);
  if (token->handedOut) {
    retire(token);
  } else {
    free(token);
  }
  // quirk: prints a null pointer for the token
  TRACE_DEBUG(2021, "stapi_zeb_gwytok.deleteGatewayToken(&gwTokPtr=%p) Freed gateway token(%p) \n",
              gwTokPtr, static_cast<void*>(nullptr));
}

// Closes and frees a removed token that nobody holds.
void destroyToken(GatewayToken* const* gwTokPtr, GatewayToken* token,
                  bool isSilent = false) noexcept {
  closeSocket(*token, isSilent);
  releaseToken(*token);
  freeToken(gwTokPtr, token);
}

// Wakes the call that uses the token. The shutdown has no effect on a socket that has not begun to
// connect. But the call looks at cancelled before it connects; and if it looked before that was
// set, the send timeout ends a blocking connect that begins only after the shutdown.
void cancelCall(GatewayToken& token) noexcept {
  std::atomic_ref(token.cancelled).store(1, std::memory_order_seq_cst);
  const int socket = std::atomic_ref(token.socket).load(std::memory_order_seq_cst);
  if (socket < 0) return;
  const timeval atOnce = {.tv_sec = 0, .tv_usec = 1};  // 0 would mean no timeout
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &atOnce, sizeof atOnce);
  shutdown(socket, SHUT_RDWR);
}

// Removes a token from the list and takes a hold, which endRemoval gives back. The caller holds
// gtlLock; parent is the token before, or null for the head. If the calling thread has a hold
// already, because it removes the token of its own failed call, it takes no further one: endRemoval
// gives back that hold. If another thread's call has a hold, it is cancelled.
void beginRemoval(GatewayToken& token, GatewayToken* parent) noexcept {
  unlinkToken(token, parent);
  const bool isInUse = holdsOf(token).load() != 0;
  if (isInUse && isOwnedByCaller(token)) {
    holdsOf(token).fetch_or(kRemoved);
    return;
  }
  const bool isHeldByOther = holdsOf(token).fetch_add(kRemoved + 1) != 0;
  if (isHeldByOther && !isInherited(token)) cancelCall(token);
}

// Gives back the hold of beginRemoval, and destroys the token if that was the last one; otherwise
// the call that has the last one destroys it. An inherited token is destroyed at once: its holds
// are those of threads that the child does not have. Once the hold is given back, another thread
// may free the token, so isInherited is asked before.
void endRemoval(GatewayToken* const* gwTokPtr, GatewayToken* token,
                bool isSilent = false) noexcept {
  const bool isInheritedToken = isInherited(*token);
  const bool wasLastHold = holdsOf(*token).fetch_sub(1) == kRemoved + 1;
  if (wasLastHold || isInheritedToken) destroyToken(gwTokPtr, token, isSilent);
}

// The five ways in which deleteToken deletes *gwTokPtr, which is not null. Each returns 0, and
// removeListedToken also ZEB_TOKEN_UNKNOWN.

// For a token in the list. It sets the caller's variable to null before it waits for the gateway:
// during the wait, the owner may open another connection into that variable.
int removeListedToken(GatewayToken** gwTokPtr) noexcept {
  GatewayToken* const token = *gwTokPtr;
  {
    const LockGuard guard(gtlLock);
    GatewayToken* parent = nullptr;
    if (findGatewayToken(token, &parent) != kTokenFound) return ZEB_TOKEN_UNKNOWN;
    beginRemoval(*token, parent);
    *gwTokPtr = nullptr;
  }
  endRemoval(gwTokPtr, token);
  return 0;
}

// For a caller that ensures by itself that no other thread uses the list and that the token is its
// head.
int removeHeadToken(GatewayToken** gwTokPtr) noexcept {
  GatewayToken* const token = std::exchange(*gwTokPtr, nullptr);
  beginRemoval(*token, nullptr);
  endRemoval(gwTokPtr, token);
  return 0;
}

// For a token that beginRemoval has removed already.
int removeUnlistedToken(GatewayToken** gwTokPtr) noexcept {
  endRemoval(gwTokPtr, *gwTokPtr);
  return 0;
}

// The same without a close request, for which no time is left.
int abandonUnlistedToken(GatewayToken** gwTokPtr) noexcept {
  endRemoval(gwTokPtr, *gwTokPtr, true);
  return 0;
}

// For a removed token whose last hold has been given back.
int destroyLeftToken(GatewayToken** gwTokPtr) noexcept {
  destroyToken(gwTokPtr, *gwTokPtr);
  return 0;
}

// deleteGatewayToken with its trace lines. lockRequired is only printed; remove is one of the five
// ways above.
int deleteToken(GatewayToken** gwTokPtr, int lockRequired,
                int (*remove)(GatewayToken**) noexcept) noexcept {
  int rc;
  TRACE_ENTRY(2015, "stapi_zeb_gwytok.deleteGatewayToken(&gwTokPtr=%p, lockRequired=%d)\n",
              gwTokPtr, lockRequired);
  if (gwTokPtr == nullptr) {
    rc = ZEB_TOKEN_POINTER_NULL;
  } else if (*gwTokPtr == nullptr) {
    rc = ZEB_TOKEN_NULL;
  } else {
    rc = remove(gwTokPtr);
  }
  TRACE_EXIT(2016, "stapi_zeb_gwytok.deleteGatewayToken(&gwTokPtr=%p, lockRequired=%d) rc=%d\n",
             gwTokPtr, lockRequired, rc);
  return rc;
}

// The caller holds gtlLock. Returns 0, ZEB_TOKEN_POINTER_NULL, or ZEB_TOKEN_LIST_CORRUPT (also if
// the list is full).
int appendToList(GatewayToken* token) noexcept {
  if (token == nullptr) {
    TRACE_EXC(2032, "stapi_zeb_gwytok.chainGatewayToken() Chain request was for a null token\n");
    return ZEB_TOKEN_POINTER_NULL;
  }
  if (gtListLength >= kRunawayLimit) return ZEB_TOKEN_LIST_CORRUPT;
  if (gtListHeadPtr == nullptr) {
    gtListHeadPtr = gtListTailPtr = token;
  } else if (gtListTailPtr == nullptr) {
    TRACE_EXC(2033,
              "stapi_zeb_gwytok.chainGatewayToken() GTL state is corrupt - head(%p) tail (%p)\n",
              gtListHeadPtr, gtListTailPtr);
    return ZEB_TOKEN_LIST_CORRUPT;
  } else {
    writeShared(gtListTailPtr->nextGwyTokPtr, token);
    gtListTailPtr = token;
  }
  ++gtListLength;
  return 0;
}

int chainGatewayToken(GatewayToken* token) noexcept {
  int rc;
  TRACE_ENTRY(2031, "stapi_zeb_gwytok.chainGatewayToken(&gwTokPtr=%p)\n", token);
  {
    const LockGuard guard(gtlLock);
    rc = appendToList(token);
  }
  TRACE_EXIT(2034, "stapi_zeb_gwytok.chainGatewayToken(&gwTokPtr=%p) rc=%d\n", token, rc);
  return rc;
}

// Returns the public code for a code of connectToGateway.
int mapConnectCode(int connectRc) noexcept {
  if (connectRc != 0 && hasTimedOut()) return ZEB_CONNECT_TIMED_OUT;
  switch (connectRc) {
    case 0:
      return 0;
    case kHostNotResolved:
      return ZEB_HOST_UNKNOWN;
    case kConnectTimedOut:
      return ZEB_CONNECT_TIMED_OUT;
    case kConnectRefused:
      return ZEB_CONNECT_REFUSED;
    case kConnectUnreachable:
      return ZEB_NETWORK_UNREACHABLE;
    default:
      return ZEB_CONNECT_FAILED;
  }
}

// Connects the token. Returns mapConnectCode's codes.
int openStatsSocket(GatewayToken& token, const char* hostname) noexcept {
  TRACE_ENTRY(2035,
              "stapi_zeb_gwytok.openStatsSocket(gwTokPtr=%p) Attempting to connect to %s:%d\n",
              &token, textToShow(hostname), token.port);
  const int connectRc = connectToGateway(token.port, hostname, &token.socket);
  writeShared(token.connStatus,
              static_cast<std::int32_t>(connectRc == 0 ? kConnected : kNotConnected));
  if (connectRc == 0) {
    TRACE_EVENT(
        2036,
        "stapi_zeb_gwytok.openStatsSocket() Connected to Gateway %s:%u - socketDescriptor(%d)\n",
        textToShow(hostname), static_cast<unsigned>(token.port), token.socket);
  } else {
    TRACE_EXC(2037, "stapi_zeb_gwytok.openStatsSocket() Failed to connect to Gateway %s:%u\n",
              textToShow(hostname), static_cast<unsigned>(token.port));
  }
  const int rc = mapConnectCode(connectRc);
  TRACE_EXIT(2038, "stapi_zeb_gwytok.openStatsSocket(gwTokPtr=%p, hostname=%s, port=%d) rc=%d\n",
             &token, textToShow(hostname), token.port, rc);
  return rc;
}

// Stores the gateway's protocol version in the token. Returns 0, ZEB_CONNECT_TIMED_OUT,
// ZEB_CONNECTION_LOST or ZEB_COMMUNICATION_FAILED.
int askProtocolVersion(GatewayToken& token) noexcept {
  reasons status = {};
  const int rc = statProtocolVer(&token, &status);
  if (rc == 0) return 0;
  TRACE_EVENT(
      2029,
      "stapi_zeb_gwytok.createGatewayToken Removing GatewayToken %p due to comms failure %d\n",
      &token, rc);
  if (hasTimedOut()) return ZEB_CONNECT_TIMED_OUT;
  return isConnectionLost(rc, status) ? ZEB_CONNECTION_LOST : ZEB_COMMUNICATION_FAILED;
}

template <typename T>
Block<T> allocateTraced(std::size_t size) noexcept {
  Block<T> block = allocate<T>(size);
  TRACE_DEBUG(2025, "stapi_zeb_gwytok.createGatewayToken Called malloc for %d bytes. rc=%p\n",
              static_cast<int>(size), block.get());
  return block;
}

// Allocates a token with its result set and its buffers. The new token has a hold and is not
// listed. Returns 0, ZEB_NO_MEMORY, or createResultSet's codes; after a failure only the record may
// be left, which token owns.
int allocateToken(Block<GatewayToken>& token, int port) noexcept {
  constexpr int recordSize = sizeof(GatewayToken);
  token = allocateTraced<GatewayToken>(sizeof(GatewayToken));
  if (token == nullptr) {
    TRACE_EXC(2026, "stapi_zeb_gwytok.createGatewayToken Failed to allocate %d bytes\n",
              recordSize);
    return ZEB_NO_MEMORY;
  }
  *token = {};
  memcpy(token->eyecatcher, "ZEBGWTOK", sizeof token->eyecatcher);
  token->port = port;
  token->socket = -1;  // with 0, a close before there is a socket would close descriptor 0
  token->holds = 1;
  const int rc = createResultSet(&token->connRSToken, "ZEBRSROB", kOwnerGateway);
  if (rc != 0) {
    TRACE_EXC(2027, "stapi_zeb_gwytok.createGatewayToken Creation of resultset failed rc=%d\n", rc);
    return rc;
  }
  getPidTid(&token->owningPid, &token->owningTid);
  // If it is null, the request for the version fails later, and the open with it.
  token->protocolVersion = allocate<char>(kProtocolVersionSize).release();
  constexpr int bufferSize = kResultSetBufferSize;
  token->resultSetBuf = allocateTraced<char>(kResultSetBufferSize).release();
  if (token->resultSetBuf == nullptr) {
    TRACE_EXC(2028, "stapi_zeb_gwytok.createGatewayToken Failed to allocate %d bytes.\n",
              bufferSize);
    discardBuffers(*token);
    return ZEB_NO_MEMORY;
  }
  sealBuffer(token->resultSetBuf);
  token->connRSToken->head = token->connRSToken->next = token->resultSetBuf;
  return 0;
}

// Connects a held token and asks for the protocol version. Returns the codes of both, or
// ZEB_TOKEN_UNKNOWN if another thread has closed the token meanwhile.
int connectToken(GatewayToken& token, const char* hostname) noexcept {
  const CancellableCall cancellable(&token.cancelled);
  int rc = openStatsSocket(token, hostname);
  if (rc == 0) rc = askProtocolVersion(token);
  return isCancelled() ? ZEB_TOKEN_UNKNOWN : rc;
}

void showNewToken(GatewayToken** gwTokPtr, const GatewayToken& token) noexcept {
  if (traceLevel() < kLevelEvent) return;
  char text[kTokenTextSize];
  formatGatewayToken(&token, text);
  TRACE_EVENT(2030, "stapi_zeb_gwytok.createGatewayToken(&gwTokPtr=%p) %s\n", gwTokPtr, text);
}

// createHeldToken without its lines for entry and exit. gwTokPtr is only checked for
// null and printed.
int buildToken(GatewayToken** gwTokPtr, const char* hostname, int port,
               GatewayToken*& newToken) noexcept {
  if (gwTokPtr == nullptr) return ZEB_TOKEN_POINTER_NULL;
  Block<GatewayToken> made;
  int rc = allocateToken(made, port);
  if (rc != 0) return rc;
  rc = chainGatewayToken(made.get());
  if (rc != 0) {
    discardBuffers(*made);
    return rc;
  }
  GatewayToken* const token = made.release();
  rc = connectToken(*token, hostname);
  if (rc != 0) {
    removeHeldToken(token);
    return rc;
  }
  token->handedOut = token->connRSToken->handedOut = true;
  showNewToken(gwTokPtr, *token);
  newToken = token;
  return 0;
}

// Removes up to kRunawayLimit tokens from the list with beginRemoval; the caller holds gtlLock.
// Returns the first one, and their number in count. They stay chained, and the caller follows
// the chain.
GatewayToken* takeAll(int& count) noexcept {
  GatewayToken* const first = gtListHeadPtr;
  for (count = 0; gtListHeadPtr != nullptr && count < kRunawayLimit; ++count)
    beginRemoval(*gtListHeadPtr, nullptr);
  return first;
}

// deleteGatewayTokens without its lines for entry and exit. All tokens are removed first, which
// wakes the calls that use them, and then closed one after the other without gtlLock. After the
// deadline the gateways are told without waiting for their answers, as long as there is time.
int deleteAll(int& count) noexcept {
  GatewayToken* token;
  int taken;
  {
    const LockGuard guard(gtlLock);
    token = takeAll(taken);
    if (token == nullptr)
      TRACE_EVENT(2041, "stapi_zeb_gwytok.deleteGatewayTokens() GTL is EMPTY\n");
  }
  if (token == nullptr) return kNothingToWalk;
  for (count = 1;; ++count) {
    GatewayToken* const next = token->nextGwyTokPtr;
    char text[kTokenTextSize];
    formatGatewayToken(token, text);
    TRACE_EVENT(2042, "stapi_zeb_gwytok.deleteGatewayTokens(indexToken=%p) GTL entry %4.4d: %s\n",
                token, count, text);
    deleteToken(&token, 0, isOverdue() ? abandonUnlistedToken : removeUnlistedToken);
    if (count == taken) break;
    token = next;
  }
  if (count < kRunawayLimit) return 0;
  TRACE_EXC(2043,
            "stapi_zeb_gwytok.deleteGatewayTokensGTL iteration has hit RUNAWAY limit %d.....\n",
            kRunawayLimit);
  return kListRunaway;
}

// Writes the list to the trace. The caller holds gtlLock and traceLock. Returns 0, kNothingToWalk
// or kListRunaway, and in count the number of tokens written.
int dumpList(int& count) noexcept {
  writeRaw("Gateway Token List dump\n");
  writeRule();
  if (gtListHeadPtr == nullptr) {
    writeRaw("The Gateway Token List is EMPTY\n");
    writeRule();
    return kNothingToWalk;
  }
  for (const GatewayToken* token = gtListHeadPtr; token != nullptr && count < kRunawayLimit;
       token = token->nextGwyTokPtr) {
    char text[kTokenTextSize];
    formatGatewayToken(token, text);
    writeRaw("Gateway Token List entry -%4.4d- : %s\n", ++count, text);
    if (token->connRSToken != nullptr) writeResultSet(*token->connRSToken);
  }
  writeRaw("Total number of Gateway Token List entries=%d\n", count);
  writeRule();
  return count == kRunawayLimit ? kListRunaway : 0;
}

}  // namespace

int findGatewayToken(const GatewayToken* target, GatewayToken** parent) noexcept {
  TRACE_ENTRY(2003, "stapi_zeb_gwytok.findGatewayToken(target=%p,&parent=%p)\n", target, parent);
  const int rc = searchList(target, parent);
  TRACE_EXIT(2004, "stapi_zeb_gwytok.findGatewayToken(target=%p,&parent=%p) rc=%d\n", target,
             parent, rc);
  return rc;
}

int createHeldToken(GatewayToken** gwTokPtr, const char* hostname, int port,
                    GatewayToken*& newToken) noexcept {
  TRACE_ENTRY(2023, "stapi_zeb_gwytok.createGatewayToken(&gwTokPtr=%p,port=%d)\n", gwTokPtr, port);
  const int rc = buildToken(gwTokPtr, hostname, port, newToken);
  TRACE_EXIT(2024, "stapi_zeb_gwytok.createGatewayToken(&gwTokPtr=%p,port=%d) rc=%d\n", gwTokPtr,
             port, rc);
  return rc;
}

int enterToken(GatewayToken* token) noexcept {
  return verifyToken(token, token);
}

// Not inlined, because g++ 12 would warn that the token might have been freed before.
[[gnu::noinline]] bool leaveToken(GatewayToken* token) noexcept {
  const std::uint32_t before = holdsOf(*token).fetch_sub(1);
  if ((before & kRemoved) == 0) return true;
  if (before == kRemoved + 1) deleteToken(&token, 0, destroyLeftToken);
  return false;
}

void removeHeldToken(GatewayToken* token) noexcept {
  // After the shutdown, the close request of the deletion sends nothing and waits for nothing.
  shutdown(token->socket, SHUT_RDWR);
  // The deletion gives back the hold. It fails if another thread has removed the token already;
  // then the hold is given back here.
  if (deleteGatewayToken(&token, 1) != 0) leaveToken(token);
}

void lockListForFork() noexcept {
  isListLockedForFork = lockForFork(gtlLock);
}

void unlockListAfterFork() noexcept {
  if (isListLockedForFork) unlockAfterFork(gtlLock);
}

}  // namespace zeb

using namespace zeb;

int initGTL(void) noexcept {
  // quirk: the ENTRY line repeats the time stamp of the last line
  ZEB_TRACE_WITH(writeTraceLineSameTime, traceLevel() >= kLevelFunction, timeStamp, "ENTRY", 2000,
                 "stapi_zeb_gwytok.initGTL()\n");
  const int initLockRc = initializeLock(&gtlLock);
  TRACE_EXIT(2001, "stapi_zeb_gwytok.initGTL() initLockRc=%d, rc=%d\n", initLockRc,
             initLockRc == 0 || initLockRc == 1 ? 0 : ZEB_TRACE_LOCK_FAILED);
  return initLockRc;
}

// Writes no trace line, because dumpList calls it with traceLock held.
int formatGatewayToken(const GatewayToken* token, char* dst) noexcept {
  if (dst == nullptr) return ZEB_BUFFER_NULL;
  if (token == nullptr) {
    strcpy(dst, "GatwayToken(NULL)");
    return 0;
  }
  snprintf(
      dst, kTokenTextMinimum,
      "GatwayToken(%p) eyecatcher(%8.8s) port(%d) connStatus(%d) socket(%d) connRSToken(%p) resultSetBuf(%p) "
      "owningPid(%8.8X) owningTid(%8.8X) nextGwyTokPtr(%p)",
      static_cast<const void*>(token), token->eyecatcher, token->port,
      readShared(token->connStatus), readShared(token->socket),
      static_cast<const void*>(token->connRSToken), token->resultSetBuf, token->owningPid,
      shownTid(token->owningTid), static_cast<const void*>(readShared(token->nextGwyTokPtr)));
  return 0;
}

int dumpGatewayTokens(void) noexcept {
  int rc;
  int count = 0;
  TRACE_ENTRY(2022, "stapi_zeb_gwytok.dumpGatewayTokens()\n");
  {
    const LockGuard listGuard(gtlLock);
    const LockGuard traceGuard(traceLock);
    rc = dumpList(count);
  }
  if (rc == kListRunaway) {
    TRACE_EXC(
        2002,
        "stapi_zeb_gwytok.dumpGatewayTokensGateway Token List iteration has hit RUNAWAY limit %d.....\n",
        kRunawayLimit);
  }
  TRACE_EXIT(2044, "stapi_zeb_gwytok.dumpGatewayTokens() List length=%d rc=%d\n", count, rc);
  return rc;
}

int createGatewayToken(GatewayToken** gwTokPtr, const char* hostname, int port) noexcept {
  GatewayToken* token = nullptr;
  const int rc = createHeldToken(gwTokPtr, hostname, port, token);
  if (rc != 0) return rc;
  if (!leaveToken(token)) return ZEB_TOKEN_UNKNOWN;
  *gwTokPtr = token;
  return 0;
}

int verifyGatewayToken(const GatewayToken* gwTokPtr) noexcept {
  return verifyToken(gwTokPtr, nullptr);
}

int deleteGatewayToken(GatewayToken** gwTokPtr, int lockRequired) noexcept {
  return deleteToken(gwTokPtr, lockRequired,
                     lockRequired == 1 ? removeListedToken : removeHeadToken);
}

int deleteGatewayTokens(void) noexcept {
  int count = 0;
  TRACE_ENTRY(2039, "stapi_zeb_gwytok.deleteGatewayTokens()\n");
  const int rc = deleteAll(count);
  TRACE_EXIT(2040, "stapi_zeb_gwytok.deleteGatewayTokens() Entries deleted=%d rc=%d\n", count, rc);
  return rc;
}
