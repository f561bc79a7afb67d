// A client of a peer that uses the library, and a bare client that sends the same.
#ifndef ZEB_BENCH_CONNECTION_H
#define ZEB_BENCH_CONNECTION_H

#include <stdlib.h>
#include <unistd.h>

#include <vector>

#include "peer.h"
#include "rounds.h"
#include "zebstats.h"

namespace zebbench {

class Connection {
 public:
  explicit Connection(std::uint16_t port) {
    char* version = nullptr;
    require(openGatewayConnection(port, &token_, &version) == ZEB_OK, "cannot open a connection");
    free(version);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { closeGatewayConnection(&token_); }

  [[nodiscard]] GatewayToken* token() const { return token_; }
  ResultSetToken* query() {
    ResultSetToken* answer = nullptr;
    require(getStats(token_, &answer) == ZEB_OK, "getStats failed");
    return answer;
  }
  ResultSetToken* queryIds() {
    ResultSetToken* answer = nullptr;
    require(getStatIds(token_, &answer) == ZEB_OK, "getStatIds failed");
    return answer;
  }

 private:
  GatewayToken* token_ = nullptr;
};

inline int walk(ResultSetToken* answer) {
  StatData stat;
  int entries = 0;
  for (int rc = getFirstStat(answer, &stat); rc == ZEB_OK; rc = getNextStat(answer, &stat))
    ++entries;
  return entries;
}

// Sends what the library sends for getStats and receives what it receives.
class BareQuery {
 public:
  BareQuery(std::uint16_t port, const Bytes& answer) : socket_(connectBare(port)) {
    Peer recorder(answer);
    Connection library(recorder.port());
    recorder.startRecording();
    library.query();
    requests_ = recorder.stopRecording();
    replySize_ = recorder.replySize();
    require(requests_.size() == 2, "a query is not two exchanges");
  }
  BareQuery(const BareQuery&) = delete;
  BareQuery& operator=(const BareQuery&) = delete;
  ~BareQuery() { close(socket_); }
  void operator()() const {
    constexpr std::size_t kOpeningReply = 29 + 5 + 12;
    exchangeBare(socket_, requests_[0], kOpeningReply);
    exchangeBare(socket_, requests_[1], replySize_);
  }

 private:
  int socket_;
  std::size_t replySize_ = 0;
  std::vector<Bytes> requests_;
};

}  // namespace zebbench

#endif
