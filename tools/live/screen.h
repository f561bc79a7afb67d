// The terminal.
#ifndef ZEBSTAT_LIVE_SCREEN_H
#define ZEBSTAT_LIVE_SCREEN_H

#include <cstddef>
#include <string>
#include <vector>

#include "history.h"
#include "view.h"

namespace zebtool {

// What the screen needs beyond the view of the statistics.
struct ScreenState {
  View view;
  std::size_t top = 0;    // the first statistic that is drawn; draw() keeps it in bounds
  std::size_t page = 1;   // how many were drawn
  bool isTyping = false;  // a filter
  bool showsKeys = false;
  double intervalSeconds = 0;
};

struct Column;

// Takes over the terminal; the destructor gives it back.
class Screen {
 public:
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  // Draws everything anew; curses sends only what has changed.
  void draw(const History& history, ScreenState& state);

  // Returns the next key that was pressed as curses numbers it, or 0 if there is none; or -1 for a
  // character beyond ASCII, which is returned in text.
  int readKey(std::string& text);

 private:
  void drawHeader(const History& history, const ScreenState& state, std::size_t shown);
  int drawTroubles(const History& history);
  void drawTable(const History& history, ScreenState& state,
                 const std::vector<const Statistic*>& shown, int row);
  void drawHeading(int row, const std::vector<Column>& columns);
  void drawRow(int row, const std::vector<Column>& columns, const std::vector<std::string>& cells);
  void drawKeys();
  void print(int row, int column, const std::string& text, int width);

  bool isUtf8_ = false;
};

}  // namespace zebtool

#endif  // ZEBSTAT_LIVE_SCREEN_H
