// Lock rule: after start-up only answers_ and isRunning_ change in more than one thread;
// answersLock_ guards the former, the latter is atomic. clients_ and the model are used by the
// server's thread.
#include "gateway_server.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "gateway_session.h"

namespace zebsim {
namespace {

constexpr std::size_t kMaxClients = 1000;
constexpr int kAcceptPauseMillis = 200;

[[noreturn]] void failWithErrno(const std::string& what) {
  throw std::runtime_error(what + ": " + std::generic_category().message(errno));
}

std::function<std::uint64_t()> realClock() {
  auto start = std::chrono::steady_clock::now();
  return [start] {
    auto passed = std::chrono::steady_clock::now() - start;
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(passed).count());
  };
}

void logToStandardError(const std::string& line) {
  std::fprintf(stderr, "zebgatewaysim: %s\n", line.c_str());
}

std::string showAddress(const sockaddr* address, socklen_t size) {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> port{};
  int rc = getnameinfo(address, size, host.data(), host.size(), port.data(), port.size(),
                       NI_NUMERICHOST | NI_NUMERICSERV);
  if (rc != 0) return "(unknown)";
  std::string shown = host.data();
  return (shown.find(':') == std::string::npos ? shown : "[" + shown + "]") + ":" + port.data();
}

Descriptor listenOn(const addrinfo& info) {
  Descriptor listener(
      socket(info.ai_family, info.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, info.ai_protocol));
  if (listener.get() < 0) failWithErrno("no socket");
  int on = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(listener.get(), info.ai_addr, info.ai_addrlen) != 0) failWithErrno("cannot bind");
  if (listen(listener.get(), SOMAXCONN) != 0) failWithErrno("cannot listen");
  return listener;
}

Descriptor openListener(const std::string& address, std::uint16_t port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  int rc = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (rc != 0) throw std::runtime_error(gai_strerror(rc));
  std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
  for (const addrinfo* info = found;; info = info->ai_next) {
    try {
      return listenOn(*info);
    } catch (const std::runtime_error&) {
      // A name may also have addresses of a family that this host lacks.
      if (info->ai_next == nullptr) throw;
    }
  }
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ >= 0) close(fd_);
}

struct GatewayServer::Client {
  Client(Descriptor socketIn, std::string peerIn, std::uint32_t tag, GatewaySession::Bean bean)
      : socket(std::move(socketIn)), peer(std::move(peerIn)), session(tag, std::move(bean)) {}

  Descriptor socket;
  std::string peer;
  GatewaySession session;
  Bytes in;              // received: nothing more is read while a reply is being sent
  Bytes out;             // the reply that is being sent
  std::size_t sent = 0;  // how much of `out` has been sent
  bool isDropped = false;

  [[nodiscard]] bool isReplying() const { return sent < out.size(); }
  bool receive();
  bool sendReply(std::size_t segment);
};

// Returns false if the client has closed the connection, or it failed.
bool GatewayServer::Client::receive() {
  std::array<char, 16384> piece;
  ssize_t got = recv(socket.get(), piece.data(), piece.size(), 0);
  if (got < 0) return errno == EAGAIN || errno == EINTR;
  in.append(piece.data(), static_cast<std::size_t>(got));
  return got > 0;
}

// Sends what the socket takes; with a segment size, one piece of at most that size. Returns false
// if the connection failed.
bool GatewayServer::Client::sendReply(std::size_t segment) {
  std::size_t size = out.size() - sent;
  if (segment > 0) size = std::min(size, segment);
  ssize_t gone = send(socket.get(), out.data() + sent, size, MSG_NOSIGNAL);
  if (gone < 0) return errno == EAGAIN || errno == EINTR;
  sent += static_cast<std::size_t>(gone);
  if (!isReplying()) {
    out.clear();
    sent = 0;
  }
  return true;
}

GatewayServer::GatewayServer(ServerOptions options)
    : options_(std::move(options)), model_(options_.model) {
  if (!options_.clock) options_.clock = realClock();
  if (!options_.log) options_.log = logToStandardError;
  listener_ = openListener(options_.address, options_.port);
  std::string address = listenAddress();
  port_ = static_cast<std::uint16_t>(std::stoul(address.substr(address.rfind(':') + 1)));
  std::array<int, 2> wake{};
  if (pipe2(wake.data(), O_CLOEXEC | O_NONBLOCK) != 0) failWithErrno("no pipe");
  wakeReader_ = Descriptor(wake[0]);
  wakeWriter_ = Descriptor(wake[1]);
  thread_ = std::thread([this] { serve(); });
}

GatewayServer::~GatewayServer() {
  stop();
}

std::string GatewayServer::listenAddress() const {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (getsockname(listener_.get(), generic, &size) != 0) failWithErrno("no address");
  return showAddress(generic, size);
}

void GatewayServer::stop() {
  isRunning_ = false;
  if (!thread_.joinable()) return;
  wakeWriter_ = Descriptor();  // closes the pipe, which wakes the thread's poll
  thread_.join();
}

void GatewayServer::setAnswer(const std::string& target, Bytes answer) {
  std::lock_guard<std::mutex> lock(answersLock_);
  answers_[target] = std::move(answer);
}

void GatewayServer::clearAnswers() {
  std::lock_guard<std::mutex> lock(answersLock_);
  answers_.clear();
}

void GatewayServer::serve() {
  try {
    while (isRunning_) serveOnce();
  } catch (const std::exception& fault) {
    options_.log(std::string("the server gives up: ") + fault.what());
  }
  clients_.clear();
  isRunning_ = false;
}

void GatewayServer::serveOnce() {
  bool canAccept = clients_.size() < kMaxClients && !isAcceptPaused_;
  std::vector<pollfd> ready;
  ready.push_back({wakeReader_.get(), POLLIN, 0});
  ready.push_back({listener_.get(), static_cast<short>(canAccept ? POLLIN : 0), 0});
  for (const auto& client : clients_) {
    ready.push_back(
        {client->socket.get(), static_cast<short>(client->isReplying() ? POLLOUT : POLLIN), 0});
  }
  int rc = poll(ready.data(), ready.size(), isAcceptPaused_ ? kAcceptPauseMillis : -1);
  isAcceptPaused_ = false;
  if (rc < 0 && errno != EINTR) failWithErrno("poll");
  if (rc <= 0) return;
  for (std::size_t i = 0; i < clients_.size(); ++i) {
    if (ready[i + 2].revents != 0) serveClient(*clients_[i], !clients_[i]->isReplying());
  }
  std::erase_if(clients_, [](const auto& client) { return client->isDropped; });
  if (ready[1].revents != 0) acceptClient();
}

void GatewayServer::acceptClient() {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  Descriptor socket(accept4(listener_.get(), generic, &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (socket.get() < 0) {
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    options_.log("cannot accept a client: " + std::generic_category().message(errno));
    isAcceptPaused_ =
        true;  // out of descriptors, perhaps: the client waits in the listener's queue
    return;
  }
  int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  auto bean = [this](const AdminCall& call) { return answerCall(call); };
  clients_.push_back(std::make_unique<Client>(std::move(socket), showAddress(generic, size),
                                              ++lastTag_, std::move(bean)));
}

void GatewayServer::serveClient(Client& client, bool canRead) {
  try {
    if (canRead) {
      if (!client.receive()) {
        return dropClient(client,
                          client.in.empty() ? "" : "the client left in the middle of a request");
      }
      answerRequests(client);
    }
    while (client.isReplying()) {
      std::size_t before = client.sent;
      if (!client.sendReply(options_.segment))
        return dropClient(client, "the client does not take its reply");
      if (client.isReplying() && client.sent == before) return;  // poll says when there is room
      if (!client.isReplying()) answerRequests(client);
    }
    if (client.session.isClosed()) dropClient(client, "");
  } catch (const std::exception& fault) {
    dropClient(client, fault.what());
  }
}

// Takes one request, if it is complete, and prepares its reply. Later requests stay in client.in
// until that reply has been sent.
void GatewayServer::answerRequests(Client& client) {
  Request request;
  if (client.session.isClosed() || !takeRequest(client.in, request)) return;
  client.out = client.session.answer(request);
}

void GatewayServer::dropClient(Client& client, const std::string& reason) {
  client.isDropped = true;
  if (!reason.empty()) options_.log("closed the connection from " + client.peer + ": " + reason);
}

Bytes GatewayServer::answerCall(const AdminCall& call) {
  {
    std::lock_guard<std::mutex> lock(answersLock_);
    if (auto custom = answers_.find(call.target); custom != answers_.end()) return custom->second;
  }
  if (call.kind == kGetAttribute && call.target == "protocol") return encodeProtocol(kOwnProtocol);
  if (call.kind == kInvoke) {
    const auto encode = [this](const Answer& answer) {
      return encodeAnswer(answer, options_.blocks);
    };
    if (call.target == "GET_STATS") return encode(model_.stats(call.argument, options_.clock()));
    if (call.target == "STAT_IDS") return encode(model_.statIds(call.argument));
    if (call.target == "RESOURCE_GROUPS") return encode(model_.groups());
  }
  throw BadRequest("the statistics bean has no such attribute or operation");
}

}  // namespace zebsim
