// zebstat: asks a gateway for its statistics, and shows, checks or exports the answer.
//
// Results go to standard output, messages to standard error, one line for each failure.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <string_view>

#include "check.h"
#include "fault.h"
#include "gateway.h"
#include "options.h"
#include "output.h"
#include "show.h"
#include "zebstats.hpp"

namespace zebtool {

namespace {

void setUpLibrary(const Options& options) {
  if (!options.traceFile.empty() && zebstats::setTraceFile(options.traceFile.c_str())) {
    throw Fault(kUsage, "--trace-file: cannot append to '" + options.traceFile +
                            "'; name a file that can be written");
  }
  if (options.traceLevel > 0) (void)zebstats::setTraceLevel(options.traceLevel);
  // No lround: it is in another shared library, and loading that would slow down each start.
  int code = setAPITimeout(static_cast<int>(options.timeoutSeconds * 1000 + 0.5));
  if (code != ZEB_OK)
    throw Fault(kNotConnected, "cannot set the timeout (" + std::to_string(code) + ")");
}

// Prints a fault here rather than in main: on the way there the gateway is closed, which may take
// until the timeout.
int askGateway(const Options& options) {
  Gateway gateway({options.host, options.port}, options.timeoutSeconds);
  try {
    if (options.command == Command::kCheck) return runCheck(options, gateway);
    return options.watchSeconds > 0 ? showWatched(options, gateway) : showOnce(options, gateway);
  } catch (const Fault& fault) {
    printMessage(fault.what());
    return fault.exitCode;
  }
}

// Executes the exporter, a program of its own that is installed in the same folder.
[[noreturn]] void startExporter(char** arguments) {
  char self[PATH_MAX];
  ssize_t length = readlink("/proc/self/exe", self, sizeof self);
  std::string program(self, length > 0 ? static_cast<std::size_t>(length) : 0);
  program.erase(program.rfind('/') + 1);
  program += "zebstats-exporter";
  arguments[0] = program.data();
  execv(program.c_str(), arguments);
  std::string advice = errno == ENOENT ? "install the package zebstats-exporter"
                                       : "cannot start it: " + std::string(std::strerror(errno));
  throw Fault(kUsage, "exporter needs " + program + "; " + advice);
}

int run(int argc, char** argv) {
  if (argc > 1 && std::string_view(argv[1]) == "exporter") startExporter(argv + 1);
  std::optional<Options> options = parseOptions(argc, argv);
  if (!options) return kDone;
  setUpLibrary(*options);
  return askGateway(*options);
}

}  // namespace

}  // namespace zebtool

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // EPIPE is handled at each write
  try {
    return zebtool::run(argc, argv);
  } catch (const zebtool::Fault& fault) {
    zebtool::printMessage(fault.what());
    return fault.exitCode;
  } catch (const std::exception& fault) {
    zebtool::printMessage(fault.what());
    return zebtool::kNotConnected;
  }
}
