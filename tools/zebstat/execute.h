// Starts the programs that carry out a part of zebstat.
#ifndef ZEBSTAT_EXECUTE_H
#define ZEBSTAT_EXECUTE_H

#include <string>

namespace zebtool {

// Executes the program, which lies beside zebstat or in the libexec folder. Returns only if it
// cannot: the reason, which is empty if there is no such program.
std::string executeProgram(const std::string& name, char** argv);

}  // namespace zebtool

#endif  // ZEBSTAT_EXECUTE_H
