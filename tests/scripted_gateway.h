// A scripted peer on 127.0.0.1: it expects requests in a given order and answers each as the script
// says.
//
//   const ScriptedGateway gateway(Script().answerOpen().expect().hangUp());
//   ... openGatewayConnection(gateway.port(), ...
//
// Whatever differs from the script ends the connection, so that no client waits for ever, and fails
// the test when the gateway ends; so does a script that was not played to its end. Behind that only
// a close request is right; it is answered by hanging up.
#ifndef ZEBTEST_SCRIPTED_GATEWAY_H
#define ZEBTEST_SCRIPTED_GATEWAY_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// Bytes as a reader sees them best: pairs of hexadecimal digits and quoted text. wire("'Gate'
// 00700000").
inline Bytes wire(std::string_view text) {
  auto digit = [](char c) {
    return c <= '9' ? c - '0' : std::toupper(static_cast<unsigned char>(c)) - 'A' + 10;
  };
  Bytes out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ' ') continue;
    if (text[i] == '\'') {
      const std::size_t end = text.find('\'', i + 1);
      out += text.substr(i + 1, end - i - 1);
      i = end;
    } else {
      out.push_back(static_cast<char>(digit(text.at(i)) * 16 + digit(text.at(i + 1))));
      ++i;
    }
  }
  return out;
}

// The other way, for messages.
inline std::string hexOf(std::string_view bytes) {
  std::string out;
  char pair[4];
  for (const char byte : bytes) {
    snprintf(pair, sizeof pair, "%02X ", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    out += pair;
  }
  return out;
}

inline sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A socket that listens on a port of its own and accepts nobody.
struct Listener {
  explicit Listener(int backlog = 8) {
    sockaddr_in address = loopback(0);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(socket.get(), generic, size) != 0 || listen(socket.get(), backlog) != 0 ||
        getsockname(socket.get(), generic, &size) != 0)
      throw std::runtime_error(std::string("cannot listen: ") + strerror(errno));
    port = ntohs(address.sin_port);
  }
  [[nodiscard]] bool hasClient() const { return isReady(socket, POLLIN, 0); }
  static bool isReady(const Descriptor& waited, short event, int milliseconds) {
    pollfd entry = {waited.get(), event, 0};
    return poll(&entry, 1, milliseconds) == 1;
  }

  Descriptor socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  int port = 0;
};

// A listener whose queue is full, so that every further connect hangs.
struct FullListener : Listener {
  FullListener() : Listener(0) {
    const sockaddr_in address = loopback(port);
    do {
      waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      connect(waiting.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (isReady(waiting.back(), POLLOUT, 50));
  }
  std::vector<Descriptor> waiting;
};

// A client that is only a socket.
inline Descriptor connectTo(int port) {
  Descriptor client(socket(AF_INET, SOCK_STREAM, 0));
  const sockaddr_in address = loopback(port);
  EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return client;
}

// An open call, and its close where nobody has closed it.
struct Connection {
  explicit Connection(int port) : rc(openGatewayConnection(port, &token, &version)) {}
  ~Connection() {
    std::free(version);
    if (token != nullptr) {
      EXPECT_EQ(closeGatewayConnection(&token), 0);
    }
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  GatewayToken* token = nullptr;
  char* version = nullptr;
  int rc;
};

// What one side asks and the other answers. A hang-up or reset ends one connection; an expectation
// behind it waits for the next.
class Script {
 public:
  // A request, of these bytes or, without any, whatever it is.
  Script& expect(Bytes request = {}) {
    return add({.action = Action::kExpect, .bytes = std::move(request)});
  }
  Script& reply(Bytes bytes) { return add({.action = Action::kReply, .bytes = std::move(bytes)}); }
  Script& hangUp() { return add({.action = Action::kHangUp}); }
  Script& reset() { return add({.action = Action::kReset}); }
  Script& halfClose() { return add({.action = Action::kHalfClose}); }
  // Sends nothing until the client has ended the connection. A client that sends something fails
  // the test, unless it is ignored; so does one that is still connected when the gateway ends.
  Script& silence() { return add({.action = Action::kSilence}); }
  Script& ignoreAll() { return add({.action = Action::kIgnore}); }
  // The same script with each reply sent one byte at a time, until the client ends the connection
  // and the script.
  [[nodiscard]] Script dripped() const {
    Script slow = *this;
    for (Step& step : slow.steps_) {
      if (step.action == Action::kReply) step.action = Action::kDrip;
    }
    return slow;
  }
  // A gateway whose replies were changed takes whatever comes of them: where no whole request comes
  // within these milliseconds, it ends the connection, and that is no fault.
  Script& tolerate(int patience) {
    patience_ = patience;
    return *this;
  }
  Script& then(const Script& next) {
    steps_.insert(steps_.end(), next.steps_.begin(), next.steps_.end());
    return *this;
  }

  Script& answer(Bytes bytes) { return expect().reply(std::move(bytes)); }
  // All that an open call asks, and its part before the protocol version.
  Script& answerOpen(std::string_view version = zebsim::kOwnProtocol) {
    return answerConnect().answerCall(zebsim::kGetAttribute, zebsim::encodeProtocol(version));
  }
  Script& answerConnect() {
    return answer(zebsim::reply("BASE", ""))
        .answer(zebsim::reply("Auth", zebsim::authFirstData(0x11, 0x22, 0x33)))
        .answer(zebsim::reply("Auth", zebsim::authSecondData()));
  }
  // The two exchanges of one query, or of the protocol version, and the first of them.
  Script& answerQuery(const Bytes& data) { return answerCall(zebsim::kInvoke, data); }
  Script& answerCall(zebsim::CallKind kind, const Bytes& data) {
    return answerOpening().answer(zebsim::reply("Admin", zebsim::callData(kind, data)));
  }
  Script& answerOpening() { return answer(zebsim::reply("Admin", zebsim::openingData(7))); }

  [[nodiscard]] std::vector<Bytes> replies() const {
    std::vector<Bytes> all;
    for (const Step& step : steps_) {
      if (step.action == Action::kReply) all.push_back(step.bytes);
    }
    return all;
  }

 private:
  friend class ScriptedGateway;
  enum class Action { kExpect, kReply, kDrip, kHangUp, kReset, kHalfClose, kSilence, kIgnore };
  struct Step {
    Action action;
    Bytes bytes = {};
  };

  Script& add(Step step) {
    steps_.push_back(std::move(step));
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
    const std::uint64_t one = 1;
    EXPECT_EQ(write(wake_.get(), &one, sizeof one), ssize_t{sizeof one});
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
    for (std::size_t i = 0; i < script_.steps_.size() && !hasLeft_; ++i) {
      if (playStep(script_.steps_[i])) continue;
      if (isTolerant()) return drain();
      problem_ = "step " + std::to_string(i) + ": " + problem_;
      break;
    }
    if (problem_.empty() && !hasLeft_) playEnd();
    connection_ = {};
    listener_.socket = {};
    startSilence();  // nobody waits for a script that went wrong
  }

  [[nodiscard]] bool isTolerant() const { return script_.patience_ >= 0; }

  void drain() {
    char buffer[4096];
    problem_.clear();
    shutdown(connection_.get(), SHUT_WR);
    while (recv(connection_.get(), buffer, sizeof buffer, 0) > 0) continue;
  }

  bool playStep(const Script::Step& step) {
    if (step.action == Action::kExpect) return expectRequest(step);
    if (step.action == Action::kReply) return sendReply(step);
    if (step.action == Action::kDrip) return dripReply(step);
    if (step.action == Action::kSilence || step.action == Action::kIgnore)
      return waitForEnd(step.action == Action::kIgnore);
    if (step.action == Action::kHalfClose)
      return shutdown(connection_.get(), SHUT_WR) == 0 || fail("no half-close");
    const linger atOnce = {1, 0};  // makes a reset of the close
    if (step.action == Action::kReset)
      setsockopt(connection_.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    connection_ = Descriptor();
    return true;
  }

  void playEnd() {
    Bytes request;
    if (connection_.get() < 0 && !acceptClient()) return;
    if (readRequest(request) && request.substr(8, 4) != zebsim::words({zebsim::kCloseType}) &&
        !isTolerant())
      fail("a request behind the end: " + hexOf(request));
  }

  bool expectRequest(const Script::Step& step) {
    Bytes request;
    if (connection_.get() < 0 && !acceptClient()) return fail("nobody connected");
    if (!readRequest(request)) return fail("no whole request came, only " + hexOf(request));
    return step.bytes.empty() || request == step.bytes ||
           fail("other request:\n  got      " + hexOf(request) + "\n  expected " +
                hexOf(step.bytes));
  }

  // A client that goes away before it has read everything is no fault of the script.
  bool sendReply(const Script::Step& step) {
    std::string_view rest = step.bytes;
    while (!rest.empty()) {
      if (!waitFor(connection_.get(), POLLOUT)) return fail("stopped while it replied");
      const ssize_t sent =
          send(connection_.get(), rest.data(), rest.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && errno != EAGAIN) return true;
      if (sent > 0) rest.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  bool dripReply(const Script::Step& step) {
    constexpr int kPause = 3;
    for (const char byte : step.bytes) {
      if (Listener::isReady(connection_, POLLIN, kPause)) {
        char early;
        hasLeft_ = recv(connection_.get(), &early, 1, 0) <= 0;
        return hasLeft_ || fail("it sent something during the reply");
      }
      send(connection_.get(), &byte, 1, MSG_NOSIGNAL);
    }
    return true;
  }

  void startSilence() {
    isSilent_ = true;
    isSilent_.notify_all();
  }

  bool waitForEnd(bool mayAsk) {
    char buffer[4096];
    startSilence();
    for (;;) {
      if (!waitFor(connection_.get(), POLLIN))
        return mayAsk || fail("the client did not end the connection");
      const ssize_t got = recv(connection_.get(), buffer, sizeof buffer, 0);
      if (got <= 0) break;
      if (!mayAsk) return fail("it sent " + hexOf({buffer, static_cast<std::size_t>(got)}));
    }
    connection_ = Descriptor();
    return true;
  }

  bool acceptClient() {
    if (!waitFor(listener_.socket.get(), POLLIN)) return false;
    connection_ = Descriptor(accept(listener_.socket.get(), nullptr, nullptr));
    const int on = 1;
    setsockopt(connection_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return connection_.get() >= 0;
  }

  // Only the lengths are looked at: whether the rest is right is the script's to say.
  bool readRequest(Bytes& request) {
    if (!readUpTo(request, 24)) return false;
    const std::uint32_t nameLength = zebsim::ByteReader(std::string_view(request).substr(20)).u32();
    if (nameLength > 64 || !readUpTo(request, 29 + nameLength)) return false;
    const std::uint32_t dataLength =
        zebsim::ByteReader(std::string_view(request).substr(25 + nameLength)).u32();
    return dataLength <= 0x20000 && readUpTo(request, 29 + nameLength + dataLength);
  }

  bool readUpTo(Bytes& request, std::size_t size) {
    char buffer[4096];
    while (request.size() < size) {
      if (!waitFor(connection_.get(), POLLIN)) return false;
      const ssize_t got =
          recv(connection_.get(), buffer, std::min(sizeof buffer, size - request.size()), 0);
      if (got <= 0) return false;
      request.append(buffer, static_cast<std::size_t>(got));
    }
    return true;
  }

  // False when the gateway is to stop and nothing is ready: what has come is still read.
  bool waitFor(int descriptor, short event) const {
    pollfd waited[2] = {{descriptor, event, 0}, {wake_.get(), POLLIN, 0}};
    const bool isAsked = descriptor == connection_.get();
    while (poll(waited, 2, isAsked ? script_.patience_ : -1) < 0 && errno == EINTR) continue;
    return waited[0].revents != 0;
  }

  bool fail(const std::string& text) {
    problem_ = text;
    return false;
  }

  Script script_;
  Listener listener_;
  Descriptor wake_{eventfd(0, EFD_CLOEXEC)};
  Descriptor connection_;
  int port_;
  std::atomic<bool> isSilent_ = false;
  bool hasLeft_ =
      false;  // the client, during a dripped reply; the thread's own until it has ended, as is
  std::string problem_;
  std::thread thread_;
};

}  // namespace zebtest

#endif
