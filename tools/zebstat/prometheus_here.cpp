// prometheus.h as zebstat-prometheus implements it.
#include "exporter.h"
#include "prometheus.h"
#include "prometheus_names.h"

namespace zebtool {

void switchToPrometheus(char**) {}

std::string renderPrometheus(const Report& report) {
  PrometheusAnswer answer{report.gateway, {}};
  for (const Entry& entry : report.answer.entries) {
    answer.stats.push_back({entry.id, groupOf(entry, report.isByGroup), entry.value});
  }
  return writePrometheusText({answer});
}

int serveMetrics(const Options& options) {
  runExporter({options.listen, options.gateways, options.timeoutSeconds});
  return kDone;
}

}  // namespace zebtool
