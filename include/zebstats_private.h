// The records, sizes and codes that the library's modules share. The functions of each module are
// declared in its own header in source/. Many of them are exported, for diagnosis, but they are no
// part of the public interface.
#ifndef ZEBSTATS_PRIVATE_H
#define ZEBSTATS_PRIVATE_H

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "zebstats.h"

// Exported, but not for the library's callers.
#define ZEB_INTERNAL ZEB_API
#define ZEB_INTERNAL_DATA __attribute__((visibility("default")))

// ---- Sizes and marks ----------------------------------------------------------------------------

// The sizes of texts include their NUL.
constexpr std::size_t kResultSetBufferSize = 153600;
constexpr std::size_t kQueryStringSize = 32000;
constexpr std::size_t kProtocolVersionSize = 64;
constexpr std::size_t kTraceFilenameSize = 1024;
constexpr std::size_t kTokenTextMinimum = 256;  // formatGatewayToken writes no more bytes
constexpr std::size_t kTokenTextSize = 512;     // what the library's own calls provide
constexpr std::size_t kTracePrefixLength = 36;  // of ZEB_TRACE_PREFIX, without NUL
constexpr std::size_t kTraceMessageSize = 256;
constexpr int kRunawayLimit = 256;  // the greatest length of the Gateway Token List

constexpr std::uint32_t kTerminator = 0x0E0F0E0F;  // ends the content of a result set buffer
// ResultSetToken::owner
constexpr std::uint32_t kOwnerGateway = 0x8888;  // belongs to a connection
constexpr std::uint32_t kOwnerUser = 0x9999;     // a copy, which belongs to the host

// Codes inside the library. Some equal public codes of another meaning; the modules gwytok,
// statquery and impl map them to public ones. First those of the Gateway Token List:
constexpr int kListEmpty = 1001;      // a search in an empty list
constexpr int kTargetNull = 1002;     // a search for a null token
constexpr int kTokenNotFound = 1003;  // the token is not in the list
constexpr int kTokenFound = 1004;     // the token is in the list
constexpr int kListRunaway = 1005;    // a walk of the list has reached kRunawayLimit
constexpr int kNothingToWalk = 1006;  // a walk of an empty list
// Of the exchange with a gateway:
constexpr int kFlowFailed = -1;      // no whole reply was received; the connection is unusable
constexpr int kAuthRefused = -2;     // the gateway has refused the first authorisation step
constexpr int kAdminFailed = -3;     // the call was refused or failed, or its answer is malformed
constexpr int kGatewayRefused = -4;  // the header of the reply carries a code of the gateway
// Of connecting:
constexpr int kConnectFailed = -100;       // any failure without a code of its own
constexpr int kHostNotResolved = -101;     // the host name has no address
constexpr int kSocketFailed = -102;        // the socket could not be made or set up
constexpr int kConnectTimedOut = -103;     // the wait for the connection has ended
constexpr int kConnectRefused = -104;      // nobody listens on the port
constexpr int kConnectUnreachable = -105;  // there is no route to the network

// The code of a gateway (reasons::gwyRc) that has lost its own connection.
constexpr std::int32_t kGatewayConnectionGone = 0xF004;

// ---- Records ------------------------------------------------------------------------------------

using ThreadId = pthread_t;

struct LockRecord {
  pthread_mutex_t mutex;
  std::uint32_t state;  // 0xFFEEDDCC once the mutex is initialised
};

// One connection. The token owns all that it points to but the next token; the module gwytok makes
// and frees it. The host gets its address as a handle.
struct GatewayToken {
  char eyecatcher[8];  // "ZEBGWTOK", no NUL
  std::int32_t port;
  std::int32_t connStatus;      // 0 created, 1 connected, 2 not connected, 3 close failed, 4 closed
  std::int32_t socket;          // its descriptor; -1 until there is one
  ResultSetToken* connRSToken;  // the result set of each query
  char* resultSetBuf;           // kResultSetBufferSize bytes, the buffer of that result set
  std::uint32_t owningPid;      // the process and thread that opened the connection
  ThreadId owningTid;
  char* protocolVersion;        // kProtocolVersionSize bytes, NUL-terminated
  GatewayToken* nextGwyTokPtr;  // in the Gateway Token List; written under gtlLock

  // Dumps do not show the following fields. Other threads read and write the first two without a
  // lock, as atomic words.

  // The number of calls that use the token. When the token has left the list, a flag is added, and
  // whoever ends the last call frees it.
  std::uint32_t holds;
  std::uint32_t cancelled;  // 1: another thread has closed the connection while a call was using it
  bool handedOut;           // the host has the handle, which must be recognised after the close
};

// One answer: the result set of a connection, which owns it, or a copy, which the host frees. The
// token owns queryCopy and verifiedQueryString, and a copy also the buffer at head, which otherwise
// belongs to the connection. queryCount to elementResultIndex are the state of the walk, which
// stapi_zeb_walk.h describes.
struct ResultSetToken {
  char eyecatcher[8];         // "ZEBRSROB" of a connection, "ZEBRSUSR" of a copy, no NUL
  std::uint32_t owner;        // kOwnerGateway or kOwnerUser
  std::uint32_t spare;        // not used
  char* queryCopy;            // copy of the last query string; null before the first one
  char* verifiedQueryString;  // kQueryStringSize bytes, the result of getIdQuery()
  char* head;                 // the buffer; null when the connection is gone
  char* next;                 // what the next step of the walk reads
  std::int32_t queryCount;
  std::int32_t queryIndex;  // 0: no walk has begun
  std::int32_t elementCount;
  std::int32_t elementResultIndex;  // 0: the next step reads a query header
  std::uint32_t owningPid;          // only with kOwnerGateway, as in the connection's token
  ThreadId owningTid;
  char* queryElementPtr;  // of the current query header, in the buffer
  std::int32_t queryElementLen;
  std::int32_t queryElementRC;
  bool handedOut;  // as in GatewayToken
};

// The header of a request. The header of its reply is then loaded into the same record, over all
// fields but requestName.
struct RequestHeader {
  char eyecatcher[4];
  std::uint32_t headerWord1;
  std::uint32_t messageType;
  std::int32_t headerWord3;  // 0, in a close request -1
  std::int32_t headerWord4;  // 0; in a reply the gateway's return code
  std::uint32_t requestNameLength;
  const char* requestName;  // not owned
  std::uint8_t flag;
  std::uint32_t dataLength;  // of the data after the header
};

// An authorisation step. The gateway alone knows the meaning of its words: words 1 to 3 come from
// the reply to step 0 and go back in step 1, with word 4 as 0; the result words are not used.
struct AuthRequestRecord {
  RequestHeader header;
  std::int32_t authStep;   // 0 or 1; the first word of the reply
  std::int32_t replyCode;  // the second word of the reply
  std::int32_t authWord1;
  std::int32_t authWord2;
  std::int32_t authWord3;
  std::int32_t authWord4;
  std::int32_t resultWord1;
  std::int32_t resultWord2;
};

// A call of the statistics bean. The record does not own its texts, which are NUL-terminated.
// attributeName is for an attribute call; action, argument and signature (the argument's type) are
// for an invoke call.
struct AdminCallRecord {
  RequestHeader header;     // after a call with an answer, dataLength is the length of callData
  std::int32_t callKind;    // kOpeningCall, kGetAttribute or kInvoke; the first word of the reply
  std::int32_t replyRc;     // the second word of the reply
  std::int32_t adminId;     // from the reply to the opening call, sent back in the next call
  std::int32_t callLength;  // of the strings in the request, with their counts and lengths
  const char* country;
  const char* language;
  const char* qualifier;
  const char* beanName;
  const char* attributeName;
  const char* action;
  const char* argument;
  const char* signature;
  std::uint8_t exceptionFlag;  // not 0: the operation has raised an exception
  std::uint8_t* callData;      // malloc'ed answer, which whoever makes the call frees; or null
};

// What has failed in an exchange; only the step that fails sets its field. sockErrno is an errno,
// or -1 if the connection has ended; the others are codes of the gateway.
struct reasons {
  std::int32_t sockErrno;
  std::int32_t gwyRc;
  std::int32_t authRc;
  std::int32_t adminRc;
};

// A storage dump that is being written, line by line. It ends after a given number of bytes (length
// mode), or before the first place where stopWord starts (stop-word mode).
struct StorageDump {
  const unsigned char* address;  // of the next line
  const unsigned char* limit;    // no byte from here on is read; null: no limit
  int remaining;                 // the bytes left in length mode; 0 in stop-word mode
  std::uint32_t stopWord;
  int lineWidth;
  std::size_t textLength;  // of what is collected in text and not yet written
  char text[128];
};

#endif
