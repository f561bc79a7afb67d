// The simulated gateway on a socket. It serves any number of clients in one thread of its own. If a
// client sends an invalid request, it closes that connection and logs the reason; other clients are
// not affected.
#ifndef ZEBSIM_GATEWAY_SERVER_H
#define ZEBSIM_GATEWAY_SERVER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

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

struct ServerOptions {
  std::string address = "127.0.0.1";
  std::uint16_t port = 0;  // 0: any free port
  ModelOptions model = {};
  HeadBlocks blocks = HeadBlocks::kCut;  // how answers of more than 1,024 bytes of ids are written
  std::size_t segment = 0;               // the size of the pieces of a reply; 0: sent whole
  // Returns the seconds since the start; if none is given, the server measures them.
  std::function<std::uint64_t()> clock = {};
  // Gets lines without a line end; if none is given, they go to standard error.
  std::function<void(const std::string&)> log = {};
};

class GatewayServer {
 public:
  // Listens and starts the thread. Throws std::runtime_error with the reason if it cannot listen.
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

  void serve();
  void serveOnce();
  void acceptClient();
  void serveClient(Client& client, bool canRead);
  void answerRequests(Client& client);
  void dropClient(Client& client, const std::string& reason);
  Bytes answerCall(const AdminCall& call);

  ServerOptions options_;
  GatewayModel model_;
  Descriptor listener_;
  Descriptor wakeReader_;
  Descriptor wakeWriter_;
  std::uint16_t port_ = 0;
  std::atomic<bool> isRunning_ = true;
  std::vector<std::unique_ptr<Client>> clients_;  // used by the thread only, as the next two
  std::uint32_t lastTag_ = 0;
  bool isAcceptPaused_ = false;
  std::mutex answersLock_;
  std::map<std::string, Bytes> answers_;  // guarded by answersLock_
  std::thread thread_;
};

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_SERVER_H
