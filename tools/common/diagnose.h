// Finds out why no connection to a gateway could be opened. The library has the same code for a
// machine that is down and a gateway that hangs, and for a web server and a gateway that is
// stopping.
#ifndef ZEBTOOL_DIAGNOSE_H
#define ZEBTOOL_DIAGNOSE_H

#include <string>
#include <vector>

namespace zebtool {

// Returns whether a connection to the numeric address can be opened within that time. It is closed
// at once.
bool canConnect(const std::string& address, int port, double seconds);

// The kinds of reasons for which a gateway cannot be asked, as the exporter counts them.
enum class FaultReason { kRefused, kUnresolved, kTimedOut, kLost, kMalformed };
constexpr FaultReason kFaultReasons[] = {FaultReason::kRefused, FaultReason::kUnresolved,
                                         FaultReason::kTimedOut, FaultReason::kLost,
                                         FaultReason::kMalformed};

// Returns the name of a reason, such as timed_out.
const char* nameOf(FaultReason reason);

struct Diagnosis {
  FaultReason reason = FaultReason::kLost;
  std::string text;  // the cause and what to do about it, with any bytes of an answer
};

// Connects to the first of the numeric addresses that accepts, sends what a client sends first, and
// waits for an answer. Takes up to a second to connect, and another one to wait. An answer that is
// no gateway's is a part of the text, which is empty if there are no addresses.
Diagnosis diagnose(const std::vector<std::string>& addresses, int port);

}  // namespace zebtool

#endif  // ZEBTOOL_DIAGNOSE_H
