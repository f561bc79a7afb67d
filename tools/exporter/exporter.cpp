#include "exporter.h"

#include <algorithm>
#include <optional>

#include "glob.h"
#include "prometheus_text.h"
#include "text.h"
#include "threads.h"

namespace zebtool {

namespace {

constexpr char kStartPage[] = R"(<!DOCTYPE html>
<html lang="en"><head><title>zebstats-exporter</title></head><body>
<h1>zebstats-exporter )" ZEBSTATS_VERSION
                              R"(</h1>
<p>Serves the statistics of gateways to Prometheus.</p>
<ul>
<li><a href="/metrics">/metrics</a> asks all configured gateways</li>
<li>/probe?target=HOST:PORT asks one gateway that --allow-target permits</li>
<li><a href="/-/healthy">/-/healthy</a> answers as long as the exporter runs</li>
</ul>
</body></html>
)";

HttpResponse makeLine(unsigned status, const std::string& line) {
  return {status, HttpResponse().contentType, line + "\n"};
}

// Returns how many seconds a scrape may take: the timeout that the asking server names, less a
// margin for rendering and transport, but no more than the option says; nothing if the header is no
// number.
std::optional<double> chooseTimeout(const HttpRequest& request, double timeoutSeconds) {
  std::optional<std::string> header = request.header("X-Prometheus-Scrape-Timeout-Seconds");
  if (!header) return timeoutSeconds;
  std::optional<long double> given = parseNumber(*header);
  if (!given || *given <= 0) return std::nullopt;
  double seconds = static_cast<double>(*given);
  return std::min(timeoutSeconds, seconds - std::min(0.5, seconds / 5));
}

}  // namespace

Exporter::Exporter(const ExporterOptions& options, Targets& targets)
    : options_(options),
      metadata_(options.metadataFile.empty() ? Metadata() : Metadata(options.metadataFile)),
      targets_(targets) {}

HttpResponse Exporter::answer(const HttpRequest& request) {
  if (request.path == "/") return {200, "text/html; charset=utf-8", kStartPage};
  if (request.path == "/-/healthy") return makeLine(200, "zebstats-exporter is healthy");
  bool isProbe = request.path == "/probe";
  if (!isProbe && request.path != "/metrics")
    return makeLine(404, "there are /metrics, /probe?target=HOST:PORT and /-/healthy");
  std::optional<double> seconds = chooseTimeout(request, options_.timeoutSeconds);
  if (!seconds) return makeLine(400, "X-Prometheus-Scrape-Timeout-Seconds is no positive number");
  auto wait = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(*seconds));
  Clock::time_point deadline = Clock::now() + wait;
  if (!isProbe) return answerMetrics(deadline);
  std::optional<std::string> target = request.argument("target");
  if (!target) return makeLine(400, "give a target: /probe?target=HOST:PORT");
  return answerProbe(*target, deadline);
}

HttpResponse Exporter::answerMetrics(Clock::time_point deadline) {
  std::vector<Sample> samples;
  for (Targets::Probe& probe : targets_.probeConfigured())
    samples.push_back({probe.gateway(), probe.await(deadline)});
  return respond(samples);
}

HttpResponse Exporter::answerProbe(const std::string& target, Clock::time_point deadline) {
  std::optional<Address> address = parseAddress(target);
  if (!address) return makeLine(400, "'" + toShown(target) + "' is not a HOST or HOST:PORT");
  std::string name = showAddress(*address);
  if (!matchesAnyGlob(options_.allowedTargets, name))
    return makeLine(403, "no --allow-target permits '" + toShown(name) + "'");
  return respond({{name, targets_.probe(*address).await(deadline)}});
}

HttpResponse Exporter::respond(const std::vector<Sample>& samples) const {
  if (isEnding()) return makeLine(503, "the exporter is ending");  // gateways would seem down
  std::vector<GatewayStats> stats;
  for (const Sample& sample : samples)
    stats.push_back({sample.gateway, &sample.scrape.report->entries});
  MetricWriter writer;
  renderState(samples, writer);
  return {200, "text/plain; version=0.0.4; charset=utf-8",
          renderStats(stats, metadata_, options_.texts) + writer.take()};
}

// Writes the exporter's own metrics.
void Exporter::renderState(const std::vector<Sample>& samples, MetricWriter& writer) const {
  writer.start("zebstats_up", "Whether the gateway has answered.", "gauge");
  for (const auto& [gateway, scrape] : samples)
    writer.add({{"gateway", gateway}}, scrape.report->isUp ? 1 : 0);
  writer.start("zebstats_scrape_duration_seconds", "How long the gateway was asked and waited for.",
               "gauge");
  for (const auto& [gateway, scrape] : samples) writer.add({{"gateway", gateway}}, scrape.seconds);
  writer.start("zebstats_scrape_error", "Whether the gateway has not answered for this reason.",
               "gauge");
  for (const auto& [gateway, scrape] : samples) {
    for (FaultReason reason : kFaultReasons) {
      bool isReason = !scrape.report->isUp && scrape.report->reason == reason;
      writer.add({{"gateway", gateway}, {"reason", nameOf(reason)}}, isReason ? 1 : 0);
    }
  }
  renderVersions(samples, writer);
  if (options_.targetsFile.empty()) return;
  writer.start("zebstats_targets_valid", "Whether the targets file was good when last read.",
               "gauge");
  writer.add({}, areTargetsValid_ ? 1 : 0);
}

void Exporter::renderVersions(const std::vector<Sample>& samples, MetricWriter& writer) {
  writer.start("zebstats_build_info",
               "Versions of the exporter, its library and the gateway's protocol.", "gauge");
  MetricWriter::Label version{"version", ZEBSTATS_VERSION};
  MetricWriter::Label library{"library", zebstats::apiVersion()};
  if (samples.empty()) writer.add({version, library}, 1);
  for (const auto& [gateway, scrape] : samples)
    writer.add({{"gateway", gateway}, version, library, {"protocol", scrape.protocol}}, 1);
}

}  // namespace zebtool
