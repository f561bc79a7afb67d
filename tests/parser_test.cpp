// Answers of the gateway, and the result sets that the parsers and the whole way over a socket make
// of them. What is right the slow decoder tells, which the random answers check in turn.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "gateway_encoder.h"
#include "gateway_server.h"
#include "scripted_gateway.h"
#include "stapi_zeb_statcomms.h"
#include "trace_capture.h"
#include "wirefaults/slow_decoder.h"
#include "zebstats_private.h"

namespace zebtest {
namespace {

using zebsim::encodeAnswer;
using zebsim::HeadBlocks;

const Bytes kEmpty(reinterpret_cast<const char*>(&kTerminator), sizeof kTerminator);

// What a buffer is to hold up to its terminator.
Bytes decode(bool isStats, const Bytes& answer) {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(answer.data());
  Bytes content;
  return decodeSlowly(isStats, {bytes, answer.size()}, content) ? content + kEmpty : kEmpty;
}

// Is this what it holds? Answer and buffer are blocks of their exact size, so that a sanitiser sees
// every step outside. The exported forms do not know the answer's length.
bool isReadAs(const Bytes& expected, bool isStats, std::string_view answer,
              bool isExportedForm = false) {
  static const auto buffer = std::make_unique<char[]>(kResultSetBufferSize);
  memset(buffer.get(), 0xCC, expected.size() + kEmpty.size());
  const auto copy = std::make_unique<std::uint8_t[]>(answer.size());
  std::copy(answer.begin(), answer.end(), copy.get());
  const int rc =
      isExportedForm
          ? (isStats ? parseStatsData : parseIdsData)(copy.get(), buffer.get())
          : (isStats ? zeb::parseStats : zeb::parseIds)({copy.get(), answer.size()}, buffer.get());
  return (rc != 0) == (expected == kEmpty) &&
         memcmp(buffer.get(), expected.data(), expected.size()) == 0;
}

class Session {
 public:
  explicit Session(std::size_t segment = 0) : server_({.segment = segment}) {}

  // Asks, with this answer. The last word of the buffer is out of its reach. Returns the code of a
  // walk's first step.
  int firstOf(bool isStats, const Bytes& answer) {
    server_.setAnswer(isStats ? "GET_STATS" : "STAT_IDS", answer);
    ResultSetToken* resultSet = nullptr;
    EXPECT_EQ((isStats ? getStats : getStatIds)(connection_.token, &resultSet), 0);
    EXPECT_TRUE(buffer().ends_with(kEmpty));
    StatData stat;
    IdData id;
    return isStats ? getFirstStat(resultSet, &stat) : getFirstId(resultSet, &id);
  }
  [[nodiscard]] Bytes buffer() const {
    return {connection_.token->resultSetBuf, kResultSetBufferSize};
  }

 private:
  zebsim::GatewayServer server_;
  Connection connection_{server_.port()};
};

class RecordedAnswer : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const std::string path = std::filesystem::path(ZEB_REPLIES_DIR) / GetParam();
    std::ifstream file(path + ".bin", std::ios::binary);
    answer = {std::istreambuf_iterator<char>(file), {}};
    isStats = std::string_view(GetParam()).starts_with("stats");
  }
  Bytes answer;
  bool isStats = false;
};

TEST_P(RecordedAnswer, isReadWhole) {
  const Bytes expected = decode(isStats, answer);
  ASSERT_NE(expected, kEmpty);
  EXPECT_TRUE(isReadAs(expected, isStats, answer));
  EXPECT_TRUE(isReadAs(expected, isStats, answer, true));
  Session session(1);  // byte by byte
  session.firstOf(isStats, answer);
  EXPECT_EQ(session.buffer().substr(0, expected.size()), expected);
  const TraceCapture trace(4);  // under which the buffer is written in another way
  EXPECT_TRUE(isReadAs(expected, isStats, answer));
}

TEST_P(RecordedAnswer, cutShortAnywhereReadsAsEmpty) {
  const std::size_t size = answer.size() - 2;  // the last bytes only close objects
  for (std::size_t cut = 0; cut < size; ++cut)
    ASSERT_TRUE(isReadAs(kEmpty, isStats, std::string_view(answer).substr(0, cut))) << cut;
}

INSTANTIATE_TEST_SUITE_P(Jdk, RecordedAnswer,
                         testing::Values("groups_single", "ids_long_block", "ids_no_response",
                                         "ids_several", "stats_long_query", "stats_several",
                                         "stats_single", "stats_value_over_1024_long_end",
                                         "stats_value_over_1024_short_end", "stats_value_over_255"),
                         [](const auto& told) { return std::string(told.param); });

// An answer in which every form of response and of value occurs.
Bytes makeAnswer(bool isStats) {
  using namespace zebsim;
  if (!isStats)
    return encodeAnswer(
        {true, {{"bad", -1, {}}, {"q", 0, Ids{"ID", "ID"}}, {"r", 7, Ids(2, Bytes(600, 'v'))}}});
  Stats stats(7, {"ID", "value"});
  for (const std::size_t size : {300U, 1100U}) stats.push_back({"LONG", Bytes(size, 'v')});
  stats.push_back({Bytes(1030, 'v'), "value"});
  const Bytes longQuery(1100, 'v');
  return encodeAnswer({true,
                       {{"bad", -1, Stats{}},
                        {"none", 0, Stats{}},
                        {"q", 0, stats},
                        {longQuery, 0, stats},
                        {longQuery, -1, Stats{}},
                        {"none", 0, Stats{}}}});
}

// Every field stands at some byte, so all are met. Behind the answer is room for lengths taken
// without their sign.
TEST(Answer, changedInAnyFieldToAnExtremeIsReadAsTheSlowDecoderReadsIt) {
  for (const bool isStats : {false, true}) {
    const Bytes answer = makeAnswer(isStats);
    int refused = 0;
    int read = 0;
    for (const char* extreme : {"00", "FF", "8000", "FFFF", "7FFFFFFF", "FFFFFFFF"}) {
      const Bytes value = wire(extreme);
      for (std::size_t at = 0; at + value.size() <= answer.size(); ++at) {
        if (answer.compare(at, 5, "vvvvv") == 0) continue;
        const Bytes changed = Bytes(answer).replace(at, value.size(), value) + Bytes(70000, '\0');
        const Bytes expected = decode(isStats, changed);
        ASSERT_TRUE(isReadAs(expected, isStats, changed)) << extreme << " at " << at;
        ++(expected == kEmpty ? refused : read);
      }
    }
    EXPECT_TRUE(refused > 100 && read > 100) << refused << " " << read;
  }
}

// ---- block data that the serialiser cut

// Block data of this size: ids, or the query of some statistics. With the shift every field moves
// over every cut.
zebsim::Response responseOf(bool isStats, std::size_t size, std::size_t shift) {
  using namespace zebsim;
  if (isStats) return {Bytes(size - 10, 'q'), 0, Stats(shift, {"ID", "value"})};
  Response response{Bytes(shift, 'q'), 0, {}};
  std::size_t left = size - 10 - shift;
  Ids ids;
  for (; left >= 30; left -= 15) ids.push_back("LINK_SESSIONS");
  ids.push_back(Bytes(left - 2, 'v'));
  response.items = ids;
  return response;
}

TEST(CutAnswer, ofAnySizeIsReadAsIfItWereOneBlock) {
  for (const std::size_t size : {1030U, 1279U, 1280U, 2048U, 2303U, 2304U, 3072U, 10 * 1024U}) {
    for (std::size_t near = size - 8; near <= size + 8; ++near) {
      for (std::size_t shift = 0; shift < 16; ++shift) {
        const bool isStats = shift % 2 == 1;
        const zebsim::Response response = responseOf(isStats, near, shift);
        const zebsim::Answer answer{true, {response, {"bad", -1, response.items}, response}};
        const Bytes expected = decode(isStats, encodeAnswer(answer, HeadBlocks::kOne));
        const Bytes cut = encodeAnswer(answer);
        ASSERT_NE(expected, kEmpty);
        ASSERT_TRUE(decode(isStats, cut) == expected)
            << near << " " << shift << ": the slow decoder differs";
        ASSERT_TRUE(isReadAs(expected, isStats, cut)) << near << " " << shift;
        ASSERT_TRUE(isReadAs(expected, isStats, cut, true)) << near << " " << shift;
      }
    }
  }
}

TEST(CutAnswer, cutShortAnywhereIsReadAsTheSlowDecoderReadsIt) {
  for (const bool isStats : {false, true}) {
    const Bytes answer = makeAnswer(isStats);
    for (std::size_t cut = 0; cut < answer.size(); ++cut) {
      const auto start = answer.substr(0, cut);
      ASSERT_TRUE(isReadAs(decode(isStats, start), isStats, start)) << cut;
    }
  }
}

TEST(CutAnswer, thatHoldsLessThanItAnnouncesIsRefused) {
  for (const auto& [right, wrong] : {std::pair("00000001 05DC", "00000001 05DD"),
                                     {"00000001 05DC", "00000002 05DC"},
                                     {"00000001 05DC", "00000001 FFFF"}}) {
    Bytes answer = encodeAnswer({false, {{"q", 0, zebsim::Ids{Bytes(1500, 'v')}}}});
    answer.replace(answer.find(wire(right)), 6, wire(wrong));
    EXPECT_TRUE(isReadAs(kEmpty, false, answer)) << wrong;
    EXPECT_TRUE(isReadAs(kEmpty, false, answer + answer)) << wrong;
  }
}

// A gateway that writes one block may announce any length: more blocks are read only where they
// follow as a serialiser cuts them.
TEST(UncutAnswer, thatAnnouncesAFullBlockIsReadAsOneBlock) {
  const Bytes filler = Bytes(1025, 'v') + Bytes(300, 's');
  const Bytes fullBlock = wire("7A 00000400") + Bytes(1024, 'v');
  for (const Bytes& at1024 :
       {wire(""), wire("78"), wire("73"), wire("77 00 78"), wire("7A 00000000 73"),
        fullBlock + wire("77 00 78"), fullBlock + wire("7A 00000000 73"), fullBlock + "v",
        wire("7A 00000401"), wire("7A FFFFFFFF"), wire("77 05 'ABCDE'"), wire("77 05 'ABCDEw'"),
        wire("7A 00000005 'ABCDE' 79"), wire("77 05 'ABCDE' 77 01 'A' 78"),
        fullBlock + fullBlock + fullBlock, wire("77 FF 'A'")}) {
    const Bytes id = Bytes(1024 - 12, 'v') + at1024 + filler;
    Bytes answer = encodeAnswer({true, {{"", 0, zebsim::Ids{id}}, {"next", 0, zebsim::Ids{"ID"}}}},
                                HeadBlocks::kOne);
    const Bytes expected = decode(false, answer);
    ASSERT_NE(expected, kEmpty);
    answer.replace(answer.find(wire("7870 7A")) + 3, 4, wire("00000400"));
    EXPECT_TRUE(isReadAs(expected, false, answer)) << at1024;
  }
}

// The marker of each response is where the block head of another is expected, so that each seems to
// begin a walk over all the rest. Walked to the end, sixteen megabytes of them would cost seconds.
TEST(UncutAnswer, ofWhichEachResponseBeginsALongWalkIsRefused) {
  const Bytes response =
      Bytes(7, '\0') + wire("01") + Bytes(29, '\0') + wire("7A 00000400 0000 FFFFFFFF") + '\0';
  static_assert(21 * 49 == 5 + 1024);
  ASSERT_EQ(response.size(), 49u);
  for (const std::uint32_t count : {100U, 19000U}) {
    Bytes answer = wire("01") + zebsim::words({count});
    for (std::uint32_t i = 0; i < count; ++i) answer += response;
    const bool isRead = count == 100;
    EXPECT_TRUE(isReadAs(isRead ? decode(false, answer) : kEmpty, false, answer)) << count;
  }
}

// The parser's own lines, without those of the writer, which prints each piece of a text.
std::string parserLinesOf(const Bytes& answer, bool isStats) {
  const TraceCapture trace(4);
  EXPECT_TRUE(isReadAs(decode(isStats, answer), isStats, answer));
  std::string lines;
  for (const std::string& line : splitLines(trace.story()))
    if (line.starts_with("DEBUG  stapi_zeb_statcomms"))
      lines += line.substr(line.find(' ', 10) + 1) + "\n";
  return lines;
}

TEST(CutAnswer, isTracedLikeAnyOther) {
  for (const bool isStats : {false, true}) {
    const zebsim::Answer answer{false, {responseOf(isStats, 2500, 7)}};
    const std::string lines = parserLinesOf(encodeAnswer(answer), isStats);
    EXPECT_EQ(lines, parserLinesOf(encodeAnswer(answer, HeadBlocks::kOne), isStats));
    EXPECT_NE(lines.find(isStats ? "reading 7 stats for result 0\n" : "IDs for result 0\n"),
              Bytes::npos);
  }
}

TEST(Answer, thatIsRefusedReadsAsEmptyAndTheNextOneIsRead) {
  const Bytes longIds = encodeAnswer({false, {{"q", 0, zebsim::Ids(12000, "LONG_ENOUGH")}}});
  const Bytes longStats =
      encodeAnswer({false, {{"q", 0, zebsim::Stats(12000, {"ID", "LONG_ENOUGH"})}}});
  Session session;
  for (const bool isStats : {false, true}) {
    const Bytes good = makeAnswer(isStats);
    const TraceCapture trace(1);
    EXPECT_EQ(session.firstOf(isStats, ""), -119);
    EXPECT_EQ(session.firstOf(isStats, good.substr(0, good.size() / 2)), -119);
    EXPECT_EQ(session.firstOf(isStats, isStats ? longStats : longIds), -119);
    EXPECT_EQ(session.firstOf(isStats, good), 0);
    const std::string told = trace.story();
    EXPECT_NE(told.find("Answer is malformed"), std::string::npos);
    EXPECT_NE(told.find("Answer outgrows the result set buffer"), std::string::npos);
  }
}

}  // namespace
}  // namespace zebtest
