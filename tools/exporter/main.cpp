// zebstats-exporter: serves the statistics of gateways to Prometheus.
//
// The main thread handles signals and the targets file. Each gateway and each HTTP connection has a
// thread.
#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>

#include "exporter.h"
#include "fault.h"
#include "http_server.h"
#include "metadata.h"
#include "options.h"
#include "output.h"
#include "process.h"
#include "targets.h"
#include "threads.h"

namespace zebtool {

namespace {

constexpr std::size_t kStackBytes = 256 * 1024;
constexpr rlim_t kMaxFiles = 4096;

// Makes room for a thread and a socket for each gateway and each client.
void setUpProcess() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kStackBytes);
  pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
  rlimit files{};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = std::max(files.rlim_cur, std::min(files.rlim_max, kMaxFiles));
  setrlimit(RLIMIT_NOFILE, &files);
}

// Blocks the signals that the main thread waits for; threads that are started later inherit that.
sigset_t blockSignals() {
  sigset_t signals = endingSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// Returns the gateways of the options and of the targets file. Throws a Fault.
AddressMap listGateways(const ExporterOptions& options) {
  AddressMap gateways;
  auto add = [&gateways](const Address& address) {
    gateways.emplace(showAddress(address), address);
  };
  for (const std::string& gateway : options.gateways) add(*parseAddress(gateway));
  if (!options.targetsFile.empty()) {
    for (const Address& address : readTargets(options.targetsFile)) add(address);
  }
  Targets::checkCount(gateways);
  return gateways;
}

// Reads the targets file again; if it is bad, the gateways stay as they were.
void reload(const ExporterOptions& options, Targets& targets, Exporter& exporter) {
  try {
    targets.configure(listGateways(options));
    exporter.setTargetsValid(true);
  } catch (const Fault& fault) {
    printUnlessFull(std::string(fault.what()) + "; the gateways stay as they were");
    exporter.setTargetsValid(false);
  }
}

// Calls the function about once a second, and with true after SIGHUP, until a signal ends the
// program.
template <typename Function>
void callEverySecond(const sigset_t& signals, Function function) {
  for (;;) {
    const timespec second{1, 0};
    int received = sigtimedwait(&signals, nullptr, &second);
    if (received == SIGINT || received == SIGTERM) return;
    function(received == SIGHUP);
  }
}

void serve(const ExporterOptions& options) {
  sigset_t signals = blockSignals();
  setUpProcess();
  ScrapePlan plan{options.timeoutSeconds, options.groups, {options.included, options.excluded}};
  Targets targets(std::move(plan));
  Exporter exporter(options, targets);
  FileWatch file(options.targetsFile);
  AddressMap gateways = listGateways(options);
  HttpServer server(*parseListenAddress(options.listen, 9480));
  targets.configure(gateways);
  server.start([&exporter](const HttpRequest& request) { return exporter.answer(request); });
  std::printf("listening on %s\n", showAddress(server.address()).c_str());
  std::fflush(stdout);
  callEverySecond(signals, [&](bool isHangUp) {
    bool hasChanged = file.hasChanged() || isHangUp;
    if (hasChanged && !options.targetsFile.empty()) reload(options, targets, exporter);
    targets.dropUnused();
    server.dropSlowClients();
  });
  beginEnding();
  targets.stopAll();  // ends the scrapes that the server's destructor waits for
}

int run(int argc, char** argv) {
  std::optional<ExporterOptions> options = parseOptions(argc, argv);
  if (!options) return kDone;
  if (options->isCheck) {
    (void)listGateways(*options);
    if (!options->metadataFile.empty()) Metadata checked(options->metadataFile);
    return kDone;
  }
  setUpLibrary(options->timeoutSeconds, options->traceLevel, options->traceFile);
  serve(*options);
  return kDone;
}

}  // namespace

}  // namespace zebtool

int main(int argc, char** argv) {
  return zebtool::runProgram(zebtool::run, argc, argv);
}
