#include "http_server.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include <microhttpd.h>

#include "fault.h"

namespace zebtool {

namespace {

constexpr unsigned kMaxConnections = 1000;
constexpr unsigned kMaxConnectionsOfHost = 250;  // one rude host must not have them all
constexpr unsigned kIdleSeconds = 5;
constexpr std::chrono::seconds kFirstRequestTime{10};
constexpr std::chrono::seconds kAnswerTime{60};  // to take an answer and send the next request
constexpr std::size_t kStackBytes = 256 * 1024;

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Opens a socket for one address. Returns -1, with errno set, if it cannot. A socket for all
// addresses of IPv6 takes connections of IPv4 too.
int openSocket(const addrinfo& found) {
  int file = socket(found.ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (file < 0) return -1;
  int yes = 1;
  int no = 0;
  setsockopt(file, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (found.ai_family == AF_INET6) setsockopt(file, IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
  if (bind(file, found.ai_addr, found.ai_addrlen) == 0 && listen(file, SOMAXCONN) == 0) return file;
  int reason = errno;
  close(file);
  errno = reason;
  return -1;
}

// Returns the addresses to try in turn. An empty host means all addresses, of IPv6 first, because
// that includes those of IPv4.
AddressList findAddresses(const Address& listen) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  std::string port = std::to_string(listen.port);
  std::string host = listen.host.empty() ? "::" : listen.host;
  addrinfo* found = nullptr;
  int failed = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (failed != 0)
    throw Fault(kNotConnected, "--listen: cannot resolve '" + listen.host +
                                   "': " + gai_strerror(failed) +
                                   "; write HOST:PORT, or :PORT for all addresses");
  return {found, freeaddrinfo};
}

int listenOn(const Address& listen) {
  AddressList found = findAddresses(listen);
  for (const addrinfo* each = found.get(); each != nullptr; each = each->ai_next) {
    int file = openSocket(*each);
    if (file >= 0) return file;
  }
  if (listen.host.empty() && errno == EAFNOSUPPORT) return listenOn({"0.0.0.0", listen.port});
  throw Fault(kNotConnected, "cannot listen on " + showAddress(listen) + ": " +
                                 std::strerror(errno) + "; choose another with --listen HOST:PORT");
}

// The connections, and until when each may wait for its client. The library's own limit is not
// enough, because each byte extends it.
class Clients {
 public:
  using Clock = std::chrono::steady_clock;

  void add(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info =
        MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    // A duplicate, because the library may close its descriptor at any time.
    int file = fcntl(info->connect_fd, F_DUPFD_CLOEXEC, 0);
    std::lock_guard lock(mutex_);
    clients_[connection] = {file, Clock::now() + kFirstRequestTime};
  }

  void remove(MHD_Connection* connection) {
    std::lock_guard lock(mutex_);
    close(clients_[connection].file);
    clients_.erase(connection);
  }

  void setDeadline(MHD_Connection* connection, Clock::time_point deadline) {
    std::lock_guard lock(mutex_);
    clients_[connection].deadline = deadline;
  }

  void disconnectLate() {
    std::lock_guard lock(mutex_);
    for (const auto& [connection, client] : clients_) {
      if (client.deadline < Clock::now()) shutdown(client.file, SHUT_RDWR);
    }
  }

 private:
  struct Client {
    int file = -1;
    Clock::time_point deadline;
  };
  std::mutex mutex_;
  std::map<MHD_Connection*, Client> clients_;
};

HttpResponse answer(const HttpHandler& handler, const HttpRequest& request,
                    const std::string& method) {
  if (method != MHD_HTTP_METHOD_GET && method != MHD_HTTP_METHOD_HEAD)
    return {MHD_HTTP_METHOD_NOT_ALLOWED, HttpResponse().contentType,
            "only GET and HEAD are served\n"};
  try {
    return handler(request);
  } catch (const std::exception& fault) {
    return {MHD_HTTP_INTERNAL_SERVER_ERROR, HttpResponse().contentType,
            std::string(fault.what()) + "\n"};
  }
}

MHD_Result send(MHD_Connection* connection, HttpResponse response) {
  MHD_Response* queued = MHD_create_response_from_buffer(response.body.size(), response.body.data(),
                                                         MHD_RESPMEM_MUST_COPY);
  if (queued == nullptr) return MHD_NO;
  MHD_add_response_header(queued, MHD_HTTP_HEADER_CONTENT_TYPE, response.contentType.c_str());
  if (response.status == MHD_HTTP_METHOD_NOT_ALLOWED)
    MHD_add_response_header(queued, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
  MHD_Result result = MHD_queue_response(connection, response.status, queued);
  MHD_destroy_response(queued);
  return result;
}

std::optional<std::string> lookUp(MHD_Connection* connection, MHD_ValueKind kind,
                                  const char* name) {
  const char* value = MHD_lookup_connection_value(connection, kind, name);
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

}  // namespace

std::optional<std::string> HttpRequest::header(const char* name) const {
  return lookUp(connection_, MHD_HEADER_KIND, name);
}

std::optional<std::string> HttpRequest::argument(const char* name) const {
  return lookUp(connection_, MHD_GET_ARGUMENT_KIND, name);
}

// ---- The server ---------------------------------------------------------------------------------

struct HttpServer::Service {
  HttpHandler handler;
  Clients clients;

  static MHD_Result handleRequest(void* context, MHD_Connection* connection, const char* path,
                                  const char* method, const char* version, const char* body,
                                  std::size_t* bodyBytes, void** state);
  static void noteConnection(void* context, MHD_Connection* connection, void** state,
                             MHD_ConnectionNotificationCode what);
};

// The library calls this once when it has received the headers of a request, once for each part of
// the body, and once when the request is complete.
MHD_Result HttpServer::Service::handleRequest(void* context, MHD_Connection* connection,
                                              const char* path, const char* method, const char*,
                                              const char*, std::size_t* bodyBytes, void** state) {
  static char hasHeaders;
  if (*state == nullptr) {
    *state = &hasHeaders;
    return MHD_YES;
  }
  if (*bodyBytes > 0) {
    *bodyBytes = 0;
    return MHD_YES;
  }
  // No limit includes the handler's time. That of the library starts anew when it was 0.
  auto& service = *static_cast<HttpServer::Service*>(context);
  service.clients.setDeadline(connection, Clients::Clock::time_point::max());
  MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, 0U);
  HttpResponse response = answer(service.handler, HttpRequest(connection, path), method);
  MHD_set_connection_option(connection, MHD_CONNECTION_OPTION_TIMEOUT, kIdleSeconds);
  service.clients.setDeadline(connection, Clients::Clock::now() + kAnswerTime);
  return send(connection, std::move(response));
}

void HttpServer::Service::noteConnection(void* context, MHD_Connection* connection, void**,
                                         MHD_ConnectionNotificationCode what) {
  Clients& clients = static_cast<Service*>(context)->clients;
  if (what == MHD_CONNECTION_NOTIFY_STARTED) {
    clients.add(connection);
  } else {
    clients.remove(connection);
  }
}

HttpServer::HttpServer(const Address& listen)
    : socket_(listenOn(listen)), service_(std::make_unique<Service>()) {}

HttpServer::~HttpServer() {
  if (daemon_ == nullptr) {
    close(socket_);
  } else {
    MHD_stop_daemon(daemon_);
  }
}

Address HttpServer::address() const {
  sockaddr_storage bound{};
  socklen_t length = sizeof bound;
  getsockname(socket_, reinterpret_cast<sockaddr*>(&bound), &length);
  char host[NI_MAXHOST] = "";
  char port[NI_MAXSERV] = "0";
  getnameinfo(reinterpret_cast<sockaddr*>(&bound), length, host, sizeof host, port, sizeof port,
              NI_NUMERICHOST | NI_NUMERICSERV);
  return {host, std::stoi(port)};
}

void HttpServer::start(HttpHandler handler) {
  service_->handler = std::move(handler);
  daemon_ = MHD_start_daemon(
      MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL, 0, nullptr,
      nullptr, Service::handleRequest, service_.get(), MHD_OPTION_LISTEN_SOCKET, socket_,
      MHD_OPTION_NOTIFY_CONNECTION, Service::noteConnection, service_.get(),
      MHD_OPTION_CONNECTION_LIMIT, kMaxConnections, MHD_OPTION_PER_IP_CONNECTION_LIMIT,
      kMaxConnectionsOfHost, MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds,
      MHD_OPTION_THREAD_STACK_SIZE, kStackBytes, MHD_OPTION_END);
  if (daemon_ == nullptr) throw Fault(kNotConnected, "cannot start the HTTP server");
}

void HttpServer::dropSlowClients() {
  service_->clients.disconnectLate();
}

}  // namespace zebtool
