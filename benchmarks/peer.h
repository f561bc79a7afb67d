// A gateway that answers from memory, so that it adds the same time to the library's calls and to
// their floors.
#ifndef ZEB_BENCH_PEER_H
#define ZEB_BENCH_PEER_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

#include "gateway_bytes.h"
#include "gateway_encoder.h"

namespace zebbench {

using zebsim::Bytes;

// Returns the first `count` statistics of a simulated gateway that are of medium length.
zebsim::Stats makeStats(std::size_t count);
// Return the bean's answer, which is the input of the library's parsers.
Bytes statsAnswer(std::size_t count);
Bytes idsAnswer(std::size_t count);

// Listens at once. Each connection is served by one of the workers, which run on the caller's core.
class Peer {
 public:
  explicit Peer(const Bytes& answer, int workers = 2);
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  ~Peer();
  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] std::size_t replySize() const { return replies_.answer.size(); }  // header included

  // stopRecording() returns the requests that have been received since startRecording().
  void startRecording() { recording_ = true; }
  std::vector<Bytes> stopRecording();

 private:
  struct Replies {
    Bytes hello, firstStep, secondStep, opening, protocol, answer;
  };
  void serveConnections();
  void serve(int connection);
  [[nodiscard]] const Bytes& chooseReply(const char* request) const;

  Replies replies_;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> recording_ = false;
  std::vector<Bytes> recorded_;
  std::vector<std::thread> workers_;
};

// A peer in a process of its own.
class PeerProcess {
 public:
  PeerProcess(std::size_t statistics, int workers);
  PeerProcess(const PeerProcess&) = delete;
  PeerProcess& operator=(const PeerProcess&) = delete;
  ~PeerProcess();
  [[nodiscard]] std::uint16_t port() const { return port_; }

 private:
  pid_t child_ = -1;
  std::uint16_t port_ = 0;
};

// A bare client: connects, and sends a request and receives its reply, without any checks of it.
int connectBare(std::uint16_t port);
void exchangeBare(int connection, const Bytes& request, std::size_t replySize);

}  // namespace zebbench

#endif
