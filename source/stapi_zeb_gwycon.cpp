// The TCP connection to a gateway: the host is resolved, the socket connected, the session begun
// with a handshake and an authorisation, and at the end closed.
//
// Only the thread that works on a gateway token uses its socket, so no lock protects it. Another
// thread may shut it down to cancel the call, and therefore has to see its descriptor as soon as
// there is one.

#include "stapi_zeb_gwycon.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_protocol.h"
#include "stapi_zeb_socketcomms.h"
#include "stapi_zeb_timeout.h"
#include "stapi_zeb_version.h"

extern "C" {
extern const char stapi_zeb_gwycon_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_gwycon_notice[] = ZEB_NOTICE("stapi_zeb_gwycon");

int sockOptOn = 1;
int sockOptOff = 0;
}

namespace zeb {
namespace {

constexpr char AUTH_REQUEST_NAME[] = "Auth";
constexpr std::uint32_t kAuthFirstStepLength = 4;    // the step
constexpr std::uint32_t kAuthSecondStepLength = 20;  // the step and four words
constexpr int kConnectWaitSeconds = 60;

struct FreeAddresses {
  void operator()(addrinfo* addresses) const noexcept { freeaddrinfo(addresses); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

// Returns getaddrinfo's code, and on 0 the addresses. A numeric address is taken as it is, for two
// reasons. With AI_ADDRCONFIG it would be refused if this host has no address of that family, for
// example 127.0.0.1 on a host with IPv6 only. And the C library would take a lock, which a forked
// child inherits locked if another thread resolves a name at the fork: the child would hang.
int findAddresses(const char* host, const char* port, addrinfo** found) noexcept {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  if (host != nullptr && getaddrinfo(host, port, &hints, found) == 0) return 0;
  hints.ai_flags = AI_ALL | AI_ADDRCONFIG;
  return getaddrinfo(host, port, &hints, found);
}

// Returns 0 and the addresses, or kHostNotResolved.
int getHostInfo(int port, const char* host, Addresses& addresses) noexcept {
  char portText[16] = {};
  snprintf(portText, sizeof portText, "%d", port);
  addrinfo* found = nullptr;
  const int code = findAddresses(host, portText, &found);
  if (code != 0) {
    TRACE_EXC(3012, "stapi_zeb_gwycon.getHostInfoUnable to resolve host (%s:%s): %s(%d)\n",
              textToShow(host), portText, gai_strerror(code), code);
    return kHostNotResolved;
  }
  addresses.reset(found);
  return 0;
}

// Stores the new descriptor, or -1, in socketDescriptor. Returns 0 or kSocketFailed.
int createSocket(const addrinfo& address, int& socketDescriptor) noexcept {
  TRACE_DEBUG(
      3013,
      "stapi_zeb_gwycon.connectToGateway Creating socket for family %d, type %d, protocol %d\n",
      address.ai_family, address.ai_socktype, address.ai_protocol);
  const int opened = moveOffStandardStreams(
      socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, address.ai_protocol));
  const int error = errno;
  std::atomic_ref(socketDescriptor).store(opened, std::memory_order_seq_cst);
  if (opened < 0) {
    TRACE_EXC(3001, "stapi_zeb_gwycon.connectToGatewayUnable to create a socket: %s(%d)\n",
              strerror(error), error);
    return kSocketFailed;
  }
  const int enabled = 1;
  if (setsockopt(socketDescriptor, SOL_SOCKET, SO_KEEPALIVE, &enabled, sizeof enabled) != 0 ||
      setsockopt(socketDescriptor, IPPROTO_TCP, TCP_NODELAY, &enabled, sizeof enabled) != 0) {
    TRACE_DEBUG(3002,
                "stapi_zeb_gwycon.connectToGateway Set socket to KeepAlive or NoDelay failed: %d\n",
                socketDescriptor);
    return kSocketFailed;
  }
  TRACE_DEBUG(3002, "stapi_zeb_gwycon.connectToGatewayCreated socket: %d\n", socketDescriptor);
  return 0;
}

// Switches the socket to non-blocking (sockOptOn) or back (sockOptOff).
//
// quirk: without a deadline this does nothing. It passes the value where FIONBIO expects a pointer;
// the kernel refuses that, the socket stays blocking, and the system's limit bounds the connect.
// With a deadline the connect must not block, so the call is made as it should be.
void switchNonBlocking(int socketDescriptor, int option) noexcept {
  if (hasDeadline()) {
    ioctl(socketDescriptor, FIONBIO, &option);
  } else {
    ioctl(socketDescriptor, FIONBIO, reinterpret_cast<void*>(static_cast<std::intptr_t>(option)));
  }
}

// Returns connectToGateway's code for a failed connect: result is -1 or a code of
// waitForConnection, error the reason, an errno.
int mapConnectFailure(int result, int error) noexcept {
  TRACE_EXC(3006, "stapi_zeb_gwycon.connectToGatewayUnable to connect to Gateway: %s\n",
            strerror(error));
  if (result == kConnectTimedOut && hasDeadline()) return kConnectTimedOut;
  // quirk: a wait of 60 s that timed out is reported as success, without a handshake
  if (result != -1 && result != kConnectFailed) return 0;
  if (error == ENETUNREACH) return kConnectUnreachable;
  if (error == ECONNREFUSED) return kConnectRefused;
  return kConnectFailed;
}

// Flows the handshake and the authorisation on a connected socket. Returns 0, kConnectFailed, or
// authorizeConnection's codes.
int startSession(int port, const char* host, int socketDescriptor) noexcept {
  TRACE_DEBUG(3003, "stapi_zeb_gwycon.connectToGatewayConnected to Gateway %s:%u\n",
              textToShow(host), static_cast<unsigned>(port));
  switchNonBlocking(socketDescriptor, sockOptOff);
  reasons failure = {};
  const int rc = flowHandshakeRequest(socketDescriptor, &failure);
  if (rc != 0) {
    TRACE_EXC(
        3005,
        "stapi_zeb_gwycon.connectToGatewayHandshake flows failed rc=%d errno=%s gwyRc=%d authRc=%d\n",
        rc, strerror(failure.sockErrno), failure.gwyRc, failure.authRc);
    return kConnectFailed;
  }
  TRACE_DEBUG(3004, "stapi_zeb_gwycon.connectToGatewayFlowed Handshake to the Gateway\n");
  return authorizeConnection(socketDescriptor, &failure);
}

// Returns 0, -1 (the connect failed, or the call was cancelled), or waitForConnection's codes;
// error is the reason.
//
// Another thread that cancels the call sets its flag, which isCancelled() reads, and then shuts the
// socket down. That does not end a connect that begins only afterwards; the send timeout that the
// other thread also sets on the socket does.
//
// Without a deadline the socket is blocking, and a connect that is not cancelled reports
// EINPROGRESS only if a host has replaced it, with a proxy's library for example. Then the wait of
// 60 s applies.
int connectSocket(const addrinfo& address, int* socketDescriptorPtr, int& error) noexcept {
  switchNonBlocking(*socketDescriptorPtr, sockOptOn);
  int result =
      isCancelled() ? -1 : connect(*socketDescriptorPtr, address.ai_addr, address.ai_addrlen);
  error = errno;
  if (isCancelled()) {
    result = -1;
    error = ECANCELED;
  } else if (result == -1 && error == EINPROGRESS) {
    TRACE_DEBUG(9999, "stapi_zeb_gwycon.connectToGateway Waiting for connect to complete\n");
    result = waitForConnection(socketDescriptorPtr, &error);
  }
  return result;
}

// connectToGateway without its trace lines for entry and exit.
int openConnection(int port, const char* host, int* socketDescriptorPtr) noexcept {
  Addresses addresses;
  int rc = getHostInfo(port, host, addresses);
  if (rc == 0) rc = createSocket(*addresses, *socketDescriptorPtr);
  if (rc != 0) return rc;

  int error = 0;
  const int result = connectSocket(*addresses, socketDescriptorPtr, error);
  if (result == 0) return startSession(port, host, *socketDescriptorPtr);
  return mapConnectFailure(result, error);
}

// Returns the error of a connect that has ended, 0 if it succeeded.
int takeSocketError(int socketDescriptor) noexcept {
  int error = 0;
  socklen_t length = sizeof error;
  if (getsockopt(socketDescriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
  return error;
}

// Returns how many of the 60 s are left after a signal. quirk: 1 if less than a second
// has passed, or if none is left.
int remainingSeconds(time_t start) noexcept {
  const auto elapsed = static_cast<int>(difftime(time(nullptr), start));
  return elapsed >= 1 && elapsed < kConnectWaitSeconds ? kConnectWaitSeconds - elapsed : 1;
}

// Reports a connect that ended with an error, and returns waitForConnection's code for it.
int failConnection(int socketDescriptor, int error, int* errorPtr) noexcept {
  TRACE_EXC(3015, "stapi_zeb_gwycon.waitForConnection socket %d connect() failed error %d\n",
            socketDescriptor, error);
  *errorPtr = error;
  return kConnectFailed;
}

// Reports a wait that ended without an event, and returns waitForConnection's code for it.
int giveUpWait(int socketDescriptor) noexcept {
  if (hasDeadline()) {
    TRACE_EXC(3018, "stapi_zeb_gwycon.waitForConnection Timeout of %d ms has passed on socket %d\n",
              callTimeout(), socketDescriptor);
  } else {
    TRACE_EXC(3016, "stapi_zeb_gwycon.waitForConnection socket %d connect timed out\n",
              socketDescriptor);
  }
  return kConnectTimedOut;
}

// Polls one descriptor until the deadline, or without one for the given seconds. events holds the
// events to wait for, and afterwards those that have occurred. Returns poll's result.
int pollConnect(int socketDescriptor, int seconds, short& events) noexcept {
  // A negative descriptor, which poll would ignore, is refused by waitForEvents.
  if (hasDeadline() || socketDescriptor < 0)
    return waitForEvents(socketDescriptor, events, &events);
  pollfd waited = {.fd = socketDescriptor, .events = events, .revents = 0};
  const int ready = poll(&waited, 1, seconds * 1000);
  events = waited.revents;
  return ready;
}

// Reports a failed poll, and returns waitForConnection's code for it.
int failWait(int error, int* errorPtr) noexcept {
  TRACE_EXC(3017, "stapi_zeb_gwycon.waitForConnection select call failed with error %d\n", error);
  *errorPtr = error;
  return kConnectFailed;
}

}  // namespace

}  // namespace zeb

using namespace zeb;

int connectToGateway(int port, const char* ipAddr, int* socketDescriptorPtr) noexcept {
  TRACE_ENTRY(3000,
              "stapi_zeb_gwycon.connectToGateway(port=%d, ipAddr=%p, socketDescriptorPtr=%p)\n",
              port, ipAddr, socketDescriptorPtr);
  const int connectRc = openConnection(port, ipAddr, socketDescriptorPtr);
  TRACE_EXIT(
      3007,
      "stapi_zeb_gwycon.connectToGateway(port=%d, ipAddr=%p, socketDescriptorPtr=%p) connectRc=%d\n",
      port, ipAddr, socketDescriptorPtr, connectRc);
  return connectRc;
}

// quirk: the lines say select; it is poll, because select cannot take descriptors above 1023.
int waitForConnection(const int* socketDescriptorPtr, int* errorPtr) noexcept {
  const int socketDescriptor = *socketDescriptorPtr;
  const time_t start = time(nullptr);
  int seconds = kConnectWaitSeconds;
  for (;;) {
    TRACE_DEBUG(3014,
                "stapi_zeb_gwycon.waitForConnection Calling select() on socketdescriptor %d\n",
                socketDescriptor);
    short events = POLLOUT | POLLPRI;
    const int ready = pollConnect(socketDescriptor, seconds, events);
    if (ready < 0 && errno == EINTR) {
      seconds = remainingSeconds(start);
      continue;
    }
    if (ready < 0) return failWait(errno, errorPtr);
    if (ready == 0) return giveUpWait(socketDescriptor);
    if ((events & POLLNVAL) != 0) return failWait(EBADF, errorPtr);
    // quirk: urgent data alone (POLLPRI) counts as connected
    if ((events & (POLLOUT | POLLERR | POLLHUP)) == 0) return 0;
    const int error = takeSocketError(socketDescriptor);
    return error == 0 ? 0 : failConnection(socketDescriptor, error, errorPtr);
  }
}

int authorizeConnection(int socketDescriptor, reasons* failure) noexcept {
  TRACE_ENTRY(3010, "stapi_zeb_gwycon.authorizeConnection(socketDescriptor=%d, reasons=%p)\n",
              socketDescriptor, failure);
  AuthRequestRecord record = {};
  record.header = makeHeader(AUTH_REQUEST_NAME, kCallMessage, kAuthFirstStepLength);
  int rc = flowAuthRequest(socketDescriptor, &record, failure);
  if (rc == 0) {
    // The header is now that of the first reply; the fields that are not set here go back
    // unchanged, like the words of that reply.
    record.header.messageType = kCallMessage;
    record.header.headerWord4 = 0;
    record.header.requestName = AUTH_REQUEST_NAME;
    record.header.dataLength = kAuthSecondStepLength;
    record.authStep = 1;
    record.authWord4 = 0;
    rc = flowAuthRequest(socketDescriptor, &record, failure);
  }
  TRACE_EXIT(3011, "stapi_zeb_gwycon.authorizeConnection(socketDescriptor=%d, reasons=%p) rc=%d\n",
             socketDescriptor, failure, rc);
  return rc;
}

int closeConnection(const int* socketDescriptorPtr) noexcept {
  TRACE_ENTRY(3008, "stapi_zeb_gwycon.closeConnection(socketDescriptorPtr=%p)\n",
              socketDescriptorPtr);
  reasons failure = {};
  flowCloseRequest(*socketDescriptorPtr, &failure);
  const int closeConnectionRc = close(*socketDescriptorPtr);
  TRACE_EXIT(3009,
             "stapi_zeb_gwycon.closeConnection(socketDescriptorPtr=%p) closeConnectionRc=%d\n",
             socketDescriptorPtr, closeConnectionRc);
  return closeConnectionRc;
}
