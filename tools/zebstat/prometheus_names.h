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
  std::string group;  // empty where it is not known
  std::string value;
};

struct PrometheusAnswer {
  std::string gateway;  // HOST:PORT
  std::vector<PrometheusStat> stats;
};

// One untyped metric for each id with numeric values, labelled with gateway and group, and
// zebstats_info for the texts. Any bytes may stand in ids, groups and values: names are made of
// what names may have and differ where the ids differ, labels become valid UTF-8, and texts of more
// than 256 bytes are cut. If an answer holds the same statistic twice in a group, the first one
// counts.
std::vector<prometheus::MetricFamily> makeMetricFamilies(
    const std::vector<PrometheusAnswer>& answers);

// The same as text.
std::string writePrometheusText(const std::vector<PrometheusAnswer>& answers);

// The text as valid UTF-8 without NUL: other bytes become \xFF, in these four characters.
std::string makeLabelValue(std::string_view text);

}  // namespace zebtool

#endif  // ZEBSTAT_PROMETHEUS_NAMES_H
