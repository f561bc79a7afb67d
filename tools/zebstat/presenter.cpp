#include "presenter.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "prometheus_text.h"
#include "report.h"
#include "text.h"

namespace zebtool {

namespace {

std::string joinLines(const Lines& lines, const char* lineStart = "") {
  std::string text;
  for (const std::string& line : lines) text += lineStart + line + "\n";
  return text;
}

std::string renderPrometheus(const Reports& reports) {
  std::vector<std::vector<Entry>> entries;
  std::vector<GatewayStats> stats;
  entries.reserve(reports.size());
  for (const Report& report : reports) {
    entries.push_back(report.answer.entries);
    for (Entry& entry : entries.back()) entry.element = groupOf(entry, report.isByGroup);
    stats.push_back({report.gateway, &entries.back()});
  }
  return renderStats(stats, Metadata(), {"*"});
}

ExitCode exitCodeOf(const Report& report) {
  if (report.outage) return report.outage->exitCode;
  return report.answer.refusals.empty() ? kDone : kElementRefused;
}

ExitCode worseOf(ExitCode a, ExitCode b) {
  for (ExitCode worst : {kNotConnected, kTimedOut, kElementRefused}) {
    if (a == worst || b == worst) return worst;
  }
  return kDone;
}

}  // namespace

Presenter::Presenter(const Options& options)
    : options_(options),
      hasSeveral_(options.gateways.size() > 1),
      filter_(options.included, options.excluded),
      isWatch_(options.watchSeconds > 0) {
  if (!options.outputFile.empty()) file_.emplace(options.outputFile);
}

Report Presenter::makeReport(const std::string& gateway, Outcome outcome) {
  Report report{
      options_.command,        options_.isByGroup(), gateway, std::move(outcome.timestamp), {},
      std::move(outcome.fault)};
  if (outcome.answer) report.answer = std::move(*outcome.answer);
  filter_.apply(report.answer);
  return report;
}

ExitCode Presenter::present(const Reports& reports) {
  for (const Report& report : reports) {
    if (report.isNew && report.outage) live_.forget(report.gateway);
  }
  if (isShown(reports)) write(reports);
  return worstOf(reports);
}

ExitCode Presenter::worstOf(const Reports& reports) {
  ExitCode worst = kDone;
  bool isEmpty = true;
  for (const Report& report : reports) {
    worst = worseOf(exitCodeOf(report), worst);
    isEmpty = isEmpty && report.answer.entries.empty();
  }
  return worst == kDone && isEmpty ? kNothingMatched : worst;
}

bool Presenter::isShown(const Reports& reports) const {
  bool isJson = options_.format == Format::kJson || options_.format == Format::kJsonl;
  if (isJson && (isWatch_ || hasSeveral_)) return true;
  return std::any_of(reports.begin(), reports.end(),
                     [](const Report& report) { return !report.outage; });
}

void Presenter::write(const Reports& reports) {
  std::string text = render(reports);
  if (file_) {
    file_->replace(text);
  } else {
    writeOutput(text);
  }
  for (const Report& report : reports) printRefusals(report);
  if (isFirst_) printUnmatched(reports);
  isFirst_ = false;
}

std::string Presenter::render(const Reports& all) {
  auto isOld = [](const Report& report) { return !report.isNew; };
  Reports fresh;
  bool hasOld = std::any_of(all.begin(), all.end(), isOld);
  if (hasOld) std::remove_copy_if(all.begin(), all.end(), std::back_inserter(fresh), isOld);
  const Reports& reports = hasOld && !file_ ? fresh : all;
  switch (options_.format) {
    case Format::kJson:
      return renderJson(hasSeveral_ ? all : reports, hasSeveral_);
    case Format::kJsonl:
      return renderJsonLines(reports);
    case Format::kCsv:
      return renderCsv(reports, isFirst_ || file_.has_value());
    case Format::kValue:
      return renderValues(reports);
    case Format::kPrometheus:
      return renderPrometheus(reports);
    case Format::kTable:
      break;
  }
  return renderTables(all);
}

std::string Presenter::makeTitle(const Reports& reports) const {
  auto isOlder = [](const Report& a, const Report& b) { return a.timestamp < b.timestamp; };
  const Report& latest = *std::max_element(reports.begin(), reports.end(), isOlder);
  std::string who =
      hasSeveral_ ? std::to_string(options_.gateways.size()) + " gateways" : latest.gateway;
  return who + "  " + latest.timestamp;
}

// Returns the table as it is to be written; a watched one has a title.
std::string Presenter::renderTables(const Reports& reports) {
  Screen screen = file_ ? Screen() : lookAtScreen();
  if (!isWatch_) return joinLines(renderTable(reports, hasSeveral_, screen));
  Lines lines = live_.render(reports, hasSeveral_, screen);
  std::string title = makeTitle(reports);
  lines.insert(lines.begin(), screen.columns > 0 ? cutToColumns(title, screen.columns) : title);
  if (!file_ && screen.canRedraw) return redraw(std::move(lines), screen);
  return (isFirst_ || file_ ? "" : "\n") + joinLines(lines);
}

// Returns what replaces the lines on the terminal by these, or by as many of them as fit.
std::string Presenter::redraw(Lines lines, const Screen& screen) {
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
  // Erases before it writes: after a full line the terminal would erase its last character.
  return start + joinLines(lines, "\x1B[K") + "\x1B[J";
}

void Presenter::interrupt(const std::string& message) {
  printMessage(message);
  drawnLines_ = 0;
}

void Presenter::printRefusals(const Report& report) {
  for (const Refusal& refusal : report.answer.refusals) {
    if (!reported_.insert(report.gateway + '\n' + refusal.element).second) continue;
    interrupt(report.gateway + ": " + describe(refusal));
  }
}

void Presenter::printUnmatched(const Reports& reports) {
  for (const std::string& pattern : filter_.unmatched()) interrupt(pattern + " matched nothing");
  for (const Report& report : reports) {
    for (const std::string& glob : report.answer.unmatched)
      interrupt(report.gateway + ": '" + glob + "' matched nothing");
  }
}

}  // namespace zebtool
