// Answers the requests of Prometheus servers and of people.
#ifndef ZEBSTATS_EXPORTER_EXPORTER_H
#define ZEBSTATS_EXPORTER_EXPORTER_H

#include <atomic>
#include <string>
#include <vector>

#include "http_server.h"
#include "metadata.h"
#include "options.h"
#include "prometheus_text.h"
#include "targets.h"

namespace zebtool {

class Exporter {
 public:
  // Throws a Fault (kUsage) if the metadata file is bad.
  Exporter(const ExporterOptions& options, Targets& targets);

  // Answers one request; several threads may call it.
  HttpResponse answer(const HttpRequest& request);

  // Notes whether the targets file was good when it was last read.
  void setTargetsValid(bool isValid) { areTargetsValid_ = isValid; }

 private:
  struct Sample {
    std::string gateway;
    Scrape scrape;
  };

  HttpResponse answerMetrics(Clock::time_point deadline);
  HttpResponse answerProbe(const std::string& target, Clock::time_point deadline);
  HttpResponse respond(const std::vector<Sample>& samples) const;
  void renderState(const std::vector<Sample>& samples, MetricWriter& writer) const;
  static void renderVersions(const std::vector<Sample>& samples, MetricWriter& writer);

  const ExporterOptions& options_;
  const Metadata metadata_;
  Targets& targets_;
  std::atomic<bool> areTargetsValid_ = true;
};

}  // namespace zebtool

#endif  // ZEBSTATS_EXPORTER_EXPORTER_H
