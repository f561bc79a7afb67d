// Adds options of the table to a command line parser, and parses.
#ifndef ZEBTOOL_OPTION_PARSER_H
#define ZEBTOOL_OPTION_PARSER_H

#include <CLI/CLI.hpp>

#include "option_table.h"

namespace zebtool {

// Adds an option with an argument, which is stored in the target.
CLI::Option* addOption(CLI::App& app, const OptionRow& row, auto& target) {
  return app.add_option(namesOf(row, ","), target)
      ->type_name(row.argument)
      ->allow_extra_args(row.takes == Takes::kMany);
}

// Parses the command line. Returns false after it has printed --help or --version. Throws a
// CLI::ParseError if the command line is bad, or a Fault if it cannot print.
bool parseArguments(CLI::App& app, int argc, char** argv);

}  // namespace zebtool

#endif  // ZEBTOOL_OPTION_PARSER_H
