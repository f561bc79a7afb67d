// What the programs print of texts from a gateway, and which of them are numbers.
#include "text.h"

#include <gtest/gtest.h>

namespace zebtool {
namespace {

TEST(Text, NothingHiddenReachesATerminalCsvOrJson) {
  struct Case {
    std::string_view bytes;
    const char* shown;
    const char* json;
  };
  using namespace std::string_view_literals;
  const Case cases[] = {
      {"plain 1", "plain 1", R"("plain 1")"},
      {"Å\xED\xA0\xBD\xED\xB8\x80", "Å😀", R"("Å😀")"},  // the wire has surrogates
      {"\x1B[2J\n\t\x7F\0"sv, R"(\x1B[2J\n\x09\x7F\x00)", R"("\u001B[2J\n\u0009\u007F\u0000")"},
      {"\xC0\x80\xC2\x9B", R"(\x00\x9B)", R"("\u0000\u009B")"},
      {"\u200E\u202E\u2066\u061C", R"(\u200E\u202E\u2066\u061C)", R"("\u200E\u202E\u2066\u061C")"},
      {"\u200B\u2060\uFEFF\U000E0041", R"(\u200B\u2060\uFEFF\U000E0041)",
       R"("\u200B\u2060\uFEFF\uDB40\uDC41")"},
      {"\xFF\xED\xA0\xBDx\xC3", "\uFFFD\uFFFDx\uFFFD", "\"\uFFFD\uFFFDx\uFFFD\""},
      {"a\"b\\", "a\"b\\", R"("a\"b\\")"},
  };
  for (const Case& each : cases) {
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
  for (const char* number : {"0", "-0", "12", "-1.50", "1E+3", "1e-400", "123456789012345678901"})
    EXPECT_TRUE(parseNumber(number)) << number;
  for (const char* text : {"", "-", "007", "+1", ".5", "5.", "1e", "0x10", "NaN", "-Infinity", " 1",
                           "1 ", "1,5", "1e999", "\xD9\xA1"})
    EXPECT_FALSE(parseNumber(text)) << text;
  EXPECT_EQ(*parseNumber("-1.50"), -1.5L);
}

}  // namespace
}  // namespace zebtool
