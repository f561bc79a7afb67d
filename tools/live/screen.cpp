#include "screen.h"

#include <curses.h>
#include <langinfo.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <utility>

#include "fault.h"
#include "text.h"

namespace zebtool {

// A column of the table.
struct Column {
  const char* heading;
  std::size_t width;
  std::size_t most;
  bool isRightAligned;

  void fit(const std::string& cell) { width = std::min(std::max(width, columnsOf(cell)), most); }
  // Gives up columns as long as there are too many, and returns how many are still too many.
  std::size_t shrink(std::size_t excess, std::size_t least) {
    std::size_t given = std::min(excess, width > least ? width - least : 0);
    width -= given;
    return excess - given;
  }
};

namespace {

using Cells = std::vector<std::string>;

constexpr std::size_t kTraceColumns = 20;
constexpr std::size_t kEnoughTraceColumns = 11;  // what ids and gateways leave for it
constexpr std::size_t kMaxIdColumns = 40;
constexpr std::size_t kMaxGatewayColumns = 28;
constexpr std::size_t kMaxValueColumns = 24;

enum Colour : short { kPlain = 0, kChanged = 1, kWarned = 2, kCritical = 3, kDim = 4 };

constexpr std::array<const char*, 8> kBars{"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr char kAsciiBars[] = "_.-:=+*#";

std::string showTime(std::chrono::system_clock::time_point at) {
  std::time_t seconds = std::chrono::system_clock::to_time_t(at);
  std::tm local{};
  localtime_r(&seconds, &local);
  char text[16];
  std::strftime(text, sizeof text, "%H:%M:%S", &local);
  return text;
}

// Returns how long ago that was, as 17 s, 5 min or 3 h.
std::string showAge(std::chrono::system_clock::time_point since) {
  auto age = std::chrono::system_clock::now() - since;
  long seconds = std::max<long>(0, std::chrono::duration_cast<std::chrono::seconds>(age).count());
  if (seconds < 120) return std::to_string(seconds) + " s";
  return seconds < 7200 ? std::to_string(seconds / 60) + " min"
                        : std::to_string(seconds / 3600) + " h";
}

std::string showChange(const std::optional<long double>& number) {
  return number ? showNumber(*number, 2) : "-";
}

std::string drawMinute(const Statistic& statistic, std::size_t columns, bool isUtf8) {
  std::string text;
  for (int level : traceMinute(statistic, columns, LiveClock::now())) {
    auto index = static_cast<std::size_t>(level);
    text += level < 0 ? " " : isUtf8 ? kBars[index] : std::string(1, kAsciiBars[index]);
  }
  return text;
}

attr_t attributesFor(const Statistic& statistic, bool isStale) {
  if (isStale) return A_DIM;
  if (statistic.alarm == Alarm::kCritical)
    return static_cast<attr_t>(COLOR_PAIR(kCritical)) | A_BOLD;
  if (statistic.alarm == Alarm::kWarning) return static_cast<attr_t>(COLOR_PAIR(kWarned)) | A_BOLD;
  return statistic.hasJustChanged ? static_cast<attr_t>(COLOR_PAIR(kChanged)) : A_NORMAL;
}

// A value that is in alarm is marked with ! or !!, one that was with . or ..
const char* markFor(const Statistic& statistic) {
  if (statistic.alarm == Alarm::kCritical) return "!!";
  if (statistic.alarm == Alarm::kWarning) return "!";
  return statistic.worst == Alarm::kCritical ? ".." : statistic.worst == Alarm::kWarning ? "." : "";
}

// Returns the cells of a statistic but for its graph. A text has no change and no rate.
Cells cellsFor(const History& history, const Statistic& statistic) {
  Cells cells{markFor(statistic)};
  if (history.gateways().size() > 1)
    cells.push_back(toShown(history.gateways()[statistic.gateway].name));
  cells.insert(cells.end(), {toShown(statistic.id), toShown(statistic.value)});
  if (statistic.isNumber) {
    cells.insert(cells.end(), {showChange(statistic.change()), showChange(statistic.rate())});
  }
  return cells;
}

// The last column, the graph, gets what the others leave.
std::vector<Column> makeColumns(bool hasSeveral) {
  std::vector<Column> columns{{"", 2, 2, false}};
  if (hasSeveral) columns.push_back({"GATEWAY", 7, kMaxGatewayColumns, false});
  columns.insert(columns.end(), {{"STATISTIC", 9, kMaxIdColumns, false},
                                 {"VALUE", 8, kMaxValueColumns, true},
                                 {"CHANGE", 8, kMaxValueColumns, true},
                                 {"PER SECOND", 10, kMaxValueColumns, true},
                                 {"LAST MINUTE", 0, kTraceColumns, false}});
  return columns;
}

void fitColumns(std::vector<Column>& columns, const std::vector<Cells>& rows, int screenColumns) {
  std::size_t graph = columns.size() - 1;
  std::size_t id = graph - 4;
  for (const Cells& cells : rows) {
    bool hasNumber = cells.size() == graph;  // the value of another spans the columns after it
    for (std::size_t i = 0; i <= (hasNumber ? graph - 1 : id); ++i) columns[i].fit(cells[i]);
  }
  std::size_t used = 0;
  for (std::size_t i = 0; i < graph; ++i) used += columns[i].width + 2;
  auto room = static_cast<std::size_t>(screenColumns);
  std::size_t excess = used + kEnoughTraceColumns - std::min(room, used + kEnoughTraceColumns);
  std::size_t had = excess;
  excess = columns[id].shrink(excess, 18);
  if (id > 1) excess = columns[1].shrink(excess, 15);
  used -= had - excess;
  columns[graph].width = std::min(room - std::min(room, used), kTraceColumns);
}

}  // namespace

Screen::Screen() {
  std::setlocale(LC_ALL, "");
  std::setlocale(LC_NUMERIC, "C");
  isUtf8_ = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  if (newterm(nullptr, stdout, stdin) == nullptr || tigetstr("cup") == nullptr) {
    endwin();
    const char* type = std::getenv("TERM");
    throw Fault(kUsage, std::string("live needs a terminal that can move the cursor, and TERM='") +
                            (type != nullptr ? type : "") +
                            "' names none; set TERM to the type of yours, or use zebstat stats "
                            "--watch");
  }
  cbreak();
  noecho();
  nonl();
  curs_set(0);
  set_escdelay(25);
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  if (!has_colors()) return;
  start_color();
  use_default_colors();
  init_pair(kChanged, COLOR_GREEN, -1);
  init_pair(kWarned, COLOR_YELLOW, -1);
  init_pair(kCritical, COLOR_RED, -1);
}

Screen::~Screen() {
  endwin();
}

int Screen::readKey(std::string& text) {
  wint_t key = 0;
  int kind = get_wch(&key);
  if (kind == ERR) return 0;
  if (kind == KEY_CODE_YES || key < 0x80) return static_cast<int>(key);
  std::mbstate_t state{};
  std::array<char, 16> bytes{};
  std::size_t length = std::wcrtomb(bytes.data(), static_cast<wchar_t>(key), &state);
  text = length < bytes.size() ? std::string(bytes.data(), length) : "";
  return -1;
}

// Prints as much of the text as fits, and marks a cut. A terminal without UTF-8 gets '?' for other
// characters.
void Screen::print(int row, int column, const std::string& text, int width) {
  if (row < 0 || row >= LINES || column >= COLS || width <= 0) return;
  auto room = static_cast<std::size_t>(std::min(width, COLS - column));
  bool isCut = columnsOf(text) > room;
  std::string shown = cutToColumns(text, isCut ? room - 1 : room);
  if (!isUtf8_)
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return (c & 0x80) != 0; }, '?');
  if (isCut) shown += isUtf8_ ? "…" : "~";
  mvaddstr(row, column, shown.c_str());
}

void Screen::draw(const History& history, ScreenState& state) {
  std::vector<const Statistic*> shown = select(history, state.view, LiveClock::now());
  erase();
  drawHeader(history, state, shown.size());
  if (state.showsKeys) {
    drawKeys();
  } else {
    drawTable(history, state, shown, drawTroubles(history));
  }
  refresh();
}

void Screen::drawHeader(const History& history, const ScreenState& state, std::size_t shown) {
  const std::vector<GatewayState>& all = history.gateways();
  auto down = std::count_if(all.begin(), all.end(),
                            [](const GatewayState& gateway) { return !gateway.trouble.empty(); });
  std::string title = all.size() == 1 ? all.front().name : std::to_string(all.size()) + " gateways";
  if (down > 0) title += all.size() == 1 ? " down" : ", " + std::to_string(down) + " down";
  constexpr const char* kOrders[] = {"name", "change", "rate"};
  title += "  every " + showNumber(state.intervalSeconds, 1) + " s  " + std::to_string(shown) +
           " of " + std::to_string(history.statistics().size()) +
           (state.view.onlyChanged ? " (only changed)" : "") + " by " +
           kOrders[static_cast<int>(state.view.order)];
  attron(A_BOLD);
  print(0, 0, title, COLS);
  attroff(A_BOLD);
  std::string right = showTime(std::chrono::system_clock::now()) + "  h: keys  q: end";
  if (COLS > static_cast<int>(columnsOf(title) + right.size() + 2))
    print(0, COLS - static_cast<int>(right.size()), right, COLS);
  if (state.isTyping || !state.view.filter.empty())
    print(1, 0, "filter: " + toShown(state.view.filter) + (state.isTyping ? "_" : ""), COLS);
}

// Draws what is wrong with the gateways, in at most half of the screen. Returns the first row
// below.
int Screen::drawTroubles(const History& history) {
  int row = 2;
  std::size_t waiting = 0;
  auto printLine = [&](const std::string& text) {
    if (row < LINES / 2) print(row++, 0, text, COLS);
  };
  attron(COLOR_PAIR(kCritical));
  for (const GatewayState& gateway : history.gateways()) {
    if (!gateway.hasReplied) ++waiting;
    if (!gateway.trouble.empty()) {
      printLine("no answer since " + showTime(gateway.troubleSince) + " (" +
                showAge(gateway.troubleSince) + "): " + toShown(gateway.trouble));
    } else if (!gateway.missing.empty()) {
      printLine(gateway.name + " does not have " + toShown(gateway.missing));
    }
  }
  attroff(COLOR_PAIR(kCritical));
  if (waiting > 0) {
    printLine("waiting for the first answer" +
              (history.gateways().size() == 1 ? "" : " of " + std::to_string(waiting)));
  }
  return row;
}

void Screen::drawTable(const History& history, ScreenState& state,
                       const std::vector<const Statistic*>& shown, int row) {
  std::vector<Column> columns = makeColumns(history.gateways().size() > 1);
  std::vector<Cells> rows;
  for (const Statistic* statistic : shown) rows.push_back(cellsFor(history, *statistic));
  fitColumns(columns, rows, COLS);
  drawHeading(row++, columns);

  state.page = static_cast<std::size_t>(std::max(1, LINES - row));
  state.top = std::min(state.top, shown.size() > state.page ? shown.size() - state.page : 0);
  for (std::size_t i = state.top; i < shown.size() && row < LINES; ++i) {
    bool isStale = !history.gateways()[shown[i]->gateway].trouble.empty();
    attr_t attributes = attributesFor(*shown[i], isStale);
    if (shown[i]->isNumber) rows[i].push_back(drawMinute(*shown[i], columns.back().width, isUtf8_));
    attr_on(attributes, nullptr);
    drawRow(row++, columns, rows[i]);
    attr_off(attributes, nullptr);
  }
}

void Screen::drawHeading(int row, const std::vector<Column>& columns) {
  Cells heading;
  for (const Column& column : columns) heading.emplace_back(column.heading);
  attron(A_REVERSE);
  mvhline(row, 0, ' ', COLS);
  drawRow(row, columns, heading);
  attroff(A_REVERSE);
}

// If there are fewer cells than columns, the last cell spans the rest.
void Screen::drawRow(int row, const std::vector<Column>& columns, const Cells& cells) {
  int start = 0;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    bool runsOn = i + 1 == cells.size() && cells.size() < columns.size();
    int width = runsOn ? COLS - start : static_cast<int>(columns[i].width);
    int used = std::min(static_cast<int>(columnsOf(cells[i])), width);
    bool isRight = columns[i].isRightAligned && !runsOn;
    print(row, isRight ? start + width - used : start, cells[i], width);
    start += width + 2;
  }
}

void Screen::drawKeys() {
  constexpr const char* kKeys[] = {
      "Up, Down, j, k       one line up or down",
      "Page Up, Page Down   one page up or down; also b and Space",
      "Home, End            the first, the last statistic; also g and G",
      "n, c, r              sort by name, by change in the last minute, by rate",
      "a                    show all, or only what has changed in the last minute",
      "/                    filter as you type: a part of an id, or a glob such as REQ_*",
      "                     Enter keeps the filter, Esc shows all again",
      "+, -                 ask twice, half as often",
      "x                    clear the marks of alarms that are over",
      "q                    end",
      "",
      "!  !!                the value is beyond its --warning, its --critical range",
      ".  ..                it was",
      "LAST MINUTE          the value, or its rate if it has only grown",
  };
  int row = 2;
  for (const char* line : kKeys) print(row++, 2, line, COLS);
}

}  // namespace zebtool
