// A peer on 127.0.0.1 that plays recorded replies, changed or cut short, to one connection after
// the other.
#ifndef ZEBTEST_REPLY_PLAYER_H
#define ZEBTEST_REPLY_PLAYER_H

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "gateway_session.h"
#include "scripted_gateway.h"

namespace zebtest {

// The replies of one session and how long the requests are that they answer.
struct Recording {
  std::vector<Bytes> replies;
  std::vector<std::size_t> requestSizes;
};

inline Bytes joined(const std::vector<Bytes>& replies) {
  Bytes all;
  for (const Bytes& reply : replies) all += reply;
  return all;
}

enum class End { kClosed, kReset, kHalfClosed };

class ReplyPlayer {
 public:
  ReplyPlayer() : thread_([this] { serve(); }) {}
  ~ReplyPlayer() {
    stopped_ = true;
    shutdown(listener_.socket.get(), SHUT_RDWR);
    thread_.join();
  }
  ReplyPlayer(const ReplyPlayer&) = delete;
  ReplyPlayer& operator=(const ReplyPlayer&) = delete;
  [[nodiscard]] int port() const { return listener_.port; }

  // From the next connection on: answers its requests as a gateway does and records the session.
  void record(zebsim::GatewaySession::Bean bean, Recording& recording) {
    play([this, bean, &recording](int client) { recordSession(client, bean, recording); });
  }
  // Each reply when a request has come, and the last one for a close request. A client that asks
  // nothing within patience milliseconds, because it waits for bytes that a changed reply
  // announces, sees the end of the connection.
  void playEach(const std::vector<Bytes>& replies, int patience) {
    play([replies, patience](int client) {
      zebsim::Request request;
      for (std::size_t i = 0; i < replies.size() && receiveRequest(client, request, patience);
           ++i) {
        if (request.header.type == zebsim::kCloseType) i = replies.size() - 1;
        sendAll(client, replies[i]);
      }
      shutdown(client, SHUT_WR);
      receive(client, SIZE_MAX);
    });
  }
  // Each request is read before its reply is sent, up to the last reply, of which size bytes are.
  void playUntil(const Recording& recording, std::size_t last, std::size_t size, End end) {
    play([&recording, last, size, end](int client) {
      for (std::size_t i = 0; i <= last; ++i) {
        if (!receive(client, recording.requestSizes[i])) return;
        sendAll(client,
                std::string_view(recording.replies[i]).substr(0, i == last ? size : Bytes::npos));
      }
      if (end == End::kHalfClosed && shutdown(client, SHUT_WR) == 0) receive(client, SIZE_MAX);
      const linger atOnce = {1, 0};  // makes a reset of the close
      if (end == End::kReset) setsockopt(client, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    });
  }

 private:
  using Play = std::function<void(int client)>;

  void play(Play play) {
    const std::lock_guard guard(lock_);
    play_ = std::move(play);
  }

  void serve() {
    while (!stopped_) {
      const Descriptor client(accept(listener_.socket.get(), nullptr, nullptr));
      if (client.get() < 0) continue;
      const int on = 1;
      setsockopt(client.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      Play play;
      {
        const std::lock_guard guard(lock_);
        play = play_;
      }
      play(client.get());
    }
  }

  void recordSession(int client, const zebsim::GatewaySession::Bean& bean, Recording& recording) {
    zebsim::GatewaySession session(7, bean);
    zebsim::Request request;
    Bytes in;
    char byte;
    std::size_t size = 0;
    while (!session.isClosed() && recv(client, &byte, 1, 0) == 1) {
      in += byte;
      ++size;
      if (!zebsim::takeRequest(in, request)) continue;
      const std::lock_guard guard(lock_);
      recording.requestSizes.push_back(std::exchange(size, 0));
      recording.replies.push_back(session.answer(request));
      sendAll(client, recording.replies.back());
    }
  }

  static void sendAll(int client, std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t sent = send(client, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return;  // a client that goes away before it has read everything does no wrong
      bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
  }
  // False also for a request that is none, because a changed reply's header came back in it.
  static bool receiveRequest(int client, zebsim::Request& request, int patience) try {
    Bytes in;
    char buffer[4096];
    pollfd waited = {client, POLLIN, 0};
    while (!zebsim::takeRequest(in, request)) {
      if (poll(&waited, 1, patience) <= 0) return false;
      const ssize_t got = recv(client, buffer, sizeof buffer, 0);
      if (got <= 0) return false;
      in.append(buffer, static_cast<std::size_t>(got));
    }
    return true;
  } catch (const zebsim::BadRequest&) {
    return false;
  }
  static bool receive(int client, std::size_t size) {
    char buffer[4096];
    while (size > 0) {
      const ssize_t got = recv(client, buffer, std::min(sizeof buffer, size), 0);
      if (got <= 0) return false;
      size -= static_cast<std::size_t>(got);
    }
    return true;
  }

  Listener listener_;
  std::atomic<bool> stopped_ = false;
  std::mutex lock_;
  Play play_;  // guarded by lock_, as what it records is
  std::thread thread_;
};

}  // namespace zebtest

#endif
