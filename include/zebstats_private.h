// The records, sizes and codes that the library's modules share. What a module does for the others
// is declared in its own header in source/; what is exported from there, under C linkage, serves
// diagnosis and is no part of the public interface.
#ifndef ZEBSTATS_PRIVATE_H
#define ZEBSTATS_PRIVATE_H

#include <pthread.h>
#include <stdio.h>

#include <cstddef>
#include <cstdint>

#include "zebstats.h"

// Exported, but not for the library's callers.
#define ZEB_INTERNAL ZEB_API
#define ZEB_INTERNAL_DATA __attribute__((visibility("default")))

// ---- Sizes and marks ----------------------------------------------------------------------------

constexpr std::size_t kResultSetBufferSize = 153600;
constexpr std::size_t kQueryStringSize = 32000;  // verifiedQueryString, its NUL included
constexpr std::size_t kProtocolVersionSize = 64;
constexpr std::size_t kTraceFilenameSize = 1024;
constexpr std::size_t kTokenTextMinimum = 256;  // what formatGatewayToken may fill
constexpr std::size_t kTokenTextSize = 512;
constexpr std::size_t kTracePrefixLength = 36;
constexpr std::size_t kTraceMessageSize = 256;  // its NUL included
constexpr int kRunawayLimit = 256;              // connections in the Gateway Token List

constexpr std::uint32_t kTerminator = 0x0E0F0E0F;
constexpr std::uint32_t kOwnerGateway = 0x8888;
constexpr std::uint32_t kOwnerUser = 0x9999;

// Codes inside the library. Some are equal to public codes of another meaning.
constexpr int kListEmpty = 1001;
constexpr int kTargetNull = 1002;
constexpr int kTokenNotFound = 1003;
constexpr int kTokenFound = 1004;
constexpr int kListRunaway = 1005;
constexpr int kNothingToWalk = 1006;

constexpr int kFlowFailed = -1;   // failed half-way; the connection is unusable
constexpr int kAuthRefused = -2;  // the first authorisation step was refused
constexpr int kAdminFailed =
    -3;  // the gateway or its bean refused the call, or the answer is malformed
constexpr int kGatewayRefused = -4;  // the reply's header carries a gateway return code

constexpr int kConnectFailed = -100;
constexpr int kHostNotResolved = -101;
constexpr int kSocketFailed = -102;
constexpr int kConnectTimedOut = -103;
constexpr int kConnectRefused = -104;
constexpr int kConnectUnreachable = -105;

constexpr std::int32_t kGatewayConnectionGone = 0xF004;  // the gwyRc of a lost connection

// ---- Records ------------------------------------------------------------------------------------

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
  std::uint32_t
      holds;  // the calls that are using the token; kRemoved is added when it leaves the list
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

// What a storage dump still has to write. In length mode remaining is positive, in stop-word mode
// 0; no byte at or after limit is touched (null: no limit). A line is collected in text and written
// at once.
struct StorageDump {
  const unsigned char* address;
  const unsigned char* limit;
  int remaining;
  std::uint32_t stopWord;
  int lineWidth;
  std::size_t textLength;
  char text[128];
};

#endif
