// zebstat: asks a gateway for its statistics, and shows, checks or exports the answer.
//
// Data go to standard output, words to standard error, one line a fault.
#include <signal.h>

#include <cstdio>
#include <exception>

#include "check.h"
#include "fault.h"
#include "options.h"
#include "output.h"
#include "prometheus.h"
#include "show.h"
#include "zebstats.hpp"

namespace zebtool {

namespace {

void startTrace(const Options& options) {
  if (!options.traceFile.empty() && zebstats::setTraceFile(options.traceFile.c_str())) {
    throw Fault(kUsage, "--trace-file: cannot append to '" + options.traceFile +
                            "'; name a file that can be written");
  }
  if (options.traceLevel > 0) (void)zebstats::setTraceLevel(options.traceLevel);
}

int run(int argc, char** argv) {
  std::optional<Options> options = parseOptions(argc, argv);
  if (!options) {
    std::fflush(stdout);
    return kDone;
  }
  bool isExporter = options->command == Command::kExporter;
  if (isExporter || options->format == Format::kPrometheus) switchToPrometheus(argv);
  startTrace(*options);
  if (isExporter) return serveMetrics(*options);
  if (options->command == Command::kCheck) return runCheck(*options);
  return options->watchSeconds > 0 ? showWatched(*options) : showOnce(*options);
}

}  // namespace

}  // namespace zebtool

int main(int argc, char** argv) {
  // A reader that goes away is met where something is written to it.
  signal(SIGPIPE, SIG_IGN);
  try {
    zebtool::endNow(zebtool::run(argc, argv));
  } catch (const zebtool::Fault& fault) {
    zebtool::tell(fault.what());
    zebtool::endNow(fault.exitCode);
  } catch (const std::exception& fault) {
    zebtool::tell(fault.what());
    zebtool::endNow(zebtool::kNotConnected);
  }
}
