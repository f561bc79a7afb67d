// The TCP connection to a gateway: resolved, connected, handshaken and authorised, and closed
// again.
//
// A socket belongs to the thread that works on its gateway token; no lock is taken here. Another
// thread may shut it down to cancel the call, which is why its descriptor is stored as soon as
// there is one.

#include "stapi_zeb_gwycon.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_memory.h"
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
constexpr int kConnectWaitSeconds = 60;

struct FreeAddresses {
  void operator()(addrinfo* addresses) const noexcept { freeaddrinfo(addresses); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

pthread_mutex_t resolverMutex = PTHREAD_MUTEX_INITIALIZER;

bool isNumeric(const char* host) noexcept {
  in6_addr address;
  return inet_pton(AF_INET, host, &address) == 1 || inet_pton(AF_INET6, host, &address) == 1;
}

// The C library has a lock in the resolver that it does not release in a forked child. No thread is
// in it while another one forks, if the address is numeric, which takes microseconds; a name may
// take seconds, and does not hold up a fork.
int resolve(const char* host, const char* port, const addrinfo& hints, addrinfo** found) noexcept {
  if (host == nullptr || !isNumeric(host)) return getaddrinfo(host, port, &hints, found);
  const MutexGuard guard(resolverMutex);
  return getaddrinfo(host, port, &hints, found);
}

// The hints refuse a numeric address on a host that has no other address of that family, such as
// 127.0.0.1 where there is only IPv6; such an address is then taken as it is.
int findAddresses(const char* host, const char* port, addrinfo** found) noexcept {
  addrinfo hints = {};
  hints.ai_flags = AI_ALL | AI_ADDRCONFIG;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  const int code = resolve(host, port, hints, found);
  if (code == 0 || host == nullptr) return code;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  return getaddrinfo(host, port, &hints, found) == 0 ? 0 : code;
}

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

// If the host closed descriptors 0 to 2, socket() may return one of them, and what the process
// prints would go to the gateway; so it is moved above 2.
int openSocketOffStandardStreams(const addrinfo& address) noexcept {
  const int opened =
      socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC, address.ai_protocol);
  if (opened < 0 || opened > STDERR_FILENO) return opened;
  const int moved = fcntl(opened, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int error = errno;
  close(opened);
  errno = error;
  return moved;
}

int createSocket(const addrinfo& address, int& socketDescriptor) noexcept {
  TRACE_DEBUG(
      3013,
      "stapi_zeb_gwycon.connectToGateway Creating socket for family %d, type %d, protocol %d\n",
      address.ai_family, address.ai_socktype, address.ai_protocol);
  const int opened = openSocketOffStandardStreams(address);
  const int error = errno;
  std::atomic_ref(socketDescriptor).store(opened, std::memory_order_seq_cst);
  if (opened < 0) {
    TRACE_EXC(3001, "stapi_zeb_gwycon.connectToGatewayUnable to create a socket: %s(%d)\n",
              strerror(error), error);
    return kSocketFailed;
  }
  const int on = 1;
  if (setsockopt(socketDescriptor, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0 ||
      setsockopt(socketDescriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
    TRACE_DEBUG(3002,
                "stapi_zeb_gwycon.connectToGateway Set socket to KeepAlive or NoDelay failed: %d\n",
                socketDescriptor);
    return kSocketFailed;
  }
  TRACE_DEBUG(3002, "stapi_zeb_gwycon.connectToGatewayCreated socket: %d\n", socketDescriptor);
  return 0;
}

// quirk: passes a value where FIONBIO wants a pointer; the kernel refuses, the socket stays
// blocking and the system's own limit bounds the connect.
void requestBlocking(int socketDescriptor, int option) noexcept {
  ioctl(socketDescriptor, FIONBIO, reinterpret_cast<void*>(static_cast<std::intptr_t>(option)));
}

// With a deadline the connect itself must not block.
void switchNonBlocking(int socketDescriptor, int option) noexcept {
  if (hasDeadline()) {
    ioctl(socketDescriptor, FIONBIO, &option);
  } else {
    requestBlocking(socketDescriptor, option);
  }
}

int mapConnectFailure(int result, int error) noexcept {
  TRACE_EXC(3006, "stapi_zeb_gwycon.connectToGatewayUnable to connect to Gateway: %s\n",
            strerror(error));
  if (result == kConnectTimedOut && hasDeadline()) return kConnectTimedOut;
  // quirk: a timed-out wait is reported as success, without handshake
  if (result != -1 && result != kConnectFailed) return 0;
  if (error == ENETUNREACH) return kConnectUnreachable;
  if (error == ECONNREFUSED) return kConnectRefused;
  return kConnectFailed;
}

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

// A thread that cancels the call sets the flag before it shuts the socket down, which does not end
// a connect that begins only then; so it also gives the socket a send timeout, which does.
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

// The error of a finished connect.
int takeSocketError(int socketDescriptor) noexcept {
  int error = 0;
  socklen_t length = sizeof error;
  if (getsockopt(socketDescriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
  return error;
}

// Seconds left after a signal; quirk: 1 if less than one has passed.
int remainingSeconds(time_t start) noexcept {
  const auto elapsed = static_cast<int>(difftime(time(nullptr), start));
  return elapsed >= 1 && elapsed < kConnectWaitSeconds ? kConnectWaitSeconds - elapsed : 1;
}

int failConnection(int socketDescriptor, int error, int* errorPtr) noexcept {
  TRACE_EXC(3015, "stapi_zeb_gwycon.waitForConnection socket %d connect() failed error %d\n",
            socketDescriptor, error);
  *errorPtr = error;
  return kConnectFailed;
}

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

// poll of one descriptor, until the deadline or for that many seconds. events are those that are
// waited for, and then those that have come.
int waitForConnect(int socketDescriptor, int seconds, short& events) noexcept {
  if (hasDeadline() || socketDescriptor < 0)
    return waitForEvents(socketDescriptor, events, &events);
  pollfd waited = {socketDescriptor, events, 0};
  const int ready = poll(&waited, 1, seconds * 1000);
  events = waited.revents;
  return ready;
}

int failWait(int error, int* errorPtr) noexcept {
  TRACE_EXC(3017, "stapi_zeb_gwycon.waitForConnection select call failed with error %d\n", error);
  *errorPtr = error;
  return kConnectFailed;
}

}  // namespace

void lockResolverForFork() noexcept {
  pthread_mutex_lock(&resolverMutex);
}

void unlockResolverAfterFork() noexcept {
  pthread_mutex_unlock(&resolverMutex);
}

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

// With a deadline the wait lasts until that. poll, because select cannot take descriptors above
// 1023.
int waitForConnection(const int* socketDescriptorPtr, int* errorPtr) noexcept {
  const int socketDescriptor = *socketDescriptorPtr;
  const time_t start = time(nullptr);
  int seconds = kConnectWaitSeconds;
  for (;;) {
    TRACE_DEBUG(3014,
                "stapi_zeb_gwycon.waitForConnection Calling select() on socketdescriptor %d\n",
                socketDescriptor);
    short events = POLLOUT | POLLPRI;
    const int ready = waitForConnect(socketDescriptor, seconds, events);
    if (ready < 0 && errno == EINTR) {
      seconds = remainingSeconds(start);
      continue;
    }
    if (ready < 0) return failWait(errno, errorPtr);
    if (ready == 0) return giveUpWait(socketDescriptor);
    if ((events & POLLNVAL) != 0) return failWait(EBADF, errorPtr);
    if ((events & (POLLOUT | POLLERR | POLLHUP)) == 0) return 0;
    const int error = takeSocketError(socketDescriptor);
    return error == 0 ? 0 : failConnection(socketDescriptor, error, errorPtr);
  }
}

int authorizeConnection(int socketDescriptor, reasons* reasons) noexcept {
  TRACE_ENTRY(3010, "stapi_zeb_gwycon.authorizeConnection(socketDescriptor=%d, reasons=%p)\n",
              socketDescriptor, reasons);
  AuthRequestRecord record = {};
  record.header = makeHeader(AUTH_REQUEST_NAME, kCallMessage, 4);
  int rc = flowAuthRequest(socketDescriptor, &record, reasons);
  if (rc == 0) {  // the other header fields go back as the first reply had them
    record.header.messageType = kCallMessage;
    record.header.headerWord4 = 0;
    record.header.requestName = AUTH_REQUEST_NAME;
    record.header.dataLength = 20;
    record.authStep = 1;
    record.authWord4 = 0;
    rc = flowAuthRequest(socketDescriptor, &record, reasons);
  }
  TRACE_EXIT(3011, "stapi_zeb_gwycon.authorizeConnection(socketDescriptor=%d, reasons=%p) rc=%d\n",
             socketDescriptor, reasons, rc);
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
