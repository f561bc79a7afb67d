#include "peer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "gateway_model.h"
#include "gateway_wire.h"
#include "rounds.h"

namespace zebbench {
namespace {

constexpr std::size_t kFixedHeaderSize = 29;
constexpr std::size_t kNameOffset = 24;
constexpr std::size_t kRequestRoom = 65536;

std::uint32_t word(const char* at) {
  std::uint32_t value;
  std::memcpy(&value, at, sizeof value);
  return ntohl(value);
}

std::size_t requestSize(const char* request) {
  const std::size_t name = word(request + 20);
  return kFixedHeaderSize + name + word(request + kFixedHeaderSize + name - 4);
}

// Returns the size of the next request, or 0 if the client has closed the connection.
std::size_t receiveRequest(int connection, char* room) {
  std::size_t got = 0;
  do {
    const ssize_t received = recv(connection, room + got, kRequestRoom - got, 0);
    if (received <= 0) return 0;
    got += static_cast<std::size_t>(received);
  } while (got < kFixedHeaderSize || got < requestSize(room));
  return got;
}

void setNoDelay(int connection) {
  const int on = 1;
  setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

zebsim::Stats makeStats(std::size_t count) {
  // The sizes of id and value together; the answer with a thousand of them has 43 kB.
  constexpr std::size_t kMinSize = 26;
  constexpr std::size_t kMaxSize = 40;
  const zebsim::GatewayModel model({.seed = 1, .scale = 1000});
  zebsim::Stats stats;
  const zebsim::Answer answer = model.stats("", 3600);
  for (const auto& stat : std::get<zebsim::Stats>(answer.responses.at(0).items)) {
    const std::size_t size = stat.id.size() + stat.value.size();
    if (stats.size() < count && size >= kMinSize && size <= kMaxSize) stats.push_back(stat);
  }
  require(stats.size() == count, "the simulated gateway has too few statistics");
  return stats;
}

Bytes statsAnswer(std::size_t count) {
  return zebsim::encodeAnswer(
      {.isList = false, .responses = {{.query = "", .rc = 0, .items = makeStats(count)}}});
}

Bytes idsAnswer(std::size_t count) {
  zebsim::Ids ids;
  for (auto& stat : makeStats(count)) ids.push_back(stat.id);
  return zebsim::encodeAnswer(
      {.isList = false, .responses = {{.query = "", .rc = 0, .items = ids}}});
}

Peer::Peer(const Bytes& answer, int workers) {
  using namespace zebsim;
  replies_.hello = reply(kBaseName, "");
  replies_.firstStep = reply(kAuthName, authFirstData(1, 2, 3));
  replies_.secondStep = reply(kAuthName, authSecondData());
  replies_.opening = reply(kAdminName, openingData(1));
  replies_.protocol = reply(kAdminName, callData(kGetAttribute, encodeProtocol(kOwnProtocol)));
  replies_.answer = reply(kAdminName, callData(kInvoke, answer));

  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  require(bind(listener_, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
              listen(listener_, 512) == 0 &&
              getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) == 0,
          "cannot listen on 127.0.0.1");
  port_ = ntohs(address.sin_port);
  for (int i = 0; i < workers; ++i) workers_.emplace_back([this] { serveConnections(); });
}

Peer::~Peer() {
  shutdown(listener_, SHUT_RDWR);  // wakes the workers; their clients have disconnected by now
  for (std::thread& worker : workers_) worker.join();
  close(listener_);
}

std::vector<Bytes> Peer::stopRecording() {
  recording_ = false;
  return std::exchange(recorded_, {});
}

void Peer::serveConnections() {
  for (;;) {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) return;
    setNoDelay(connection);
    serve(connection);
    close(connection);
  }
}

void Peer::serve(int connection) {
  char request[kRequestRoom];
  while (const std::size_t size = receiveRequest(connection, request)) {
    if (recording_) recorded_.emplace_back(request, size);
    const Bytes& reply = chooseReply(request);
    if (send(connection, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) return;
  }
}

const Bytes& Peer::chooseReply(const char* request) const {
  if (word(request + 8) != zebsim::kCallType) return replies_.hello;
  const std::size_t name = word(request + 20);
  // The first word of the data: the authorisation step, or the call kind.
  const std::uint32_t first = word(request + kFixedHeaderSize + name);
  if (std::memcmp(request + kNameOffset, zebsim::kAuthName.data(), name) == 0) {
    return first == 0 ? replies_.firstStep : replies_.secondStep;
  }
  if (first == zebsim::kOpening) return replies_.opening;
  return first == zebsim::kGetAttribute ? replies_.protocol : replies_.answer;
}

PeerProcess::PeerProcess(std::size_t statistics, int workers) {
  int ends[2];
  require(pipe(ends) == 0, "cannot make a pipe");
  child_ = fork();
  if (child_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const Peer peer(statsAnswer(statistics), workers);
    const std::uint16_t port = peer.port();
    require(write(ends[1], &port, sizeof port) == sizeof port, "cannot send the port");
    for (;;) pause();
  }
  require(read(ends[0], &port_, sizeof port_) == sizeof port_, "a peer does not start");
  close(ends[0]);
  close(ends[1]);
}

PeerProcess::~PeerProcess() {
  kill(child_, SIGKILL);
  waitpid(child_, nullptr, 0);
}

int connectBare(std::uint16_t port) {
  const sockaddr_in address = loopback(port);
  const int connection = socket(AF_INET, SOCK_STREAM, 0);
  require(connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
          "a bare client cannot connect");
  return connection;
}

void exchangeBare(int connection, const Bytes& request, std::size_t replySize) {
  static char room[kRequestRoom * 4];
  require(send(connection, request.data(), request.size(), MSG_NOSIGNAL) > 0,
          "a bare client cannot send");
  for (std::size_t got = 0; got < replySize;) {
    const ssize_t received = recv(connection, room + got, replySize - got, 0);
    require(received > 0, "a bare client cannot receive");
    got += static_cast<std::size_t>(received);
  }
}

}  // namespace zebbench
