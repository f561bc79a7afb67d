#include "options.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <string_view>
#include <utility>

#include <CLI/CLI.hpp>

#include "help.h"
#include "text.h"

namespace zebtool {

namespace {

constexpr double kMaxSeconds = 86400;
constexpr char kCommands[] = "stats, ids, groups, check and exporter";
constexpr std::array<std::pair<const char*, Format>, 5> kFormats{
    {{"table", Format::kTable},
     {"json", Format::kJson},
     {"jsonl", Format::kJsonl},
     {"csv", Format::kCsv},
     {"prometheus", Format::kPrometheus}}};

// Validators return an empty text if the value is valid, otherwise the message about it.
using Validator = std::function<std::string(const std::string&)>;

Validator wantNumber(long double low, long double high, const std::string& what, bool isWhole) {
  return [=](const std::string& text) {
    std::optional<long double> number = parseNumber(text);
    bool isGood = number && *number >= low && *number <= high;
    if (isGood && isWhole) isGood = text.find_first_not_of("0123456789") == std::string::npos;
    return isGood ? std::string() : "'" + text + "' is not " + what;
  };
}

std::string wantFormat(const std::string& text) {
  for (const auto& [name, format] : kFormats) {
    if (text == name) return {};
  }
  return "'" + text + "' is not table, json, jsonl, csv or prometheus";
}

std::string wantRange(const std::string& text) {
  return parseRange(text) ? std::string()
                          : "'" + text + "' is not a range such as 10, 10:20, 10:, ~:10 or @10:20";
}

std::string wantText(const std::string& text) {
  return text.empty() ? "an empty text is not a name; the commands ids and groups list them"
                      : std::string();
}

std::string wantPath(const std::string& text) {
  return text.empty() ? "an empty text is not a file name" : std::string();
}

// Holds the raw options of a command line and combines them.
class Parser {
 public:
  Parser() {
    app_.require_subcommand(0, 1)->fallthrough();
    app_.formatter_fn([](const CLI::App* app, const std::string&, CLI::AppFormatMode) {
      return helpFor(app->get_name());
    });
    app_.set_version_flag("--version", "zebstat " ZEBSTATS_VERSION);
    addConnectOptions();
    addCommand(Command::kStats, "stats", &Parser::addStats);
    addCommand(Command::kIds, "ids", &Parser::addIds);
    addCommand(Command::kGroups, "groups", &Parser::addShowOptions);
    addCommand(Command::kCheck, "check", &Parser::addCheck);
  }

  std::optional<Options> parse(int argc, char** argv) {
    try {
      app_.parse(argc, argv);
      finish();
    } catch (const CLI::Success& asked) {
      app_.exit(asked);
      return std::nullopt;
    } catch (const CLI::ExtrasError& fault) {
      if (!app_.get_subcommands().empty()) throw usage(fault.what());
      throw usage(app_.remaining().front() + " is not a command; the commands are " + kCommands);
    } catch (const CLI::ParseError& fault) {
      throw usage(fault.what());
    }
    return std::move(options_);
  }

 private:
  // Adds a command. Its options are added only when it is given: adding those of all commands would
  // double the start-up time.
  void addCommand(Command command, const char* name, void (Parser::*addOptions)(CLI::App*)) {
    CLI::App* added = app_.add_subcommand(name);
    added->preparse_callback([this, command, added, addOptions](std::size_t) {
      options_.command = command;
      (this->*addOptions)(added);
    });
  }

  void addConnectOptions() {
    app_.add_option("--host", options_.host)->type_name("HOST")->check(wantText);
    app_.add_option("--port", options_.port)
        ->type_name("PORT")
        ->check(wantNumber(1, 65535, "a port from 1 to 65535", true));
    app_.add_option("--timeout", options_.timeoutSeconds)
        ->type_name("SECONDS")
        ->check(wantNumber(0.001L, kMaxSeconds, "a number of seconds from 0.001 to 86400", false));
    CLI::Option* level = app_.add_option("--trace", options_.traceLevel)
                             ->type_name("LEVEL")
                             ->check(wantNumber(0, 5, "a trace level from 0 to 5", true));
    app_.add_option("--trace-file", options_.traceFile)
        ->type_name("FILE")
        ->check(wantPath)
        ->needs(level);
  }

  void addStats(CLI::App* stats) {
    CLI::Option* ids = stats->add_option("ID", options_.ids)->check(wantText);
    stats->add_option("--group", options_.groups)
        ->type_name("GROUP")
        ->check(wantText)
        ->excludes(ids);
    addShowOptions(stats);
  }

  void addIds(CLI::App* ids) {
    ids->add_option("GROUP", options_.groups)->check(wantText);
    addShowOptions(ids);
  }

  void addShowOptions(CLI::App* command) {
    CLI::Option* watch =
        command->add_flag("--watch{2}", watch_)
            ->check(wantNumber(0.1L, kMaxSeconds, "a number of seconds from 0.1 to 86400", false));
    command->add_option("--count", options_.rounds)
        ->type_name("N")
        ->check(wantNumber(1, 1e9L, "a number of rounds from 1 to 1000000000", true))
        ->needs(watch);
    command->add_option("--format", format_)->type_name("FORMAT")->check(wantFormat);
    command->add_option("--output", options_.outputFile)->type_name("FILE")->check(wantPath);
    command->add_option("--include", options_.included)
        ->type_name("GLOB")
        ->allow_extra_args(false)
        ->check(wantText);
    command->add_option("--exclude", options_.excluded)
        ->type_name("GLOB")
        ->allow_extra_args(false)
        ->check(wantText);
  }

  void addCheck(CLI::App* check) {
    check->add_option("ID", options_.checkedId)->check(wantText)->required();
    check->add_option("--warning", warning_)->type_name("RANGE")->check(wantRange);
    check->add_option("--critical", critical_)->type_name("RANGE")->check(wantRange);
  }

  // Checks that involve several options.
  void finish() {
    if (app_.get_subcommands().empty())
      throw CLI::ValidationError("give a command; the commands are " + std::string(kCommands));
    if (!warning_.empty()) options_.warning = parseRange(warning_);
    if (!critical_.empty()) options_.critical = parseRange(critical_);
    if (!watch_.empty()) options_.watchSeconds = static_cast<double>(*parseNumber(watch_));
    chooseFormat();
  }

  void chooseFormat() {
    bool isWatch = options_.watchSeconds > 0;
    for (const auto& [name, format] : kFormats) {
      if (format_ == name) options_.format = format;
    }
    bool isToPipe = options_.outputFile.empty() && isatty(STDOUT_FILENO) == 0;
    if (format_.empty() && isWatch && isToPipe) options_.format = Format::kJsonl;
    if (options_.format != Format::kPrometheus) return;
    if (options_.command != Command::kStats) {
      throw CLI::ValidationError("--format",
                                 "prometheus has no ids and groups; use table, json, jsonl or csv");
    }
    if (isWatch && options_.outputFile.empty()) {
      throw CLI::ValidationError("--format",
                                 "prometheus cannot be appended to; give --output FILE too");
    }
  }

  Fault usage(const std::string& message) {
    std::vector<CLI::App*> commands = app_.get_subcommands();
    std::string command = commands.empty() ? "" : " " + commands.front()->get_name();
    return {command == " check" ? kNotConnected : kUsage,
            message + "; see zebstat" + command + " --help"};
  }

  CLI::App app_{"", "zebstat"};
  Options options_;
  std::string watch_;  // a string: CLI11 would truncate a number
  std::string format_;
  std::string warning_;
  std::string critical_;
};

}  // namespace

Question Options::question() const {
  using Kind = Question::Kind;
  switch (command) {
    case Command::kIds:
      return {isByGroup() ? Kind::kIdsByGroup : Kind::kIds, groups};
    case Command::kGroups:
      return {Kind::kGroups, {}};
    case Command::kCheck:
      return {Kind::kStatsById, {checkedId}};
    default:
      if (isByGroup()) return {Kind::kStatsByGroup, groups};
      return {ids.empty() ? Kind::kStats : Kind::kStatsById, ids};
  }
}

std::optional<Options> parseOptions(int argc, char** argv) {
  return Parser().parse(argc, argv);
}

}  // namespace zebtool
