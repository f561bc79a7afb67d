#include "process.h"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <exception>

#include "fault.h"
#include "output.h"
#include "standard_streams.h"
#include "threads.h"
#include "zebstats.hpp"

namespace zebtool {

int runProgram(int (*run)(int, char**), int argc, char** argv) {
  fillStandardStreams(O_RDONLY);
  signal(SIGPIPE, SIG_IGN);  // EPIPE is handled at each write
  int code = kNotConnected;
  try {
    code = run(argc, argv);
  } catch (const Fault& fault) {
    printMessage(fault.what());
    code = fault.exitCode;
  } catch (const std::exception& fault) {
    printMessage(fault.what());
  }
  return endThreads(code);
}

void setUpLibrary(double timeoutSeconds, int traceLevel, const std::string& traceFile) {
  if (!traceFile.empty() && zebstats::setTraceFile(traceFile.c_str())) {
    throw Fault(kUsage, "--trace-file: cannot append to '" + traceFile +
                            "'; name a file that can be written");
  }
  if (traceLevel > 0) (void)zebstats::setTraceLevel(traceLevel);
  // No lround: it is in another shared library, and loading that would slow down each start.
  int code = setAPITimeout(static_cast<int>(timeoutSeconds * 1000 + 0.5));
  if (code != ZEB_OK)
    throw Fault(kNotConnected, "cannot set the timeout (" + std::to_string(code) + ")");
}

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

SignalsHeld::SignalsHeld() {
  sigset_t signals = endingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, &before_);
}

SignalsHeld::~SignalsHeld() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void endNow(int exitCode) {
  _exit(exitCode);
}

bool waitWithReader(double seconds) {
  using Clock = std::chrono::steady_clock;
  auto end = Clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0) return true;
    pollfd reader{STDOUT_FILENO, 0, 0};
    poll(&reader, 1, static_cast<int>(left));
    if (reader.revents != 0) return false;  // POLLERR of a pipe, POLLHUP of a socket
  }
}

}  // namespace zebtool
