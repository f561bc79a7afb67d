// Requests and replies on a connected socket: the message header, the exchange of one request and
// one reply, and the requests built on it.
//
// A socket is used by one thread at a time; another one may only shut it down. Waits end at the
// deadline of the public call, if it has one; otherwise a gateway that never answers blocks the
// caller.
//
// Message header; n is the length of the request name, and integers are big-endian:
//
//   offset  bytes  content
//   0       4      "Gate"
//   4       4      header word 1
//   8       4      message type
//   12      4      reply: header word 3                          request: header word 4
//   16      4      reply: header word 4, the gateway's code      request: header word 3
//   20      4      n
//   24      n      request name
//   24 + n  1      flag
//   25 + n  4      length of the data, which follow
//
// Programs parse the texts of the trace points, so they stay as they are, missing blanks included.

#include "stapi_zeb_socketcomms.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_memory.h"
#include "stapi_zeb_protocol.h"
#include "stapi_zeb_signal.h"
#include "stapi_zeb_timeout.h"
#include "stapi_zeb_version.h"
#include "stapi_zeb_wire.h"

extern "C" {
extern const char stapi_zeb_socketcomms_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_socketcomms_notice[] = ZEB_NOTICE("stapi_zeb_socketcomms");
}

namespace zeb {
namespace {

constexpr std::size_t kNameLengthOffset = 20;
constexpr std::size_t kNameOffset = 24;
constexpr std::size_t kFixedHeaderSize = 29;  // a header without its request name

constexpr char HANDSHAKE_REQUEST_NAME[] = "BASE";  // also the name of a close request
// The language "en" and the country "GB", each after a 16-bit length, and ten zero bytes.
constexpr unsigned char kHandshakeData[18] = {0, 2, 'e', 'n', 0, 2, 'G', 'B'};

constexpr std::uint32_t kArgumentCount = 1;
constexpr std::uint32_t kSignatureCount = 1;

// Call kind, reply code and admin id.
constexpr std::size_t kOpeningReplySize = 12;
// Call kind, reply code and exception flag (one byte); the call data follow.
constexpr std::size_t kAdminReplyHead = 9;
// A gateway that announces more, which no answer needs, does not get memory for it.
constexpr std::uint32_t kMaxReplySize = 16 * 1024 * 1024;

// Returns the length of a request with its header, or 0 if that exceeds INT_MAX.
int requestSize(const RequestHeader& header) noexcept {
  const std::uint64_t size =
      std::uint64_t{kFixedHeaderSize} + header.requestNameLength + header.dataLength;
  return size <= INT_MAX ? static_cast<int>(size) : 0;
}

Block<unsigned char> allocateRequest(int size) noexcept {
  if (size <= 0) return nullptr;
  return allocate(static_cast<std::size_t>(size));
}

ByteWriter dataWriter(const RequestHeader& header, unsigned char* request) noexcept {
  return ByteWriter({request + kFixedHeaderSize + header.requestNameLength, header.dataLength});
}

// Returns a reader of what flow has left in data. quirk: a reply without data leaves the request
// there, and its bytes are decoded as if they were the reply's.
ByteReader replyReader(const RequestHeader& header, const unsigned char* data,
                       int requestLength) noexcept {
  const std::size_t replyLength = header.dataLength;
  return ByteReader(
      {data, replyLength > 0 ? replyLength : static_cast<std::size_t>(requestLength)});
}

// Sends without SIGPIPE: zebstats.h promises that it is ignored meanwhile, and MSG_NOSIGNAL holds
// even if the host changes the disposition.
ssize_t sendOnce(int socketDesc, const unsigned char* data, std::size_t length,
                 int flags) noexcept {
  const IgnoredSigpipe ignored;
  return send(socketDesc, data, length, flags | MSG_NOSIGNAL);
}

void showTimeout(const char* function, int point, int socketDesc) noexcept {
  TRACE_EXC(point, "stapi_zeb_socketcomms.%s Timeout of %d ms has passed on socket %d\n", function,
            callTimeout(), socketDesc);
}

// Waits until the socket is ready for one of events (poll's), or has an error that the next send or
// receive returns. Returns 0, or -1 with errno, which is ETIMEDOUT if the deadline has passed.
int waitForSocket(const char* function, int timeoutPoint, int socketDesc, short events) noexcept {
  short readyEvents = 0;
  const int ready = waitForEvents(socketDesc, events, &readyEvents);
  if (ready > 0 && (readyEvents & POLLNVAL) == 0) return 0;
  if (ready == 0) {
    showTimeout(function, timeoutPoint, socketDesc);
    errno = ETIMEDOUT;
  } else if (ready > 0) {
    errno = EBADF;
  }
  return -1;
}

int waitForFlow(int socketDesc, short events) noexcept {
  return waitForSocket("flow", 3256, socketDesc, events);
}

// Sends a request and returns the number of bytes sent, or 0 or -1 as send does. With a deadline it
// sends until all is sent. Without one it calls send once, which blocks; quirk: if a signal cuts
// that short, the part that was sent counts as the whole.
ssize_t sendWhole(int socketDesc, const unsigned char* data, std::size_t length) noexcept {
  if (!hasDeadline()) return sendOnce(socketDesc, data, length, 0);
  std::size_t total = 0;
  while (total < length) {
    const ssize_t sent = sendOnce(socketDesc, data + total, length - total, MSG_DONTWAIT);
    if (sent > 0) {
      total += static_cast<std::size_t>(sent);
    } else if (sent == 0 || (errno != EAGAIN && errno != EINTR)) {
      return sent;
    } else if (errno == EAGAIN && waitForFlow(socketDesc, POLLOUT) != 0) {
      return -1;
    }
  }
  return static_cast<ssize_t>(total);
}

int sendRequest(int socketDesc, const unsigned char* data, int datalen, reasons& failure) noexcept {
  const ssize_t sent = sendWhole(socketDesc, data, static_cast<std::size_t>(datalen));
  if (sent > 0) return 0;
  failure.sockErrno = errno;
  TRACE_EXC(3228, "stapi_zeb_socketcomms.flow Unable to write data to socket rc=%d\n",
            static_cast<int>(sent));
  TRACE_EXC(3229, "stapi_zeb_socketcomms.flow Unable to send data to Gateway: errno=%d\n",
            failure.sockErrno);
  return kFlowFailed;
}

// quirk: if the wait fails, no field of failure is set; only a timeout sets sockErrno
int waitForReply(int socketDesc, reasons& failure) noexcept {
  if (waitForFlow(socketDesc, POLLIN) == 0) return 0;
  if (hasTimedOut()) failure.sockErrno = ETIMEDOUT;
  return kFlowFailed;
}

int readReplyPart(int socketDesc, int size, unsigned char* buffer, reasons& failure) noexcept {
  // If the connection ends within the part, readFromSocket returns errno, which recv does not set
  // then. A 0 would be taken for success.
  errno = ECONNRESET;
  const int rc = readFromSocket(socketDesc, size, buffer);
  if (rc == 0) return 0;
  failure.sockErrno = rc;
  return kFlowFailed;
}

int readReplyHeader(int socketDesc, std::size_t nameLength, RequestHeader& header,
                    reasons& failure) noexcept {
  const int size = static_cast<int>(kFixedHeaderSize + nameLength);
  Block<unsigned char> buffer = allocate(static_cast<std::size_t>(size));
  TRACE_DEBUG(3230, "stapi_zeb_socketcomms.flow Called malloc for %d bytes. rc=%p\n", size,
              buffer.get());
  if (buffer == nullptr) {
    TRACE_EXC(3231, "stapi_zeb_socketcomms.flowFailed to allocate %d bytes.\n", size);
    return ZEB_NO_MEMORY;
  }
  const int rc = readReplyPart(socketDesc, size, buffer.get(), failure);
  if (rc != 0) return rc;

  ByteReader in({buffer.get(), kNameOffset});
  in.skip(kNameLengthOffset);
  const auto replyNameLength = static_cast<std::uint32_t>(in.i32());
  if (replyNameLength != nameLength) {
    TRACE_EXC(
        3251,
        "stapi_zeb_socketcomms.flow Reply header does not carry a request name of %d characters\n",
        static_cast<int>(nameLength));
    failure.sockErrno = EPROTO;
    return kFlowFailed;
  }
  populateHeader(buffer.get(), &header);
  TRACE_DEBUG(3232, "stapi_zeb_socketcomms.flow Free header data %p\n", buffer.get());
  return 0;
}

// Replaces the request in *data by the announced data of the reply, if there are any.
int readReplyData(int socketDesc, std::uint32_t announced, unsigned char** data,
                  reasons& failure) noexcept {
  const int size = static_cast<int>(announced);
  if (announced == 0) {
    TRACE_DEBUG(
        3237, "stapi_zeb_socketcomms.flow Managed to read in whole response in one go. data=0x%p\n",
        *data);
    return 0;
  }
  TRACE_DEBUG(3233, "stapi_zeb_socketcomms.flow Free call data %p\n", *data);
  free(*data);
  *data = nullptr;
  TRACE_DEBUG(3234, "stapi_zeb_socketcomms.flow (re-)malloc call &data %p\n", data);
  *data = announced <= kMaxReplySize ? allocate(announced).release() : nullptr;
  TRACE_DEBUG(3235, "stapi_zeb_socketcomms.flow Called malloc for %d bytes. rc=%p\n", size, *data);
  if (*data == nullptr) {
    TRACE_EXC(3236, "stapi_zeb_socketcomms.flow Failed to allocate %d bytes.\n", size);
    return ZEB_NO_MEMORY;
  }
  return readReplyPart(socketDesc, size, *data, failure);
}

int exchange(int socketDesc, int datalen, unsigned char** data, std::size_t nameLength,
             RequestHeader& header, reasons& failure) noexcept {
  int rc = sendRequest(socketDesc, *data, datalen, failure);
  if (rc == 0) rc = waitForReply(socketDesc, failure);
  if (rc == 0) rc = readReplyHeader(socketDesc, nameLength, header, failure);
  if (rc == 0) rc = readReplyData(socketDesc, header.dataLength, data, failure);
  if (rc != 0) return rc;
  if (header.headerWord4 != 0) {
    failure.gwyRc = header.headerWord4;
    return kGatewayRefused;
  }
  TRACE_EVENT(
      3250,
      "stapi_zeb_socketcomms.flow Successfully sent and received data with Gateway on socket %d\n",
      socketDesc);
  return 0;
}

int waitForBytes(int socketDesc) noexcept {
  return waitForSocket("readFromSocket", 3257, socketDesc, POLLIN);
}

// Waits for bytes, receives up to size of them and returns what recv does. With a deadline the wait
// ends at that, and signals do not end it; without one recv itself waits.
int receiveSome(int socketDesc, unsigned char* buffer, int size) noexcept {
  const auto room = static_cast<std::size_t>(size);
  if (!hasDeadline()) return static_cast<int>(recv(socketDesc, buffer, room, 0));
  const int error = errno;
  for (;;) {
    const auto received = static_cast<int>(recv(socketDesc, buffer, room, MSG_DONTWAIT));
    if (received >= 0 || errno != EAGAIN) return received;
    if (waitForBytes(socketDesc) != 0) return -1;
    errno = error;  // which is shown if the connection ends now, as recv does not set it then
  }
}

// Does what receiveSome does, after another part has been received. With a deadline a recv takes
// only what has arrived, so the rest is usually still to come: it waits first, which saves a recv
// that would fail.
int receiveNext(int socketDesc, unsigned char* buffer, int size) noexcept {
  if (hasDeadline() && waitForBytes(socketDesc) != 0) return -1;
  return receiveSome(socketDesc, buffer, size);
}

// Receives until total, the number of bytes that buffer holds already, has reached size. Returns 0,
// or errno; quirk: recv does not set errno when the connection ends, so it is an older one then.
int receiveRest(int socketDesc, int size, unsigned char* buffer, int& total) noexcept {
  while (total < size) {
    const int received = receiveNext(socketDesc, buffer + total, size - total);
    TRACE_DEBUG(
        3241,
        "stapi_zeb_socketcomms.readFromSocket recv(socketDesc=%d, dataSize=%d, dataBuf=%p) readData=%d, "
        "totaldata=%d)\n",
        socketDesc, size, buffer, received, total);
    if (received <= 0) {
      const int rc = errno;
      TRACE_EXC(3242,
                "stapi_zeb_socketcomms.readFromSocket read returned an error code: errno=%d\n", rc);
      return rc;
    }
    total += received;
  }
  return 0;
}

int receiveFirst(int socketDesc, int size, unsigned char* buffer) noexcept {
  if (size >= 0) return receiveSome(socketDesc, buffer, size);
  errno = EINVAL;
  return -1;
}

int receiveAll(int socketDesc, int size, unsigned char* buffer) noexcept {
  int total = receiveFirst(socketDesc, size, buffer);
  TRACE_DEBUG(
      3240,
      "stapi_zeb_socketcomms.readFromSocket recv(socketDesc=%d, dataSize=%d, dataBuf=%p) readData=%d)\n",
      socketDesc, size, buffer, total);
  if (total == 0) return -1;
  if (total < 0) {
    const int rc = errno;
    TRACE_EXC(3244, "stapi_zeb_socketcomms.readFromSocket read returned an error code: errno=%d\n",
              rc);
    return rc;
  }
  const int rc = receiveRest(socketDesc, size, buffer, total);
  TRACE_DATA(3243, "stapi_zeb_socketcomms.readFromSocket",
             (TracedStorage{buffer, total, 0, static_cast<std::size_t>(total)}), 0);
  return rc;
}

// Decodes a reply whose data are not used.
int acceptReply(ByteReader) noexcept {
  return 0;
}

void writeAuthData(const AuthRequestRecord& request, ByteWriter& out) noexcept {
  out.i32(request.authStep);
  if (request.authStep != 1) return;
  for (const std::int32_t word :
       {request.authWord1, request.authWord2, request.authWord3, request.authWord4})
    out.i32(word);
}

int decodeAuthReply(AuthRequestRecord& request, ByteReader in, reasons& failure) noexcept {
  request.authStep = in.i32();
  request.replyCode = in.i32();
  if (in.ok() && request.authStep == 0 && request.replyCode != 0) {
    TRACE_EXC(3212, "stapi_zeb_socketcomms.flowAuthRequestAuth_Init request failed rc=%d\n",
              request.replyCode);
    failure.authRc = request.replyCode;
    return kAuthRefused;
  }
  // quirk: the reply to the second step, whose first word is not 0, is accepted whatever its code
  if (request.authStep != 0) {
    request.resultWord1 = in.i32();
    request.resultWord2 = in.i32();
  } else {
    request.authWord1 = in.i32();
    request.authWord2 = in.i32();
    request.authWord3 = in.i32();
  }
  if (in.ok()) return 0;
  TRACE_EXC(3252, "stapi_zeb_socketcomms.flowAuthRequest Reply is too short\n");
  failure.sockErrno = EPROTO;
  return kFlowFailed;
}

void writeAdminData(const AdminCallRecord& request, ByteWriter& out) noexcept {
  out.i32(request.callKind);
  if (request.callKind > kOpeningCall) {
    out.i32(request.adminId);
    out.i32(request.callLength);
    for (const char* text :
         {request.country, request.language, request.qualifier, request.beanName})
      out.text16(text);
  }
  if (request.callKind == kInvoke) {
    out.text16(request.action);
    out.u32(kArgumentCount);
    out.bytes(OBJ_ARRAY_HEADER, sizeof OBJ_ARRAY_HEADER);
    out.text16(request.argument);
    out.u32(kSignatureCount);
    out.text16(request.signature);
  } else if (request.callKind == kGetAttribute) {
    out.text16(request.attributeName);
  }
}

int takeCallData(AdminCallRecord& request, ByteReader& in) noexcept {
  const std::size_t size = in.left();
  Block<std::uint8_t> callData = allocate(std::max<std::size_t>(size, 1));  // malloc(0) may be null
  TRACE_DEBUG(3203, "stapi_zeb_socketcomms.flowAdminRequest Called malloc for %d bytes. rc=%p\n",
              static_cast<int>(size), callData.get());
  if (callData == nullptr) {
    // quirk: shows the length of the whole reply, not of the block
    TRACE_EXC(3204, "stapi_zeb_socketcomms.flowAdminRequestFailed to allocate %d bytes.\n",
              static_cast<int>(size + kAdminReplyHead));
    return ZEB_NO_MEMORY;
  }
  if (size > 0) memcpy(callData.get(), in.position(), size);
  request.header.dataLength = static_cast<std::uint32_t>(size);
  request.callData = callData.release();
  return 0;
}

// Returns ZEB_NO_MEMORY, as if the call data could not be allocated; queries and opens return
// ZEB_COMMUNICATION_FAILED for it.
int refuseShortReply(std::size_t length) noexcept {
  TRACE_EXC(3253, "stapi_zeb_socketcomms.flowAdminRequest Reply of %d bytes is too short\n",
            static_cast<int>(length));
  return ZEB_NO_MEMORY;
}

// requestKind is the kind of call that was made; the reply's own kind, which decides how it is
// read, may differ.
int decodeAdminReply(AdminCallRecord& request, ByteReader in, int requestKind,
                     reasons& failure) noexcept {
  const std::size_t length = in.left();
  const std::size_t shortest = requestKind == kOpeningCall ? kOpeningReplySize : kAdminReplyHead;
  if (length < shortest) return refuseShortReply(length);
  request.callKind = in.i32();
  request.replyRc = in.i32();
  if (request.replyRc != 0) {
    TRACE_EXC(3206,
              "stapi_zeb_socketcomms.flowAdminRequest Auth Request returned an error AuthRc=%d\n",
              request.replyRc);
    failure.adminRc = request.replyRc;
    return kAdminFailed;
  }
  if (request.callKind == kOpeningCall) {
    request.adminId = in.i32();
    return in.ok() ? 0 : refuseShortReply(length);
  }
  request.exceptionFlag = in.u8();
  if (request.exceptionFlag != 0) {
    TRACE_EXC(
        3205,
        "stapi_zeb_socketcomms.flowAdminRequest Exception occured during request execution\n");
    return kAdminFailed;
  }
  // Without data in the reply, these are the bytes of the request, which are no call data.
  if (request.header.dataLength == 0) return refuseShortReply(0);
  return takeCallData(request, in);
}

// The trace points of a request, and the words that differ in their texts.
struct RequestTrace {
  const char* function;
  const char* gap;  // between the function's name and the next word
  const char* dataName;
  int allocatedPoint;
  int failedPoint;
  int overlongPoint;
  int freedPoint;
};
constexpr RequestTrace kHandshakeTrace = {.function = "flowHandshakeRequest",
                                          .gap = "",
                                          .dataName = "handshake",
                                          .allocatedPoint = 3216,
                                          .failedPoint = 3217,
                                          .overlongPoint = 3259,
                                          .freedPoint = 3218};
constexpr RequestTrace kCloseTrace = {.function = "flowCloseRequest",
                                      .gap = " ",
                                      .dataName = "close request",
                                      .allocatedPoint = 3221,
                                      .failedPoint = 3222,
                                      .overlongPoint = 3260,
                                      .freedPoint = 3223};
constexpr RequestTrace kAuthTrace = {.function = "flowAuthRequest",
                                     .gap = "",
                                     .dataName = "request",
                                     .allocatedPoint = 3210,
                                     .failedPoint = 3211,
                                     .overlongPoint = 3254,
                                     .freedPoint = 3213};
constexpr RequestTrace kAdminTrace = {.function = "flowAdminRequest",
                                      .gap = "",
                                      .dataName = "request",
                                      .allocatedPoint = 3201,
                                      .failedPoint = 3202,
                                      .overlongPoint = 3255,
                                      .freedPoint = 3207};

// Refuses a request whose data turned out longer than the dataLength of its header.
int refuseOverlongRequest(const RequestTrace& trace, int size) noexcept {
  TRACE_EXC(trace.overlongPoint,
            "stapi_zeb_socketcomms.%s Request does not fit into its %d bytes\n", trace.function,
            size);
  return ZEB_NO_MEMORY;
}

// Calls flow with a block that frees itself, and which flow may replace.
int flowBlock(int socketDesc, int size, Block<unsigned char>& data, RequestHeader& header,
              reasons* failure) noexcept {
  unsigned char* block = data.release();
  const int rc = flow(socketDesc, size, &block, header.requestName, &header, failure);
  data.reset(block);
  return rc;
}

// Does what the four requests share: writes the header and the data, exchanges them for a reply,
// and decodes the reply. write(ByteWriter&) writes the data, of header.dataLength bytes;
// decode(ByteReader) returns the code of the request.
template <typename Write, typename Decode>
int exchangeRequest(const RequestTrace& trace, int socketDesc, RequestHeader& header,
                    reasons* failure, Write write, Decode decode) noexcept {
  const int size = requestSize(header);
  Block<unsigned char> data = allocateRequest(size);
  TRACE_DEBUG(trace.allocatedPoint, "stapi_zeb_socketcomms.%s Called malloc for %d bytes. rc=%p\n",
              trace.function, size, data.get());
  if (data == nullptr) {
    TRACE_EXC(trace.failedPoint, "stapi_zeb_socketcomms.%s%sFailed to allocate %d bytes.\n",
              trace.function, trace.gap, size);
    return ZEB_NO_MEMORY;
  }
  writeHeader(&header, data.get());
  ByteWriter out = dataWriter(header, data.get());
  write(out);
  out.zeroRest();
  if (!out.ok()) return refuseOverlongRequest(trace, size);
  int rc = flowBlock(socketDesc, size, data, header, failure);
  if (rc == 0) rc = decode(replyReader(header, data.get(), size));
  if (data != nullptr) {
    TRACE_DEBUG(trace.freedPoint, "stapi_zeb_socketcomms.%s Free %s data %p\n", trace.function,
                trace.dataName, data.get());
  }
  return rc;
}

}  // namespace

bool isConnectionLost(int rc, const reasons& failure) noexcept {
  return rc == kFlowFailed || (rc == kGatewayRefused && failure.gwyRc == kGatewayConnectionGone);
}

int checkInStep(int socketDesc) noexcept {
  char byte;
  const ssize_t waiting = recv(socketDesc, &byte, sizeof byte, MSG_PEEK | MSG_DONTWAIT);
  if (waiting < 0 && errno == EAGAIN) return 0;
  TRACE_EXC(
      3258,
      "stapi_zeb_socketcomms.checkInStep Unexpected data or end of connection on socket %d rc=%d\n",
      socketDesc, static_cast<int>(waiting));
  shutdown(socketDesc, SHUT_RDWR);
  return ZEB_CONNECTION_LOST;
}

}  // namespace zeb

using namespace zeb;

void writeHeader(const RequestHeader* req, unsigned char* data) noexcept {
  TRACE_ENTRY(3248, "stapi_zeb_socketcomms.writeHeader(req=%p, data=%p)\n", req, data);
  ByteWriter out({data, kFixedHeaderSize + req->requestNameLength});
  out.bytes(req->eyecatcher, sizeof req->eyecatcher);
  out.u32(req->headerWord1);
  out.u32(req->messageType);
  // quirk: words 3 and 4 change places here, but not in populateHeader; so a record that is used
  // again sends at offset 16 what the reply had at offset 12
  out.i32(req->headerWord4);
  out.i32(req->headerWord3);
  out.u32(req->requestNameLength);
  out.bytes(req->requestName, req->requestNameLength);
  out.u8(req->flag);
  out.u32(req->dataLength);
  TRACE_EXIT(3249, "stapi_zeb_socketcomms.writeHeader(req=%p, data=%p)\n", req, data);
}

void populateHeader(const unsigned char* data, RequestHeader* req) noexcept {
  TRACE_ENTRY(3246, "stapi_zeb_socketcomms.populateHeader(data=%p, req=%p)\n", data, req);
  ByteReader in({data, kNameOffset});
  memcpy(req->eyecatcher, in.text(sizeof req->eyecatcher).data(), sizeof req->eyecatcher);
  req->headerWord1 = static_cast<std::uint32_t>(in.i32());
  req->messageType = static_cast<std::uint32_t>(in.i32());
  req->headerWord3 = in.i32();
  req->headerWord4 = in.i32();
  req->requestNameLength = static_cast<std::uint32_t>(in.i32());

  ByteReader afterName(
      {data + kNameOffset + req->requestNameLength, kFixedHeaderSize - kNameOffset});
  req->flag = afterName.u8();
  req->dataLength = static_cast<std::uint32_t>(afterName.i32());
  TRACE_EXIT(3247, "stapi_zeb_socketcomms.populateHeader(data=%p, req=%p)\n", data, req);
}

int readFromSocket(int socketDesc, int dataSize, void* dataBuf) noexcept {
  TRACE_ENTRY(3239,
              "stapi_zeb_socketcomms.readFromSocket(socketDesc=%d, dataSize=%d, dataBuf=%p)\n",
              socketDesc, dataSize, dataBuf);
  const int rc = receiveAll(socketDesc, dataSize, static_cast<unsigned char*>(dataBuf));
  TRACE_EXIT(3245,
             "stapi_zeb_socketcomms.readFromSocket(socketDesc=%d, dataSize=%d, dataBuf=%p) rc=%d\n",
             socketDesc, dataSize, dataBuf, rc);
  return rc;
}

int flow(int socketDesc, int datalen, unsigned char** data, const char* requestName,
         RequestHeader* header, reasons* failure) noexcept {
  TRACE_ENTRY(
      3225,
      "stapi_zeb_socketcomms.flow(socketDesc=%d, datalen=%d, &data=%p, requestName=%s, header=%p, "
      "reasons=%p)\n",
      socketDesc, datalen, data, ShownText(requestName).chars, header, failure);
  if (datalen <= 0 || data == nullptr) {
    TRACE_EXC(3227, "stapi_zeb_socketcomms.flow No data to flow!!\n");
    return kFlowFailed;  // quirk: no EXIT line here
  }
  TRACE_DATA(3226, "stapi_zeb_socketcomms.flow",
             (TracedStorage{*data, datalen, 0, static_cast<std::size_t>(datalen)}), 0);
  const int rc = exchange(socketDesc, datalen, data, strlen(requestName), *header, *failure);
  TRACE_EXIT(
      3238,
      "stapi_zeb_socketcomms.flow(socketDesc=%d, datalen=%d, data=%p, requestName=%s, header=%p, "
      "reasons=%p) rc=%d\n",
      socketDesc, datalen, data, ShownText(requestName).chars, header, failure, rc);
  return rc;
}

int flowHandshakeRequest(int socketDesc, reasons* failure) noexcept {
  TRACE_ENTRY(3215, "stapi_zeb_socketcomms.flowHandshakeRequest(socketDesc=%d, *reasons=%p)\n",
              socketDesc, failure);
  RequestHeader header =
      makeHeader(HANDSHAKE_REQUEST_NAME, kHandshakeMessage, sizeof kHandshakeData);
  const int rc = exchangeRequest(
      kHandshakeTrace, socketDesc, header, failure,
      [](ByteWriter& out) { out.bytes(kHandshakeData, sizeof kHandshakeData); }, acceptReply);
  TRACE_EXIT(3219, "stapi_zeb_socketcomms.flowHandshakeRequest(socketDesc=%d, *reasons=%p) rc=%d\n",
             socketDesc, failure, rc);
  return rc;
}

int flowCloseRequest(int socketDesc, reasons* failure) noexcept {
  TRACE_ENTRY(3220, "stapi_zeb_socketcomms.flowCloseRequest(socketDesc=%d, *reasons=%p)\n",
              socketDesc, failure);
  RequestHeader header = makeHeader(HANDSHAKE_REQUEST_NAME, kCloseMessage, 0);
  header.headerWord3 = -1;  // in a close request only; the gateway expects it
  const int rc = exchangeRequest(
      kCloseTrace, socketDesc, header, failure, [](ByteWriter&) {}, acceptReply);
  TRACE_EXIT(3224, "stapi_zeb_socketcomms.flowCloseRequest(socketDesc=%d, *reasons=%p) rc=%d\n",
             socketDesc, failure, rc);
  return rc;
}

int flowAuthRequest(int socketDesc, AuthRequestRecord* request, reasons* failure) noexcept {
  TRACE_ENTRY(3209,
              "stapi_zeb_socketcomms.flowAuthRequest(socketDesc=%d, *request=%p, *reasons=%p)\n",
              socketDesc, request, failure);
  const int rc = exchangeRequest(
      kAuthTrace, socketDesc, request->header, failure,
      [&](ByteWriter& out) { writeAuthData(*request, out); },
      [&](ByteReader in) { return decodeAuthReply(*request, in, *failure); });
  TRACE_EXIT(
      3214,
      "stapi_zeb_socketcomms.flowAuthRequest(socketDesc=%d, *request=%p, *reasons=%p) rc=%d\n",
      socketDesc, request, failure, rc);
  return rc;
}

int flowAdminRequest(int socketDesc, AdminCallRecord* request, reasons* failure) noexcept {
  TRACE_ENTRY(3200,
              "stapi_zeb_socketcomms.flowAdminRequest(socketDesc=%d, *request=%p, *reasons=%p)\n",
              socketDesc, request, failure);
  const int kind = request->callKind;  // which the reply overwrites
  const int rc = exchangeRequest(
      kAdminTrace, socketDesc, request->header, failure,
      [&](ByteWriter& out) { writeAdminData(*request, out); },
      [&](ByteReader in) { return decodeAdminReply(*request, in, kind, *failure); });
  TRACE_EXIT(
      3208,
      "stapi_zeb_socketcomms.flowAdminRequest(socketDesc=%d, *request=%p, *reasons=%p) rc=%d\n",
      socketDesc, request, failure, rc);
  return rc;
}
