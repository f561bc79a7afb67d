// Adds options of the table to a command line parser, and parses.
#ifndef ZEBTOOL_OPTION_PARSER_H
#define ZEBTOOL_OPTION_PARSER_H

#include <string>

#include <CLI/CLI.hpp>

#include "option_table.h"

namespace zebtool {

// Returns the text as it was on the command line; parseArguments() marks some.
std::string unmark(std::string text);

// Adds an option with an argument or, without dashes, positional arguments. All are to be added in
// this way.
CLI::Option* addOption(CLI::App& app, const std::string& names, const char* argument,
                       bool takesMany, auto& target) {
  return app.add_option(names, target)
      ->type_name(argument)
      ->allow_extra_args(takesMany)
      ->transform(unmark);
}

CLI::Option* addOption(CLI::App& app, const OptionRow& row, auto& target) {
  return addOption(app, namesOf(row, ","), row.argument, row.takes == Takes::kMany, target);
}

// Parses the command line. Returns false after it has printed --help or --version. Throws a
// CLI::ParseError if the command line is bad, or a Fault if it cannot print.
bool parseArguments(CLI::App& app, int argc, char** argv);

}  // namespace zebtool

#endif  // ZEBTOOL_OPTION_PARSER_H
