#include "options.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "execute.h"
#include "glob.h"
#include "help.h"
#include "option_checks.h"
#include "option_parser.h"
#include "text.h"

namespace zebtool {

namespace {

std::string wantRange(const std::string& text) {
  return parseCheckRange(text)
             ? std::string()
             : "'" + text + "' is not a range such as 10, 10:20, 10:, ~:10, @10:20, or ID=10:20";
}

std::string wantRegex(const std::string& text) {
  return isRegex(text) ? std::string() : "'" + text + "' is not an extended regular expression";
}

// A lone number is most probably a range without its option.
std::string wantCheckedName(const std::string& text) {
  if (!parseTyped(text)) return wantText(text);
  return "'" + text + "' is not a name; a range follows --warning or --critical";
}

std::string nameCommands() {
  std::string names;
  for (const CommandRow& row : allCommands()) {
    if (*row.summary != '\0') names += (names.empty() ? "" : ", ") + std::string(row.name);
  }
  return names;
}

// Holds the raw options of a command line and combines them.
class Parser {
 public:
  Parser() {
    app_.require_subcommand(0, 1)->fallthrough();
    app_.formatter_fn([](const CLI::App* app, const std::string&, CLI::AppFormatMode) {
      return helpFor(app->get_name());
    });
    app_.set_version_flag(rowOf(Option::kVersion).name, "zebstat " ZEBSTATS_VERSION);
    app_.set_help_flag(namesOf(rowOf(Option::kHelp), ","));
    for (const OptionRow& row : allOptions()) {
      if (isGeneral(row)) add(&app_, row);
    }
  }

  std::optional<Options> parse(int argc, char** argv) {
    unsigned added = 0;
    for (int i = 1; i < argc; ++i) {
      const CommandRow* row = findCommand(argv[i]);
      if (row == nullptr || (added & bitOf(row->command)) != 0) continue;
      added |= bitOf(row->command);
      addCommand(*row);
    }
    try {
      if (!parseArguments(app_, argc, argv)) return std::nullopt;
      finish();
    } catch (const CLI::ExtrasError&) {
      refuse(explainExtra());
    } catch (const CLI::ParseError& fault) {
      refuse(fault.what());
    }
    return std::move(options_);
  }

 private:
  // Options that may stand before the command.
  static bool isGeneral(const OptionRow& row) {
    return row.option >= Option::kGateway && row.option <= Option::kTraceFile;
  }

  // Adds a command, one that an argument names. Its options are added only when CLI11 meets it:
  // adding those of all commands would double the start-up time.
  void addCommand(const CommandRow& command) {
    CLI::App* added = app_.add_subcommand(command.name);
    added->preparse_callback([this, &command, added](std::size_t) {
      options_.command = command.command;
      if (*command.program != '\0') {
        added->prefix_command();
        return;
      }
      addPositional(added, command);
      for (const OptionRow& row : allOptions()) {
        if (hasOption(command.command, row) && !isGeneral(row)) add(added, row);
      }
      relate(added);
    });
  }

  void addPositional(CLI::App* app, const CommandRow& command) {
    switch (command.command) {
      case Command::kStats:
        addOption(*app, "ID", "ID", true, options_.ids)->check(wantName(rowOf(Option::kWatch)));
        break;
      case Command::kIds:
        addOption(*app, "GROUP", "GROUP", true, options_.groups)
            ->check(wantName(rowOf(Option::kWatch)));
        break;
      case Command::kCheck:
        addOption(*app, "ID", "ID", true, options_.check.ids)->check(wantCheckedName)->required();
        break;
      case Command::kCompletion:
        addOption(*app, "SHELL", "SHELL", false, options_.shell)
            ->check(wantWord(command.words))
            ->required();
        break;
      case Command::kGroups:
      case Command::kLive:
      case Command::kExporter:
        break;
    }
  }

  // Says which options need or exclude each other.
  static void relate(CLI::App* app) {
    auto find = [app](Option option) { return app->get_option_no_throw(rowOf(option).name); };
    if (CLI::Option* groups = find(Option::kGroup)) groups->excludes(app->get_option("ID"));
    if (CLI::Option* count = find(Option::kCount)) count->needs(find(Option::kWatch));
    if (CLI::Option* rate = find(Option::kRate)) {
      rate->needs(find(Option::kState));
      find(Option::kState)->needs(rate);
      for (Option text : {Option::kEquals, Option::kMatches}) {
        find(text)->excludes(rate, find(Option::kWarning), find(Option::kCritical));
      }
      find(Option::kEquals)->excludes(find(Option::kMatches));
    }
  }

  // Adds an option, with the check of its value. Returns null for one that is added elsewhere.
  CLI::Option* add(CLI::App* app, const OptionRow& row) {
    CheckOptions& check = options_.check;
    switch (row.option) {
      case Option::kGroup:
        return addOption(*app, row, options_.groups)->check(wantName(rowOf(Option::kWatch)));
      case Option::kWarning:
        return addOption(*app, row, warnings_)->check(wantRange);
      case Option::kCritical:
        return addOption(*app, row, criticals_)->check(wantRange);
      case Option::kEquals:
        return addOption(*app, row, check.equals);
      case Option::kMatches:
        return addOption(*app, row, check.matches)->check(wantRegex);
      case Option::kRate:
        return app->add_flag(namesOf(row, ","), check.isRate);
      case Option::kState:
        return addOption(*app, row, check.stateFile)->check(wantPath);
      case Option::kUnreachable:
        return addOption(*app, row, unreachable_)->check(wantWord(row));
      case Option::kMetadata:
        return addOption(*app, row, check.metadataFile)->check(wantPath);
      case Option::kVerbose:
        return app->add_flag(namesOf(row, ","), check.verbosity);
      case Option::kWatch:
        return app->add_flag(namesOf(row, ",") + "{2}", watch_)->check(wantSeconds(0.1L));
      case Option::kCount:
        return addOption(*app, row, options_.rounds)
            ->check(wantWhole(1, 1000000000, "a number of answers from 1 to 1000000000"));
      case Option::kFormat:
      case Option::kListFormat:
        return addOption(*app, row, format_)->check(wantWord(row));
      case Option::kOutput:
        return addOption(*app, row, options_.outputFile)->check(wantPath);
      case Option::kInclude:
        return addOption(*app, row, options_.included)->check(wantText);
      case Option::kExclude:
        return addOption(*app, row, options_.excluded)->check(wantText);
      case Option::kGateway:
        return addOption(*app, row, gateways_)->check(wantAddress);
      case Option::kHost:
        return addOption(*app, row, host_)->check(wantAddress);
      case Option::kPort:
        return addOption(*app, row, port_)->check(wantPort());
      case Option::kTimeout:
        return addOption(*app, row, options_.timeoutSeconds)->check(wantTimeout());
      case Option::kTrace:
        return addOption(*app, row, options_.traceLevel)->check(wantTraceLevel());
      case Option::kTraceFile:
        return addOption(*app, row, options_.traceFile)
            ->check(wantPath)
            ->needs(app->get_option(rowOf(Option::kTrace).name));
      case Option::kInterval:  // only zebstat-live has these three
      case Option::kSort:
      case Option::kChanged:
      case Option::kHelp:  // the constructor adds these two
      case Option::kVersion:
        break;
    }
    return nullptr;
  }

  // Checks that involve several options.
  void finish() {
    if (app_.get_subcommands().empty())
      throw CLI::ValidationError("give a command; the commands are " + nameCommands());
    if (isOtherProgram()) throw CLI::ValidationError(explainOrder());
    if (options_.command == Command::kCompletion) return;  // it asks no gateway
    finishCheck();
    if (!watch_.empty()) options_.watchSeconds = static_cast<double>(*parseTyped(watch_));
    if (options_.outputFile == "-") options_.outputFile.clear();
    chooseGateways();
    chooseFormat();
  }

  void finishCheck() {
    CheckOptions& check = options_.check;
    for (const std::string& text : warnings_) check.warnings.push_back(*parseCheckRange(text));
    for (const std::string& text : criticals_) check.criticals.push_back(*parseCheckRange(text));
    for (const auto* ranges : {&check.warnings, &check.criticals}) {
      for (const CheckRange& range : *ranges) {
        bool isChecked = range.id.empty() ||
                         std::find(check.ids.begin(), check.ids.end(), range.id) != check.ids.end();
        if (!isChecked) throw CLI::ValidationError(range.id, "it has a range but is not checked");
      }
    }
    if (unreachable_ == "warning") check.unreachable = kStateWarning;
    if (unreachable_ == "unknown") check.unreachable = kStateUnknown;
  }

  void chooseGateways() {
    bool isSingle = !host_.empty() || port_ != 0;
    if (options_.command == Command::kCheck && !gateways_.empty())
      throw CLI::ValidationError("--gateway",
                                 "check asks one gateway; name it with --host HOST:PORT");
    if (isSingle && !gateways_.empty())
      throw CLI::ValidationError("--gateway", "it replaces --host and --port; give either");
    for (const std::string& gateway : gateways_)
      options_.gateways.push_back(*parseAddress(gateway));
    if (!isSingle && gateways_.empty()) {
      if (std::string message = readEnvironment(options_.gateways); !message.empty())
        throw CLI::ValidationError("ZEBSTAT_GATEWAY in the environment", message);
    }
    if (options_.gateways.empty()) options_.gateways.push_back(chooseHost());
    removeRepeated(options_.gateways);
    if (std::string message = wantFew(options_.gateways); !message.empty())
      throw CLI::ValidationError("--gateway", message);
    if (options_.command == Command::kCheck && options_.gateways.size() > 1)
      throw CLI::ValidationError("ZEBSTAT_GATEWAY", "check asks one gateway; name it with --host");
  }

  [[nodiscard]] Address chooseHost() const {
    std::optional<Address> address = joinHostAndPort(host_, port_);
    if (!address) throw CLI::ValidationError("--port", "--host " + host_ + " has a port already");
    return *address;
  }

  void chooseFormat() {
    bool isWatch = options_.watchSeconds > 0;
    std::vector<std::string_view> words = wordsOf(rowOf(Option::kFormat));
    for (std::size_t i = 0; i < words.size(); ++i) {
      if (format_ == words[i]) options_.format = static_cast<Format>(i);
    }
    bool isToPipe = options_.outputFile.empty() && isatty(STDOUT_FILENO) == 0;
    if (format_.empty() && isWatch && isToPipe) options_.format = Format::kJsonl;
    if (options_.format == Format::kPrometheus && isWatch && options_.outputFile.empty()) {
      throw CLI::ValidationError("--format",
                                 "prometheus cannot be appended to; give --output FILE too");
    }
  }

  [[nodiscard]] bool isOtherProgram() const { return *rowOf(options_.command).program != '\0'; }

  [[nodiscard]] std::string explainOrder() const {
    return rowOf(options_.command).name + std::string(": write the command before its options");
  }

  // Returns what is wrong with the first argument that nothing expects.
  [[nodiscard]] std::string explainExtra() const {
    const std::string extra = unmark(app_.remaining(true).front());
    if (app_.get_subcommands().empty())
      return "'" + extra + "' is not a command; the commands are " + nameCommands();
    if (isOtherProgram()) return explainOrder();
    return "'" + extra + "' is not an " + (extra.starts_with('-') ? "option" : "argument") +
           " of zebstat " + rowOf(options_.command).name;
  }

  // Throws the Fault for wrong usage.
  [[noreturn]] void refuse(const std::string& message) const {
    bool hasCommand = !app_.get_subcommands().empty();
    std::string command = hasCommand ? std::string(" ") + rowOf(options_.command).name : "";
    std::string text = message + "; see zebstat" + command + " --help";
    if (hasCommand && options_.command == Command::kCheck) throw CheckUsageFault(text);
    throw Fault(kUsage, text);
  }

  CLI::App app_{"", "zebstat"};
  Options options_;
  std::vector<std::string> gateways_;
  std::string host_;
  int port_ = 0;       // 0: not given
  std::string watch_;  // a string: CLI11 would truncate a number
  std::string format_;
  std::vector<std::string> warnings_;
  std::vector<std::string> criticals_;
  std::string unreachable_;
};

// Executes the program of the command, which parses the rest of the arguments.
[[noreturn]] void handOver(const CommandRow& command, char** argv) {
  std::string name = command.program;
  argv[1] = name.data();  // which its messages begin with
  std::string reason = executeProgram(name, argv + 1);
  if (reason.empty())
    reason = std::string("it is not installed; install the package ") + command.package;
  throw Fault(kUsage, std::string("cannot start ") + command.program + ": " + reason);
}

}  // namespace

Question Options::question() const {
  using Kind = Question::Kind;
  switch (command) {
    case Command::kIds:
      return {isByGroup() ? Kind::kIdsByGroup : Kind::kIds, groups};
    case Command::kGroups:
      return {Kind::kGroups, {}};
    default:
      if (isByGroup()) return {Kind::kStatsByGroup, groups};
      if (ids.empty()) return {Kind::kStats, {}};
      return {std::any_of(ids.begin(), ids.end(), isGlob) ? Kind::kStatsByGlob : Kind::kStatsById,
              ids};
  }
}

std::optional<Options> parseOptions(int argc, char** argv) {
  const CommandRow* command = argc > 1 ? findCommand(argv[1]) : nullptr;
  if (command != nullptr && *command->program != '\0') handOver(*command, argv);
  return Parser().parse(argc, argv);
}

}  // namespace zebtool
