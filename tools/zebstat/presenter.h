// Brings answer after answer before the user: filtered, in the wanted format, to the wanted place.
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
  // Throws a Fault where the output file can not be written.
  Presenter(const Options& options, std::string gateway);

  // Returns the exit code that tells of this answer.
  ExitCode present(Answer answer);
  // Tells words between two answers, below what is drawn.
  void interrupt(const std::string& words);
  // What is known of the gateway's numbers does not hold any more.
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
  std::set<std::string> told_;  // refused elements
  std::size_t drawnLines_ = 0;  // that the next frame replaces
  std::size_t drawnColumns_ = 0;
};

}  // namespace zebtool

#endif  // ZEBSTAT_PRESENTER_H
