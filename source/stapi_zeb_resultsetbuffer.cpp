// Result set tokens, and the exported operations on their buffers.
//
// A token has no lock: the owner check confines the result set of a connection to the thread that
// opened it, and the host must not use a copy in two threads at once.
//
// Programs parse the texts of the trace points, so oddities in them stay as they are.

#include "stapi_zeb_resultsetbuffer.h"

#include <stdlib.h>

#include <utility>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_lock.h"
#include "stapi_zeb_memory.h"
#include "stapi_zeb_version.h"

extern "C" {
extern const char stapi_zeb_resultsetbuffer_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_resultsetbuffer_notice[] = ZEB_NOTICE("stapi_zeb_resultsetbuffer");
}

namespace zeb {
namespace {

int makeResultSet(ResultSetToken** newRsTokPtr, const char* eyecatcher,
                  std::uint32_t owner) noexcept {
  if (newRsTokPtr == nullptr || eyecatcher == nullptr) return ZEB_BUFFER_NULL;
  if (owner != kOwnerGateway && owner != kOwnerUser) return ZEB_OWNER_INVALID;
  constexpr int recordSize = sizeof(ResultSetToken);

  Block<ResultSetToken> token = allocate<ResultSetToken>();
  TRACE_DEBUG(5002, "stapi_zeb_resultsetbuffer.createResultSet Called malloc for %d bytes. rc=%p\n",
              recordSize, token.get());
  if (token == nullptr) {
    TRACE_EXC(5003, "stapi_zeb_resultsetbuffer.createResultSet Failed to allocate %d bytes\n",
              recordSize);
    *newRsTokPtr = nullptr;
    return ZEB_NO_MEMORY;
  }
  *token = {};
  Block<char> queryString = allocate<char>(kQueryStringSize);
  TRACE_DEBUG(5004, "stapi_zeb_resultsetbuffer.createResultSet Called malloc for %d bytes. rc=%p\n",
              static_cast<int>(kQueryStringSize), queryString.get());
  if (queryString == nullptr) {
    // quirk: the line shows the size of the record, not of the string, and unlike after the failure
    // above, *newRsTokPtr keeps its old value
    TRACE_EXC(5005, "stapi_zeb_resultsetbuffer.createResultSet Failed to allocate %d bytes\n",
              recordSize);
    return ZEB_NO_MEMORY;
  }

  memcpy(token->eyecatcher, eyecatcher, strnlen(eyecatcher, sizeof token->eyecatcher));
  token->owner = owner;
  token->verifiedQueryString = queryString.release();
  if (owner == kOwnerGateway) getPidTid(&token->owningPid, &token->owningTid);
  *newRsTokPtr = token.release();
  return 0;
}

// A token that the host has had stays readable for a while after its release, and has no buffer
// then, so that calls with the old handle are refused.
void releaseRecord(ResultSetToken* token) noexcept {
  if (!token->handedOut) {
    free(token);
    return;
  }
  token->head = token->next = nullptr;
  retire(token);
}

int removeResultSet(ResultSetToken** rsPtr) noexcept {
  if (rsPtr == nullptr) return ZEB_RESULT_SET_POINTER_NULL;
  ResultSetToken* token = *rsPtr;
  if (token == nullptr) return ZEB_RESULT_SET_NULL;
  if (char* string = token->verifiedQueryString; string != nullptr) {
    TRACE_DEBUG(
        5012, "stapi_zeb_resultsetbuffer.deleteResultSet Free result set verifiedQueryString(%p)\n",
        string);
    const void* const freed = addressToShow(string);
    free(string);
    // quirk: the line says token, but shows the address of the string
    TRACE_DEBUG(5013, "stapi_zeb_resultsetbuffer.deleteResultSet Freed result set token(%p)\n",
                freed);
    token->verifiedQueryString = nullptr;
  }
  free(std::exchange(token->queryCopy, nullptr));
  TRACE_DEBUG(5014, "stapi_zeb_resultsetbuffer.deleteResultSet Free result set token(%p)\n", token);
  const void* const freed = addressToShow(token);
  releaseRecord(token);
  TRACE_DEBUG(5015, "stapi_zeb_resultsetbuffer.deleteResultSet Freed result set token(%p)\n",
              freed);
  *rsPtr = nullptr;
  return 0;
}

int checkOwner(const ResultSetToken& resultSet) noexcept {
  std::uint32_t pid;
  ThreadId tid;
  getPidTid(&pid, &tid);
  if (pid != resultSet.owningPid) {
    TRACE_EXC(
        5022,
        "stapi_zeb_resultsetbuffer.verifyAPIResultSetToken PID mismatch: currentPid=%x, owningPid=%x\n",
        pid, resultSet.owningPid);
    return ZEB_OTHER_PROCESS;
  }
  const bool isSameThread = compareTids(tid, resultSet.owningTid) != 0;
  if (!isSameThread) {
    TRACE_EXC(
        5023,
        "stapi_zeb_resultsetbuffer.verifyAPIResultSetToken TID mismatch: currentTid=%x, owningTid=%x\n",
        shownTid(tid), shownTid(resultSet.owningTid));
    return ZEB_OTHER_THREAD;
  }
  return 0;
}

bool isNullCursor(char** bufWPtr) noexcept {
  return bufWPtr == nullptr || *bufWPtr == nullptr;
}

void append(char*& cursor, const void* bytes, int count) noexcept {
  if (count <= 0) return;
  memcpy(cursor, bytes, static_cast<std::size_t>(count));
  cursor += count;
}

// The two operations that copy characters. They differ only in their trace points.
struct TextCall {
  const char* name;
  bool isOwnText;  // of the library, not of the gateway
  int entryPoint;
  int refusedPoint;
  int exitPoint;
};
constexpr TextCall kAddPlatformChars = {.name = "addPlatformChars",
                                        .isOwnText = true,
                                        .entryPoint = 5053,
                                        .refusedPoint = 5054,
                                        .exitPoint = 5056};
constexpr TextCall kAddChars = {.name = "addChars",
                                .isOwnText = false,
                                .entryPoint = 5057,
                                .refusedPoint = 5058,
                                .exitPoint = 5060};

int appendText(const TextCall& call, char** bufWPtr, const char* textPtr, int charCount) noexcept {
  if (isNullCursor(bufWPtr) || (textPtr == nullptr && charCount > 0)) {
    TRACE_EXC(
        call.refusedPoint,
        "stapi_zeb_resultsetbuffer.%s(&bufWPtr=%p, textPtr=%p, charCount=%d) function received a null "
        "parameter\n",
        call.name, bufWPtr, textPtr, charCount);
    return ZEB_BUFFER_NULL;
  }
  if (call.isOwnText) {
    TRACE_DEBUG(5055,
                "stapi_zeb_resultsetbuffer.addPlatformChars() writeCursor(%p) charCount(%d) \n",
                *bufWPtr, charCount);
  } else {
    TRACE_DEBUG(
        5059,
        "stapi_zeb_resultsetbuffer.addChars() using memcpy() on writeCursor(%p) charCount(%d)\n",
        *bufWPtr, charCount);
  }
  append(*bufWPtr, textPtr, charCount);
  return 0;
}

int addText(const TextCall& call, char** bufWPtr, const char* textPtr, int charCount) noexcept {
  TRACE_ENTRY(call.entryPoint,
              "stapi_zeb_resultsetbuffer.%s(&bufWPtr=%p, textPtr=%p, charCount=%d)\n", call.name,
              bufWPtr, textPtr, charCount);
  const int rc = appendText(call, bufWPtr, textPtr, charCount);
  TRACE_EXIT(call.exitPoint,
             "stapi_zeb_resultsetbuffer.%s(&bufWPtr=%p, textPtr=%p, charCount=%d) rc=%d\n",
             call.name, bufWPtr, textPtr, charCount, rc);
  return rc;
}

// Writes the length of idString, its characters, and a NUL that the next write overwrites. The
// trace then reads back the first byte of the length, not all of it, and the first character.
void appendIdStr(char*& cursor, const char* idString) noexcept {
  const int length = static_cast<int>(strlen(idString));
  char* const lengthAt = cursor;
  append(cursor, &length, sizeof length);
  char* const textAt = cursor;
  append(cursor, idString, length);
  *cursor = '\0';
  TRACE_DEBUG(
      5063,
      "stapi_zeb_resultsetbuffer.addIdStr Wrote length value %u to address %p, which reads back as %u\n",
      static_cast<unsigned>(length), lengthAt, static_cast<unsigned char>(*lengthAt));
  TRACE_DEBUG(
      5064,
      "stapi_zeb_resultsetbuffer.addIdStr Wrote string %s len %u to address %p, first char reads back as "
      "%c\n",
      idString, static_cast<unsigned>(length), textAt, *textAt);
}

}  // namespace

void sealBuffer(char* buffer) noexcept {
  memset(buffer, 0, kDumpReach);
  addTerminator(buffer);
  memcpy(buffer + kContentSize, &kTerminator, sizeof kTerminator);
}

int writeResultSet(const ResultSetToken& resultSet) noexcept {
  writeRaw("Dump of ResultSet(%p) owner(%x) head(%p) next(%p)\n",
           static_cast<const void*>(&resultSet), resultSet.owner, resultSet.head, resultSet.next);
  writeRule();
  const int dumped = dumpStorage({.address = resultSet.head,
                                  .length = 0,
                                  .stopWord = kTerminator,
                                  .size = kResultSetBufferSize});
  writeRule();
  return dumped;
}

}  // namespace zeb

using namespace zeb;

int createResultSet(ResultSetToken** newRsTokPtr, const char* eyecatcher,
                    std::uint32_t owner) noexcept {
  TRACE_ENTRY(
      5000, "stapi_zeb_resultsetbuffer.createResultSet(&newRsTokPtr=%p, eyecatcher=%p, owner=%x)\n",
      newRsTokPtr, eyecatcher, owner);
  const int rc = makeResultSet(newRsTokPtr, eyecatcher, owner);
  TRACE_EXIT(
      5001,
      "stapi_zeb_resultsetbuffer.createResultSet(&newRsTokPtr=%p, eyecatcher=%p, owner=%x) rc=%d\n",
      newRsTokPtr, eyecatcher, owner, rc);
  return rc;
}

int deleteResultSet(ResultSetToken** rsPtr) noexcept {
  TRACE_ENTRY(5010, "stapi_zeb_resultsetbuffer.deleteResultSet(&rsPtr=%p)\n", rsPtr);
  const int rc = removeResultSet(rsPtr);
  TRACE_EXIT(5011, "stapi_zeb_resultsetbuffer.deleteResultSet(&rsPtr=%p) rc=%d\n", rsPtr, rc);
  return rc;
}

int verifyAPIResultSetTokenOwner(const ResultSetToken* rsPtr) noexcept {
  TRACE_ENTRY(5020, "stapi_zeb_resultsetbuffer.verifyAPIResultSetToken(rsPtr=%p)\n", rsPtr);
  const int rc = checkOwner(*rsPtr);
  TRACE_EXIT(5021, "stapi_zeb_resultsetbuffer.verifyAPIResultSetToken(rsPtr=%p) rc=%d\n", rsPtr,
             rc);
  return rc;
}

int dumpResultSetInternal(const ResultSetToken* rsPtr) noexcept {
  int rc = 0;
  int dumped = 0;
  TRACE_ENTRY(5030, "stapi_zeb_resultsetbuffer.dumpResultSetInternal(rsPtr=%p)\n", rsPtr);
  if (rsPtr == nullptr) {
    rc = ZEB_BUFFER_NULL;
  } else {
    const LockGuard guard(traceLock);
    dumped = writeResultSet(*rsPtr);
  }
  TRACE_EXIT(5031,
             "stapi_zeb_resultsetbuffer.dumpResultSetInternal(rsPtr=%p) bytes dumped=%d rc=%d\n",
             rsPtr, dumped, rc);
  return rc;
}

int addTerminator(char* writeCursor) noexcept {
  int rc = 0;
  TRACE_ENTRY(5040, "stapi_zeb_resultsetbuffer.addTerminator(writeCursor=%p)\n", writeCursor);
  if (writeCursor == nullptr) {
    rc = ZEB_BUFFER_NULL;
    TRACE_EXC(
        5041,
        "stapi_zeb_resultsetbuffer.addTerminator(writeCursor=%p) function received a null parameter\n",
        writeCursor);
  } else {
    memcpy(writeCursor, &kTerminator, sizeof kTerminator);
  }
  TRACE_EXIT(5042, "stapi_zeb_resultsetbuffer.addTerminator(writeCursor=%p) rc=%d\n", writeCursor,
             rc);
  return rc;
}

int checkTerminator(const char* dataCursor, int* isRSTermPtr) noexcept {
  int rc = 0;
  TRACE_ENTRY(5043, "stapi_zeb_resultsetbuffer.checkTerminator(dataCursor=%p, isRSTermPtr=%p)\n",
              dataCursor, isRSTermPtr);
  if (dataCursor == nullptr || isRSTermPtr == nullptr) {
    rc = ZEB_BUFFER_NULL;
    TRACE_EXC(
        5044,
        "stapi_zeb_resultsetbuffer.checkTerminator(dataCursor=%p, isRSTermPtr=%p) function received a null "
        "parameter\n",
        dataCursor, isRSTermPtr);
  } else {
    *isRSTermPtr = isTerminator(dataCursor) ? 1 : 0;
    TRACE_DEBUG(5045, "stapi_zeb_resultsetbuffer.checkTerminator(dataCursor=%p, *isRSTermPtr=%d)\n",
                dataCursor, *isRSTermPtr);
  }
  TRACE_EXIT(5046,
             "stapi_zeb_resultsetbuffer.checkTerminator(dataCursor=%p, isRSTermPtr=%p) rc=%d\n",
             dataCursor, isRSTermPtr, rc);
  return rc;
}

int addInteger(char** bufWPtr, int rsInt) noexcept {
  int rc = 0;
  TRACE_ENTRY(5050, "stapi_zeb_resultsetbuffer.addInteger(&bufWPtr=%p, rsInt=%d)\n", bufWPtr,
              rsInt);
  if (isNullCursor(bufWPtr)) {
    rc = ZEB_BUFFER_NULL;
    TRACE_EXC(
        5051,
        "stapi_zeb_resultsetbuffer.addInteger(&bufWPtr=%p) function received a null parameter\n",
        bufWPtr);
  } else {
    append(*bufWPtr, &rsInt, sizeof rsInt);
  }
  TRACE_EXIT(5052, "stapi_zeb_resultsetbuffer.addInteger(&bufWPtr=%p, rsInt=%d) rc=%d\n", bufWPtr,
             rsInt, rc);
  return rc;
}

int addPlatformChars(char** bufWPtr, const char* textPtr, int charCount) noexcept {
  return addText(kAddPlatformChars, bufWPtr, textPtr, charCount);
}

int addChars(char** bufWPtr, const char* textPtr, int charCount) noexcept {
  return addText(kAddChars, bufWPtr, textPtr, charCount);
}

int addIdStr(char** bufWPtr, const char* idString) noexcept {
  int rc = 0;
  TRACE_ENTRY(5061, "stapi_zeb_resultsetbuffer.addIdStr(&bufWPtr=%p, idString=%p)\n", bufWPtr,
              idString);
  if (isNullCursor(bufWPtr) || idString == nullptr) {
    rc = ZEB_BUFFER_NULL;
    TRACE_EXC(
        5062,
        "stapi_zeb_resultsetbuffer.addIdStr(&bufWPtr=%p, idString=%p) function received a null parameter\n",
        bufWPtr, idString);
  } else {
    appendIdStr(*bufWPtr, idString);
  }
  TRACE_EXIT(5065, "stapi_zeb_resultsetbuffer.addIdStr(&bufWPtr=%p, idString=%p) rc=%d\n", bufWPtr,
             idString, rc);
  return rc;
}
