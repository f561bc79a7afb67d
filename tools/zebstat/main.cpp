// zebstat: asks a gateway for its statistics, and shows or checks the answer.
//
// Results go to standard output, messages to standard error, one line for each failure.
#include "check.h"
#include "completion.h"
#include "fault.h"
#include "gateway.h"
#include "options.h"
#include "output.h"
#include "process.h"
#include "show.h"

namespace zebtool {

namespace {

int askGateways(const Options& options) {
  if (options.command != Command::kCheck)
    return options.watchSeconds > 0 ? showWatched(options) : showOnce(options);
  Gateway gateway(options.gateways.front(), options.timeoutSeconds);
  return runCheck(options.check, gateway);
}

int runCommand(int argc, char** argv) {
  std::optional<Options> options = parseOptions(argc, argv);
  if (!options) return kDone;
  if (options->command == Command::kCompletion) {
    writeOutput(writeCompletion(options->shell));
    return kDone;
  }
  try {
    setUpLibrary(options->timeoutSeconds, options->traceLevel, options->traceFile);
  } catch (const Fault& fault) {
    if (options->command == Command::kCheck) throw CheckUsageFault(fault.what());
    throw;
  }
  return askGateways(*options);
}

int run(int argc, char** argv) {
  try {
    return runCommand(argc, argv);
  } catch (const CheckUsageFault& fault) {
    return reportCheckUsage(fault);
  }
}

}  // namespace

}  // namespace zebtool

int main(int argc, char** argv) {
  return zebtool::runProgram(zebtool::run, argc, argv);
}
