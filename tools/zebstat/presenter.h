// Shows answers: filtered, formatted, and written to standard output or a file.
#ifndef ZEBSTAT_PRESENTER_H
#define ZEBSTAT_PRESENTER_H

#include <optional>
#include <set>
#include <string>

#include "filter.h"
#include "fleet.h"
#include "options.h"
#include "output.h"
#include "table.h"

namespace zebtool {

class Presenter {
 public:
  // Throws a Fault if the output file cannot be written.
  explicit Presenter(const Options& options);

  // Filters an answer.
  Report makeReport(const std::string& gateway, Outcome outcome);
  // Formats and writes the reports, of which one at least is new, and prints what was refused.
  // Lines are appended for new reports only. If no gateway has answered, only a watch or a question
  // to several gateways writes that, in JSON. Returns the worst exit code. Throws a Fault if it
  // cannot write.
  ExitCode present(const Reports& reports);
  // Returns the exit code for the reports.
  static ExitCode worstOf(const Reports& reports);
  // Prints a message between two answers, below the table.
  void interrupt(const std::string& message);

 private:
  [[nodiscard]] bool isShown(const Reports& reports) const;
  void write(const Reports& reports);
  std::string render(const Reports& reports);
  std::string renderTables(const Reports& reports);
  std::string redraw(Lines lines, const Screen& screen);
  [[nodiscard]] std::string makeTitle(const Reports& reports) const;
  void printRefusals(const Report& report);
  void printUnmatched(const Reports& reports);

  const Options& options_;
  bool hasSeveral_;
  Filter filter_;
  std::optional<OutputFile> file_;
  LiveTable live_;
  bool isWatch_;
  bool isFirst_ = true;
  std::set<std::string> reported_;  // refused elements, each after its gateway
  std::size_t drawnLines_ = 0;      // the lines that the next table replaces
  std::size_t drawnColumns_ = 0;
};

}  // namespace zebtool

#endif  // ZEBSTAT_PRESENTER_H
