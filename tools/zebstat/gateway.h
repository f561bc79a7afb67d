// Asks a gateway. No step takes longer than the library's timeout, which main sets.
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

// One id or statistic of an answer: bytes as the gateway sent them.
struct Entry {
  std::string element;  // the query element that this entry answers
  std::string id;
  std::string value;
};

// A query element that the gateway did not answer.
struct Refusal {
  std::string element;
  int code = 0;  // the gateway's code, not the library's
};

struct Answer {
  std::vector<Entry> entries;
  std::vector<Refusal> refusals;
};

// Returns whether a code of the library means that the timeout has passed.
inline bool isTimeout(int code) {
  return code == ZEB_CONNECT_TIMED_OUT || code == ZEB_TIMED_OUT;
}

// One gateway and the connection to it, which belongs to the thread that asks first. The destructor
// closes the connection, which may take until the timeout.
class Gateway {
 public:
  // The timeout is only named in messages; the library must have been given the same.
  Gateway(std::string host, int port, double timeoutSeconds)
      : host_(std::move(host)), port_(port), timeoutSeconds_(timeoutSeconds) {}

  // Returns HOST:PORT, an IPv6 address in brackets.
  [[nodiscard]] std::string name() const;

  // Connects unless a connection is open, and asks. Throws a Fault: kNotConnected or kTimedOut; if
  // the connection was lost, the next question opens a new one.
  Answer ask(const Question& question);

 private:
  std::string host_;
  int port_;
  double timeoutSeconds_;
  zebstats::Connection connection_;
};

}  // namespace zebtool

#endif  // ZEBSTAT_GATEWAY_H
