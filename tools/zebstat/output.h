// Where results go: standard output, or a file that is whole at any moment. And words, to standard error.
#ifndef ZEBSTAT_OUTPUT_H
#define ZEBSTAT_OUTPUT_H

#include <string>

namespace zebtool {

// One line on standard error, and that line.
std::string toMessage(const std::string& words);
void tell(const std::string& words);

// Ends the process without waiting for threads that hang.
[[noreturn]] void endNow(int exitCode);

// How the process ends when its time is up.
struct Ending {
  int file = 2;
  std::string words;  // as they are; may be none
  int exitCode = 0;
};
// From now on there are so many seconds left. Called again it begins anew.
void limitTime(double seconds, Ending ending);
void liftTimeLimit();

// Writes to standard output in one go, during which no signal ends the program. A pipe whose reader has gone ends
// it silently. Throws a Fault.
void writeOutput(const std::string& text);

// Waits, and ends the program when the reader of standard output goes away meanwhile.
void waitForReader(double seconds);

// A file that is replaced by a new one when that is complete.
class OutputFile {
 public:
  // Throws a Fault where no file can be written there, before anybody is asked for its content.
  explicit OutputFile(const std::string& path);
  // Throws a Fault, and then leaves the file as it was.
  void replace(const std::string& text) const;

 private:
  std::string path_;  // not a symbolic link: what it points to is replaced
};

}  // namespace zebtool

#endif  // ZEBSTAT_OUTPUT_H
