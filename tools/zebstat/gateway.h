// Asks a gateway. No step takes longer than the timeout: main sets the library's own.
#ifndef ZEBSTAT_GATEWAY_H
#define ZEBSTAT_GATEWAY_H

#include <string>
#include <utility>
#include <vector>

#include "fault.h"
#include "zebstats.hpp"

namespace zebtool {

struct Question {
  enum class Kind { kStats, kStatsById, kStatsByGroup, kIds, kIdsByGroup, kGroups };
  Kind kind = Kind::kStats;
  std::string elements;  // separated by ':'
};

// Bytes as the gateway sent them.
struct Entry {
  std::string element;  // the element of the question that this one answers
  std::string id;
  std::string value;
};

struct Refusal {
  std::string element;
  int code = 0;  // the gateway's own
};

struct Answer {
  std::vector<Entry> entries;
  std::vector<Refusal> refusals;
};

// Whether a code of the library means that the timeout has passed.
inline bool isTimeout(int code) {
  return code == ZEB_CONNECT_TIMED_OUT || code == ZEB_TIMED_OUT;
}

// One gateway and the connection to it, for the thread that asks. Going out of scope closes the
// connection, which may take until the timeout.
class Gateway {
 public:
  // The timeout is the one that the library has been given, for the message about it.
  Gateway(std::string host, int port, double timeoutSeconds)
      : host_(std::move(host)), port_(port), timeoutSeconds_(timeoutSeconds) {}

  // HOST:PORT, an IPv6 address in brackets.
  [[nodiscard]] std::string name() const;

  // Connects unless a connection is open, and asks. Throws a Fault: kNotConnected or kTimedOut.
  // After that the next question connects anew if the connection was lost.
  Answer ask(const Question& question);

 private:
  std::string host_;
  int port_;
  double timeoutSeconds_;
  zebstats::Connection connection_;
};

}  // namespace zebtool

#endif  // ZEBSTAT_GATEWAY_H
