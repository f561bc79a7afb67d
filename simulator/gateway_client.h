// One client's connection in the server: its socket, its session, and the reply that is being sent.
// The server decides when to read and how much of a reply to send.
#ifndef ZEBSIM_GATEWAY_CLIENT_H
#define ZEBSIM_GATEWAY_CLIENT_H

#include <sys/epoll.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <utility>

#include "gateway_server.h"
#include "gateway_session.h"

namespace zebsim {

struct GatewayServer::Client {
  using Clock = std::chrono::steady_clock;

  Client(Descriptor socketIn, std::string peerIn, std::uint32_t tag, GatewaySession::Bean bean)
      : socket(std::move(socketIn)), peer(std::move(peerIn)), session(tag, std::move(bean)) {}

  Descriptor socket;
  std::string peer;
  GatewaySession session;
  std::list<Client>::iterator self;  // its place in the server's list
  std::uint32_t watched = EPOLLIN;   // the events for which epoll watches
  Bytes in;                          // received: nothing is read while a reply is being sent
  Bytes out;                         // the reply that is being sent
  std::size_t sent = 0;              // how much of `out` has been sent
  Clock::time_point asked;           // when the request arrived that `out` answers
  Clock::time_point due;             // when to send the next piece of a slow reply
  bool isQuery = false;              // whether `out` answers a query
  bool isMute = false;               // whether it gets no more replies
  bool hasAsked = false;             // whether it has sent a complete request
  bool isDropped = false;

  [[nodiscard]] bool isReplying() const { return sent < out.size(); }

  // Returns false if the client has closed the connection, or it failed.
  bool receive();

  // Sends up to `limit` bytes of the reply, in pieces of `segment` bytes, or of any size if that is
  // 0. Sends less if the socket takes no more, or after many pieces. Returns false if the
  // connection failed.
  bool sendUntil(std::size_t limit, std::size_t segment);

  // Returns how many bytes of the reply are due by `now` if the whole of it takes `duration`.
  [[nodiscard]] std::size_t countDue(Clock::time_point now, Clock::duration duration) const;

  // Makes the closing of the socket reset the connection.
  void resetAtClose() const;
};

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_CLIENT_H
