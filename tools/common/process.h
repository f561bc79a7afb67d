// How the programs begin and end: the limits of the library's calls, and exit codes.
#ifndef ZEBTOOL_PROCESS_H
#define ZEBTOOL_PROCESS_H

#include <signal.h>

#include <string>

namespace zebtool {

// Runs a program and ends its threads. Returns the exit code that `run` returns; if it throws,
// prints the message, and returns a Fault's exit code or kNotConnected.
int runProgram(int (*run)(int, char**), int argc, char** argv);

// Sets the timeout of all calls of the library, in every thread, and its trace, which goes to
// standard error if no file is named. Throws a Fault.
void setUpLibrary(double timeoutSeconds, int traceLevel = 0, const std::string& traceFile = {});

// Ends the process at once, without destructors; a signal handler may call it.
[[noreturn]] void endNow(int exitCode);

// Returns SIGINT, SIGTERM and SIGHUP.
sigset_t endingSignals();

// Blocks the ending signals for a scope: Ctrl-C leaves no half line and no temporary file. The
// threads of startThread() have them blocked always.
class SignalsHeld {
 public:
  SignalsHeld();
  ~SignalsHeld();
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

 private:
  sigset_t before_{};
};

// Waits. Returns false, at once, if the reader of standard output has gone.
[[nodiscard]] bool waitWithReader(double seconds);

}  // namespace zebtool

#endif  // ZEBTOOL_PROCESS_H
