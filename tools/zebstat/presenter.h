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

  // Returns the exit code for this answer.
  ExitCode present(Answer answer);
  // Prints a message between two answers, below the table.
  void interrupt(const std::string& words);
  // Forgets the earlier values: the gateway may have been restarted.
  void forget() { live_.forget(); }

 private:
  std::string render(const Report& report);
  std::string renderTables(const Report& report);
  void tellRefusals(const Answer& answer);
  void tellUnmatched();

  const Options& options_;
  std::string gateway_;
  Filter filter_;
  std::optional<OutputFile> file_;
  LiveTable live_;
  bool isWatch_;
  bool isFirst_ = true;
  std::set<std::string> reported_;  // refused elements
  std::size_t drawnLines_ = 0;      // that the next frame replaces
  std::size_t drawnColumns_ = 0;
};

}  // namespace zebtool

#endif  // ZEBSTAT_PRESENTER_H
