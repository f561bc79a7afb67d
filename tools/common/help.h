// The help texts, made from the table of options. Each fits a screen of 24 lines and 80 columns.
#ifndef ZEBTOOL_HELP_H
#define ZEBTOOL_HELP_H

#include <string>
#include <string_view>

namespace zebtool {

// Returns the help of a command, or of the program if the name is empty.
std::string helpFor(std::string_view command);

}  // namespace zebtool

#endif  // ZEBTOOL_HELP_H
