// Writes results to standard output or to a file that is replaced atomically, and messages to
// standard error.
#ifndef ZEBTOOL_OUTPUT_H
#define ZEBTOOL_OUTPUT_H

#include <string>

namespace zebtool {

// Prints the message on one line of standard error, after the program's name.
void printMessage(const std::string& message);

// The same for a server, which never waits for the reader of its messages: a message is lost if
// standard error is a pipe that is full. Several threads may call it.
void printUnlessFull(const std::string& message);

// Writes the whole text to standard output. SIGINT, SIGTERM and SIGHUP end the program only
// afterwards, or if the reader of a pipe has stopped for a second. If the reader has gone, the
// process ends with code 0. Throws a Fault if writing fails otherwise.
void writeOutput(const std::string& text);

// A file that is replaced by a new one when that is complete.
class OutputFile {
 public:
  // Throws a Fault if no file can be written there; call it before asking for the content. Messages
  // name the option that has given the path.
  explicit OutputFile(const std::string& path, std::string option = "--output");
  // Replaces the content. If it cannot, it throws a Fault and leaves the file as it was.
  void replace(const std::string& text) const;

 private:
  std::string path_;  // of the file itself, to which a symbolic link may have led
  std::string option_;
};

}  // namespace zebtool

#endif  // ZEBTOOL_OUTPUT_H
