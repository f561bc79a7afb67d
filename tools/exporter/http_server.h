// Serves GET and HEAD requests over HTTP. Each connection has a thread, so that a client that is
// slow or says nothing holds up no other. A client is disconnected if it is idle for five seconds,
// if it needs more than ten seconds for its first request, or more than a minute to take an answer
// and send the next request.
#ifndef ZEBSTATS_EXPORTER_HTTP_SERVER_H
#define ZEBSTATS_EXPORTER_HTTP_SERVER_H

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "address.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace zebtool {

class HttpRequest {
 public:
  HttpRequest(MHD_Connection* connection, const char* thePath)
      : path(thePath), connection_(connection) {}

  const std::string path;
  // Each returns nothing if the request has no such header or argument.
  [[nodiscard]] std::optional<std::string> header(const char* name) const;
  [[nodiscard]] std::optional<std::string> argument(const char* name) const;

 private:
  MHD_Connection* connection_;
};

struct HttpResponse {
  unsigned status = 200;
  std::string contentType = "text/plain; charset=utf-8";
  std::string body;
};

// Answers one request. It may wait, and is called by several threads at once.
using HttpHandler = std::function<HttpResponse(const HttpRequest&)>;

class HttpServer {
 public:
  // Opens the listening socket. Throws a Fault (kNotConnected) if it cannot.
  explicit HttpServer(const Address& listen);
  // Closes all connections, and waits for the handlers that are running.
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Returns the address that the socket has.
  [[nodiscard]] Address address() const;

  // Serves from now on. Throws a Fault.
  void start(HttpHandler handler);

  // Disconnects the clients that are too slow. To be called about once a second.
  void dropSlowClients();

 private:
  struct Service;
  int socket_;
  std::unique_ptr<Service> service_;  // used by the server's threads
  MHD_Daemon* daemon_ = nullptr;      // owns the socket, if there is one
};

}  // namespace zebtool

#endif  // ZEBSTATS_EXPORTER_HTTP_SERVER_H
