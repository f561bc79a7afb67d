// Shows each answer: filtered, formatted, and written to standard output or a file.
#ifndef ZEBSTAT_PRESENTER_H
#define ZEBSTAT_PRESENTER_H

#include <optional>
#include <set>
#include <string>

#include "filter.h"
#include "options.h"
#include "output.h"
#include "table.h"

namespace zebtool {

class Presenter {
 public:
  // Throws a Fault if the output file cannot be written.
  Presenter(const Options& options, std::string gateway);

  // Filters, formats and writes an answer, and prints what the gateway refused. Returns the exit
  // code. Throws a Fault if it cannot write.
  ExitCode present(Answer answer);
  // Prints a message between two answers, below the table.
  void interrupt(const std::string& message);
  // Forgets the earlier values: the gateway may have been restarted.
  void forget() { live_.forget(); }

 private:
  std::string render(const Report& report);
  std::string renderTables(const Report& report);
  void printRefusals(const Answer& answer);
  void printUnmatched();

  const Options& options_;
  std::string gateway_;
  Filter filter_;
  std::optional<OutputFile> file_;
  LiveTable live_;
  bool isWatch_;
  bool isFirst_ = true;
  std::set<std::string> reported_;  // refused elements
  std::size_t drawnLines_ = 0;      // the lines that the next table replaces
  std::size_t drawnColumns_ = 0;
};

}  // namespace zebtool

#endif  // ZEBSTAT_PRESENTER_H
