// The command completion: scripts that complete zebstat's commands, options and their arguments.
#ifndef ZEBSTAT_COMPLETION_H
#define ZEBSTAT_COMPLETION_H

#include <string>
#include <string_view>

namespace zebtool {

// Returns the script for the shell, "bash" or "zsh"; an empty text for any other.
std::string writeCompletion(std::string_view shell);

}  // namespace zebtool

#endif  // ZEBSTAT_COMPLETION_H
