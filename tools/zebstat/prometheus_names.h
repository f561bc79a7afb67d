// Statistics in the text format that Prometheus reads, for `stats --format prometheus` and for the
// exporter.
#ifndef ZEBSTAT_PROMETHEUS_NAMES_H
#define ZEBSTAT_PROMETHEUS_NAMES_H

#include <string>
#include <string_view>
#include <vector>

namespace prometheus {
struct MetricFamily;
}

namespace zebtool {

struct PrometheusStat {
  std::string id;
  std::string group;  // empty if it is not known
  std::string value;
};

struct PrometheusAnswer {
  std::string gateway;  // HOST:PORT
  std::vector<PrometheusStat> stats;
};

// Returns one untyped metric for each id with numeric values, labelled with gateway and group, and
// the metric zebstats_info for texts. Ids, groups and values may hold any bytes: different ids get
// different valid names, labels become valid UTF-8, and texts of more than 256 bytes are cut. If an
// answer holds the same statistic twice in a group, only the first one is used.
std::vector<prometheus::MetricFamily> makeMetricFamilies(
    const std::vector<PrometheusAnswer>& answers);

// Returns the same families in the text format of Prometheus.
std::string writePrometheusText(const std::vector<PrometheusAnswer>& answers);

// Returns the text as valid UTF-8 without NUL: each other byte becomes four characters such as
// \xFF.
std::string makeLabelValue(std::string_view text);

}  // namespace zebtool

#endif  // ZEBSTAT_PROMETHEUS_NAMES_H
