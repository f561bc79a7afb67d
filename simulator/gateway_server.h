// The simulated gateway on a socket. It serves any number of clients in one thread of its own. If a
// client sends an invalid request, it closes that connection and logs the reason; other clients are
// not affected.
#ifndef ZEBSIM_GATEWAY_SERVER_H
#define ZEBSIM_GATEWAY_SERVER_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "gateway_encoder.h"
#include "gateway_model.h"
#include "gateway_wire.h"

namespace zebsim {

// An open descriptor, which the destructor closes.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor();
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_ = -1;
};

// What a gateway in trouble does to its clients.
struct Troubles {
  enum class Mute { kNever, kHandshake, kQuery };
  Mute mute = Mute::kNever;           // the first request that gets no reply, nor any later one
  std::chrono::milliseconds slow{0};  // the time that it takes to send the answer to a query
  bool resetsAnswers = false;         // resets the connection in the middle of such an answer
  bool hasCloseAnswer = true;         // false: a close request gets no reply
};

struct ServerOptions {
  std::string address = "127.0.0.1";  // empty: all addresses of this host
  std::uint16_t port = 0;             // 0: any free port
  ModelOptions model = {};
  HeadBlocks blocks = HeadBlocks::kCut;  // how answers of more than 1,024 bytes of ids are written
  std::size_t segment = 0;               // the size of the pieces of a reply; 0: sent whole
  Troubles troubles = {};
  // Returns the seconds since the start; if none is given, the server measures them.
  std::function<std::uint64_t()> clock = {};
  // Gets lines without a line end; if none is given, they go to standard error.
  std::function<void(const std::string&)> log = {};
};

class GatewayServer {
 public:
  // Listens and starts the thread. If it cannot listen, throws std::runtime_error with the reason,
  // or std::system_error, which is one, if the system has refused it.
  explicit GatewayServer(ServerOptions options = {});
  ~GatewayServer();  // calls stop()
  GatewayServer(const GatewayServer&) = delete;
  GatewayServer& operator=(const GatewayServer&) = delete;

  [[nodiscard]] std::uint16_t port() const { return port_; }

  // Returns "127.0.0.1:40123" or "[::1]:40123".
  [[nodiscard]] std::string listenAddress() const;

  // Returns false after stop(), and if the server's thread has failed; the log has the reason.
  [[nodiscard]] bool isRunning() const { return isRunning_; }

  // Closes all connections and ends the thread. It may be called again.
  void stop();

  // From now on the target, an operation ("GET_STATS", "STAT_IDS", "RESOURCE_GROUPS") or the
  // attribute "protocol", is answered with this call data, whatever the argument. Any thread may
  // call it, and clearAnswers().
  void setAnswer(const std::string& target, Bytes answer);
  void clearAnswers();

 private:
  struct Client;
  using TimePoint = std::chrono::steady_clock::time_point;

  void serve();
  void serveOnce();
  void acceptClient();
  void addClient(Descriptor socket, std::string peer);
  void makeRoom(const std::string& reason);
  void serveClient(Client& client, std::uint32_t events);
  void readRequests(Client& client);
  void answerRequest(Client& client);
  void sendReply(Client& client);
  void pauseReply(Client& client);
  void continueSlowReplies();
  void dropClient(Client& client, const std::string& reason);
  void watch(Client& client, std::uint32_t events);
  void pauseAccepting(bool isPaused);
  [[nodiscard]] std::size_t limitOfReply(const Client& client) const;
  [[nodiscard]] int millisToNextPiece() const;
  Bytes answerCall(const AdminCall& call);

  ServerOptions options_;
  GatewayModel model_;
  Descriptor listener_;
  Descriptor wakeReader_;
  Descriptor wakeWriter_;
  Descriptor epoll_;
  std::uint16_t port_ = 0;
  std::atomic<bool> isRunning_ = true;
  // Used by the thread only, down to isAcceptPaused_. The client that has been silent for longest
  // is the first in the list.
  std::list<Client> clients_;
  std::list<Client> dropped_;                       // to be closed after the events at hand
  std::set<std::pair<TimePoint, Client*>> pauses_;  // the slow replies, and when they continue
  std::uint32_t lastTag_ = 0;
  bool isAcceptPaused_ = false;
  std::mutex answersLock_;
  std::map<std::string, Bytes> answers_;  // guarded by answersLock_
  std::thread thread_;
};

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_SERVER_H
