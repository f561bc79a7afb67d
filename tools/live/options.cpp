#include "options.h"

#include <cstdlib>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>

#include "glob.h"
#include "option_checks.h"

namespace zebtool {

namespace {

constexpr char kHelp[] =
    R"(Usage: zebstat live [ID...] [OPTION...]
Shows statistics on the whole screen and keeps them up to date: all, those
named or matched by a glob, or those of groups.

  --group GROUP...        the statistics of these groups
  --gateway HOST:PORT     a gateway (127.0.0.1:2980); may be repeated
  -H, --host HOST         the same for one gateway, with
  -p, --port PORT         its statistics port
  --interval SECONDS      how often the gateways are asked (2)
  -t, --timeout SECONDS   time for connecting, and for each answer (10)
  --include GLOB          show only ids that match; may be repeated, as may
  --exclude GLOB          leave out ids that match
  --warning GLOB=RANGE    mark values outside the range: 10, 10:20, 10:, ~:10,
  --critical GLOB=RANGE   or @10:20 for values inside; both may be repeated
  --sort ORDER            name, change (in the last minute) or rate
  --changed               show only what has changed in the last minute

Keys: arrows, Page Up and Down, Home and End scroll; n, c and r sort by name,
change and rate; a shows all or only what changed; / filters as you type, Esc
shows all again; x clears the marks; h lists the keys; q ends.
)";

[[noreturn]] void refuse(const std::string& message) {
  throw Fault(kUsage, message + "; see zebstat live --help");
}

// What CLI11 has read.
struct RawOptions {
  std::vector<std::string> ids;
  std::vector<std::string> groups;
  std::vector<std::string> gateways;
  std::string host;
  int port = 0;  // 0: not given
  double interval = 2;
  double timeout = 10;
  std::vector<std::string> included;
  std::vector<std::string> excluded;
  std::vector<std::string> warnings;
  std::vector<std::string> criticals;
  std::string order = "name";
  bool onlyChanged = false;
};

void declareOptions(CLI::App& app, RawOptions& raw) {
  CLI::Option* ids = app.add_option("ID", raw.ids);
  app.add_option("--group", raw.groups)->excludes(ids);
  CLI::Option* gateways =
      app.add_option("--gateway", raw.gateways)->allow_extra_args(false)->check(wantAddress);
  app.add_option("-H,--host", raw.host)->excludes(gateways)->check(wantAddress);
  app.add_option("-p,--port", raw.port)->excludes(gateways)->check(wantPort());
  app.add_option("--interval", raw.interval)->check(wantSeconds(0.1L));
  app.add_option("-t,--timeout", raw.timeout)->check(wantTimeout());
  app.add_option("--include", raw.included)->allow_extra_args(false);
  app.add_option("--exclude", raw.excluded)->allow_extra_args(false);
  app.add_option("--warning", raw.warnings)->allow_extra_args(false);
  app.add_option("--critical", raw.criticals)->allow_extra_args(false);
  app.add_option("--sort", raw.order);
  app.add_flag("--changed", raw.onlyChanged);
}

std::vector<Address> readGateways(const RawOptions& raw) {
  std::vector<Address> gateways;
  for (const std::string& text : raw.gateways) gateways.push_back(*parseAddress(text));
  bool isSingle = !raw.host.empty() || raw.port != 0;
  if (!isSingle && gateways.empty()) {
    if (std::string message = readEnvironment(gateways); !message.empty())
      refuse("ZEBSTAT_GATEWAY in the environment: " + message);
  }
  if (!gateways.empty()) return gateways;
  std::optional<Address> only = joinHostAndPort(raw.host, raw.port);
  if (!only) refuse("--port: --host " + raw.host + " has a port already");
  return {*only};
}

Limit readLimit(Alarm alarm, const std::string& text) {
  std::size_t equals = text.rfind('=');
  std::optional<Range> range;
  if (equals != std::string::npos && equals > 0) range = parseRange(text.substr(equals + 1));
  if (!range) {
    refuse(std::string(alarm == Alarm::kWarning ? "--warning" : "--critical") + ": '" + text +
           "' is not a glob and a range such as 'WORK_*=10:20'");
  }
  return {alarm, text.substr(0, equals), *range};
}

Order readOrder(const std::string& text) {
  if (text == "name") return Order::kName;
  if (text == "change") return Order::kChange;
  if (text == "rate") return Order::kRate;
  refuse("--sort: '" + text + "' is not name, change or rate");
}

LiveOptions convert(RawOptions raw) {
  LiveOptions options{
      {readGateways(raw), {}, Filter(raw.included, raw.excluded), raw.timeout, raw.interval},
      {},
      {readOrder(raw.order), raw.onlyChanged, {}}};
  for (const std::string& text : raw.warnings)
    options.limits.push_back(readLimit(Alarm::kWarning, text));
  for (const std::string& text : raw.criticals)
    options.limits.push_back(readLimit(Alarm::kCritical, text));
  using Kind = Question::Kind;
  if (!raw.groups.empty()) {
    options.poll.question = {Kind::kStatsByGroup, std::move(raw.groups)};
  } else if (!raw.ids.empty()) {
    bool hasGlob = std::any_of(raw.ids.begin(), raw.ids.end(), isGlob);
    options.poll.question = {hasGlob ? Kind::kStatsByGlob : Kind::kStatsById, std::move(raw.ids)};
  }
  return options;
}

}  // namespace

std::optional<LiveOptions> parseLiveOptions(int argc, char** argv) {
  CLI::App app("", "zebstat-live");
  app.formatter_fn(
      [](const CLI::App*, const std::string&, CLI::AppFormatMode) { return std::string(kHelp); });
  app.set_version_flag("--version", "zebstat " ZEBSTATS_VERSION);
  RawOptions raw;
  declareOptions(app, raw);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& asked) {
    app.exit(asked);
    return std::nullopt;
  } catch (const CLI::ParseError& fault) {
    refuse(fault.what());
  }
  return convert(std::move(raw));
}

}  // namespace zebtool
