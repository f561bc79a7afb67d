// zebstat-live: shows the statistics of gateways on the whole screen. `zebstat live` executes it.
#include <curses.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "fault.h"
#include "history.h"
#include "options.h"
#include "poller.h"
#include "process.h"
#include "screen.h"

namespace zebtool {

namespace {

constexpr int kEscape = 27;
constexpr int kControlL = 12;
constexpr int kControlC = 3;
constexpr double kShortestInterval = 0.1;
constexpr double kLongestInterval = 3600;
constexpr int kRedrawMilliseconds = 1000;  // the clock, and how long an outage has lasted

// Applies a key to the filter that is being typed: one of curses, or -1 for the text.
void typeFilter(ScreenState& state, int key, const std::string& text) {
  std::string& filter = state.view.filter;
  if (key == '\n' || key == '\r' || key == KEY_ENTER || key == kEscape) {
    state.isTyping = false;
    if (key == kEscape) filter.clear();
  } else if (key == KEY_BACKSPACE || key == '\b' || key == 0x7F) {
    while (!filter.empty() && (filter.back() & 0xC0) == 0x80) filter.pop_back();
    if (!filter.empty()) filter.pop_back();
  } else if (key == -1) {
    filter += text;
  } else if (key >= ' ' && key < 0x7F) {
    filter += static_cast<char>(key);
  }
  state.top = 0;
}

// Returns by how many lines the key scrolls, 0 if it is another key.
long linesFor(int key, long page) {
  constexpr long kAll = 1L << 30;
  switch (key) {
    case KEY_UP:
    case 'k':
      return -1;
    case KEY_DOWN:
    case 'j':
      return 1;
    case KEY_PPAGE:
    case 'b':
      return -page;
    case KEY_NPAGE:
    case ' ':
      return page;
    case KEY_HOME:
    case 'g':
      return -kAll;
    case KEY_END:
    case 'G':
      return kAll;
    default:
      return 0;
  }
}

void scroll(ScreenState& state, int key) {
  long lines = linesFor(key, static_cast<long>(state.page));
  long top = std::max(0L, static_cast<long>(state.top) + lines);
  state.top = static_cast<std::size_t>(top);
}

void sort(ScreenState& state, int key) {
  if (key != 'n' && key != 'c' && key != 'r') return;
  state.view.order = key == 'n' ? Order::kName : key == 'c' ? Order::kChange : Order::kRate;
  state.top = 0;
}

// Handles the keys that neither scroll nor sort.
void changeView(ScreenState& state, History& history, int key) {
  switch (key) {
    case 'a':
      state.view.onlyChanged = !state.view.onlyChanged;
      break;
    case '/':
      state.isTyping = true;
      break;
    case kEscape:
      state.showsKeys = false;
      state.view.filter.clear();
      break;
    case '+':
      state.intervalSeconds = std::max(state.intervalSeconds / 2, kShortestInterval);
      break;
    case '-':
      state.intervalSeconds = std::min(state.intervalSeconds * 2, kLongestInterval);
      break;
    case 'x':
      history.clearMarks();
      break;
    case 'h':
    case '?':
      state.showsKeys = !state.showsKeys;
      break;
    case kControlL:
      clearok(curscr, TRUE);
      break;
    default:
      break;
  }
}

// Returns whether the key ends the program.
bool handleKey(ScreenState& state, History& history, int key, const std::string& text) {
  if (key == kControlC) return true;
  if (state.isTyping) {
    typeFilter(state, key, text);
    return false;
  }
  scroll(state, key);
  sort(state, key);
  changeView(state, history, key);
  return key == 'q';
}

// Blocks the signals that end the program in this thread and those it starts, and returns a
// descriptor from which they are read.
int holdEndingSignals() {
  sigset_t ending = endingSignals();
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  return signalfd(-1, &ending, SFD_CLOEXEC);
}

void takeResults(Poller& poller, History& history) {
  for (const PollResult& result : poller.takeResults()) {
    if (result.trouble.empty()) {
      history.take(result.gateway, result.answer, result.at);
    } else {
      history.lose(result.gateway, result.trouble);
    }
  }
}

void show(const LiveOptions& options) {
  std::vector<std::string> names;
  for (const Address& address : options.poll.gateways) names.push_back(showAddress(address));
  History history(std::move(names), options.limits);
  int signals = holdEndingSignals();
  Screen screen;
  Poller poller(options.poll);
  ScreenState state{options.view, 0, 1, false, false, options.poll.intervalSeconds};
  for (;;) {
    screen.draw(history, state);
    pollfd sources[] = {
        {STDIN_FILENO, POLLIN, 0}, {poller.descriptor(), POLLIN, 0}, {signals, POLLIN, 0}};
    poll(sources, 3, kRedrawMilliseconds);  // returns early if the window's size changes
    if (sources[2].revents != 0) return;
    if ((sources[0].revents & (POLLHUP | POLLERR)) != 0) return;
    takeResults(poller, history);
    std::string text;
    for (int key = screen.readKey(text); key != 0; key = screen.readKey(text)) {
      if (handleKey(state, history, key, text)) return;
    }
    poller.setInterval(state.intervalSeconds);
  }
}

int run(int argc, char** argv) {
  std::optional<LiveOptions> options = parseLiveOptions(argc, argv);
  if (!options) return kDone;
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)
    throw Fault(kUsage, "live needs a terminal; for pipes and files use zebstat stats --watch");
  setUpLibrary(options->poll.timeoutSeconds);
  show(*options);
  return kDone;
}

}  // namespace

}  // namespace zebtool

int main(int argc, char** argv) {
  return zebtool::runProgram(zebtool::run, argc, argv);
}
