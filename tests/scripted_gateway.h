// A scripted peer on 127.0.0.1: it expects requests in a given order and answers each as the script
// says.
//
//   const ScriptedGateway gateway(Script().answerOpen().expect().silence());
//   ... openGatewayConnection(gateway.port(), ...
//
// A request that differs from the script ends the connection, so that no client waits for ever, and
// fails the test when the gateway ends; so does a script that was not played to its end. After the
// script the gateway accepts only a close request, and answers it by hanging up.
#ifndef ZEBTEST_SCRIPTED_GATEWAY_H
#define ZEBTEST_SCRIPTED_GATEWAY_H

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "gateway_server.h"
#include "zebstats.h"

namespace zebtest {

using zebsim::Bytes;
using zebsim::Descriptor;

// Bytes written as pairs of hexadecimal digits and quoted text: wire("'Gate' 00700000").
inline Bytes wire(const std::string& text) {
  Bytes out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') {
      const std::size_t start = std::exchange(i, text.find('\'', i + 1)) + 1;
      out += text.substr(start, i - start);
    } else if (text[i] != ' ') {
      out += static_cast<char>(std::stoi(text.substr(i++, 2), nullptr, 16));
    }
  }
  return out;
}

inline sockaddr_in loopback(int port) {
  return {AF_INET, htons(static_cast<in_port_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

// Returns false if the event does not come within that time, or none (-1).
inline bool isReady(const Descriptor& waited, short event, int milliseconds) {
  pollfd entry = {waited.get(), event, 0};
  return poll(&entry, 1, milliseconds) == 1;
}

// A socket that listens on a port of its own and accepts nobody.
struct Listener {
  explicit Listener(int backlog = 8) {
    sockaddr_in address = loopback(0);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(socket.get(), generic, size) != 0 || listen(socket.get(), backlog) != 0 ||
        getsockname(socket.get(), generic, &size) != 0)
      throw std::runtime_error("cannot listen: errno " + std::to_string(errno));
    port = ntohs(address.sin_port);
  }

  Descriptor socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  int port = 0;
};

// A client that is only a socket.
inline Descriptor connectTo(int port, int flags = 0) {
  Descriptor client(socket(AF_INET, SOCK_STREAM | flags, 0));
  const sockaddr_in address = loopback(port);
  const int rc = connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  EXPECT_TRUE(rc == 0 || errno == EINPROGRESS) << errno;
  return client;
}

// A listener whose queue is full, so that every further connect hangs.
struct FullListener : Listener {
  FullListener() : Listener(0) {
    do waiting.push_back(connectTo(port, SOCK_NONBLOCK | SOCK_CLOEXEC));
    while (isReady(waiting.back(), POLLOUT, 50));
  }
  std::vector<Descriptor> waiting;
};

// An open call, and its close unless the test has taken the token away.
struct Connection {
  explicit Connection(int port) : rc(openGatewayConnection(port, &token, &version)) {}
  ~Connection() {
    std::free(version);
    EXPECT_EQ(token != nullptr ? closeGatewayConnection(&token) : 0, 0);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  GatewayToken* token = nullptr;
  char* version = nullptr;
  int rc;
};

// Opens, asks, reads and closes. Returns the first code that is not 0. After a failure the
// connection is gone, and nothing has been handed out.
inline int runSession(int port, const std::function<void()>& afterOpen = nullptr) {
  errno = EAGAIN;  // must not be taken for a reason
  Connection connection(port);
  ResultSetToken* answer = nullptr;
  IdData id;
  if (afterOpen) afterOpen();
  if (connection.rc == 0) connection.rc = getStatIds(connection.token, &answer);
  if (connection.rc == 0) return getFirstId(answer, &id);
  if (connection.token != nullptr) {
    EXPECT_EQ(getStatIds(std::exchange(connection.token, nullptr), &answer), ZEB_TOKEN_UNKNOWN);
  } else {
    EXPECT_EQ(connection.version, nullptr);
  }
  EXPECT_EQ(answer, nullptr);
  return connection.rc;
}

// What one side asks and the other answers.
class Script {
 public:
  // A request of these bytes, or any request.
  Script& expect(Bytes request = {}) { return add(Action::kExpect, std::move(request)); }
  Script& reply(Bytes bytes) { return add(Action::kReply, std::move(bytes)); }
  // The same one byte at a time, until the client sends something or ends the connection.
  Script& drip(Bytes bytes) { return add(Action::kDrip, std::move(bytes)); }
  Script& halfClose() { return add(Action::kHalfClose); }
  // Sends nothing until the client has ended the connection. The test fails if the client sends
  // something.
  Script& silence() { return add(Action::kSilence); }

  Script& answer(Bytes bytes) { return expect().reply(std::move(bytes)); }
  // All that an open call asks; the part of that before the protocol version.
  Script& answerOpen(std::string_view version = zebsim::kOwnProtocol) {
    return answerConnect().answerCall(zebsim::kGetAttribute, zebsim::encodeProtocol(version));
  }
  Script& answerConnect() {
    return answer(zebsim::reply("BASE", ""))
        .answer(zebsim::reply("Auth", zebsim::authFirstData(0x11, 0x22, 0x33)))
        .answer(zebsim::reply("Auth", zebsim::authSecondData()));
  }
  // The two exchanges of one query, or of the protocol version; the first of them.
  Script& answerQuery(const Bytes& data) { return answerCall(zebsim::kInvoke, data); }
  Script& answerCall(zebsim::CallKind kind, const Bytes& data) {
    return answerOpening().answer(zebsim::reply("Admin", zebsim::callData(kind, data)));
  }
  Script& answerOpening() { return answer(zebsim::reply("Admin", zebsim::openingData(7))); }

 private:
  friend class ScriptedGateway;
  enum class Action { kExpect, kReply, kDrip, kHalfClose, kSilence };
  struct Step {
    Action action;
    Bytes bytes;
  };

  Script& add(Action action, Bytes bytes = {}) {
    steps_.push_back({action, std::move(bytes)});
    return *this;
  }

  std::vector<Step> steps_;
};

class ScriptedGateway {
 public:
  explicit ScriptedGateway(Script script)
      : script_(std::move(script)), thread_([this] { play(); }) {}
  ~ScriptedGateway() {
    EXPECT_EQ(eventfd_write(wake_.get(), 1), 0);
    thread_.join();
    EXPECT_EQ(problem_, "");
  }
  ScriptedGateway(const ScriptedGateway&) = delete;
  ScriptedGateway& operator=(const ScriptedGateway&) = delete;

  [[nodiscard]] int port() const { return listener_.port; }
  // Returns when the script has come to its silence.
  void awaitSilence() const { isSilent_.wait(false); }

 private:
  using Action = Script::Action;

  void play() {
    for (; problem_.empty() && at_ < script_.steps_.size(); ++at_) playStep(script_.steps_[at_]);
    if (problem_.empty()) playEnd();
    connection_ = {};
    listener_.socket = {};
    reachSilence();  // nobody waits for a script that went wrong
  }

  void playStep(const Script::Step& step) {
    const Bytes& bytes = step.bytes;
    if (step.action == Action::kExpect) expectRequest(bytes);
    // A client that goes away before it has read everything is not a fault of the script.
    if (step.action == Action::kReply)
      send(connection_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (step.action == Action::kDrip) drip(bytes);
    if (step.action == Action::kHalfClose) shutdown(connection_.get(), SHUT_WR);
    if (step.action == Action::kSilence) expectEnd();
  }

  void expectRequest(const Bytes& expected) {
    const Bytes request = receive();
    if (request.empty() || (!expected.empty() && request != expected))
      fail(request, testing::PrintToString(expected));
  }

  void drip(const Bytes& bytes) {
    constexpr int kPause = 3;
    for (const char byte : bytes)
      if (isReady(connection_, POLLIN, kPause) ||
          send(connection_.get(), &byte, 1, MSG_NOSIGNAL) != 1)
        return;
  }

  void expectEnd() {
    reachSilence();
    const Bytes request = receive();
    if (!request.empty()) fail(request, "the end");
  }

  void playEnd() {
    const Bytes request = receive();
    if (!request.empty() && request.substr(8, 4) != zebsim::words({zebsim::kCloseType}))
      fail(request, "a close request");
  }

  void reachSilence() {
    isSilent_ = true;
    isSilent_.notify_all();
  }

  // What the client sends next: a whole request, because each is sent at once and is smaller than a
  // segment. Empty at the end of the connection, and when the gateway is to stop.
  Bytes receive() {
    if (connection_.get() < 0 && waitFor(listener_.socket))
      connection_ = Descriptor(accept(listener_.socket.get(), nullptr, nullptr));
    char buffer[4096];
    const ssize_t got =
        waitFor(connection_) ? recv(connection_.get(), buffer, sizeof buffer, 0) : 0;
    return {buffer, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
  }

  // False when the gateway is to stop and nothing is ready: what has come is still read.
  [[nodiscard]] bool waitFor(const Descriptor& waited) const {
    pollfd both[2] = {{waited.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    poll(both, 2, -1);
    return both[0].revents != 0;
  }

  void fail(const Bytes& request, const std::string& expected) {
    problem_ = "step " + std::to_string(at_) + ": it sent " + testing::PrintToString(request) +
               " instead of " + expected;
  }

  const Script script_;
  Listener listener_;
  Descriptor wake_{eventfd(0, EFD_CLOEXEC)};
  Descriptor connection_;
  std::atomic<bool> isSilent_ = false;
  // The thread's own, until it has ended.
  std::size_t at_ = 0;
  std::string problem_;
  std::thread thread_;
};

}  // namespace zebtest

#endif
