// Answers of the gateway, and the result sets that the parsers make of them, directly and over a
// socket. The slow decoder tells what is right.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
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

// Whether the parser makes that of the answer. Answer and buffer are blocks of their exact size, so
// that a sanitiser sees every step outside. The exported forms do not know the answer's length.
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

// An answer in which every form of response and of value occurs.
Bytes makeAnswer(bool isStats) {
  using namespace zebsim;
  const Bytes longText(1100, 'v');
  if (!isStats)
    return encodeAnswer(
        {true, {{"bad", -1, {}}, {"q", 0, Ids{"ID", "ID"}}, {"r", 7, Ids(2, Bytes(600, 'v'))}}});
  Stats stats(3, {"ID", "value"});
  // Those of 300 and 1,016 bytes fill their blocks; the one of 1,100 continues in a second block.
  for (const std::size_t size : {300U, 1016U, 1100U}) stats.push_back({"LONG", Bytes(size, 'v')});
  for (const std::size_t size : {1020U, 1021U}) stats.push_back({Bytes(size, 'v'), "value"});
  return encodeAnswer({true,
                       {{"bad", -1, Stats{}},
                        {"none", 0, Stats{}},
                        {"q", 0, stats},
                        {longText, 0, Stats{{"ID", "value"}}},
                        {"none", 0, Stats{}}}});
}

TEST(RecordedAnswer, IsReadWholeAndAsEmptyIfItIsCutShort) {
  int files = 0;
  for (const auto& file : std::filesystem::directory_iterator(ZEB_REPLIES_DIR)) {
    const std::string name = file.path().stem();
    if (file.path().extension() != ".bin" || name == "protocol") continue;
    SCOPED_TRACE(name);
    ++files;
    const bool isStats = name.starts_with("stats");
    const Bytes answer = readFile(file.path()), expected = decode(isStats, answer);
    ASSERT_NE(expected, kEmpty);
    EXPECT_TRUE(isReadAs(expected, isStats, answer));
    EXPECT_TRUE(isReadAs(expected, isStats, answer, true));
    // The slow decoder says which of the last two bytes, which only close objects, may be missing.
    for (std::size_t cut = 0; cut < answer.size(); ++cut) {
      const Bytes start = answer.substr(0, cut);
      ASSERT_TRUE(
          isReadAs(cut + 2 < answer.size() ? kEmpty : decode(isStats, start), isStats, start));
    }
    const TraceCapture trace(4);  // under which the buffer is written in another way
    EXPECT_TRUE(isReadAs(expected, isStats, answer));
  }
  EXPECT_GE(files, 10);
}

// Every field is at some byte, so all are changed. After the answer there is room for lengths that
// are taken without their sign.
TEST(Answer, CutShortAnywhereOrChangedInAnyFieldIsReadAsTheSlowDecoderReadsIt) {
  std::string traced;
  for (const bool isStats : {false, true}) {
    const Bytes answer = makeAnswer(isStats);
    std::size_t read = 0, all = 0;
    const auto check = [&](const Bytes& changed) {
      const Bytes expected = decode(isStats, changed);
      read += expected != kEmpty ? 1 : 0;
      ++all;
      return isReadAs(expected, isStats, changed);
    };
    for (std::size_t at = 0; at <= answer.size(); ++at) {
      if (answer.compare(at, 5, "vvvvv") == 0) continue;
      ASSERT_TRUE(check(answer.substr(0, at))) << "cut at " << at;
      for (const char* extreme : {"00", "FF", "8000", "7FFFFFFF", "FFFFFFFF"}) {
        const Bytes value = wire(extreme);
        ASSERT_TRUE(check(Bytes(answer).replace(at, value.size(), value) + Bytes(70000, '\0')))
            << extreme << " at " << at;
      }
    }
    EXPECT_TRUE(read > 100 && all - read > 100) << read << " of " << all;
    const TraceCapture trace(4);
    EXPECT_TRUE(check(answer));
    for (const std::string& line : splitLines(trace.story()))
      if (line.starts_with("DEBUG  stapi_zeb_statcomms.parse")) traced += line + "\n";
  }
  expectRecorded(traced, ZEB_TESTDATA_DIR "/answers_trace.txt");
}

// ---- block data that the serialiser cut

// With the length of the query every field moves over the cuts, and the data over the sizes at which
// the last block is full or gets a short head.
TEST(CutAnswer, OfAnySizeIsReadAsIfItWereOneBlock) {
  for (std::size_t size = 0; size < 300; ++size) {
    for (const bool isStats : {false, true}) {
      SCOPED_TRACE(size);
      zebsim::Response response{Bytes(size, 'q'), 0, zebsim::Ids(270, "ID_OF_ONE")};
      if (isStats) response = {Bytes(1000 + size, 'q'), 0, zebsim::Stats(3, {"ID", "value"})};
      const zebsim::Response bad{response.query, -1, response.items};
      const zebsim::Answer answer{true, {response, bad, response}};
      const Bytes expected = decode(isStats, encodeAnswer(answer, HeadBlocks::kOne));
      const Bytes cut = encodeAnswer(answer);
      ASSERT_NE(expected, kEmpty);
      ASSERT_TRUE(decode(isStats, cut) == expected) << "the slow decoder differs";
      ASSERT_TRUE(isReadAs(expected, isStats, cut));
      ASSERT_TRUE(isReadAs(expected, isStats, cut, true));
    }
  }
}

// Once a block of a value is short, the next ones are read as short, whatever their marker.
TEST(CutAnswer, OfShortBlocksIsReadWhateverTheirMarkers) {
  Bytes answer = encodeAnswer({false, {{"q", 0, zebsim::Stats{{"LONG", Bytes(1100, 'v')}}}}});
  answer.replace(answer.find(wire("77 54")), 6, wire("77 04 'vvvv' 7A 50"));
  const Bytes expected = decode(true, answer);
  EXPECT_NE(expected, kEmpty);
  EXPECT_TRUE(isReadAs(expected, true, answer));
}

// A gateway that writes one block may announce any length: more blocks are read only if they follow
// as a serialiser cuts them.
TEST(UncutAnswer, ThatAnnouncesAFullBlockIsReadAsOneBlock) {
  const Bytes fullBlock = wire("7A 00000400") + Bytes(1024, 'v');
  for (const Bytes& at1024 :
       {wire(""), wire("78"), wire("73"), wire("77 00 78"), wire("7A 00000000 73"),
        fullBlock + wire("77 00 78"), fullBlock + wire("7A 00000000 73"), fullBlock + "v",
        wire("7A 00000401"), wire("7A FFFFFFFF"), wire("77 05 'ABCDE'"), wire("77 05 'ABCDEw'"),
        wire("7A 00000005 'ABCDE' 79"), wire("77 05 'ABCDE' 77 01 'A' 78"),
        fullBlock + fullBlock + fullBlock, wire("77 FF 'A'")}) {
    const Bytes id = Bytes(1024 - 12, 'v') + at1024 + Bytes(1025, 'v') + Bytes(300, 's');
    Bytes answer = encodeAnswer({true, {{"", 0, zebsim::Ids{id}}, {"next", 0, zebsim::Ids{"ID"}}}},
                                HeadBlocks::kOne);
    const Bytes expected = decode(false, answer);
    ASSERT_NE(expected, kEmpty);
    answer.replace(answer.find(wire("7870 7A")) + 3, 4, wire("00000400"));
    EXPECT_TRUE(isReadAs(expected, false, answer)) << testing::PrintToString(at1024);
  }
}

// Each response ends where the block head of another is expected, so that each seems to begin a
// walk over all the rest. Walked to the end, sixteen megabytes of them would cost seconds.
TEST(UncutAnswer, OfWhichEachResponseBeginsALongWalkIsRefused) {
  const Bytes response =
      Bytes(7, '\0') + wire("01") + Bytes(29, '\0') + wire("7A 00000400 0000 FFFFFFFF 00");
  static_assert(21 * 49 == 5 + 1024);
  ASSERT_EQ(response.size(), 49u);
  for (const std::uint32_t count : {100U, 19000U}) {
    Bytes answer = wire("01") + zebsim::words({count});
    for (std::uint32_t i = 0; i < count; ++i) answer += response;
    EXPECT_TRUE(isReadAs(count == 100 ? decode(false, answer) : kEmpty, false, answer)) << count;
  }
}

TEST(Answer, ReplacesTheOneBeforeAndReadsAsEmptyIfItIsRefused) {
  using namespace zebsim;
  GatewayServer server({.segment = 16});
  const Connection connection(server.port());
  GatewayToken* const token = connection.token;
  ResultSetToken* results = nullptr;
  TraceCapture trace(1);
  const std::function<int()> queries[] = {
      [&] { return getStats(token, &results); },
      [&] { return getStatsByStatId(token, "q", &results); },
      [&] { return getStatsByStatGroupId(token, "q", &results); },
      [&] { return getStatIds(token, &results); },
      [&] { return getStatIdsByStatGroupId(token, "q", &results); },
      [&] { return getResourceGroupIds(token, &results); }};
  for (int i = 0; i < 12; ++i) {  // twice, so that each answer is replaced by one of its kind
    const bool isStats = i % 6 < 3;
    const auto ask = [&](const Bytes& answer) {
      for (const char* name : {"GET_STATS", "STAT_IDS", "RESOURCE_GROUPS"})
        server.setAnswer(name, answer);
      trace.restart();
      EXPECT_EQ(queries[i % 6](), 0);
      const Bytes buffer(token->resultSetBuf, kResultSetBufferSize);
      EXPECT_TRUE(buffer.starts_with(decode(isStats, answer)) && buffer.ends_with(kEmpty));
    };
    const auto next = [&] {
      StatData stat;
      IdData id;
      return isStats ? getNextStat(results, &stat) : getNextId(results, &id);
    };
    const auto answerOf = [&](std::size_t count) {
      Response response{"q", 0, Ids(count, "LONG_ENOUGH")};
      if (isStats) response.items = Stats(count, {"ID", "LONG_ENOUGH"});
      return encodeAnswer({false, {response}});
    };
    const Bytes good = answerOf(3);
    for (const auto& [bad, reason] : {std::pair(Bytes(), "is malformed"),
                                      {good.substr(0, good.size() / 2), "is malformed"},
                                      {answerOf(12000), "outgrows"}}) {
      ask(bad);
      EXPECT_EQ(next(), -119);
      EXPECT_NE(trace.text().find(reason), Bytes::npos) << reason;
    }
    ask(good);
    EXPECT_EQ(next() + next() + next(), 0);
    EXPECT_EQ(next(), -113);
    ask(good);
    EXPECT_EQ(next(), 0);  // and no further: the walk must not go on in the next answer
  }
}

}  // namespace
}  // namespace zebtest
