// prometheus.h as zebstat-prometheus implements it.
#include "prometheus.h"

#include "prometheus_names.h"

namespace zebtool {

void switchToPrometheus(char**) {}

std::string renderPrometheus(const std::vector<Report>& reports) {
  std::vector<PrometheusAnswer> answers;
  for (const Report& report : reports) {
    PrometheusAnswer& answer = answers.emplace_back(PrometheusAnswer{report.gateway, {}});
    for (const Entry& entry : report.answer.entries)
      answer.stats.push_back({entry.id, groupOf(entry, report.isByGroup), entry.value});
  }
  return writePrometheusText(answers);
}

}  // namespace zebtool
