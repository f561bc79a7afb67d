// Requests and replies on a connected socket: the message header, the exchange of one request and
// one reply, and the requests built on it.
//
// A socket is used by one thread at a time; another one may only shut it down. Waits keep the
// deadline of the public call, if it has one; otherwise a gateway that never answers blocks the
// caller.
//
// Message header, n = length of the request name:
//
//   0   4  "Gate"                         16  4  request: header word 3; reply: gateway return code
//   4   4  header word 1                  20  4  n
//   8   4  message type                   24  n  request name
//   12  4  request: header word 4;        24+n 1 flag
//          reply: loaded as word 3        25+n 4 data length, followed by the data

#include "stapi_zeb_socketcomms.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>

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

constexpr std::size_t kNameOffset = 24;
constexpr std::size_t kFixedHeaderSize = 29;  // a header without its request name

constexpr char HANDSHAKE_REQUEST_NAME[] = "BASE";
constexpr unsigned char kHandshakeData[18] = {0, 2, 'e', 'n', 0, 2, 'G', 'B'};
// Before a String argument: the head of a serialisation stream, and the tag of a string.
constexpr unsigned char OBJ_ARRAY_HEADER[5] = {0xAC, 0xED, 0x00, 0x05, 0x74};

constexpr std::size_t kOpeningReplySize = 12;  // two words and the admin id
constexpr std::size_t kAdminReplyHead =
    9;  // two words and the exception flag, before the call data
constexpr std::uint32_t kMaxReplySize = 16 * 1024 * 1024;

// 0 if over INT_MAX.
int requestSize(const RequestHeader& header) noexcept {
  const std::uint64_t size =
      std::uint64_t{kFixedHeaderSize} + header.requestNameLength + header.dataLength;
  return size <= INT_MAX ? static_cast<int>(size) : 0;
}

Block<unsigned char> allocateRequest(int size) noexcept {
  if (size <= 0) return nullptr;
  return allocate(static_cast<std::size_t>(size));
}

// A writer for the request's data.
ByteWriter dataWriter(const RequestHeader& header, unsigned char* request) noexcept {
  return ByteWriter({request + kFixedHeaderSize + header.requestNameLength, header.dataLength});
}

// Reads what flow left in data: the reply's data, or the request's own bytes if the reply had none.
ByteReader replyReader(const RequestHeader& header, const unsigned char* data,
                       int requestLength) noexcept {
  const std::size_t replied = header.dataLength;
  return ByteReader({data, replied > 0 ? replied : static_cast<std::size_t>(requestLength)});
}

// MSG_NOSIGNAL holds even if the disposition cannot be changed.
ssize_t sendOnce(int socketDesc, const unsigned char* data, std::size_t length,
                 int flags) noexcept {
  const IgnoredSigpipe ignored;
  return send(socketDesc, data, length, flags | MSG_NOSIGNAL);
}

void showTimeout(const char* function, int point, int socketDesc) noexcept {
  TRACE_EXC(point, "stapi_zeb_socketcomms.%s Timeout of %d ms has passed on socket %d\n", function,
            callTimeout(), socketDesc);
}

// Returns 0 when the socket is ready; -1 with errno if the wait failed or the deadline has passed.
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

// A blocking send takes everything, one with a deadline perhaps not at once. Returns the bytes
// sent, or 0 or -1 as send does.
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

int waitForReply(int socketDesc) noexcept {
  return waitForFlow(socketDesc, POLLIN) == 0 ? 0 : kFlowFailed;
}

int readReplyPart(int socketDesc, int size, unsigned char* buffer, reasons& failure) noexcept {
  errno = ECONNRESET;  // recv sets no errno at end of stream; this is reported
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
  in.skip(kNameOffset - 4);
  if (static_cast<std::uint32_t>(in.i32()) != nameLength) {
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
  // A gateway that announces more than any answer holds does not get the memory for it.
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
  if (rc == 0) rc = waitForReply(socketDesc);
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

// recv, but for a deadline: then it waits until that, and a signal does not end it.
int receiveSome(int socketDesc, unsigned char* buffer, int size) noexcept {
  const auto room = static_cast<std::size_t>(size);
  if (!hasDeadline()) return static_cast<int>(recv(socketDesc, buffer, room, 0));
  for (;;) {
    const auto received = static_cast<int>(recv(socketDesc, buffer, room, MSG_DONTWAIT));
    if (received >= 0 || errno != EAGAIN) return received;
    if (waitForBytes(socketDesc) != 0) return -1;
  }
}

// Receives what is missing after the first part. Returns 0 when total has reached size, otherwise
// errno as it is.
int receiveRest(int socketDesc, int size, unsigned char* buffer, int& total) noexcept {
  while (total < size) {
    // With a deadline the rest is most likely still to come: to wait first saves a recv.
    const int received = hasDeadline() && waitForBytes(socketDesc) != 0
                             ? -1
                             : receiveSome(socketDesc, buffer + total, size - total);
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

int receiveAll(int socketDesc, int size, unsigned char* buffer) noexcept {
  if (size < 0) errno = EINVAL;
  int total = size < 0 ? -1 : receiveSome(socketDesc, buffer, size);
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

// For replies whose content nobody looks at.
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
  if (request.authStep !=
      0) {  // quirk: the answer to the second step is accepted whatever its reply code
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
    out.u32(1);  // arguments
    out.bytes(OBJ_ARRAY_HEADER, sizeof OBJ_ARRAY_HEADER);
    out.text16(request.argument);
    out.u32(1);  // signatures
    out.text16(request.signature);
  } else if (request.callKind == kGetAttribute) {
    out.text16(request.attributeName);
  }
}

int takeCallData(AdminCallRecord& request, ByteReader& in) noexcept {
  const std::size_t size = in.left();
  Block<std::uint8_t> callData = allocate(size > 0 ? size : 1);
  TRACE_DEBUG(3203, "stapi_zeb_socketcomms.flowAdminRequest Called malloc for %d bytes. rc=%p\n",
              static_cast<int>(size), callData.get());
  if (callData == nullptr) {
    // quirk: the length of the whole reply
    TRACE_EXC(3204, "stapi_zeb_socketcomms.flowAdminRequestFailed to allocate %d bytes.\n",
              static_cast<int>(size + kAdminReplyHead));
    return ZEB_NO_MEMORY;
  }
  if (size > 0) memcpy(callData.get(), in.position(), size);
  request.header.dataLength = static_cast<std::uint32_t>(size);
  request.callData = callData.release();
  return 0;
}

// Reported as ZEB_NO_MEMORY, which callers map to -122.
int refuseShortReply(std::size_t length) noexcept {
  TRACE_EXC(3253, "stapi_zeb_socketcomms.flowAdminRequest Reply of %d bytes is too short\n",
            static_cast<int>(length));
  return ZEB_NO_MEMORY;
}

int decodeAdminReply(AdminCallRecord& request, ByteReader in, int requestKind,
                     reasons& failure) noexcept {
  const std::size_t length = in.left();
  if (length < (requestKind == kOpeningCall ? kOpeningReplySize : kAdminReplyHead))
    return refuseShortReply(length);
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
  // Without reply data, data still holds the request.
  if (request.header.dataLength == 0) return refuseShortReply(0);
  return takeCallData(request, in);
}

// What the four requests differ in: names, numbers, and a blank.
struct Request {
  const char* function;
  const char* gap;  // between the function's name and the next word
  const char* dataName;
  int allocatedPoint;
  int failedPoint;
  int overlongPoint;
  int freedPoint;
};
constexpr Request kHandshake = {"flowHandshakeRequest", "", "handshake", 3216, 3217, 3259, 3218};
constexpr Request kClose = {"flowCloseRequest", " ", "close request", 3221, 3222, 3260, 3223};
constexpr Request kAuth = {"flowAuthRequest", "", "request", 3210, 3211, 3254, 3213};
constexpr Request kAdmin = {"flowAdminRequest", "", "request", 3201, 3202, 3255, 3207};

// Data longer than the record's data length is not sent.
int refuseOverlongRequest(const Request& request, int size) noexcept {
  TRACE_EXC(request.overlongPoint,
            "stapi_zeb_socketcomms.%s Request does not fit into its %d bytes\n", request.function,
            size);
  return ZEB_NO_MEMORY;
}

// flow, for a block that frees itself.
int flowBlock(int socketDesc, int size, Block<unsigned char>& data, RequestHeader& header,
              reasons* reasons) noexcept {
  unsigned char* block = data.release();
  const int rc = flow(socketDesc, size, &block, header.requestName, &header, reasons);
  data.reset(block);
  return rc;
}

// What the four requests share: writes the header and the data, exchanges them for a reply, and
// decodes that. write gets a ByteWriter of header.dataLength bytes; decode gets a ByteReader and
// returns a code.
template <typename Write, typename Decode>
int exchangeRequest(const Request& request, int socketDesc, RequestHeader& header, reasons* reasons,
                    Write write, Decode decode) noexcept {
  const int size = requestSize(header);
  Block<unsigned char> data = allocateRequest(size);
  TRACE_DEBUG(request.allocatedPoint,
              "stapi_zeb_socketcomms.%s Called malloc for %d bytes. rc=%p\n", request.function,
              size, data.get());
  if (data == nullptr) {
    TRACE_EXC(request.failedPoint, "stapi_zeb_socketcomms.%s%sFailed to allocate %d bytes.\n",
              request.function, request.gap, size);
    return ZEB_NO_MEMORY;
  }
  writeHeader(&header, data.get());
  ByteWriter out = dataWriter(header, data.get());
  write(out);
  out.zeroRest();
  if (!out.ok()) return refuseOverlongRequest(request, size);
  int rc = flowBlock(socketDesc, size, data, header, reasons);
  if (rc == 0) rc = decode(replyReader(header, data.get(), size));
  if (data != nullptr) {
    TRACE_DEBUG(request.freedPoint, "stapi_zeb_socketcomms.%s Free %s data %p\n", request.function,
                request.dataName, data.get());
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
  out.i32(req->headerWord4);  // quirk: 4 goes to offset 12 but is loaded from 16
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
         RequestHeader* header, reasons* reasons) noexcept {
  TRACE_ENTRY(
      3225,
      "stapi_zeb_socketcomms.flow(socketDesc=%d, datalen=%d, &data=%p, requestName=%s, header=%p, "
      "reasons=%p)\n",
      socketDesc, datalen, data, ShownText(requestName).chars, header, reasons);
  if (datalen <= 0 || data == nullptr) {
    TRACE_EXC(3227, "stapi_zeb_socketcomms.flow No data to flow!!\n");
    return kFlowFailed;  // quirk: no EXIT line here
  }
  TRACE_DATA(3226, "stapi_zeb_socketcomms.flow",
             (TracedStorage{*data, datalen, 0, static_cast<std::size_t>(datalen)}), 0);
  const int rc = exchange(socketDesc, datalen, data, strlen(requestName), *header, *reasons);
  TRACE_EXIT(
      3238,
      "stapi_zeb_socketcomms.flow(socketDesc=%d, datalen=%d, data=%p, requestName=%s, header=%p, "
      "reasons=%p) rc=%d\n",
      socketDesc, datalen, data, ShownText(requestName).chars, header, reasons, rc);
  return rc;
}

int flowHandshakeRequest(int socketDesc, reasons* reasons) noexcept {
  TRACE_ENTRY(3215, "stapi_zeb_socketcomms.flowHandshakeRequest(socketDesc=%d, *reasons=%p)\n",
              socketDesc, reasons);
  RequestHeader header =
      makeHeader(HANDSHAKE_REQUEST_NAME, kHandshakeMessage, sizeof kHandshakeData);
  const int rc = exchangeRequest(
      kHandshake, socketDesc, header, reasons,
      [](ByteWriter& out) { out.bytes(kHandshakeData, sizeof kHandshakeData); }, acceptReply);
  TRACE_EXIT(3219, "stapi_zeb_socketcomms.flowHandshakeRequest(socketDesc=%d, *reasons=%p) rc=%d\n",
             socketDesc, reasons, rc);
  return rc;
}

int flowCloseRequest(int socketDesc, reasons* reasons) noexcept {
  TRACE_ENTRY(3220, "stapi_zeb_socketcomms.flowCloseRequest(socketDesc=%d, *reasons=%p)\n",
              socketDesc, reasons);
  RequestHeader header = makeHeader(HANDSHAKE_REQUEST_NAME, kCloseMessage, 0);
  header.headerWord3 = -1;
  const int rc = exchangeRequest(
      kClose, socketDesc, header, reasons, [](ByteWriter&) {}, acceptReply);
  TRACE_EXIT(3224, "stapi_zeb_socketcomms.flowCloseRequest(socketDesc=%d, *reasons=%p) rc=%d\n",
             socketDesc, reasons, rc);
  return rc;
}

int flowAuthRequest(int socketDesc, AuthRequestRecord* request, reasons* reasons) noexcept {
  TRACE_ENTRY(3209,
              "stapi_zeb_socketcomms.flowAuthRequest(socketDesc=%d, *request=%p, *reasons=%p)\n",
              socketDesc, request, reasons);
  const int rc = exchangeRequest(
      kAuth, socketDesc, request->header, reasons,
      [&](ByteWriter& out) { writeAuthData(*request, out); },
      [&](ByteReader in) { return decodeAuthReply(*request, in, *reasons); });
  TRACE_EXIT(
      3214,
      "stapi_zeb_socketcomms.flowAuthRequest(socketDesc=%d, *request=%p, *reasons=%p) rc=%d\n",
      socketDesc, request, reasons, rc);
  return rc;
}

int flowAdminRequest(int socketDesc, AdminCallRecord* request, reasons* reasons) noexcept {
  TRACE_ENTRY(3200,
              "stapi_zeb_socketcomms.flowAdminRequest(socketDesc=%d, *request=%p, *reasons=%p)\n",
              socketDesc, request, reasons);
  const int kind = request->callKind;
  const int rc = exchangeRequest(
      kAdmin, socketDesc, request->header, reasons,
      [&](ByteWriter& out) { writeAdminData(*request, out); },
      [&](ByteReader in) { return decodeAdminReply(*request, in, kind, *reasons); });
  TRACE_EXIT(
      3208,
      "stapi_zeb_socketcomms.flowAdminRequest(socketDesc=%d, *request=%p, *reasons=%p) rc=%d\n",
      socketDesc, request, reasons, rc);
  return rc;
}
