#include "gateway_statistics.h"

#include <string>
#include <vector>

namespace zebsim {
namespace {

using enum Motion;
using std::string_view_literals::operator""sv;

// The values are consistent: a peak starts at the highest value of its gauge, and no gauge exceeds
// its limit.
constexpr Definition kUsual[] = {
    {"LISTEN_ADDRESS", kText, 0, 0, "0.0.0.0"},
    {"LISTEN_PORT", kText, 0, 0, "2980"},
    {"LISTEN_STATE", kText, 0, 0, "accepting"},
    {"LISTEN_OPEN", kGauge, 3, 60, ""},
    {"LISTEN_OPEN_PEAK", kPeak, 60, 80, ""},
    {"LISTEN_OPEN_LIMIT", kText, 0, 0, "100"},
    {"LISTEN_ACCEPTED", kCounter, 40, 90, ""},
    {"LISTEN_REFUSED", kCounter, 0, 2, ""},
    {"LISTEN_TIMEOUTS", kCounter, 1, 4, ""},
    {"LISTEN_BYTES_IN", kCounter, 900000, 2100000, ""},
    {"WORK_THREADS", kGauge, 10, 40, ""},
    {"WORK_THREADS_PEAK", kPeak, 40, 48, ""},
    {"WORK_THREADS_LIMIT", kText, 0, 0, "50"},
    {"WORK_BUSY", kGauge, 0, 10, ""},
    {"WORK_QUEUED", kGauge, 0, 25, ""},
    {"WORK_QUEUED_PEAK", kPeak, 25, 33, ""},
    {"WORK_QUEUE_LIMIT", kText, 0, 0, "500"},
    {"WORK_STARTED", kCounter, 5, 15, ""},
    {"WORK_WAIT_TIMEOUTS", kCounter, 0, 2, ""},
    {"WORK_LOAD", kRatio, 150, 9500, ""},
    {"REQ_COUNT", kCounter, 700, 3000, ""},
    {"REQ_FAILED", kCounter, 1, 9, ""},
    {"REQ_REJECTED", kCounter, 0, 3, ""},
    {"REQ_ACTIVE", kGauge, 0, 10, ""},
    {"REQ_ACTIVE_PEAK", kPeak, 10, 16, ""},
    {"REQ_RATE", kRatio, 700, 3000, ""},
    {"REQ_MILLIS_MEAN", kRatio, 180, 4200, ""},
    {"REQ_MILLIS_WORST", kPeak, 120, 2900, ""},
    {"REQ_BYTES_OUT", kCounter, 2500000, 4200000, ""},
    {"REQ_JOURNAL", kJournal, 100, 9999, ""},
    {"LINK_TARGET", kText, 0, 0, "orders-east:7001"},
    {"LINK_STATE", kText, 0, 0, "up"},
    {"LINK_SESSIONS", kGauge, 2, 30, ""},
    {"LINK_SESSIONS_LIMIT", kText, 0, 0, "32"},
    {"LINK_SENT", kCounter, 650, 2900, ""},
    {"LINK_RECEIVED", kCounter, 650, 2900, ""},
    {"LINK_RETRIES", kCounter, 0, 5, ""},
    {"LINK_LOST", kCounter, 0, 1, ""},
    {"LINK_MILLIS_MEAN", kRatio, 90, 1900, ""},
    {"LINK_LAST_ERROR", kText, 0, 0, ""},
    {"VM_NAME", kText, 0, 0, "Runtime 17"},
    {"VM_UPTIME", kUptime, 0, 0, ""},
    {"VM_HEAP_USED", kGauge, 80000000, 410000000, ""},
    {"VM_HEAP_PEAK", kPeak, 410000000, 480000000, ""},
    {"VM_HEAP_LIMIT", kText, 0, 0, "536870912"},
    {"VM_COLLECTIONS", kCounter, 4, 30, ""},
    {"VM_COLLECTION_MILLIS", kCounter, 40, 600, ""},
    {"VM_THREADS", kGauge, 30, 75, ""},
    {"VM_CLASSES", kPeak, 7200, 9100, ""},
    {"VM_CPU_SHARE", kRatio, 100, 7800, ""},
    {"HOST_NAME", kName, 0, 0, ""},
    {"HOST_SITE", kText, 0, 0, "\xC3\x85rhus, hall 2"},  // not all texts are ASCII
    {"HOST_SYSTEM", kText, 0, 0, "Linux"},
    {"HOST_CPUS", kText, 0, 0, "16"},
    {"HOST_LOAD", kRatio, 5, 1600, ""},
    {"HOST_MEMORY_FREE", kGauge, 900000, 12000000, ""},
    {"HOST_MEMORY", kText, 0, 0, "16384000"},
    {"HOST_DISK_FREE", kGauge, 40000000, 47000000, ""},
    {"HOST_OPEN_FILES", kGauge, 90, 700, ""},
    {"HOST_INTERRUPTS", kCounter, 90000, 250000, ""},
};

struct OddText {
  std::string_view id;
  std::string_view value;
};

// In the modified UTF-8 of the wire: NUL has two bytes, and a character beyond U+FFFF is a pair of
// surrogates with three bytes each.
constexpr OddText kOddTexts[] = {
    {"ODD_ESCAPE_\x1B[31mRED", "\x1B[2J\x1B[H\x1B]0;owned\x07screen cleared"},
    {"ODD_CONTROL_\x01\x08\x0C\x7F", "bell \x07, backspaces \x08\x08\x08, delete \x7F"},
    {"ODD_C1_\xC2\x9B\x33\x31m", "\xC2\x9B\x32J\xC2\x85next line"},
    {"ODD_NUL_\xC0\x80_INSIDE",
     "before\xC0\x80"
     "after"},
    {"ODD_RAW_NUL", "before\0after"sv},
    {"ODD_LINES", "first\nsecond\r\nthird\rover\ttab\x0Bvertical"},
    {"ODD_LINE_\nBREAK", "\xE2\x80\xA8line separator\xE2\x80\xA9paragraph separator"},
    {"ODD_BIDI_\xE2\x80\xAEyarrA", "user\xE2\x80\xAE\xE2\x81\xA6 nimda\xE2\x81\xA9\xE2\x80\xAC"},
    {"ODD_TWIN", "the plain one"},
    {"ODD_TW\xE2\x80\x8BIN", "the one with a zero-width space"},
    {"ODD_JOINER_\xE2\x80\x8D_\xEF\xBB\xBF",
     "\xEF\xBB\xBF"
     "byte order mark, soft\xC2\xADhyphen"},
    {"ODD_QUOTES_\"'`", "\"double\" 'single' `back` \\ \\\\ \\n"},
    {"ODD_PIPE_|=1;2;3", "OK | load=1;2;3;4 'x'=5"},
    {"ODD_LABEL_\"} 1", "{\"a\":[1,null]} \"} 1 # HELP"},
    {"ODD_COMMA_,;", "one,two;three"},
    {"ODD_SPACES_ _  _", "  leading and trailing  "},
    {"ODD_SHELL_$(id)", "; $(id) `id` && exit | cat > file * ? ~ !!"},
    {"ODD_PRINTF_%s%n", "%s%n%x 100%"},
    {"ODD_GLOB_[a-z]*?", "^(a+)+$ \\d{1,99}"},
    {"ODD_MARKUP_<b>", "<script>alert(1)</script> &amp; <!--"},
    {"ODD_PATH_../../etc", "/dev/null\\..\\"},
    {"ODD_EMPTY", ""},
    {"ODD_BLANK", " "},
    {"ODD_FORMULA", "=HYPERLINK(\"http://127.0.0.1/\")"},
    {"ODD_PLUS", "+1+cmd|' /C calc'!A0"},
    {"ODD_MINUS", "-2+3"},
    {"ODD_AT", "@SUM(1+1)"},
    {"ODD_BIG", "18446744073709551616"},
    {"ODD_SMALL", "-9223372036854775809"},
    {"ODD_EXPONENT", "1e400"},
    {"ODD_TINY", "-1.250e-7"},
    {"ODD_HEX", "0x1F"},
    {"ODD_NAN", "NaN"},
    {"ODD_INFINITY", "-Infinity"},
    {"ODD_COMMA_DECIMAL", "3,14"},
    {"ODD_PADDED", " 007 "},
    {"ODD_ARABIC_DIGITS", "\xD9\xA1\xD9\xA2\xD9\xA3"},
    {"ODD_TRUE", "true"},
    {"ODD_\xC3\x84RGER",
     "\xC3\x85rhus, \xC5\x81\xC3\xB3"
     "d\xC5\xBA, \xC4\xB0stanbul"},
    {"ODD_COMBINED", "e\xCC\x81 A\xCC\x8A Z\xCC\xB6\xCC\xB7\xCC\xB8\xCD\x9C\xCD\x9D"},
    {"ODD_\xCE\x95\xCE\xBB", "\xCE\xB5\xCE\xBB\xCE\xBB\xCE\xB7\xCE\xBD\xCE\xB9\xCE\xBA\xCE\xAC"},
    {"ODD_\xD0\x94", "\xD0\xBF\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82"},
    {"ODD_\xD7\xA9", "\xD7\xA9\xD7\x9C\xD7\x95\xD7\x9D 12"},
    {"ODD_\xD8\xB3", "\xD9\x85\xD8\xB1\xD8\xAD\xD8\xA8\xD8\xA7"},
    {"ODD_\xE0\xA4\xA8",
     "\xE0\xA4\xA8\xE0\xA4\xAE\xE0\xA4\xB8\xE0\xA5\x8D\xE0\xA4\xA4\xE0\xA5\x87"},
    {"ODD_\xE4\xB8\xAD",
     "\xE4\xB8\xAD\xE6\x96\x87\xEF\xBC\x8C\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E"},
    {"ODD_\xED\xA0\xBD\xED\xB8\x80", "\xED\xA0\xBD\xED\xB2\xBB clef \xED\xA0\xB4\xED\xB4\x9E"},
    {"ODD_LONE_\xED\xA0\xBD", "half a pair: \xED\xB8\x80"},
    {"ODD_NOT_UTF8_\xFF", "\xC3(\xFE\xE2\x82 \xF0\x9F\x98\x80"},
    {"=cmd_FORMULA", "the group begins with ="},
    {"@GR \"OUP\"_A", "the group has quotes and a space"},
    {"\x1B[7m_ESCAPE", "the group is an escape sequence"},
    {"odd_lower", "a group in lower case"},
};

std::vector<Definition> makeOddStatistics() {
  static const std::string longId = "ODD_LONG_" + std::string(4991, 'L');
  static const std::string longValue = std::string(4997, 'v') + "end";
  std::vector<Definition> rows;
  for (const OddText& odd : kOddTexts) rows.push_back({odd.id, kText, 0, 0, odd.value});
  rows.push_back({longId, kText, 0, 0, longValue});
  return rows;
}

}  // namespace

std::span<const Definition> usualStatistics() {
  return kUsual;
}

std::span<const Definition> oddStatistics() {
  static const std::vector<Definition> rows = makeOddStatistics();
  return rows;
}

}  // namespace zebsim
