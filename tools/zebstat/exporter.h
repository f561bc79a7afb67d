// Serves the statistics of any number of gateways to Prometheus.
#ifndef ZEBSTAT_EXPORTER_H
#define ZEBSTAT_EXPORTER_H

#include <string>
#include <vector>

namespace zebtool {

struct ExporterOptions {
  std::string listen;  // ADDRESS:PORT, an IPv6 address in brackets; port 0: any free port
  std::vector<std::string> gateways;  // HOST:PORT each, an IPv6 address in brackets
  double timeoutSeconds = 10;         // how long a scrape waits for a gateway
};

// Serves /metrics until SIGINT or SIGTERM; the first line on standard output is the address. Call
// it from the main thread before any other thread is started, because it blocks these two signals.
//
// Throws a Fault: kUsage for an invalid option, kNotConnected if it cannot listen.
void runExporter(const ExporterOptions& options);

}  // namespace zebtool

#endif  // ZEBSTAT_EXPORTER_H
