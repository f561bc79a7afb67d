// What the programs print of texts from a gateway, which of them are numbers, and the names, labels
// and numbers that reach Prometheus.
#include "text.h"

#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "prometheus_text.h"

namespace zebtool {
namespace {

TEST(Text, NothingHiddenReachesATerminalCsvOrJson) {
  using namespace std::string_view_literals;
  const struct {
    std::string_view bytes;
    const char* shown;
    const char* json;
  } cases[] = {
      {"Å\xED\xA0\xBD\xED\xB8\x80", "Å😀", R"("Å😀")"},  // the wire has surrogates
      {"\x1B[2J\n\t\x7F\0"sv, R"(\x1B[2J\n\x09\x7F\x00)", R"("\u001B[2J\n\u0009\u007F\u0000")"},
      {"\xC0\x80\xC2\x9B", R"(\x00\x9B)", R"("\u0000\u009B")"},
      {"\u200E\u202E\u2066\u061C", R"(\u200E\u202E\u2066\u061C)", R"("\u200E\u202E\u2066\u061C")"},
      {"\u200B\u2060\uFEFF\uFFF0\U000E0041", R"(\u200B\u2060\uFEFF\uFFF0\U000E0041)",
       R"("\u200B\u2060\uFEFF\uFFF0\uDB40\uDC41")"},
      {"\xFF\xED\xA0\xBDx\xC3", "\uFFFD\uFFFDx\uFFFD", "\"\uFFFD\uFFFDx\uFFFD\""},
      {"a\"b\\", "a\"b\\", R"("a\"b\\")"},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(toShown(each.bytes), each.shown);
    EXPECT_EQ(quoteJson(each.bytes), each.json);
  }
}

TEST(Text, CsvCellsAreNoFormulas) {
  const char* const cases[][2] = {{"=1+1", "'=1+1"},    {"+cmd", "'+cmd"},
                                  {"-", "'-"},          {"@a,b", "\"'@a,b\""},
                                  {"-1.5e3", "-1.5e3"}, {"a=\"b\"", "\"a=\"\"b\"\"\""},
                                  {"\t=1", "\\x09=1"},  {"", ""}};
  for (const auto& [bytes, cell] : cases) EXPECT_EQ(toCsvCell(bytes), cell);
}

TEST(Text, NumbersAreThoseOfJsonThatFitIntoADouble) {
  for (const char* number : {"-0", "12", "-1.50", "1E+3", "1e-400", "123456789012345678901"})
    EXPECT_TRUE(parseNumber(number)) << number;
  for (const char* text : {"", "-", "007", "+1", ".5", "5.", "1e", "0x10", "NaN", "-Infinity", " 1",
                           "1 ", "1,5", "1e999", "\xD9\xA1"})
    EXPECT_FALSE(parseNumber(text)) << text;
}

// All that is written for these statistics, with or without the lines that describe them.
std::string render(const std::vector<Entry>& stats, bool isDescribed = false,
                   const Metadata& metadata = {}, const std::vector<std::string>& texts = {"*"}) {
  std::istringstream all(renderStats({{"g:1", &stats}}, metadata, texts));
  std::string text;
  for (std::string line; std::getline(all, line);)
    if (isDescribed || line.front() != '#') text += line + "\n";
  return text;
}

TEST(PrometheusText, IdsBecomeValidNamesThatStayApart) {
  EXPECT_EQ(render({{"", "", "1"},
                    {"", "Wait (ms)", "2"},
                    {"", "UP", "3"},
                    {"", "a.x", "4"},
                    {"", "a_x", "5"},
                    {"", "A_X", "6"},
                    {"", "A_X_INFO", "7"}}),
            R"(zebstats_{gateway="g:1"} 1
zebstats_a_x{gateway="g:1"} 6
zebstats_a_x_info_4ae2cf88{gateway="g:1"} 7
zebstats_up_62f38ba0{gateway="g:1"} 3
zebstats_waitms_{gateway="g:1"} 2
zebstats_a_x_2a8c1dfa{gateway="g:1"} 4
zebstats_a_x_21a471e3{gateway="g:1"} 5
)");
}

TEST(PrometheusText, NoByteOfAGatewayBreaksALine) {
  const std::string bytes = "a\"b\\c\nd\x1B", shown = R"(a\"b\\c\\nd\\x1B)";
  EXPECT_EQ(render({{bytes, "T", bytes}}), R"(zebstats_t_info{gateway="g:1",group=")" + shown +
                                               R"(",value=")" + shown + "\"} 1\n");
  EXPECT_THAT(render({{"", bytes, "1"}}, true),
              testing::StartsWith(R"(# HELP zebstats_ab_cd_ Statistic a"b\\c\\nd\\x1B of)"));
  const std::string longText(255, 'x');
  EXPECT_EQ(render({{"", "T", longText + "\xC3\xA9\xC3\xA9"}}),
            "zebstats_t_info{gateway=\"g:1\",value=\"" + longText + "...\"} 1\n");
}

// A server refuses the whole answer if it has the same series twice, or a number too large for it.
TEST(PrometheusText, EachSeriesIsWrittenOnceWithTheDigitsOfTheGateway) {
  EXPECT_EQ(render({{"G", "N", "1.50"},
                    {"G", "N", "2"},
                    {"H", "N", "1e400"},
                    {"H", "N", "12345678901234567890"},
                    {"", "T", "text"}},
                   false, {}, {"M*"}),
            R"(zebstats_n{gateway="g:1",group="G"} 1.50
zebstats_n{gateway="g:1",group="H"} 12345678901234567890
)");
}

TEST(PrometheusText, MetadataGivesTypeUnitAndHelp) {
  const std::string path = testing::TempDir() + "/metadata.json";
  std::ofstream(path) << R"({"statistics": [
    {"id": "A_*", "type": "counter", "unit": "milliseconds", "help": "Back\\slash\nline."},
    {"id": "*_TOTAL", "type": "counter"}, {"id": "P", "type": "gauge", "unit": "percent"},
    {"id": "*_BYTES_IN", "unit": "kibibytes"}, {"id": "*", "help": "Other."}]})";
  EXPECT_EQ(render({{"", "A_MILLIS_1", "24.65"},
                    {"", "C_BYTES_IN", "3"},
                    {"", "P", "12.5"},
                    {"", "Q_TOTAL", "2"}},
                   true, Metadata(path)),
            R"(# HELP zebstats_a_1_seconds_total Back\\slash\\nline.
# TYPE zebstats_a_1_seconds_total counter
zebstats_a_1_seconds_total{gateway="g:1"} 0.02465
# HELP zebstats_c_in_bytes Statistic C_BYTES_IN of the gateway.
# TYPE zebstats_c_in_bytes untyped
zebstats_c_in_bytes{gateway="g:1"} 3072
# HELP zebstats_p_ratio Statistic P of the gateway.
# TYPE zebstats_p_ratio gauge
zebstats_p_ratio{gateway="g:1"} 0.125
# HELP zebstats_q_total Statistic Q_TOTAL of the gateway.
# TYPE zebstats_q_total counter
zebstats_q_total{gateway="g:1"} 2
)");
}

TEST(Metadata, AFaultIsReportedWithItsPlace) {
  const std::string path = testing::TempDir() + "/faults.json";
  const char* const cases[][2] = {
      {"", "line 1 is not"},
      {"{\n]", "line 2 is not"},
      {R"({"statistics": [1e999]})", "too large"},
      {R"({"statistics": [], "statistics": []})", "the document has the key \"statistics\" twice"},
      {R"({"statistics": [{"id": "A"}, {"id": "B", "id": "C"}]})", "statistics[1] has the key"},
      {R"({"statistics": [{"id": ""}]})", "statistics[0].id is not"},
      {R"({"statistics": [{"id": "A", "unit": "s"}]})", "statistics[0].unit is \"s\""}};
  for (const auto& [text, message] : cases) {
    std::ofstream(path) << text;
    try {
      Metadata metadata(path);
      ADD_FAILURE() << text;
    } catch (const Fault& fault) {
      EXPECT_THAT(fault.what(), testing::HasSubstr(path + ": "));
      EXPECT_THAT(fault.what(), testing::HasSubstr(message));
    }
  }
}

}  // namespace
}  // namespace zebtool
