#include "presenter.h"

#include <utility>

#include "prometheus.h"
#include "report.h"
#include "text.h"

namespace zebtool {

namespace {

std::string joinLines(const Lines& lines, const char* lineEnd) {
  std::string text;
  for (const std::string& line : lines) text += line + lineEnd;
  return text;
}

}  // namespace

Presenter::Presenter(const Options& options, std::string gateway)
    : options_(options),
      gateway_(std::move(gateway)),
      filter_(options.included, options.excluded),
      isWatch_(options.watchSeconds > 0) {
  if (!options.outputFile.empty()) file_.emplace(options.outputFile);
}

ExitCode Presenter::present(Answer answer) {
  filter_.apply(answer);
  Report report{options_.command, options_.isByGroup(), gateway_, makeTimestamp(),
                std::move(answer)};
  std::string text = render(report);
  if (file_) {
    file_->replace(text);
  } else {
    writeOutput(text);
  }
  printRefusals(report.answer);
  if (isFirst_) printUnmatched();
  isFirst_ = false;
  if (!report.answer.refusals.empty()) return kElementRefused;
  return report.answer.entries.empty() ? kNothingMatched : kDone;
}

std::string Presenter::render(const Report& report) {
  switch (options_.format) {
    case Format::kJson:
      return renderJson(report);
    case Format::kJsonl:
      return renderJsonLine(report);
    case Format::kCsv:
      return renderCsv(report, isFirst_ || file_.has_value());
    case Format::kPrometheus:
      return renderPrometheus({report});
    case Format::kValue:
    case Format::kTable:
      break;
  }
  return renderTables(report);
}

// Returns the table as it is to be written. A watched table has a title; on a terminal it replaces
// the previous one and has no more lines than fit.
std::string Presenter::renderTables(const Report& report) {
  Screen screen = file_ ? Screen() : lookAtScreen();
  if (!isWatch_) return joinLines(renderTable(report, screen), "\n");
  Lines lines = live_.render(report, screen);
  std::string title = report.gateway + "  " + report.timestamp;
  lines.insert(lines.begin(), screen.columns > 0 ? cutToColumns(title, screen.columns) : title);
  if (file_ || !screen.canRedraw) return (isFirst_ || file_ ? "" : "\n") + joinLines(lines, "\n");

  std::size_t room = screen.rows > 3 ? screen.rows - 1 : lines.size();
  if (lines.size() > room) {
    std::size_t left = lines.size() - room + 1;
    lines.resize(room - 1);
    lines.push_back("... " + std::to_string(left) + " more");
  }
  // A window of another width has wrapped the old lines anew, so that their number is not known.
  bool isResized = drawnLines_ > 0 && screen.columns != drawnColumns_;
  std::string start = isResized         ? "\x1B[H\x1B[2J"
                      : drawnLines_ > 0 ? "\r\x1B[" + std::to_string(drawnLines_) + "A"
                                        : "";
  drawnLines_ = lines.size();
  drawnColumns_ = screen.columns;
  return start + joinLines(lines, "\x1B[K\n") + "\x1B[J";
}

void Presenter::interrupt(const std::string& message) {
  printMessage(message);
  drawnLines_ = 0;
}

void Presenter::printRefusals(const Answer& answer) {
  for (const Refusal& refusal : answer.refusals) {
    if (!reported_.insert(refusal.element).second) continue;
    std::string what = refusal.element.empty() ? "the query" : "'" + refusal.element + "'";
    interrupt(gateway_ + ": cannot get " + what + ": the gateway refused it (its code " +
              std::to_string(refusal.code) + "); is it known there?");
  }
}

void Presenter::printUnmatched() {
  for (const std::string& pattern : filter_.unmatched()) interrupt(pattern + " matched nothing");
}

}  // namespace zebtool
