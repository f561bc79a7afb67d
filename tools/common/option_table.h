// The commands of zebstat and their options. The parsers take names from this table, --help and the
// completion of bash and zsh are made from it, and a test compares the manual pages with it.
// zebstats-exporter has options of its own.
#ifndef ZEBTOOL_OPTION_TABLE_H
#define ZEBTOOL_OPTION_TABLE_H

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zebtool {

enum class Command { kStats, kIds, kGroups, kCheck, kLive, kExporter, kCompletion };

// What a shell offers to complete an argument.
enum class Completion {
  kNothing,
  kWords,  // the words of the row
  kFile,   // names of files
  kHost,   // names of hosts
  kId,     // ids, for which the gateway is asked
  kGroup,  // resource groups, for which the gateway is asked
};

struct CommandRow {
  Command command;
  const char* name;
  const char* argument;   // the positional argument as help shows it; may be empty
  Completion completion;  // of the positional argument
  const char* words;      // for Completion::kWords, separated by blanks
  const char* summary;    // one line in the list of commands; empty: not listed there
  const char* program;    // the program that the command executes; empty: zebstat itself
  const char* package;    // of that program
  const char* about;      // what help prints after the usage
  const char* notes;      // what help prints after the options
};

enum class Option {
  kGroup,
  kWarning,
  kCritical,
  kEquals,
  kMatches,
  kRate,
  kState,
  kUnreachable,
  kMetadata,
  kVerbose,
  kWatch,
  kCount,
  kFormat,
  kListFormat,
  kOutput,
  kInterval,
  kSort,
  kChanged,
  kInclude,
  kExclude,
  kGateway,
  kHost,
  kPort,
  kTimeout,
  kTrace,
  kTraceFile,
  kHelp,
  kVersion,
};

enum class Takes {
  kNothing,
  kOptional,  // only after '=': --watch=5
  kOne,
  kRepeated,  // one each time it is given
  kMany,      // --group LINK REQ
};

struct OptionRow {
  Option option;
  const char* name;       // with its dashes
  const char* shortName;  // with its dash; empty if there is none
  const char* argument;   // as help shows it
  Takes takes;
  unsigned commands;  // bits of the commands that have it
  const char* help;   // one line; empty: the words are listed
  Completion completion;
  const char* words;  // for Completion::kWords, separated by blanks
};

constexpr unsigned bitOf(Command command) {
  return 1U << static_cast<unsigned>(command);
}

std::span<const CommandRow> allCommands();
std::span<const OptionRow> allOptions();

const CommandRow& rowOf(Command command);
const OptionRow& rowOf(Option option);
// Returns the row, or null if there is no such command.
const CommandRow* findCommand(std::string_view name);

inline bool hasOption(Command command, const OptionRow& row) {
  return (row.commands & bitOf(command)) != 0;
}

// Returns the words of a row, or those that blanks separate, one by one.
std::vector<std::string_view> wordsOf(const OptionRow& row);
std::vector<std::string_view> wordsOf(std::string_view words);
// Returns the short and the long name, with a text between them.
std::string namesOf(const OptionRow& row, const char* between);

}  // namespace zebtool

#endif  // ZEBTOOL_OPTION_TABLE_H
