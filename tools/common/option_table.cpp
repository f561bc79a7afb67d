#include "option_table.h"

#include <algorithm>

namespace zebtool {

namespace {

constexpr CommandRow kCommands[] = {
    {Command::kStats, "stats", "[ID...]", Completion::kId, "", "statistics with their values", "",
     "",
     "Shows statistics with their values: all, those named, or those of groups.\n"
     "An ID may be a pattern, such as 'REQ_*'.\n",
     "Examples:\n"
     "  zebstat stats WORK_BUSY 'REQ_*' --host gateway-1\n"
     "  zebstat stats --group REQ --watch=5 --gateway gw-1:2980 --gateway gw-2:2980\n"},
    {Command::kIds, "ids", "[GROUP...]", Completion::kGroup, "", "the ids of the statistics", "",
     "", "Shows the ids of the statistics, of all groups or of those named.\n",
     "Examples:\n"
     "  zebstat ids LISTEN\n"
     "  zebstat ids --include '*_PEAK' --format csv\n"},
    {Command::kGroups, "groups", "", Completion::kNothing, "", "the resource groups", "", "",
     "Shows the resource groups that the gateway has.\n",
     "Examples:\n"
     "  zebstat groups --host gateway-1\n"
     "  zebstat groups --format json --output groups.json\n"},
    {Command::kCheck, "check", "ID...", Completion::kId, "", "a monitoring plug-in", "", "",
     "A monitoring plug-in: exits with 0 OK, 1 WARNING, 2 CRITICAL or 3 UNKNOWN.\n",
     "RANGE is 10 (0 to 10), 10:20, 10:, ~:10 or @10:20 (not inside), or ID=RANGE.\n"
     "\n"
     "Examples:\n"
     "  zebstat check WORK_QUEUED -w 20 -c 100 -H gateway-1 -t 5\n"
     "  zebstat check LINK_LOST --rate --state /var/tmp/link_lost -c 0.1\n"},
    {Command::kLive, "live", "[ID...]", Completion::kId, "",
     "a full screen that follows the values", "zebstat-live", "zebstats-tools",
     "Shows statistics on the whole screen and keeps them up to date.\n",
     "RANGE is GLOB=10 (a mark outside 0 to 10), GLOB=10:20, GLOB=~:10 or GLOB=@10:20.\n"
     "Keys: arrows, Page Up and Down, Home and End scroll; n, c and r sort; a shows\n"
     "all or what changed; / filters; x clears the marks; h lists the keys; q ends.\n"
     "\n"
     "Examples:\n"
     "  zebstat live --group LINK --gateway gw-1 --gateway gw-2:2980\n"
     "  zebstat live 'WORK_*' --host gateway-1 --warning 'WORK_QUEUED=20'\n"},
    {Command::kExporter, "exporter", "", Completion::kNothing, "",
     "serves the statistics of gateways to Prometheus", "zebstats-exporter", "zebstats-exporter",
     "", ""},
    {Command::kCompletion, "completion", "SHELL", Completion::kWords, "bash zsh",
     "the completion for a shell", "", "",
     "Prints the completion of commands, options and ids for bash or zsh, which the\n"
     "installation has already put in its place.\n",
     "Examples:\n"
     "  source <(zebstat completion bash)\n"
     "  zebstat completion zsh > ~/.zsh/completions/_zebstat\n"},
};

constexpr unsigned kLive = bitOf(Command::kLive);
constexpr unsigned kCheck = bitOf(Command::kCheck);
constexpr unsigned kList = bitOf(Command::kIds) | bitOf(Command::kGroups);
constexpr unsigned kShow = bitOf(Command::kStats) | kList;
constexpr unsigned kAsk = kShow | kCheck;
constexpr unsigned kEvery = kAsk | kLive | bitOf(Command::kCompletion);

// In the order of the help.
constexpr OptionRow kOptions[] = {
    {Option::kGroup, "--group", "", "GROUP", Takes::kMany, bitOf(Command::kStats) | kLive,
     "the statistics of these groups", Completion::kGroup, ""},
    {Option::kWarning, "--warning", "-w", "RANGE", Takes::kRepeated, kCheck | kLive,
     "a value outside is a warning", Completion::kNothing, ""},
    {Option::kCritical, "--critical", "-c", "RANGE", Takes::kRepeated, kCheck | kLive,
     "a value outside is critical", Completion::kNothing, ""},
    {Option::kEquals, "--equals", "", "TEXT", Takes::kOne, kCheck, "any other text is critical",
     Completion::kNothing, ""},
    {Option::kMatches, "--matches", "", "REGEX", Takes::kOne, kCheck,
     "a text that does not match is critical", Completion::kNothing, ""},
    {Option::kRate, "--rate", "", "", Takes::kNothing, kCheck,
     "judge the change per second since the last run", Completion::kNothing, ""},
    {Option::kState, "--state", "", "FILE", Takes::kOne, kCheck,
     "where --rate keeps the values of the last run", Completion::kFile, ""},
    {Option::kUnreachable, "--unreachable", "", "STATE", Takes::kOne, kCheck,
     "if it does not answer: critical, warning or unknown", Completion::kWords,
     "critical warning unknown"},
    {Option::kMetadata, "--metadata", "", "FILE", Takes::kOne, kCheck,
     "has the units of performance data", Completion::kFile, ""},
    {Option::kVerbose, "--verbose", "-v", "", Takes::kNothing, kCheck,
     "a line for each ID; -vv also where it was asked", Completion::kNothing, ""},
    {Option::kWatch, "--watch", "", "SECONDS", Takes::kOptional, kShow,
     "repeat, every 2 seconds by default; Ctrl-C ends it", Completion::kNothing, ""},
    {Option::kCount, "--count", "", "N", Takes::kOne, kShow, "end the watch after N answers",
     Completion::kNothing, ""},
    {Option::kFormat, "--format", "", "FORMAT", Takes::kOne, bitOf(Command::kStats), "",
     Completion::kWords, "table json jsonl csv value prometheus"},
    {Option::kListFormat, "--format", "", "FORMAT", Takes::kOne, kList, "", Completion::kWords,
     "table json jsonl csv value"},
    {Option::kOutput, "--output", "", "FILE", Takes::kOne, kShow,
     "replace FILE by the answer when that is complete", Completion::kFile, ""},
    {Option::kInterval, "--interval", "", "SECONDS", Takes::kOne, kLive,
     "how often the gateways are asked (2)", Completion::kNothing, ""},
    {Option::kSort, "--sort", "", "ORDER", Takes::kOne, kLive, "", Completion::kWords,
     "name change rate"},
    {Option::kChanged, "--changed", "", "", Takes::kNothing, kLive,
     "show only what has changed in the last minute", Completion::kNothing, ""},
    {Option::kInclude, "--include", "", "GLOB", Takes::kRepeated, kShow | kLive,
     "show only ids that match; may be repeated", Completion::kNothing, ""},
    {Option::kExclude, "--exclude", "", "GLOB", Takes::kRepeated, kShow | kLive,
     "leave out ids that match; may be repeated", Completion::kNothing, ""},
    {Option::kGateway, "--gateway", "", "HOST:PORT", Takes::kRepeated, kShow | kLive,
     "a gateway; repeat it to ask several at once", Completion::kHost, ""},
    {Option::kHost, "--host", "-H", "HOST", Takes::kOne, kAsk | kLive,
     "the gateway's name or address (127.0.0.1)", Completion::kHost, ""},
    {Option::kPort, "--port", "-p", "PORT", Takes::kOne, kAsk | kLive,
     "the gateway's statistics port (2980)", Completion::kNothing, ""},
    {Option::kTimeout, "--timeout", "-t", "SECONDS", Takes::kOne, kAsk | kLive,
     "time for connecting, and for each answer (10)", Completion::kNothing, ""},
    {Option::kTrace, "--trace", "", "LEVEL", Takes::kOne, kAsk,
     "the library's trace: 0 nothing to 5 everything", Completion::kWords, "0 1 2 3 4 5"},
    {Option::kTraceFile, "--trace-file", "", "FILE", Takes::kOne, kAsk,
     "append the trace to FILE, not to standard error", Completion::kFile, ""},
    {Option::kHelp, "--help", "-h", "", Takes::kNothing, kEvery, "print this help and exit",
     Completion::kNothing, ""},
    {Option::kVersion, "--version", "", "", Takes::kNothing, 0, "print the version and exit",
     Completion::kNothing, ""},
};

template <typename Row, std::size_t count, typename Id>
constexpr bool isInOrder(const Row (&rows)[count], Id Row::*id) {
  for (std::size_t i = 0; i < count; ++i) {
    if (rows[i].*id != static_cast<Id>(i)) return false;
  }
  return true;
}
static_assert(isInOrder(kCommands, &CommandRow::command));
static_assert(isInOrder(kOptions, &OptionRow::option));

}  // namespace

std::span<const CommandRow> allCommands() {
  return kCommands;
}

std::span<const OptionRow> allOptions() {
  return kOptions;
}

const CommandRow& rowOf(Command command) {
  return kCommands[static_cast<std::size_t>(command)];
}

const OptionRow& rowOf(Option option) {
  return kOptions[static_cast<std::size_t>(option)];
}

const CommandRow* findCommand(std::string_view name) {
  const auto* found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                   [&](const CommandRow& row) { return row.name == name; });
  return found == std::end(kCommands) ? nullptr : found;
}

std::vector<std::string_view> wordsOf(const OptionRow& row) {
  return wordsOf(row.words);
}

std::vector<std::string_view> wordsOf(std::string_view words) {
  std::vector<std::string_view> list;
  while (!words.empty()) {
    std::size_t end = std::min(words.find(' '), words.size());
    list.push_back(words.substr(0, end));
    words.remove_prefix(std::min(end + 1, words.size()));
  }
  return list;
}

std::string namesOf(const OptionRow& row, const char* between) {
  return (*row.shortName != '\0' ? std::string(row.shortName) + between : "") + row.name;
}

}  // namespace zebtool
