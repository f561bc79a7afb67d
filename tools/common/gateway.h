// Asks a gateway. Only the resolution of a host name may take longer than the library's timeout.
#ifndef ZEBTOOL_GATEWAY_H
#define ZEBTOOL_GATEWAY_H

#include <string>
#include <utility>
#include <vector>

#include "address.h"
#include "diagnose.h"
#include "fault.h"
#include "zebstats.hpp"

namespace zebtool {

// Asks for everything of its kind, or only for what the elements name.
struct Question {
  enum class Kind { kStats, kStatsById, kStatsByGlob, kStatsByGroup, kIds, kIdsByGroup, kGroups };
  Kind kind = Kind::kStats;
  std::vector<std::string> elements;  // empty for kStats, kIds and kGroups; kStatsByGlob: ids too
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

// Returns what is missing and why, for a message.
std::string describe(const Refusal& refusal);

struct Answer {
  std::vector<Entry> entries;
  std::vector<Refusal> refusals;
  std::vector<std::string> unmatched;  // globs of the question that match no id
};

// Why a gateway could not be asked.
struct GatewayFault : Fault {
  GatewayFault(ExitCode exit, const std::string& text, int code, FaultReason why)
      : Fault(exit, text), libraryCode(code), reason(why) {}
  int libraryCode;
  FaultReason reason;  // an unreachable network counts as refused, a lack of memory as lost
};

// Returns whether a code of the library means that the timeout has passed.
inline bool isTimeout(int code) {
  return code == ZEB_CONNECT_TIMED_OUT || code == ZEB_TIMED_OUT;
}

// When the cause of a failure to connect is looked for, which takes up to two seconds more.
enum class Diagnosing {
  kAlways,
  kOnce,  // if the attempt before did not fail with the same code; otherwise the cause is repeated
};

// One gateway and the connection to it, which belongs to the thread that asks first. The destructor
// closes the connection, which may take until the timeout.
class Gateway {
 public:
  // The timeout is only named in messages; setUpLibrary() must have been given the same.
  Gateway(Address address, double timeoutSeconds, Diagnosing diagnosing = Diagnosing::kAlways)
      : address_(std::move(address)), timeoutSeconds_(timeoutSeconds), diagnosing_(diagnosing) {}

  // Returns HOST:PORT, an IPv6 address in brackets.
  [[nodiscard]] std::string name() const { return showAddress(address_); }
  [[nodiscard]] bool isConnected() const { return connection_.isOpen(); }
  // Returns the gateway's version of the protocol; empty if there is no connection.
  [[nodiscard]] const char* protocolVersion() const { return connection_.protocolVersion(); }

  // Connects unless a connection is open, and asks. A name is resolved here and each of its
  // addresses is tried in turn, because the library tries the first one only. An answer that is too
  // large for one query is asked for in parts. Throws a GatewayFault: kNotConnected or kTimedOut;
  // if the connection was lost, the next question opens a new one.
  Answer ask(const Question& question);

  void close() { connection_.close(); }

 private:
  void connect();
  [[noreturn]] void fail(const char* step, int code, const Diagnosis& cause) const;

  Address address_;
  double timeoutSeconds_;
  Diagnosing diagnosing_;
  int failure_ = ZEB_OK;  // the code of the last attempt to connect
  Diagnosis cause_;       // of that failure
  zebstats::Connection connection_;
};

}  // namespace zebtool

#endif  // ZEBTOOL_GATEWAY_H
