// Writes results to standard output or to a file that is replaced atomically, and messages to
// standard error.
#ifndef ZEBSTAT_OUTPUT_H
#define ZEBSTAT_OUTPUT_H

#include <string>

namespace zebtool {

// Prints one line on standard error.
void printMessage(const std::string& words);

// Ends the process at once; a signal handler may call it.
[[noreturn]] void endNow(int exitCode);

// Writes to standard output in one go, during which no signal ends the program. A pipe whose reader
// has gone ends it silently. Throws a Fault.
void writeOutput(const std::string& text);

// Waits; if the reader of standard output goes away meanwhile, ends the program.
void waitForReader(double seconds);

// A file that is replaced by a new one when that is complete.
class OutputFile {
 public:
  // Throws a Fault if no file can be written there; call it before asking for the content.
  explicit OutputFile(const std::string& path);
  // Throws a Fault, and then leaves the file as it was.
  void replace(const std::string& text) const;

 private:
  std::string path_;  // not a symbolic link: what it points to is replaced
};

}  // namespace zebtool

#endif  // ZEBSTAT_OUTPUT_H
