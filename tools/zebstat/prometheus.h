// What needs the libraries of Prometheus. They cost as much time at the start as everything else, so they are
// linked into a second program, zebstat-prometheus, which zebstat turns into where it has to.
#ifndef ZEBSTAT_PROMETHEUS_H
#define ZEBSTAT_PROMETHEUS_H

#include <string>

#include "options.h"
#include "report.h"

namespace zebtool {

// In zebstat: becomes zebstat-prometheus with the same arguments, or throws a Fault. There: does nothing.
void switchToPrometheus(char** argv);

std::string renderPrometheus(const Report& report);

// Returns the exit code.
int serveMetrics(const Options& options);

}  // namespace zebtool

#endif  // ZEBSTAT_PROMETHEUS_H
