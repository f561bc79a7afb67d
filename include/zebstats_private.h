// The records that the library's modules share, and the calls by which they reach each other.
//
// The functions here are exported under C linkage for diagnosis and for the library's own tools; they are not
// part of the public interface, and their callers must keep the rules told beside each module's declarations.
#ifndef ZEBSTATS_PRIVATE_H
#define ZEBSTATS_PRIVATE_H

#include <pthread.h>
#include <stdio.h>

#include <cstddef>
#include <cstdint>

#include "zebstats.h"

// Exported, but not for the callers of the library.
#define ZEB_INTERNAL ZEB_API
#define ZEB_INTERNAL_DATA __attribute__((visibility("default")))

// ---- Sizes and marks ---------------------------------------------------------------------------------------

constexpr std::size_t kResultSetBufferSize = 153600;
constexpr std::size_t kQueryStringSize = 32000;  // verifiedQueryString, its NUL included
constexpr std::size_t kProtocolVersionSize = 64;
constexpr std::size_t kTraceFilenameSize = 1024;
constexpr std::size_t kTokenTextMinimum = 256;  // what formatGatewayToken may fill
constexpr std::size_t kTokenTextSize = 512;
constexpr std::size_t kMaxQueryLength = 32765;
constexpr int kRunawayLimit = 256;  // connections in the Gateway Token List

constexpr std::uint32_t kTerminator = 0x0E0F0E0F;
constexpr std::uint32_t kOwnerGateway = 0x8888;
constexpr std::uint32_t kOwnerUser = 0x9999;

// Codes inside the library. The public ones are those of zebstats.h.
constexpr int kListEmpty = 1001;
constexpr int kTargetNull = 1002;
constexpr int kTokenNotFound = 1003;
constexpr int kTokenFound = 1004;
constexpr int kListRunaway = 1005;
constexpr int kNothingToWalk = 1006;

constexpr int kFlowFailed = -1;      // the exchange broke: the stream is no longer in step
constexpr int kAuthRefused = -2;     // the first authorisation step was refused
constexpr int kAdminFailed = -3;     // the gateway or its bean refused the call, or answered nonsense
constexpr int kGatewayRefused = -4;  // the reply's header carries a gateway return code

constexpr int kConnectFailed = -100;
constexpr int kHostNotResolved = -101;
constexpr int kSocketFailed = -102;
constexpr int kConnectTimedOut = -103;
constexpr int kConnectRefused = -104;
constexpr int kConnectUnreachable = -105;

constexpr std::int32_t kGatewayConnectionGone = 0xF004;  // a gwyRc that means: this connection is lost

// ---- Records -----------------------------------------------------------------------------------------------

using ThreadId = pthread_t;

struct LockRecord {
  pthread_mutex_t mutex;
  std::uint32_t state;
};

struct GatewayToken {
  char eyecatcher[8];
  std::int32_t port;
  std::int32_t connStatus;
  std::int32_t socket;
  ResultSetToken* connRSToken;
  char* resultSetBuf;
  std::uint32_t owningPid;
  ThreadId owningTid;
  char* protocolVersion;
  GatewayToken* nextGwyTokPtr;
  // What follows is never shown. Other threads read and write holds and cancelled without a lock.
  std::uint32_t holds;      // the calls that are using the token; kRemoved is added when it leaves the list
  std::uint32_t cancelled;  // 1: another thread has closed the connection while a call was using it
  bool handedOut;           // the host has had the handle, which stays recognisable after the close
};

struct ResultSetToken {
  char eyecatcher[8];
  std::uint32_t owner;
  std::uint32_t spare;
  char* queryCopy;
  char* verifiedQueryString;
  char* head;
  char* next;
  std::int32_t queryCount;
  std::int32_t queryIndex;
  std::int32_t elementCount;
  std::int32_t elementResultIndex;
  std::uint32_t owningPid;
  ThreadId owningTid;
  char* queryElementPtr;
  std::int32_t queryElementLen;
  std::int32_t queryElementRC;
  bool handedOut;  // the host has had the handle, which stays recognisable after the close
};

struct RequestHeader {
  char eyecatcher[4];
  std::uint32_t headerWord1;
  std::uint32_t messageType;
  std::int32_t headerWord3;
  std::int32_t headerWord4;
  std::uint32_t requestNameLength;
  const char* requestName;
  std::uint8_t flag;
  std::uint32_t dataLength;
};

struct AuthRequestRecord {
  RequestHeader header;
  std::int32_t authStep;
  std::int32_t replyCode;
  std::int32_t authWord1;
  std::int32_t authWord2;
  std::int32_t authWord3;
  std::int32_t authWord4;
  std::int32_t resultWord1;
  std::int32_t resultWord2;
};

struct AdminCallRecord {
  RequestHeader header;
  std::int32_t callKind;
  std::int32_t replyRc;
  std::int32_t adminId;
  std::int32_t callLength;
  const char* country;
  const char* language;
  const char* qualifier;
  const char* beanName;
  const char* attributeName;
  const char* action;
  const char* argument;
  const char* signature;
  std::uint8_t exceptionFlag;
  std::uint8_t* callData;
};

// The failure words of one exchange; each is set by the step that fails.
struct reasons {
  std::int32_t sockErrno;
  std::int32_t gwyRc;
  std::int32_t authRc;
  std::int32_t adminRc;
};

// ---- stapi_zeb_lock ----------------------------------------------------------------------------------------

ZEB_INTERNAL int initializeLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int requestLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int releaseLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int destroyLock(LockRecord* lockPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL std::uint32_t isLockInitialized(const LockRecord* lockPtr) ZEB_NOEXCEPT;

// ---- stapi_zeb_diag ----------------------------------------------------------------------------------------

constexpr std::size_t kTracePrefixLength = 36;
constexpr std::size_t kTraceMessageSize = 256;  // its NUL included

extern "C" {
extern ZEB_INTERNAL_DATA int statAPITrace;
extern ZEB_INTERNAL_DATA int statAPIDump;
extern ZEB_INTERNAL_DATA FILE* statAPITraceHandle;
extern ZEB_INTERNAL_DATA char* statAPITraceFilename;
extern ZEB_INTERNAL_DATA const char* defaultTraceFilename;
extern ZEB_INTERNAL_DATA char traceFmtStr[kTracePrefixLength + kTraceMessageSize];
extern ZEB_INTERNAL_DATA char timeStamp[24];
extern ZEB_INTERNAL_DATA char dateBuf[10];
extern ZEB_INTERNAL_DATA std::uint32_t tracePid;
extern ZEB_INTERNAL_DATA std::uint32_t traceTid;
extern ZEB_INTERNAL_DATA std::uint32_t iTid;
extern ZEB_INTERNAL_DATA LockRecord traceLock;
}

ZEB_INTERNAL int initTrace(void) ZEB_NOEXCEPT;
ZEB_INTERNAL char* getTraceDate(char* dst) ZEB_NOEXCEPT;
ZEB_INTERNAL char* getTimestamp(char* dst) ZEB_NOEXCEPT;
ZEB_INTERNAL int compareTids(ThreadId tid1, ThreadId tid2) ZEB_NOEXCEPT;
ZEB_INTERNAL void getPidTid(std::uint32_t* pidPtr, ThreadId* tidPtr) ZEB_NOEXCEPT;

// Writes the bytes at address to the trace destination, which the caller has locked. With a length, that many
// bytes; with length 0, the bytes before the first place where stopWord starts. Returns the number of bytes.
ZEB_INTERNAL int traceOutStorage(const void* address, int length, std::uint32_t stopWord, int lineWidth,
                                 int spare) ZEB_NOEXCEPT;

// What a storage dump still has to write. In length mode remaining is positive, in stop-word mode 0; no byte
// at or behind limit is touched (null: no limit). A line collects in text and goes out in one write.
struct StorageDump {
  const unsigned char* address;
  const unsigned char* limit;
  int remaining;
  std::uint32_t stopWord;
  int lineWidth;
  std::size_t textLength;
  char text[128];
};

// One line behind its address column, and its two columns. The hexadecimal column returns how many bytes of
// the line belong to the dump, the character column writes that many.
ZEB_INTERNAL int writeStorageLineDual(StorageDump* dump) ZEB_NOEXCEPT;
ZEB_INTERNAL int writeStorageLineHex(StorageDump* dump) ZEB_NOEXCEPT;
ZEB_INTERNAL void writeStorageLineChar(StorageDump* dump, int count) ZEB_NOEXCEPT;

// ---- stapi_zeb_resultsetbuffer -----------------------------------------------------------------------------

ZEB_INTERNAL int createResultSet(ResultSetToken** newRsTokPtr, const char* eyecatcher,
                                 std::uint32_t owner) ZEB_NOEXCEPT;
ZEB_INTERNAL int deleteResultSet(ResultSetToken** rsPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int verifyAPIResultSetTokenOwner(const ResultSetToken* rsPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int dumpResultSetInternal(const ResultSetToken* rsPtr) ZEB_NOEXCEPT;

// The write operations know no bound: the caller has made sure that the item fits.
ZEB_INTERNAL int addTerminator(char* writeCursor) ZEB_NOEXCEPT;
ZEB_INTERNAL int checkTerminator(const char* dataCursor, int* isRSTermPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int addInteger(char** bufWPtr, int rsInt) ZEB_NOEXCEPT;
ZEB_INTERNAL int addPlatformChars(char** bufWPtr, const char* textPtr, int charCount) ZEB_NOEXCEPT;
ZEB_INTERNAL int addChars(char** bufWPtr, const char* textPtr, int charCount) ZEB_NOEXCEPT;
ZEB_INTERNAL int addIdStr(char** bufWPtr, const char* idString) ZEB_NOEXCEPT;

// ---- stapi_zeb_socketcomms ---------------------------------------------------------------------------------

ZEB_INTERNAL void writeHeader(const RequestHeader* req, unsigned char* data) ZEB_NOEXCEPT;
ZEB_INTERNAL void populateHeader(const unsigned char* data, RequestHeader* req) ZEB_NOEXCEPT;
ZEB_INTERNAL int readFromSocket(int socketDesc, int dataSize, void* dataBuf) ZEB_NOEXCEPT;
// One request and its reply. *data comes in as the malloc'd request and leaves as the reply's data where it
// has any, else as the request still; the caller frees what it then holds.
ZEB_INTERNAL int flow(int socketDesc, int datalen, unsigned char** data, const char* requestName,
                      RequestHeader* header, reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int flowHandshakeRequest(int socketDesc, reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int flowAuthRequest(int socketDesc, AuthRequestRecord* request, reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int flowCloseRequest(int socketDesc, reasons* reasons) ZEB_NOEXCEPT;
// On success after an attribute or invoke call, request->callData is a malloc'd block of
// request->header.dataLength bytes that the caller frees.
ZEB_INTERNAL int flowAdminRequest(int socketDesc, AdminCallRecord* request, reasons* reasons) ZEB_NOEXCEPT;

// ---- stapi_zeb_gwycon --------------------------------------------------------------------------------------

extern "C" {
extern ZEB_INTERNAL_DATA int sockOptOn;
extern ZEB_INTERNAL_DATA int sockOptOff;
}

// Stores the new socket in *socketDescriptorPtr as soon as there is one; the caller closes it, also after a
// failure.
ZEB_INTERNAL int connectToGateway(int port, const char* ipAddr, int* socketDescriptorPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int waitForConnection(const int* socketDescriptorPtr, int* errorPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int authorizeConnection(int socketDescriptor, reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int closeConnection(const int* socketDescriptorPtr) ZEB_NOEXCEPT;

// ---- stapi_zeb_statcomms -----------------------------------------------------------------------------------

ZEB_INTERNAL int calculateGetAttrCallLength(const AdminCallRecord* record) ZEB_NOEXCEPT;
ZEB_INTERNAL int calculateCallLength(const AdminCallRecord* record) ZEB_NOEXCEPT;
ZEB_INTERNAL int getInitAdminRequest(int socketDesc, AdminCallRecord* record, reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int statProtocolVer(GatewayToken* gwTokPtr, reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int statCommsString(int socketDesc, const char* queryType, const char* queryString, char* buffer,
                                 reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int statComms(int socketDesc, const char* queryType, char* buffer,
                           reasons* reasons) ZEB_NOEXCEPT;
// These two trust that rawData is a whole answer: its length is not known to them. buffer has
// kResultSetBufferSize bytes.
ZEB_INTERNAL int parseIdsData(const unsigned char* rawData, char* buffer) ZEB_NOEXCEPT;
ZEB_INTERNAL int parseStatsData(const unsigned char* rawData, char* buffer) ZEB_NOEXCEPT;

// ---- stapi_zeb_statquery -----------------------------------------------------------------------------------

ZEB_INTERNAL int commsStats(int socketDesc, char* buffer) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsStatIds(int socketDesc, char* buffer) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsResourceGroupsIds(int socketDesc, char* buffer) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsStatsByStatGroupId(int socketDesc, char* buffer, const char* ids) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsStatsByStatId(int socketDesc, char* buffer, const char* ids) ZEB_NOEXCEPT;
ZEB_INTERNAL int commsStatIdsByStatGroupId(int socketDesc, char* buffer, const char* ids) ZEB_NOEXCEPT;

// ---- stapi_zeb_gwytok --------------------------------------------------------------------------------------

ZEB_INTERNAL int initGTL(void) ZEB_NOEXCEPT;
ZEB_INTERNAL int formatGatewayToken(const GatewayToken* token, char* dst) ZEB_NOEXCEPT;
ZEB_INTERNAL int dumpGatewayTokens(void) ZEB_NOEXCEPT;
ZEB_INTERNAL int createGatewayToken(GatewayToken** gwTokPtr, const char* hostname, int port) ZEB_NOEXCEPT;
ZEB_INTERNAL int verifyGatewayToken(const GatewayToken* gwTokPtr) ZEB_NOEXCEPT;
ZEB_INTERNAL int deleteGatewayToken(GatewayToken** gwTokPtr, int lockRequired) ZEB_NOEXCEPT;
ZEB_INTERNAL int deleteGatewayTokens(void) ZEB_NOEXCEPT;

// ---- stapi_zeb_impl ----------------------------------------------------------------------------------------

ZEB_INTERNAL int dup2NativeString(const char* dataPtr, char** outputPtr) ZEB_NOEXCEPT;

#endif
