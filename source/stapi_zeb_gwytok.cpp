// Gateway tokens, one for each open connection, and the Gateway Token List that holds them all.
//
// gtlLock guards the head, the tail, every next pointer and, while a token is in the list, its freeing; it is
// taken before traceLock. The slow work of creation runs without it, on a token that is in the list already:
// its creator notes the token in creations, and who deletes it meanwhile only unlinks it and leaves the memory
// to the creator.

#include "stapi_zeb_gwytok.h"

#include <stdlib.h>

#include <cstring>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_lock.h"
#include "stapi_zeb_memory.h"
#include "stapi_zeb_resultsetbuffer.h"
#include "stapi_zeb_version.h"

extern "C" {
extern const char stapi_zeb_gwytok_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_gwytok_notice[] = ZEB_NOTICE("stapi_zeb_gwytok");
}

namespace zeb {
namespace {

enum ConnStatus { kCreated, kConnected, kNotConnected, kCloseFailed, kClosed };

// A token that is being created by some thread, on whose stack this record stands.
struct Creation {
  const GatewayToken* token;
  bool removed;  // deleted from the list by another thread
  Creation* next;
};

GatewayToken* gtListHeadPtr = nullptr;
GatewayToken* gtListTailPtr = nullptr;  // stands where it was when the list becomes empty
Creation* creations = nullptr;
LockRecord gtlLock = {};

Creation* findCreation(const GatewayToken* token) noexcept {
  Creation* creation = creations;
  while (creation != nullptr && creation->token != token) creation = creation->next;
  return creation;
}

// Returns whether the token is in the list still.
bool endCreation(const Creation& creation) noexcept {
  Creation** link = &creations;
  while (*link != &creation) link = &(*link)->next;
  *link = creation.next;
  return !creation.removed;
}

int searchList(const GatewayToken* target, GatewayToken** parent) noexcept {
  if (target == nullptr) {
    TRACE_EXC(2005, "stapi_zeb_gwytok.findGatewayToken() Target was a null token\n");
    return kTargetNull;
  }
  if (gtListHeadPtr == nullptr) {
    // kept: an empty list is reported this way
    TRACE_EXC(2006, "stapi_zeb_gwytok.findGatewayToken() GTL state is corrupt - head(%p) tail (%p)\n",
              gtListHeadPtr, gtListTailPtr);
    return kListEmpty;
  }
  int rc = target == gtListHeadPtr ? kTokenFound : kTokenNotFound;
  GatewayToken* before = nullptr;
  int stepped = 0;
  if (rc != kTokenFound) {
    int countdown = kRunawayLimit + 1;
    for (before = gtListHeadPtr; before->nextGwyTokPtr != nullptr;
         before = before->nextGwyTokPtr, ++stepped) {
      if (--countdown == 0) break;
      if (before->nextGwyTokPtr == target) {
        rc = kTokenFound;
        break;
      }
    }
    if (rc != kTokenFound && stepped == kRunawayLimit) rc = kListRunaway;
  }
  if (rc == kListRunaway) {
    TRACE_EXC(2007, "stapi_zeb_gwytok.findGatewayTokenGTL iteration has hit RUNAWAY limit %d.....\n",
              kRunawayLimit);
  } else if (rc == kTokenFound) {
    TRACE_DEBUG(2008, "stapi_zeb_gwytok.findGatewayTokenTarget token found at GTL Entry(%d)\n", stepped);
    if (parent != nullptr) *parent = before;
  } else {
    TRACE_DEBUG(
        2009, "stapi_zeb_gwytok.findGatewayTokenTarget token not found. GTL entries(%d) head(%p) last(%p)\n",
        stepped + 1, gtListHeadPtr, before);
  }
  return rc;
}

int checkOwner(std::uint32_t owningPid, ThreadId owningTid) noexcept {
  std::uint32_t pid;
  ThreadId tid;
  getPidTid(&pid, &tid);
  if (pid != owningPid) {
    TRACE_EXC(2013, "stapi_zeb_gwytok.verifyGatewayToken PID mismatch: currentPid=%d, owningPid=%d\n",
              static_cast<int>(pid), static_cast<int>(owningPid));
    return ZEB_OTHER_PROCESS;
  }
  if (compareTids(tid, owningTid) == 0) {
    TRACE_EXC(2014, "stapi_zeb_gwytok.verifyGatewayToken TID mismatch: currentTid=%d, owningTid=%d\n",
              static_cast<int>(shownTid(tid)), static_cast<int>(shownTid(owningTid)));
    return ZEB_OTHER_THREAD;
  }
  return 0;
}

void deleteTokenResultSet(GatewayToken& token) noexcept {
  const int rc = deleteResultSet(&token.connRSToken);
  if (rc != 0) TRACE_EXC(2017, "stapi_zeb_gwytok.deleteGatewayToken Unable to delete ResultSet. rc=%d\n", rc);
}

// Everything a token holds, but not the token.
void releaseToken(GatewayToken& token) noexcept {
  deleteTokenResultSet(token);
  if (token.resultSetBuf != nullptr) {
    TRACE_DEBUG(2018, "stapi_zeb_gwytok.deleteGatewayToken About to free resultSetBuffer (%p)\n",
                token.resultSetBuf);
    free(token.resultSetBuf);
    token.resultSetBuf = nullptr;
  }
  if (token.protocolVersion != nullptr) {
    TRACE_DEBUG(2019, "stapi_zeb_gwytok.deleteGatewayToken About to free protocolVersion String (%p)\n",
                token.protocolVersion);
    free(token.protocolVersion);
    token.protocolVersion = nullptr;
  }
}

void closeAndReleaseToken(GatewayToken& token) noexcept {
  token.connStatus = closeConnection(&token.socket) != 0 ? kCloseFailed : kClosed;
  releaseToken(token);
}

void unlinkToken(const GatewayToken& token, GatewayToken* parent) noexcept {
  if (parent == nullptr) {
    gtListHeadPtr = token.nextGwyTokPtr;
    return;
  }
  parent->nextGwyTokPtr = token.nextGwyTokPtr;
  if (parent->nextGwyTokPtr == nullptr) gtListTailPtr = parent;
}

void freeToken(GatewayToken** gwTokPtr) noexcept {
  TRACE_DEBUG(2020, "stapi_zeb_gwytok.deleteGatewayToken(&gwTokPtr=%p) Free gateway token(%p) \n", gwTokPtr,
              *gwTokPtr);
  free(*gwTokPtr);
  *gwTokPtr = nullptr;
  TRACE_DEBUG(2021, "stapi_zeb_gwytok.deleteGatewayToken(&gwTokPtr=%p) Freed gateway token(%p) \n", gwTokPtr,
              *gwTokPtr);
}

// The caller holds gtlLock, and parent is the token ahead of *gwTokPtr.
void removeToken(GatewayToken** gwTokPtr, GatewayToken* parent) noexcept {
  GatewayToken& token = **gwTokPtr;
  if (Creation* creation = findCreation(&token); creation != nullptr) {
    TRACE_DEBUG(2022,
                "stapi_zeb_gwytok.deleteGatewayToken(&gwTokPtr=%p) Left gateway token(%p) to its creator\n",
                gwTokPtr, &token);
    creation->removed = true;
    unlinkToken(token, parent);
    *gwTokPtr = nullptr;
    return;
  }
  closeAndReleaseToken(token);
  unlinkToken(token, parent);
  freeToken(gwTokPtr);
}

int removeListedToken(GatewayToken** gwTokPtr) noexcept {
  const LockGuard guard(gtlLock);
  GatewayToken* parent = nullptr;
  if (findGatewayToken(*gwTokPtr, &parent) != kTokenFound) return ZEB_TOKEN_UNKNOWN;
  removeToken(gwTokPtr, parent);
  return 0;
}

int removeHeadToken(GatewayToken** gwTokPtr) noexcept {
  removeToken(gwTokPtr, nullptr);
  return 0;
}

// Of a token that is known to be in the list, however long that is; the caller holds gtlLock.
int removeOwnToken(GatewayToken** gwTokPtr) noexcept {
  GatewayToken* parent = nullptr;
  if (findGatewayToken(*gwTokPtr, &parent) != kTokenFound) {  // the list is longer than it searches
    for (GatewayToken* listed = gtListHeadPtr; listed != *gwTokPtr; listed = listed->nextGwyTokPtr)
      parent = listed;
  }
  removeToken(gwTokPtr, parent);
  return 0;
}

int deleteToken(GatewayToken** gwTokPtr, int lockRequired, int (*remove)(GatewayToken**) noexcept) noexcept {
  int rc;
  TRACE_ENTRY(2015, "stapi_zeb_gwytok.deleteGatewayToken(&gwTokPtr=%p, lockRequired=%d)\n", gwTokPtr,
              lockRequired);
  if (gwTokPtr == nullptr) {
    rc = ZEB_TOKEN_POINTER_NULL;
  } else if (*gwTokPtr == nullptr) {
    rc = ZEB_TOKEN_NULL;
  } else {
    rc = remove(gwTokPtr);
  }
  TRACE_EXIT(2016, "stapi_zeb_gwytok.deleteGatewayToken(&gwTokPtr=%p, lockRequired=%d) rc=%d\n", gwTokPtr,
             lockRequired, rc);
  return rc;
}

int chainGatewayToken(GatewayToken* token, Creation& creation) noexcept {
  int rc = 0;
  TRACE_ENTRY(2031, "stapi_zeb_gwytok.chainGatewayToken(&gwTokPtr=%p)\n", token);
  {
    const LockGuard guard(gtlLock);
    if (token == nullptr) {
      rc = ZEB_TOKEN_POINTER_NULL;
      TRACE_EXC(2032, "stapi_zeb_gwytok.chainGatewayToken() Chain request was for a null token\n");
    } else if (gtListHeadPtr == nullptr) {
      gtListHeadPtr = gtListTailPtr = token;
    } else if (gtListTailPtr == nullptr) {
      rc = ZEB_TOKEN_LIST_CORRUPT;
      TRACE_EXC(2033, "stapi_zeb_gwytok.chainGatewayToken() GTL state is corrupt - head(%p) tail (%p)\n",
                gtListHeadPtr, gtListTailPtr);
    } else {
      gtListTailPtr->nextGwyTokPtr = token;
      gtListTailPtr = token;
    }
    if (rc == 0) {
      creation = {token, false, creations};
      creations = &creation;
    }
  }
  TRACE_EXIT(2034, "stapi_zeb_gwytok.chainGatewayToken(&gwTokPtr=%p) rc=%d\n", token, rc);
  return rc;
}

int mapConnectCode(int connectRc) noexcept {
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

int openStatsSocket(GatewayToken& token, const char* hostname) noexcept {
  TRACE_ENTRY(2035, "stapi_zeb_gwytok.openStatsSocket(gwTokPtr=%p) Attempting to connect to %s:%d\n", &token,
              textToShow(hostname), token.port);
  int socket = -1;
  const int connectRc = connectToGateway(token.port, hostname, &socket);
  {
    const LockGuard guard(gtlLock);  // a dump may be reading the token
    token.socket = socket;
    token.connStatus = connectRc == 0 ? kConnected : kNotConnected;
  }
  if (connectRc == 0) {
    TRACE_EVENT(2036,
                "stapi_zeb_gwytok.openStatsSocket() Connected to Gateway %s:%u - socketDescriptor(%d)\n",
                textToShow(hostname), static_cast<unsigned>(token.port), socket);
  } else {
    TRACE_EXC(2037, "stapi_zeb_gwytok.openStatsSocket() Failed to connect to Gateway %s:%u\n",
              textToShow(hostname), static_cast<unsigned>(token.port));
  }
  const int rc = mapConnectCode(connectRc);
  TRACE_EXIT(2038, "stapi_zeb_gwytok.openStatsSocket(gwTokPtr=%p, hostname=%s, port=%d) rc=%d\n", &token,
             textToShow(hostname), token.port, rc);
  return rc;
}

int askProtocolVersion(GatewayToken& token) noexcept {
  reasons status = {};
  const int rc = statProtocolVer(&token, &status);
  if (rc == 0) return 0;
  TRACE_EVENT(2029, "stapi_zeb_gwytok.createGatewayToken Removing GatewayToken %p due to comms failure %d\n",
              &token, rc);
  const bool lost = rc == kFlowFailed || (rc == kGatewayRefused && status.gwyRc == kGatewayConnectionGone);
  return lost ? ZEB_CONNECTION_LOST : ZEB_COMMUNICATION_FAILED;
}

// The memory of a token: the record, its result set and its buffers.
int allocateToken(Block<GatewayToken>& token, int port) noexcept {
  constexpr int recordSize = sizeof(GatewayToken);
  token = allocate<GatewayToken>();
  TRACE_DEBUG(2025, "stapi_zeb_gwytok.createGatewayToken Called malloc for %d bytes. rc=%p\n", recordSize,
              token.get());
  if (token == nullptr) {
    TRACE_EXC(2026, "stapi_zeb_gwytok.createGatewayToken Failed to allocate %d bytes\n", recordSize);
    return ZEB_NO_MEMORY;
  }
  *token = {};
  memcpy(token->eyecatcher, "ZEBGWTOK", sizeof token->eyecatcher);
  token->port = port;
  token->socket = -1;  // a token that never gets a socket closes nobody else's
  const int rc = createResultSet(&token->connRSToken, "ZEBRSROB", kOwnerGateway);
  if (rc != 0) {
    TRACE_EXC(2027, "stapi_zeb_gwytok.createGatewayToken Creation of resultset failed rc=%d\n", rc);
    return rc;
  }
  getPidTid(&token->owningPid, &token->owningTid);
  token->protocolVersion = allocate<char>(kProtocolVersionSize).release();
  constexpr int bufferSize = kResultSetBufferSize;
  token->resultSetBuf = allocate<char>(kResultSetBufferSize).release();
  TRACE_DEBUG(2025, "stapi_zeb_gwytok.createGatewayToken Called malloc for %d bytes. rc=%p\n", bufferSize,
              token->resultSetBuf);
  if (token->resultSetBuf == nullptr) {
    TRACE_EXC(2028, "stapi_zeb_gwytok.createGatewayToken Failed to allocate %d bytes.\n", bufferSize);
    releaseToken(*token);
    return ZEB_NO_MEMORY;
  }
  sealBuffer(token->resultSetBuf);
  token->connRSToken->head = token->connRSToken->next = token->resultSetBuf;
  return 0;
}

// Ends a creation whose connection stands, or fell with rc.
int finishCreation(GatewayToken** gwTokPtr, GatewayToken* token, const Creation& creation, int rc) noexcept {
  bool listed;
  char text[kTokenTextSize];
  {
    const LockGuard guard(gtlLock);
    listed = endCreation(creation);
    if (listed && rc == 0) formatGatewayToken(token, text);
    if (listed && rc != 0) deleteToken(&token, 1, removeOwnToken);
  }
  if (!listed) {  // closed by another thread in the meantime: nobody else knows of it any more
    closeAndReleaseToken(*token);
    freeToken(&token);
    if (rc == 0) rc = ZEB_TOKEN_UNKNOWN;
  }
  if (rc != 0) return rc;
  TRACE_EVENT(2030, "stapi_zeb_gwytok.createGatewayToken(&gwTokPtr=%p) %s\n", gwTokPtr, text);
  *gwTokPtr = token;
  return 0;
}

int buildToken(GatewayToken** gwTokPtr, const char* hostname, int port) noexcept {
  Block<GatewayToken> made;
  int rc = allocateToken(made, port);
  if (rc != 0) return rc;
  Creation creation = {};
  rc = chainGatewayToken(made.get(), creation);
  if (rc != 0) {
    releaseToken(*made);
    return rc;
  }
  GatewayToken* token = made.release();
  rc = openStatsSocket(*token, hostname);
  if (rc == 0) rc = askProtocolVersion(*token);
  return finishCreation(gwTokPtr, token, creation, rc);
}

int deleteAll(int& count) noexcept {
  const LockGuard guard(gtlLock);
  if (gtListHeadPtr == nullptr) {
    TRACE_EVENT(2041, "stapi_zeb_gwytok.deleteGatewayTokens() GTL is EMPTY\n");
    return kNothingToWalk;
  }
  while (gtListHeadPtr != nullptr && count < kRunawayLimit) {
    ++count;
    char text[kTokenTextSize];
    formatGatewayToken(gtListHeadPtr, text);
    TRACE_EVENT(2042, "stapi_zeb_gwytok.deleteGatewayTokens(indexToken=%p) GTL entry %4.4d: %s\n",
                gtListHeadPtr, count, text);
    GatewayToken* head = gtListHeadPtr;
    deleteGatewayToken(&head, 0);
  }
  if (count < kRunawayLimit) return 0;
  TRACE_EXC(2043, "stapi_zeb_gwytok.deleteGatewayTokensGTL iteration has hit RUNAWAY limit %d.....\n",
            kRunawayLimit);
  return kListRunaway;
}

// The caller holds gtlLock and traceLock.
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
  TRACE_EXIT(2004, "stapi_zeb_gwytok.findGatewayToken(target=%p,&parent=%p) rc=%d\n", target, parent, rc);
  return rc;
}

const char* readProtocolVersion(const GatewayToken* token, char (&dst)[kProtocolVersionSize]) noexcept {
  const LockGuard guard(gtlLock);
  const GatewayToken* listed = gtListHeadPtr;
  while (listed != nullptr && listed != token) listed = listed->nextGwyTokPtr;
  if (listed == nullptr || listed->protocolVersion == nullptr) return nullptr;
  return strcpy(dst, listed->protocolVersion);
}

}  // namespace zeb

using namespace zeb;

int initGTL(void) noexcept {
  // kept: the ENTRY line repeats the time of the line before
  ZEB_TRACE_WITH(writeTraceLineSameTime, traceLevel() >= kLevelFunction, timeStamp, "ENTRY", 2000,
                 "stapi_zeb_gwytok.initGTL()\n");
  const int initLockRc = initializeLock(&gtlLock);
  TRACE_EXIT(2001, "stapi_zeb_gwytok.initGTL() initLockRc=%d, rc=%d\n", initLockRc,
             initLockRc == 0 || initLockRc == 1 ? 0 : ZEB_TRACE_LOCK_FAILED);
  return initLockRc;
}

// Writes no trace line: the list's dump calls it with traceLock held.
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
      static_cast<const void*>(token), token->eyecatcher, token->port, token->connStatus, token->socket,
      static_cast<const void*>(token->connRSToken), token->resultSetBuf, token->owningPid,
      shownTid(token->owningTid), static_cast<const void*>(token->nextGwyTokPtr));
  return 0;
}

int dumpGatewayTokens(void) noexcept {
  int rc;
  int count = 0;
  TRACE_ENTRY(2044, "stapi_zeb_gwytok.dumpGatewayTokens()\n");
  {
    const LockGuard listGuard(gtlLock);
    const LockGuard traceGuard(traceLock);
    rc = dumpList(count);
    flushTrace();
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
  TRACE_ENTRY(2023, "stapi_zeb_gwytok.createGatewayToken(&gwTokPtr=%p,port=%d)\n", gwTokPtr, port);
  const int rc = buildToken(gwTokPtr, hostname, port);
  TRACE_EXIT(2024, "stapi_zeb_gwytok.createGatewayToken(&gwTokPtr=%p,port=%d) rc=%d\n", gwTokPtr, port, rc);
  return rc;
}

int verifyGatewayToken(const GatewayToken* gwTokPtr) noexcept {
  TRACE_ENTRY(2010, "stapi_zeb_gwytok.verifyGatewayToken(&gwTokPtr=%p)\n", gwTokPtr);
  std::uint32_t owningPid = 0;
  ThreadId owningTid = {};
  int findRc;
  {
    const LockGuard guard(gtlLock);
    findRc = findGatewayToken(gwTokPtr, nullptr);
    if (findRc == kTokenFound) {
      owningPid = gwTokPtr->owningPid;
      owningTid = gwTokPtr->owningTid;
    }
  }
  int rc = ZEB_TOKEN_UNKNOWN;
  if (findRc == kTokenFound) {
    rc = checkOwner(owningPid, owningTid);
  } else {
    TRACE_EXC(2012, "stapi_zeb_gwytok.verifyGatewayToken(&gwTokPtr=%p) Gateway token not found - findRc=%d\n",
              gwTokPtr, findRc);
  }
  TRACE_EXIT(2011, "stapi_zeb_gwytok.verifyGatewayToken(&gwTokPtr=%p) rc=%d\n", gwTokPtr, rc);
  return rc;
}

int deleteGatewayToken(GatewayToken** gwTokPtr, int lockRequired) noexcept {
  return deleteToken(gwTokPtr, lockRequired, lockRequired == 1 ? removeListedToken : removeHeadToken);
}

int deleteGatewayTokens(void) noexcept {
  int count = 0;
  TRACE_ENTRY(2039, "stapi_zeb_gwytok.deleteGatewayTokens()\n");
  const int rc = deleteAll(count);
  TRACE_EXIT(2040, "stapi_zeb_gwytok.deleteGatewayTokens() Entries deleted=%d rc=%d\n", count, rc);
  return rc;
}
