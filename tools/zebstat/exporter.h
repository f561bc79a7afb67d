// Serves the statistics of any number of gateways to Prometheus.
#ifndef ZEBSTAT_EXPORTER_H
#define ZEBSTAT_EXPORTER_H

#include <string>
#include <vector>

namespace zebtool {

struct ExporterOptions {
  std::string listen;                 // ADDRESS:PORT, an IPv6 address in brackets; port 0 is any free port
  std::vector<std::string> gateways;  // HOST:PORT each, an IPv6 address in brackets
  double timeoutSeconds = 10;         // how long a scrape waits for a gateway
};

// Serves /metrics until SIGINT or SIGTERM, and tells on the first line of standard output where. Takes over
// the signals of the process: call it from the main thread, before any other thread is started.
//
// Returns the exit code: 0 ended by a signal, 2 an option can not be used, 3 can not listen. Faults get one
// line on standard error.
int runExporter(const ExporterOptions& options);

}  // namespace zebtool

#endif  // ZEBSTAT_EXPORTER_H
