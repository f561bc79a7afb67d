// What the live view remembers of an answer, and what it shows of that.
#include <gtest/gtest.h>

#include "history.h"
#include "view.h"

namespace zebtool {
namespace {

using std::chrono::seconds;

class Live : public testing::Test {
 protected:
  // Gives the gateway's answer at that second: ids and values by turns.
  void answer(int second, const std::vector<Entry>& entries, std::size_t gateway = 0) {
    Answer given;
    given.entries = entries;
    history.take(gateway, given, start + seconds(second));
  }
  std::string shown(const View& view, int second) {
    std::string ids;
    for (const Statistic* statistic : select(history, view, start + seconds(second)))
      ids += statistic->id + (statistic->gateway == 0 ? " " : "' ");
    return ids;
  }
  const Statistic& only() { return *history.statistics().at(0); }

  LiveClock::time_point start = LiveClock::time_point() + std::chrono::hours(1);
  History history{
      {"a:1", "b:1"},
      {{Alarm::kWarning, "W*", *parseRange("5")}, {Alarm::kCritical, "W*", *parseRange("9")}}};
};

TEST_F(Live, MeasuresChangesOverTheLastMinute) {
  for (int second = 0; second <= 100; second += 10)
    answer(second, {{"", "C", std::to_string(second * 3)}});
  EXPECT_EQ(only().samples.front().at, start + seconds(40));
  EXPECT_EQ(only().change(), 180);
  EXPECT_EQ(only().rate(), 3);
  answer(110, {{"", "C", "7"}});  // restarted
  EXPECT_FALSE(only().rate());
  history.lose(0, "gone");
  EXPECT_FALSE(only().change());
  EXPECT_EQ(only().value, "7");
  answer(120, {{"", "C", "up"}});
  EXPECT_FALSE(only().isNumber);
  answer(130, {{"", "D", "1"}});  // C is no longer there
  EXPECT_EQ(shown({}, 130), "D ");
}

TEST_F(Live, MarksAlarmsUntilTheyAreCleared) {
  answer(0, {{"", "W1", "10"}});
  EXPECT_EQ(only().alarm, Alarm::kCritical);
  answer(1, {{"", "W1", "7"}});
  EXPECT_EQ(only().alarm, Alarm::kWarning);
  EXPECT_EQ(only().worst, Alarm::kCritical);
  history.clearMarks();
  EXPECT_EQ(only().worst, Alarm::kWarning);
  answer(2, {{"", "W1", "text"}});
  EXPECT_EQ(only().alarm, Alarm::kNone);
}

TEST_F(Live, SortsAndFilters) {
  answer(0, {{"", "B_SLOW", "0"}, {"", "A_TEXT", "x"}, {"", "C_FAST", "0"}, {"", "D_FALLS", "9"}});
  answer(0, {{"", "B_SLOW", "0"}}, 1);
  answer(10, {{"", "B_SLOW", "1"}, {"", "A_TEXT", "x"}, {"", "C_FAST", "5"}, {"", "D_FALLS", "2"}});
  EXPECT_EQ(shown({}, 10), "A_TEXT B_SLOW B_SLOW' C_FAST D_FALLS ");
  EXPECT_EQ(shown({Order::kChange, false, ""}, 10), "D_FALLS C_FAST B_SLOW A_TEXT B_SLOW' ");
  EXPECT_EQ(shown({Order::kRate, false, ""}, 10), "C_FAST B_SLOW A_TEXT B_SLOW' D_FALLS ");
  EXPECT_EQ(shown({Order::kName, true, ""}, 10), "B_SLOW C_FAST D_FALLS ");
  EXPECT_EQ(shown({Order::kName, true, ""}, 71), "");
  EXPECT_EQ(shown({Order::kName, false, "_sl"}, 10), "B_SLOW B_SLOW' ");
  EXPECT_EQ(shown({Order::kName, false, "?_f*"}, 10), "C_FAST D_FALLS ");
}

TEST_F(Live, TracesAMinuteByValueOrRate) {
  using Levels = std::vector<int>;
  auto traced = [&](int second) { return traceMinute(only(), 6, start + seconds(second)); };
  answer(40, {{"", "G", "10"}});
  EXPECT_TRUE(traceMinute(only(), 0, start).empty());
  EXPECT_EQ(traced(40), Levels(6, -1));  // one sample is no course
  answer(50, {{"", "G", "24"}});
  answer(60, {{"", "G", "17"}});
  EXPECT_EQ(traced(60), (Levels{-1, -1, -1, 0, 7, 4}));
  answer(0, {{"", "N", "0"}});
  answer(10, {{"", "N", "70"}});
  answer(20, {{"", "N", "80"}});
  EXPECT_EQ(traced(20), (Levels{-1, -1, -1, -1, 7, 1}));  // 7 and 1 a second
}

}  // namespace
}  // namespace zebtool
