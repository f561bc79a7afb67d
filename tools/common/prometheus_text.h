// The text format that Prometheus reads, for `zebstat stats --format prometheus` and the exporter.
//
// Ids, groups and values may hold any bytes. Different ids get different valid names, and labels
// are the text that zebstat shows: valid UTF-8 in which control characters are escaped.
#ifndef ZEBTOOL_PROMETHEUS_TEXT_H
#define ZEBTOOL_PROMETHEUS_TEXT_H

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gateway.h"
#include "metadata.h"

namespace zebtool {

// Writes metrics one after the other.
class MetricWriter {
 public:
  struct Label {
    const char* name;
    std::string_view value;  // any bytes
  };

  // Starts a metric. The name, of valid characters, must be used for no other one.
  void start(std::string name, std::string_view help, const char* type);
  // Adds a sample to the metric that was started last. Labels with an empty value are left out, as
  // Prometheus ignores them.
  void add(std::initializer_list<Label> labels, std::string_view number);
  void add(std::initializer_list<Label> labels, double number);

  [[nodiscard]] bool isEmpty() const { return text_.empty(); }
  std::string take() { return std::move(text_); }

 private:
  std::string name_;
  std::string text_;
};

// The statistics of one gateway; the element of each entry is its group, empty if not known.
struct GatewayStats {
  std::string gateway;  // HOST:PORT
  const std::vector<Entry>* entries;
};

// Returns a metric for each id with numeric values, labelled with gateway and group. Its type, unit
// and help are as the metadata say; without them it is untyped. Counters end in _total, units are
// converted to base units and follow the name.
//
// A text is left out unless one of the globs in texts matches its id. Then the metric with the
// suffix _info has it, of at most 256 bytes, in the label value. If a gateway's answer has the same
// statistic twice in a group, only the first one is written, because Prometheus would refuse both.
std::string renderStats(const std::vector<GatewayStats>& gateways, const Metadata& metadata,
                        const std::vector<std::string>& texts);

}  // namespace zebtool

#endif  // ZEBTOOL_PROMETHEUS_TEXT_H
