// The names, labels and numbers that reach Prometheus, whatever bytes a gateway sends.
#include "prometheus_text.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace zebtool {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

std::vector<std::string> samplesOf(const std::vector<Entry>& stats, const Metadata& metadata = {},
                                   const std::vector<std::string>& texts = {"*"}) {
  std::vector<std::string> lines;
  std::istringstream text(renderStats({{"g:1", &stats}}, metadata, texts));
  for (std::string line; std::getline(text, line);) {
    if (line.front() != '#') lines.push_back(line);
  }
  return lines;
}

std::string sampleOf(const std::string& id, const std::string& value,
                     const std::string& group = "") {
  std::vector<std::string> lines = samplesOf({{group, id, value}});
  EXPECT_EQ(lines.size(), 1U);
  return lines.empty() ? "" : lines.front();
}

Metadata metadataOf(const std::string& json) {
  std::string path = testing::TempDir() + "/metadata.json";
  std::ofstream(path) << json;
  return Metadata(path);
}

TEST(PrometheusText, IdsBecomeValidNamesThatStayApart) {
  EXPECT_EQ(sampleOf("REQ_COUNT", "1"), "zebstats_req_count{gateway=\"g:1\"} 1");
  EXPECT_EQ(sampleOf("Wait (ms)", "1"),
            "zebstats_waitms_{gateway=\"g:1\"} 1");  // no unit but seconds
  EXPECT_EQ(sampleOf("", "1"), "zebstats_{gateway=\"g:1\"} 1");
  EXPECT_THAT(sampleOf("UP", "1"), testing::MatchesRegex("zebstats_up_[0-9a-f]{8}.*"));
  std::vector<std::string> lines =
      samplesOf({{"", "a.x", "1"}, {"", "A_X", "2"}, {"", "a_x", "3"}, {"", "A_X_INFO", "4"}});
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_THAT(lines, testing::Contains("zebstats_a_x{gateway=\"g:1\"} 2"));
  for (std::string& line : lines) line.erase(line.find('{'));
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(std::unique(lines.begin(), lines.end()), lines.end());
  EXPECT_THAT(lines, Not(testing::Contains("zebstats_a_x_info")));  // that of a text of A_X
}

TEST(PrometheusText, NoByteOfAGatewayIsWrittenThatHidesOrBreaksALine) {
  std::string text =
      "a\"b\\c\nd\x1B[2J\xE2\x80\xAE"
      "e\xE2\x80\x8B"
      "f\xFFg\xC2\x9B"
      "h\xC0\x80";
  std::string shown = R"(a\"b\\c\\nd\\x1B[2J\\u202Ee\\u200Bf)"
                      "\xEF\xBF\xBD"
                      R"(g\\x9Bh\\x00)";
  EXPECT_EQ(sampleOf("T", text, text),
            "zebstats_t_info{gateway=\"g:1\",group=\"" + shown + "\",value=\"" + shown + "\"} 1");
  std::vector<Entry> stats{{"", text, "1"}};
  std::string all = renderStats({{"g:1", &stats}}, Metadata(), {});
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 3);
  EXPECT_THAT(all, HasSubstr("# HELP zebstats_ab_cd__2j"));
  EXPECT_THAT(all, HasSubstr(R"(Statistic a"b\\c\\nd\\x1B[2J\\u202Ee)"));
  std::string longText(255, 'x');
  EXPECT_THAT(sampleOf("T", longText + "\xC3\xA9\xC3\xA9"),
              HasSubstr("\"" + longText + "...\"} 1"));
}

TEST(PrometheusText, OnlyNumbersThatAServerCanReadAreNumbers) {
  for (const char* number : {"0", "-1", "1.50", "12345678901234567890", "1e5", "1e300"})
    EXPECT_EQ(sampleOf("N", number), std::string("zebstats_n{gateway=\"g:1\"} ") + number);
  for (const char* text : {"", "nan", "inf", "0x10", "1e400", "-1e400", "1 ", "1,5", "1e", "+-1"})
    EXPECT_EQ(samplesOf({{"", "N", text}}, {}, {"M*"}).size(), 0U) << text;
  // A server refuses the whole answer if it has the same series twice.
  EXPECT_EQ(samplesOf({{"G", "N", "1"}, {"G", "N", "2"}, {"H", "N", "3"}}).size(), 2U);
}

TEST(PrometheusText, MetadataGivesTypeUnitAndHelp) {
  Metadata metadata = metadataOf(R"({"statistics": [
    {"id": "A_*", "type": "counter", "unit": "milliseconds", "help": "Back\\slash\nline."},
    {"id": "*_TOTAL", "type": "counter"}, {"id": "P", "type": "gauge", "unit": "percent"},
    {"id": "*_BYTES_IN", "unit": "kibibytes"}, {"id": "*", "help": "Other."}]})");
  std::vector<Entry> stats{{"", "A_MILLIS_1", "24.65"},
                           {"", "C_BYTES_IN", "3"},
                           {"", "P", "12.5"},
                           {"", "Q_TOTAL", "2"}};
  EXPECT_EQ(renderStats({{"g:1", &stats}}, metadata, {}),
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

}  // namespace
}  // namespace zebtool
