#include "diagnose.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "text.h"
#include "threads.h"

namespace zebtool {

namespace {

using Clock = std::chrono::steady_clock;

// The handshake request, which never differs. A gateway's reply begins with the same word.
constexpr char kHandshake[] =
    "Gate\0\x70\0\0\0\0\0\x05\0\0\0\0\0\0\0\0\0\0\0\x04"
    "BASE\0\0\0\0\x12\0\x02"
    "en\0\x02"
    "GB\0\0\0\0\0\0\0\0\0";  // and the terminator, which belongs to the request
static_assert(sizeof kHandshake == 51);
constexpr std::string_view kGatewayWord = "Gate";

class Socket {
 public:
  explicit Socket(int file) : file_(file) {}
  ~Socket() {
    if (file_ >= 0) close(file_);
  }
  Socket(Socket&& other) noexcept : file_(std::exchange(other.file_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(file_, other.file_);
    return *this;
  }

  // Waits until the deadline or the end of the program. Returns whether there is an event.
  [[nodiscard]] bool waitFor(short event, Clock::time_point deadline) const {
    return waitForEvent(file_, event, deadline);
  }
  [[nodiscard]] int file() const { return file_; }

 private:
  int file_;
};

// Returns 0 if it has connected, otherwise the errno; ETIMEDOUT at the deadline.
int connectTo(const std::string& address, int port, Clock::time_point deadline, Socket& connected) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found) != 0)
    return EADDRNOTAVAIL;
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  Socket socket(::socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (socket.file() < 0) return errno;
  if (connect(socket.file(), found->ai_addr, found->ai_addrlen) != 0) {
    if (errno != EINPROGRESS) return errno;
    if (!socket.waitFor(POLLOUT, deadline)) return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(socket.file(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0) return error;
  }
  connected = std::move(socket);
  return 0;
}

Diagnosis explainConnect(int error) {
  switch (error) {
    case ECONNREFUSED:
      return {FaultReason::kRefused,
              "connection refused: nothing listens on this port; is the gateway running, and is "
              "this its statistics port?"};
    case ETIMEDOUT:
      return {FaultReason::kTimedOut,
              "nothing answers at this address: the machine is down, or a firewall drops what is "
              "sent to it"};
    case ENETUNREACH:
    case EHOSTUNREACH:
    case EADDRNOTAVAIL:
      return {FaultReason::kRefused, std::string("no route: ") + std::strerror(error) +
                                         "; check the address and this machine's network"};
    default:
      return {FaultReason::kRefused,
              std::string(std::strerror(error)) + "; check the address and this machine's network"};
  }
}

// Sends the handshake and explains what comes back.
Diagnosis explainAnswer(const Socket& socket, Clock::time_point deadline) {
  (void)send(socket.file(), kHandshake, sizeof kHandshake, MSG_NOSIGNAL);
  if (!socket.waitFor(POLLIN, deadline))
    return {FaultReason::kTimedOut,
            "it accepts connections and stays silent: the gateway hangs, or this is not its "
            "statistics port"};
  char answer[32];
  ssize_t length = recv(socket.file(), answer, sizeof answer, 0);
  if (length <= 0)
    return {FaultReason::kLost,
            "it accepts connections and closes them at once: the gateway is stopping or takes no "
            "more, or this is not its statistics port"};
  std::string_view bytes(answer, static_cast<std::size_t>(length));
  if (!bytes.starts_with(kGatewayWord.substr(0, bytes.size())))
    return {FaultReason::kMalformed, "this is not a gateway, it answers '" +
                                         std::string(bytes.substr(0, bytes.find_first_of("\r\n"))) +
                                         "'; check the port"};
  return {FaultReason::kMalformed,
          "the gateway answers, but did not open a session in time or as agreed; try a longer "
          "--timeout, or look at its log"};
}

}  // namespace

bool canConnect(const std::string& address, int port, double seconds) {
  auto patience =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  Socket socket(-1);
  return connectTo(address, port, Clock::now() + patience, socket) == 0;
}

const char* nameOf(FaultReason reason) {
  switch (reason) {
    case FaultReason::kRefused:
      return "refused";
    case FaultReason::kUnresolved:
      return "unresolved";
    case FaultReason::kTimedOut:
      return "timed_out";
    case FaultReason::kMalformed:
      return "malformed";
    case FaultReason::kLost:
      break;
  }
  return "lost";
}

// Each address gets an equal share of the time, so that one that drops everything leaves some to
// the others.
Diagnosis diagnose(const std::vector<std::string>& addresses, int port) {
  constexpr std::chrono::milliseconds kPatience(1000);
  Diagnosis found;
  for (const std::string& address : addresses) {
    Socket socket(-1);
    int error = connectTo(address, port, Clock::now() + kPatience / addresses.size(), socket);
    if (error == 0) return explainAnswer(socket, Clock::now() + kPatience);
    found = explainConnect(error);
  }
  return found;
}

}  // namespace zebtool
