// A scripted peer on 127.0.0.1: it expects requests in a given order and answers each as the script
// says.
//
//   const ScriptedGateway gateway(Script().answerOpen().expect().hangUp());
//   ... openGatewayConnection(gateway.port(), ...
//
// A request that differs from the script ends the connection, so that no client waits for ever, and
// fails the test when the gateway ends; so does a script that was not played to its end. After the
// script the gateway accepts only a close request, and answers it by hanging up.
#ifndef ZEBTEST_SCRIPTED_GATEWAY_H
#define ZEBTEST_SCRIPTED_GATEWAY_H

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "gateway_encoder.h"
#include "gateway_server.h"
#include "gateway_wire.h"
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
  [[nodiscard]] bool hasClient() const { return isReady(socket, POLLIN, 0); }

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

// What one side asks and the other answers. A hang-up or a reset ends one connection; an
// expectation after it waits for the next.
class Script {
 public:
  // A request of these bytes, or any request.
  Script& expect(Bytes request = {}) { return add(Action::kExpect, std::move(request)); }
  Script& reply(Bytes bytes) { return add(Action::kReply, std::move(bytes)); }
  Script& hangUp() { return add(Action::kHangUp); }
  Script& reset() { return add(Action::kReset); }
  Script& halfClose() { return add(Action::kHalfClose); }
  // Sends nothing until the client has ended the connection. The test fails if the client sends
  // something, unless that is ignored, and if it is still connected when the gateway ends.
  Script& silence() { return add(Action::kSilence); }
  Script& ignoreAll() { return add(Action::kIgnore); }
  // The same script with each reply sent one byte at a time, until the client ends the connection,
  // which ends the script.
  [[nodiscard]] Script dripped() const {
    Script slow = *this;
    for (Step& step : slow.steps_)
      if (step.action == Action::kReply) step.action = Action::kDrip;
    return slow;
  }
  // For replies that were changed: if no whole request comes within these milliseconds, or another
  // one than expected, the gateway ends the connection, and the test does not fail.
  Script& tolerate(int patience) {
    patience_ = patience;
    return *this;
  }
  Script& then(const Script& next) {
    steps_.insert(steps_.end(), next.steps_.begin(), next.steps_.end());
    return *this;
  }

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

  [[nodiscard]] std::vector<Bytes> replies() const {
    std::vector<Bytes> all;
    for (const Step& step : steps_)
      if (step.action == Action::kReply) all.push_back(step.bytes);
    return all;
  }

 private:
  friend class ScriptedGateway;
  enum class Action { kExpect, kReply, kDrip, kHangUp, kReset, kHalfClose, kSilence, kIgnore };
  struct Step {
    Action action;
    Bytes bytes;
  };

  Script& add(Action action, Bytes bytes = {}) {
    steps_.push_back({action, std::move(bytes)});
    return *this;
  }

  std::vector<Step> steps_;
  int patience_ = -1;  // of a gateway that tolerates everything
};

class ScriptedGateway {
 public:
  explicit ScriptedGateway(Script script)
      : script_(std::move(script)), port_(listener_.port), thread_([this] { play(); }) {}
  ~ScriptedGateway() {
    EXPECT_EQ(eventfd_write(wake_.get(), 1), 0);
    thread_.join();
    EXPECT_EQ(problem_, "");
  }
  ScriptedGateway(const ScriptedGateway&) = delete;
  ScriptedGateway& operator=(const ScriptedGateway&) = delete;

  [[nodiscard]] int port() const { return port_; }
  // Returns when the script has come to its silence.
  void awaitSilence() const { isSilent_.wait(false); }

 private:
  using Action = Script::Action;

  void play() {
    for (; isPlaying() && at_ < script_.steps_.size(); ++at_) playStep(script_.steps_[at_]);
    if (isPlaying()) playEnd();
    if (isTolerant()) return drain();
    connection_ = {};
    listener_.socket = {};
    reachSilence();  // nobody waits for a script that went wrong
  }

  [[nodiscard]] bool isPlaying() const { return problem_.empty() && !hasLeft_; }
  [[nodiscard]] bool isTolerant() const { return script_.patience_ >= 0; }

  void drain() {
    problem_.clear();
    shutdown(connection_.get(), SHUT_WR);
    while (recv(connection_.get(), buffer_, sizeof buffer_, 0) > 0) continue;
  }

  void playStep(const Script::Step& step) {
    const Action action = step.action;
    if (action == Action::kExpect) return expectRequest(step.bytes);
    if (action == Action::kReply || action == Action::kDrip)
      return sendReply(step.bytes, action == Action::kDrip);
    if (action == Action::kSilence || action == Action::kIgnore)
      return waitForEnd(action == Action::kIgnore);
    if (action == Action::kHalfClose) return void(shutdown(connection_.get(), SHUT_WR));
    const linger atOnce = {action == Action::kReset, 0};  // makes the close a reset
    setsockopt(connection_.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    connection_ = {};
  }

  void playEnd() {
    Bytes request;
    if ((connection_.get() >= 0 || acceptClient()) && readRequest(request) &&
        request.substr(8, 4) != zebsim::words({zebsim::kCloseType}))
      fail("a request after the end: " + testing::PrintToString(request));
  }

  void expectRequest(const Bytes& expected) {
    Bytes request;
    if (connection_.get() < 0 && !acceptClient()) return fail("nobody connected");
    if (!readRequest(request))
      return fail("no whole request came, only " + testing::PrintToString(request));
    if (!expected.empty() && request != expected)
      fail("other request:\n  got      " + testing::PrintToString(request) + "\n  expected " +
           testing::PrintToString(expected));
  }

  // A client that goes away before it has read everything is not a fault of the script.
  void sendReply(std::string_view rest, bool isDripped) {
    constexpr int kPause = 3;
    while (!rest.empty()) {
      if (isDripped && isReady(connection_, POLLIN, kPause)) {
        hasLeft_ = recv(connection_.get(), buffer_, 1, 0) <= 0;
        return hasLeft_ ? void() : fail("it sent something during the reply");
      }
      if (!waitFor(connection_, POLLOUT)) return fail("stopped while it replied");
      const ssize_t sent = send(connection_.get(), rest.data(), isDripped ? 1 : rest.size(),
                                MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && errno != EAGAIN) return void(hasLeft_ = isDripped);
      if (sent > 0) rest.remove_prefix(static_cast<std::size_t>(sent));
    }
  }

  void waitForEnd(bool mayAsk) {
    reachSilence();
    while (waitFor(connection_, POLLIN)) {
      const ssize_t got = recv(connection_.get(), buffer_, sizeof buffer_, 0);
      if (got <= 0) {
        connection_ = {};
        return;
      }
      if (!mayAsk)
        return fail("it sent " +
                    testing::PrintToString(Bytes(buffer_, static_cast<std::size_t>(got))));
    }
    if (!mayAsk) fail("the client did not end the connection");
  }

  void reachSilence() {
    isSilent_ = true;
    isSilent_.notify_all();
  }

  bool acceptClient() {
    if (!waitFor(listener_.socket, POLLIN)) return false;
    connection_ = Descriptor(accept(listener_.socket.get(), nullptr, nullptr));
    const int on = 1;
    setsockopt(connection_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return connection_.get() >= 0;
  }

  // Looks only at the lengths; the script decides whether the rest is right.
  bool readRequest(Bytes& request) {
    const auto lengthAt = [&](std::size_t at) {
      return zebsim::ByteReader(std::string_view(request).substr(at)).u32();
    };
    if (!readUpTo(request, 24) || lengthAt(20) > 64) return false;
    const std::size_t fixed = 29 + lengthAt(20);
    if (!readUpTo(request, fixed) || lengthAt(fixed - 4) > 0x20000) return false;
    return readUpTo(request, fixed + lengthAt(fixed - 4));
  }

  bool readUpTo(Bytes& request, std::size_t size) {
    while (request.size() < size) {
      if (!waitFor(connection_, POLLIN)) return false;
      const ssize_t got =
          recv(connection_.get(), buffer_, std::min(sizeof buffer_, size - request.size()), 0);
      if (got <= 0) return false;
      request.append(buffer_, static_cast<std::size_t>(got));
    }
    return true;
  }

  // False when the gateway is to stop and nothing is ready: what has come is still read.
  bool waitFor(const Descriptor& waited, short event) const {
    pollfd both[2] = {{waited.get(), event, 0}, {wake_.get(), POLLIN, 0}};
    const int limit = &waited == &connection_ ? script_.patience_ : -1;
    while (poll(both, 2, limit) < 0 && errno == EINTR) continue;
    return both[0].revents != 0;
  }

  void fail(const std::string& text) { problem_ = "step " + std::to_string(at_) + ": " + text; }

  const Script script_;
  Listener listener_;
  Descriptor wake_{eventfd(0, EFD_CLOEXEC)};
  Descriptor connection_;
  int port_;
  std::atomic<bool> isSilent_ = false;
  // The thread's own, until it has ended.
  char buffer_[4096];
  std::size_t at_ = 0;
  bool hasLeft_ = false;  // the client, during a dripped reply
  std::string problem_;
  std::thread thread_;
};

}  // namespace zebtest

#endif
