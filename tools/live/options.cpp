#include "options.h"

#include <cstdlib>
#include <string>
#include <utility>

#include "glob.h"
#include "help.h"
#include "option_checks.h"
#include "option_parser.h"

namespace zebtool {

namespace {

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
  auto add = [&app](Option option, auto& target) { return addOption(app, rowOf(option), target); };
  OptionCheck isName = wantName(rowOf(Option::kInterval));
  CLI::Option* ids = addOption(app, "ID", "ID", true, raw.ids)->check(isName);
  add(Option::kGroup, raw.groups)->check(isName)->excludes(ids);
  add(Option::kWarning, raw.warnings);
  add(Option::kCritical, raw.criticals);
  add(Option::kInterval, raw.interval)->check(wantSeconds(0.1L));
  add(Option::kSort, raw.order)->check(wantWord(rowOf(Option::kSort)));
  app.add_flag(rowOf(Option::kChanged).name, raw.onlyChanged);
  add(Option::kInclude, raw.included)->check(wantText);
  add(Option::kExclude, raw.excluded)->check(wantText);
  CLI::Option* gateways = add(Option::kGateway, raw.gateways)->check(wantAddress);
  add(Option::kHost, raw.host)->excludes(gateways)->check(wantAddress);
  add(Option::kPort, raw.port)->excludes(gateways)->check(wantPort());
  add(Option::kTimeout, raw.timeout)->check(wantTimeout());
}

std::vector<Address> readGateways(const RawOptions& raw) {
  std::vector<Address> gateways;
  for (const std::string& text : raw.gateways) gateways.push_back(*parseAddress(text));
  bool isSingle = !raw.host.empty() || raw.port != 0;
  if (!isSingle && gateways.empty()) {
    if (std::string message = readEnvironment(gateways); !message.empty())
      refuse("ZEBSTAT_GATEWAY in the environment: " + message);
  }
  removeRepeated(gateways);
  if (std::string message = wantFew(gateways); !message.empty()) refuse("--gateway: " + message);
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
  if (text == "change") return Order::kChange;
  return text == "rate" ? Order::kRate : Order::kName;
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
      [](const CLI::App*, const std::string&, CLI::AppFormatMode) { return helpFor("live"); });
  app.set_version_flag("--version", "zebstat " ZEBSTATS_VERSION);
  RawOptions raw;
  declareOptions(app, raw);
  try {
    if (!parseArguments(app, argc, argv)) return std::nullopt;
  } catch (const CLI::ParseError& fault) {
    refuse(fault.what());
  }
  return convert(std::move(raw));
}

}  // namespace zebtool
