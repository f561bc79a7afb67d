#include "option_parser.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "output.h"
#include "text.h"

namespace zebtool {

namespace {

// Follows a text in brackets, which CLI11 would take for a list: [AB]*[0-9] is a pattern.
constexpr char kMark = '\x01';

bool isInBrackets(std::string_view argument) {
  if (argument.starts_with("--")) argument.remove_prefix(argument.find('=') + 1);
  return argument.starts_with('[') && argument.ends_with(']');
}

// Returns whether the argument gives an option an empty value, as "--host=" in a script whose
// variable is not set. That of --watch is optional.
bool hasEmptyValue(std::string_view argument) {
  return argument.starts_with("--") && argument.find('=') == argument.size() - 1 &&
         argument != rowOf(Option::kWatch).name + std::string("=");
}

// Returns the arguments in the reverse order that CLI11 wants. "--watch 5" becomes "--watch=5",
// since the option's value is optional. "--host=" becomes "--host" and an empty text: CLI11 would
// take the next argument for the value.
std::vector<std::string> readArguments(int argc, char** argv) {
  std::vector<std::string> arguments;
  long end = std::find(argv, argv + argc, std::string_view("--")) - argv;  // of the options
  for (int i = argc - 1; i > 0; --i) {
    std::string_view argument = argv[i];
    if (i < end && argument == rowOf(Option::kWatch).name && !arguments.empty() &&
        parseTyped(arguments.back())) {
      arguments.back().insert(0, std::string(argument) + "=");
    } else if (i < end && hasEmptyValue(argument)) {
      arguments.emplace_back();
      arguments.emplace_back(argument.substr(0, argument.size() - 1));
    } else {
      arguments.emplace_back(argument);
      if (isInBrackets(argument)) arguments.back() += kMark;
    }
  }
  return arguments;
}

}  // namespace

std::string unmark(std::string text) {
  if (text.ends_with(kMark)) text.pop_back();
  return text;
}

bool parseArguments(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(readArguments(argc, argv));
    return true;
  } catch (const CLI::CallForHelp&) {
    writeOutput(app.help());
  } catch (const CLI::CallForVersion& asked) {
    writeOutput(asked.what() + std::string("\n"));
  }
  return false;
}

}  // namespace zebtool
