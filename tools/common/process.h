// How the programs begin and end: the limits of the library's calls, and ends without destructors.
#ifndef ZEBTOOL_PROCESS_H
#define ZEBTOOL_PROCESS_H

#include <string>

namespace zebtool {

// Sets the timeout of all calls of the library, in every thread, and its trace, which goes to
// standard error if no file is named. Throws a Fault.
void setUpLibrary(double timeoutSeconds, int traceLevel = 0, const std::string& traceFile = {});

// Ends the process at once, without destructors; a signal handler may call it.
[[noreturn]] void endNow(int exitCode);

// Waits; if the reader of standard output goes away meanwhile, ends the process with code 0.
void waitForReader(double seconds);

}  // namespace zebtool

#endif  // ZEBTOOL_PROCESS_H
