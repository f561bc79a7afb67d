#include "help.h"

#include <algorithm>
#include <vector>

#include "option_table.h"

namespace zebtool {

namespace {

struct Line {
  std::string term;
  std::string text;
};

// Returns the lines with their texts in one column.
std::string align(const std::vector<Line>& lines) {
  std::size_t width = 0;
  for (const Line& line : lines) width = std::max(width, line.term.size());
  std::string text;
  for (const Line& line : lines) {
    text += "  " + line.term + std::string(width - line.term.size() + 2, ' ') + line.text + "\n";
  }
  return text;
}

std::string showName(const OptionRow& row) {
  const std::string argument = row.argument;
  std::string name = *row.shortName != '\0' ? std::string(row.shortName) + ", " : "    ";
  name += row.name;
  if (row.takes == Takes::kOptional) return name + "[=" + argument + "]";
  return name + (argument.empty() ? "" : " " + argument) + (row.takes == Takes::kMany ? "..." : "");
}

std::string describe(const OptionRow& row) {
  if (*row.help != '\0') return row.help;
  std::string words;
  for (std::string_view word : wordsOf(row))
    words += (words.empty() ? "" : ", ") + std::string(word);
  return words;
}

std::string helpForCommand(const CommandRow& command) {
  std::vector<Line> options;
  for (const OptionRow& row : allOptions()) {
    if (hasOption(command.command, row) && row.option != Option::kHelp)
      options.push_back({showName(row), describe(row)});
  }
  std::string usage = std::string("Usage: zebstat ") + command.name;
  if (*command.argument != '\0') usage += std::string(" ") + command.argument;
  if (!options.empty()) usage += " [OPTION...]";
  return usage + "\n" + command.about + "\n" + (options.empty() ? "" : align(options) + "\n") +
         command.notes;
}

std::string helpForAll() {
  std::vector<Line> commands;
  for (const CommandRow& row : allCommands()) {
    if (*row.summary == '\0') continue;
    std::string argument = *row.argument != '\0' ? std::string(" ") + row.argument : "";
    commands.push_back({row.name + argument, row.summary});
  }
  return "Usage: zebstat COMMAND [OPTION...]\n"
         "Shows the statistics of a transaction gateway.\n\n" +
         align(commands) + R"(
zebstat COMMAND --help prints the options of a command, --version the version.
ZEBSTAT_GATEWAY=HOST:PORT in the environment names the default gateway.

Exit codes: 0 done, 1 the gateway answered an element with an error, 2 usage,
3 not connected, 4 no answer in time, 5 nothing matched. check has its own.

Examples:
  zebstat stats --host gateway-1 --port 2980
  zebstat stats --group LINK --watch
)";
}

}  // namespace

std::string helpFor(std::string_view command) {
  const CommandRow* row = findCommand(command);
  return row != nullptr ? helpForCommand(*row) : helpForAll();
}

}  // namespace zebtool
