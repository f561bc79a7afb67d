#include "gateway_client.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>

namespace zebsim {
namespace {

constexpr int kMaxPieces = 256;  // of one client in a turn; then it is the turn of the others

}  // namespace

bool GatewayServer::Client::receive() {
  std::array<char, 16384> piece;
  ssize_t got = recv(socket.get(), piece.data(), piece.size(), 0);
  if (got < 0) return errno == EAGAIN || errno == EINTR;
  in.append(piece.data(), static_cast<std::size_t>(got));
  return got > 0;
}

bool GatewayServer::Client::sendUntil(std::size_t limit, std::size_t segment) {
  for (int pieces = 0; sent < limit && pieces < kMaxPieces; ++pieces) {
    std::size_t size = segment > 0 ? std::min(limit - sent, segment) : limit - sent;
    ssize_t gone = send(socket.get(), out.data() + sent, size, MSG_NOSIGNAL);
    if (gone < 0) return errno == EAGAIN || errno == EINTR;
    sent += static_cast<std::size_t>(gone);
  }
  return true;
}

std::size_t GatewayServer::Client::countDue(Clock::time_point now, Clock::duration duration) const {
  if (now - asked >= duration) return out.size();
  double share = std::chrono::duration<double>(now - asked) / duration;
  return static_cast<std::size_t>(static_cast<double>(out.size()) * share);
}

void GatewayServer::Client::resetAtClose() const {
  linger none{1, 0};
  setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

}  // namespace zebsim
