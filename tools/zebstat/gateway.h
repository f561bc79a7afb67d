// A gateway that is asked with a limit of time. The library waits without one: where the process goes on, a thread
// of its own owns the connection, and whoever asks stops waiting for that thread when the time is up.
#ifndef ZEBSTAT_GATEWAY_H
#define ZEBSTAT_GATEWAY_H

#include <memory>
#include <string>
#include <vector>

#include "fault.h"
#include "output.h"
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

// HOST:PORT, an IPv6 address in brackets.
std::string nameGateway(const std::string& host, int port);
// What to say when it does not answer in time.
std::string describeSilence(const std::string& gateway, double seconds);

// A gateway that is asked once, on the caller's own thread: its process ends when the time is up, because it has
// nothing else to do.
class GatewayOnce {
 public:
  GatewayOnce(std::string host, int port) : host_(std::move(host)), port_(port) {}
  // Throws a Fault: kNotConnected.
  Answer ask(const Question& question, double timeoutSeconds, const Ending& whenLate);
  // Closes the connection and ends the process, after a moment even where the gateway does not take part.
  [[noreturn]] void close(int exitCode);

 private:
  std::string host_;
  int port_;
  // Not closed by going out of scope, where a gateway that is silent would hold up the message about it.
  zebstats::Connection& connection_ = *new zebstats::Connection;
};

// A gateway that is asked time and again.
class Gateway {
 public:
  Gateway(std::string host, int port, double timeoutSeconds);
  ~Gateway();  // lets the thread close the connection, and does not wait for it
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  [[nodiscard]] std::string name() const { return nameGateway(host_, port_); }

  // Connects where there is no connection, and asks. Throws a Fault: kNotConnected or kTimedOut. The next
  // question then connects anew where that is needed.
  Answer ask(const Question& question);

  // A thread that hangs in the library can not be ended. Whether there is room for one more.
  [[nodiscard]] bool mayAskAgain();

  // Lets the thread close the connection, and waits for it for a moment.
  void close();

 private:
  struct Thread;
  void startThread();

  std::string host_;
  int port_;
  double timeoutSeconds_;
  std::shared_ptr<Thread> thread_;
  std::vector<std::weak_ptr<Thread>> hung_;  // they still wait for an answer that comes too late, if ever
};

}  // namespace zebtool

#endif  // ZEBSTAT_GATEWAY_H
