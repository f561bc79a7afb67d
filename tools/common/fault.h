// Exit codes, and the exception that main prints before it exits with one of them.
#ifndef ZEBTOOL_FAULT_H
#define ZEBTOOL_FAULT_H

#include <stdexcept>
#include <string>

namespace zebtool {

// Scripts rely on these: never change one.
enum ExitCode {
  kDone = 0,
  kElementRefused = 1,  // the gateway answered an element with an error
  kUsage = 2,
  kNotConnected = 3,  // the gateway could not be asked, or standard output not be written
  kTimedOut = 4,
  kNothingMatched = 5,
};

struct Fault : std::runtime_error {
  Fault(ExitCode code, const std::string& text) : std::runtime_error(text), exitCode(code) {}
  ExitCode exitCode;
};

}  // namespace zebtool

#endif  // ZEBTOOL_FAULT_H
