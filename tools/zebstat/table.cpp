#include "table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <utility>

#include "text.h"

namespace zebtool {

namespace {

constexpr char kBold[] = "\x1B[1m";
constexpr char kGreen[] = "\x1B[32m";
constexpr char kRed[] = "\x1B[31m";
constexpr char kPlain[] = "\x1B[0m";

// Rows under a heading. The last cell of a short row spans the remaining columns.
class Table {
 public:
  Table(std::vector<std::string> heading, std::size_t firstNumber)
      : firstNumber_(firstNumber), widths_(heading.size()) {
    add({std::move(heading), kBold});
  }

  void add(Row row) {
    bool isWhole = row.cells.size() == widths_.size();
    for (std::size_t i = 0; i < row.cells.size(); ++i) {
      bool runsOn = i + 1 == row.cells.size() && !isWhole;
      if (!runsOn) widths_[i] = std::max(widths_[i], columnsOf(row.cells[i]));
    }
    rows_.push_back(std::move(row));
  }

  [[nodiscard]] Lines render(const Screen& screen) const {
    Lines lines;
    for (const Row& row : rows_) lines.push_back(renderRow(row, screen));
    return lines;
  }

 private:
  [[nodiscard]] std::string renderRow(const Row& row, const Screen& screen) const {
    // A long id must not push the values off the screen.
    std::size_t maxWidth =
        screen.columns > 0 ? std::max<std::size_t>(screen.columns / 2, 20) : std::string::npos;
    std::string line;
    for (std::size_t i = 0; i < row.cells.size(); ++i) {
      bool isLast = i + 1 == row.cells.size();
      std::string cell = row.cells[i];
      if (!isLast && columnsOf(cell) > maxWidth) cell = cutToColumns(cell, maxWidth - 3) + "...";
      std::size_t columns = columnsOf(cell);
      std::size_t width = std::min(widths_[i], maxWidth);
      std::string padding(columns < width ? width - columns : 0, ' ');
      bool isNumber = i >= firstNumber_ && row.cells.size() == widths_.size();
      line += isNumber ? padding + cell : cell + (isLast ? "" : padding);
      if (!isLast) line += "  ";
    }
    if (screen.columns > 3 && columnsOf(line) > screen.columns) {
      line = cutToColumns(line, screen.columns - 3) + "...";
    }
    bool isColoured = screen.hasColour && row.colour != nullptr;
    return isColoured ? row.colour + line + kPlain : line;
  }

  std::size_t firstNumber_;  // right-aligned from this column on
  std::vector<std::size_t> widths_;
  std::vector<Row> rows_;
};

constexpr std::size_t kNoNumbers = 99;

std::vector<std::string> headingFor(const Report& report, bool hasSeveral) {
  std::vector<std::string> heading;
  if (hasSeveral) heading.emplace_back("GATEWAY");
  if (report.isByGroup || report.command == Command::kGroups) heading.emplace_back("GROUP");
  if (report.command != Command::kGroups) heading.emplace_back("STATISTIC");
  if (report.command == Command::kStats) heading.emplace_back("VALUE");
  return heading;
}

std::vector<std::string> cellsFor(const Report& report, const Entry& entry, bool hasSeveral) {
  std::vector<std::string> cells;
  if (hasSeveral) cells.push_back(toShown(report.gateway));
  if (report.isByGroup) cells.push_back(toShown(entry.element));
  cells.push_back(toShown(entry.id));
  if (report.command == Command::kStats) cells.push_back(toShown(entry.value));
  return cells;
}

// Returns the row for a gateway without an answer: its name, and why, from where that begins.
Row outageRow(const Report& report) {
  std::string text = report.outage->what();
  std::string start = report.gateway + ": ";
  return {{toShown(report.gateway),
           toShown(text.starts_with(start) ? text.substr(start.size()) : text)},
          kRed};
}

int countDecimals(const std::string& number) {
  std::size_t point = number.find('.');
  return point == std::string::npos
             ? 0
             : static_cast<int>(std::min<std::size_t>(number.size() - point - 1, 9));
}

}  // namespace

Screen lookAtScreen() {
  Screen screen;
  winsize size{};
  if (isatty(STDOUT_FILENO) == 0) return screen;
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
    screen.columns = size.ws_col;
    screen.rows = size.ws_row;
  }
  const char* terminal = std::getenv("TERM");
  const char* noColour = std::getenv("NO_COLOR");
  screen.canRedraw = terminal != nullptr && *terminal != '\0' && std::strcmp(terminal, "dumb") != 0;
  screen.hasColour = screen.canRedraw && (noColour == nullptr || *noColour == '\0');
  return screen;
}

Lines renderTable(const Reports& reports, bool hasSeveral, const Screen& screen) {
  Table table(headingFor(reports.front(), hasSeveral), kNoNumbers);
  for (const Report& report : reports) {
    for (const Entry& entry : report.answer.entries)
      table.add({cellsFor(report, entry, hasSeveral)});
  }
  return table.render(screen);
}

Lines LiveTable::render(const Reports& reports, bool hasSeveral, const Screen& screen) {
  if (reports.front().command != Command::kStats) return renderTable(reports, hasSeveral, screen);
  std::vector<std::string> heading = headingFor(reports.front(), hasSeveral);
  std::size_t firstNumber = heading.size() - 1;
  heading.insert(heading.end(), {"CHANGE", "PER SECOND"});
  Table table(std::move(heading), firstNumber);
  for (const Report& report : reports) {
    Shown& shown = shown_[report.gateway];
    if (report.isNew) update(shown, report, hasSeveral);
    for (const Row& row : shown.rows) table.add(row);
  }
  return table.render(screen);
}

void LiveTable::update(Shown& shown, const Report& report, bool hasSeveral) {
  Clock::time_point now = Clock::now();
  long double seconds = std::chrono::duration<long double>(now - shown.at).count();
  Shown current{{}, now, {}};
  if (report.outage) current.rows.push_back(outageRow(report));
  for (const Entry& entry : report.answer.entries) {
    Row row{cellsFor(report, entry, hasSeveral)};
    std::string key = entry.element + '\n' + entry.id;
    auto found = shown.values.find(key);
    std::optional<long double> value = parseNumber(entry.value);
    std::optional<long double> before =
        found == shown.values.end() ? std::nullopt : parseNumber(found->second);
    if (value && before) {
      int decimals = std::max(countDecimals(entry.value), countDecimals(found->second));
      row.cells.push_back(showNumber(*value - *before, decimals));
      // A value that fell has no rate: the counter was probably restarted.
      bool hasRate = *value >= *before && seconds > 0;
      row.cells.push_back(hasRate ? showNumber((*value - *before) / seconds, 2) : "-");
      if (*value != *before) row.colour = kGreen;
    } else if (value) {
      row.cells.insert(row.cells.end(), {"-", "-"});
    }
    current.rows.push_back(std::move(row));
    current.values.emplace(std::move(key), entry.value);
  }
  shown = std::move(current);
}

}  // namespace zebtool
