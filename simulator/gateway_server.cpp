// Lock rule: after start-up, threads share answers_, which answersLock_ guards, and isRunning_,
// which is atomic. Only the server's thread uses the clients and the model.
#include "gateway_server.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "gateway_client.h"
#include "gateway_session.h"

namespace zebsim {
namespace {

constexpr std::size_t kMaxClients = 10000;
constexpr int kAcceptPauseMillis = 200;
constexpr std::chrono::milliseconds kPieceInterval(20);  // between the pieces of a slow reply

[[noreturn]] void failWithErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

std::function<std::uint64_t()> realClock() {
  auto start = std::chrono::steady_clock::now();
  return [start] {
    auto passed = std::chrono::steady_clock::now() - start;
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::seconds>(passed).count());
  };
}

// The clients come first: if standard error is a pipe that is full, the line is lost.
void logToStandardError(const std::string& line) {
  static std::mutex lock;
  std::lock_guard<std::mutex> guard(lock);
  pollfd writable{STDERR_FILENO, POLLOUT, 0};
  if (poll(&writable, 1, 0) != 1 || (writable.revents & POLLOUT) == 0) return;
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
  int off = 0;  // whatever the host's default is
  if (info.ai_family == AF_INET6)
    setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
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

// The IPv6 address of all addresses accepts IPv4 too, but a host may lack IPv6.
Descriptor openEveryListener(std::uint16_t port) {
  try {
    return openListener("::", port);
  } catch (const std::runtime_error&) {
    return openListener("0.0.0.0", port);
  }
}

void addToEpoll(int epoll, int fd, void* owner) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = owner;
  if (epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0) failWithErrno("epoll_ctl");
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ >= 0) close(fd_);
}

GatewayServer::GatewayServer(ServerOptions options)
    : options_(std::move(options)), model_(options_.model) {
  if (!options_.clock) options_.clock = realClock();
  if (!options_.log) options_.log = logToStandardError;
  listener_ = options_.address.empty() ? openEveryListener(options_.port)
                                       : openListener(options_.address, options_.port);
  std::string address = listenAddress();
  port_ = static_cast<std::uint16_t>(std::stoul(address.substr(address.rfind(':') + 1)));
  std::array<int, 2> wake{};
  if (pipe2(wake.data(), O_CLOEXEC | O_NONBLOCK) != 0) failWithErrno("no pipe");
  wakeReader_ = Descriptor(wake[0]);
  wakeWriter_ = Descriptor(wake[1]);
  epoll_ = Descriptor(epoll_create1(EPOLL_CLOEXEC));
  if (epoll_.get() < 0) failWithErrno("no epoll");
  addToEpoll(epoll_.get(), wakeReader_.get(), &wakeReader_);
  addToEpoll(epoll_.get(), listener_.get(), &listener_);
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
  wakeWriter_ = Descriptor();  // closes the pipe, which wakes the thread
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
  pauses_.clear();
  clients_.clear();
  isRunning_ = false;
}

void GatewayServer::serveOnce() {
  std::array<epoll_event, 64> ready;
  int count = epoll_wait(epoll_.get(), ready.data(), ready.size(), millisToNextPiece());
  if (count < 0 && errno != EINTR) failWithErrno("epoll_wait");
  if (isAcceptPaused_) pauseAccepting(false);
  bool canAccept = false;
  for (int i = 0; i < count; ++i) {
    const epoll_event& event = ready[static_cast<std::size_t>(i)];
    if (event.data.ptr == &listener_) {
      canAccept = true;
    } else if (event.data.ptr != &wakeReader_) {
      serveClient(*static_cast<Client*>(event.data.ptr), event.events);
    }
  }
  continueSlowReplies();
  if (canAccept) acceptClient();
  dropped_.clear();
}

void GatewayServer::acceptClient() {
  if (clients_.size() >= kMaxClients) makeRoom("no more clients are served");
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  Descriptor socket(accept4(listener_.get(), generic, &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (socket.get() >= 0) return addClient(std::move(socket), showAddress(generic, size));
  if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
  // The new client waits in the listener's queue.
  if ((errno == EMFILE || errno == ENFILE) && !clients_.empty())
    return makeRoom("no descriptor is left");
  options_.log("cannot accept a client: " + std::generic_category().message(errno));
  pauseAccepting(true);
}

void GatewayServer::addClient(Descriptor socket, std::string peer) {
  int on = 1;
  setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  auto bean = [this](const AdminCall& call) { return answerCall(call); };
  clients_.emplace_back(std::move(socket), std::move(peer), ++lastTag_, std::move(bean));
  Client& client = clients_.back();
  client.self = std::prev(clients_.end());
  client.isMute = options_.troubles.mute == Troubles::Mute::kHandshake;
  addToEpoll(epoll_.get(), client.socket.get(), &client);
}

// Drops the oldest client that has asked nothing; if there is none, the one that has been silent
// for longest. New clients are served, however many silent ones there are.
void GatewayServer::makeRoom(const std::string& reason) {
  auto silent = std::find_if(clients_.begin(), clients_.end(),
                             [](const Client& client) { return !client.hasAsked; });
  dropClient(silent == clients_.end() ? clients_.front() : *silent,
             "it has been silent for longest, and " + reason);
}

void GatewayServer::serveClient(Client& client, std::uint32_t events) {
  try {
    if (!client.isReplying()) {
      readRequests(client);
    } else if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
      return dropClient(client, "the client does not take its reply");
    }
    sendReply(client);
  } catch (const std::exception& fault) {
    dropClient(client, fault.what());
  }
}

void GatewayServer::readRequests(Client& client) {
  if (!client.receive()) {
    return dropClient(client,
                      client.in.empty() ? "" : "the client left in the middle of a request");
  }
  answerRequest(client);
}

// Takes one request, if it is complete, and prepares its reply. Later requests stay in client.in
// until that reply has been sent.
void GatewayServer::answerRequest(Client& client) {
  Bytes().swap(client.out);  // clear() would keep the memory of a big reply for an idle client
  client.sent = 0;
  if (client.isMute) client.in.clear();
  Request request;
  if (client.session.isClosed() || !takeRequest(client.in, request)) return;
  clients_.splice(clients_.end(), clients_, client.self);
  client.hasAsked = true;
  client.isQuery = isQuery(request);
  client.asked = Client::Clock::now();
  client.out = client.session.answer(request);
  const Troubles& troubles = options_.troubles;
  client.isMute = (client.isQuery && troubles.mute == Troubles::Mute::kQuery) ||
                  (client.session.isClosed() && !troubles.hasCloseAnswer);
  if (client.isMute) client.out.clear();
}

// Sends what may be sent now of the reply, then answers the next request. If all is done, waits for
// more.
void GatewayServer::sendReply(Client& client) {
  while (client.isReplying()) {
    std::size_t limit = limitOfReply(client);
    if (!client.sendUntil(limit, options_.segment))
      return dropClient(client, "the client does not take its reply");
    if (client.sent < limit) return watch(client, EPOLLOUT);
    if (client.isReplying()) return pauseReply(client);
    answerRequest(client);
  }
  if (client.isDropped) return;
  if (client.session.isClosed() && !client.isMute) return dropClient(client, "");
  watch(client, EPOLLIN);
}

// Returns how many bytes of the reply may be sent by now.
std::size_t GatewayServer::limitOfReply(const Client& client) const {
  const Troubles& troubles = options_.troubles;
  std::size_t size = client.out.size();
  if (!client.isQuery) return size;
  if (troubles.slow.count() > 0) size = client.countDue(Client::Clock::now(), troubles.slow);
  return troubles.resetsAnswers ? std::min(size, client.out.size() / 2) : size;
}

// Called when the reply is not complete, but no more of it may be sent now.
void GatewayServer::pauseReply(Client& client) {
  if (options_.troubles.resetsAnswers && client.sent >= client.out.size() / 2) {
    client.resetAtClose();
    return dropClient(client, "");
  }
  client.due = Client::Clock::now() + kPieceInterval;
  pauses_.emplace(client.due, &client);
  watch(client, 0);
}

// Those that fall due meanwhile wait for the next round: with thousands of them there would be no
// end, and no client accepted.
void GatewayServer::continueSlowReplies() {
  const auto now = Client::Clock::now();
  while (!pauses_.empty() && pauses_.begin()->first <= now) {
    Client& client = *pauses_.begin()->second;
    pauses_.erase(pauses_.begin());
    serveClient(client, 0);
  }
}

// Returns how long epoll may wait, -1 for ever.
int GatewayServer::millisToNextPiece() const {
  if (pauses_.empty()) return isAcceptPaused_ ? kAcceptPauseMillis : -1;
  auto left = pauses_.begin()->first - Client::Clock::now();
  auto millis = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::max<std::int64_t>(millis, 0));
}

// The client is destroyed later, because the callers still use it.
void GatewayServer::dropClient(Client& client, const std::string& reason) {
  if (client.isDropped) return;
  client.isDropped = true;
  client.out.clear();
  pauses_.erase({client.due, &client});
  dropped_.splice(dropped_.end(), clients_, client.self);
  if (!reason.empty()) options_.log("closed the connection from " + client.peer + ": " + reason);
}

void GatewayServer::watch(Client& client, std::uint32_t events) {
  if (client.watched == events) return;
  epoll_event event{};
  event.events = client.watched = events;
  event.data.ptr = &client;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, client.socket.get(), &event) != 0)
    failWithErrno("epoll_ctl");
}

void GatewayServer::pauseAccepting(bool isPaused) {
  isAcceptPaused_ = isPaused;
  epoll_event event{};
  event.events = isPaused ? 0U : EPOLLIN;
  event.data.ptr = &listener_;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, listener_.get(), &event) != 0)
    failWithErrno("epoll_ctl");
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
