#include "options.h"

#include <utility>

#include "fault.h"
#include "option_checks.h"
#include "option_parser.h"

namespace zebtool {

namespace {

// Fits a screen of 24 lines and 80 columns.
constexpr char kHelp[] =
    R"(Usage: zebstats-exporter --gateway HOST[:PORT]... [OPTION...]
Serves the statistics of gateways to Prometheus: /metrics asks all gateways.

  --gateway HOST[:PORT]...  the gateways; port 2980 if none is given
  --targets FILE            more gateways, one a line; read when it changes
  --allow-target GLOB...    what /probe?target=HOST:PORT may ask (nothing)
  --listen [HOST]:PORT      where to serve (127.0.0.1:9480); port 0 is any free
  --timeout SECONDS         how long a scrape waits for a gateway (5)
  --group GROUP...          only the statistics of these groups
  --include GLOB            only ids that match; may be repeated, as may
  --exclude GLOB            leave out ids that match
  --texts GLOB...           export texts whose ids match as labels
  --metadata FILE           types, units and help of statistics, in JSON
  --check                   only check the options and the files that they name
  --trace LEVEL             the library's trace: 0 nothing to 5 everything
  --trace-file FILE         append the trace to FILE, not to standard error

Examples:
  zebstats-exporter --gateway gateway-1 gateway-2:2981 --texts '*_STATE'
  zebstats-exporter --listen :9480 --targets /etc/zebstats/targets
)";

std::string wantListenAddress(const std::string& text) {
  return parseListenAddress(text, 9480)
             ? std::string()
             : "'" + text +
                   "' is not a HOST:PORT; write it like 127.0.0.1:9480, :9480 or [::]:9480";
}

class Parser {
 public:
  Parser() {
    app_.formatter_fn(
        [](const CLI::App*, const std::string&, CLI::AppFormatMode) { return std::string(kHelp); });
    app_.set_version_flag("--version", "zebstats-exporter " ZEBSTATS_VERSION);
    addTargetOptions();
    addStatOptions();
    app_.add_flag("--check", options_.isCheck);
    add("--listen", "ADDRESS", options_.listen)->check(wantListenAddress);
    CLI::Option* level = add("--trace", "LEVEL", options_.traceLevel)->check(wantTraceLevel());
    add("--trace-file", "FILE", options_.traceFile)->check(wantPath)->needs(level);
  }

  std::optional<ExporterOptions> parse(int argc, char** argv) {
    try {
      if (!parseArguments(app_, argc, argv)) return std::nullopt;
      if (options_.gateways.empty() && options_.targetsFile.empty() &&
          options_.allowedTargets.empty())
        throw CLI::ValidationError("give --gateway, --targets or --allow-target");
    } catch (const CLI::ParseError& fault) {
      throw Fault(kUsage, fault.what() + std::string("; see zebstats-exporter --help"));
    }
    return std::move(options_);
  }

 private:
  CLI::Option* add(const char* name, const char* argument, auto& target) {
    return addOption(app_, name, argument, /*takesMany=*/false, target);
  }
  CLI::Option* addMany(const char* name, const char* argument, auto& target) {
    return addOption(app_, name, argument, /*takesMany=*/true, target);
  }

  void addTargetOptions() {
    addMany("--gateway", "ADDRESS", options_.gateways)->check(wantAddress);
    add("--targets", "FILE", options_.targetsFile)->check(wantPath);
    addMany("--allow-target", "GLOB", options_.allowedTargets)->check(wantText);
    add("--timeout", "SECONDS", options_.timeoutSeconds)->check(wantTimeout());
  }

  void addStatOptions() {
    addMany("--group", "GROUP", options_.groups)->check(wantText);
    add("--include", "GLOB", options_.included)->check(wantText);
    add("--exclude", "GLOB", options_.excluded)->check(wantText);
    addMany("--texts", "GLOB", options_.texts)->check(wantText);
    add("--metadata", "FILE", options_.metadataFile)->check(wantPath);
  }

  CLI::App app_{"", "zebstats-exporter"};
  ExporterOptions options_;
};

}  // namespace

std::optional<ExporterOptions> parseOptions(int argc, char** argv) {
  return Parser().parse(argc, argv);
}

}  // namespace zebtool
