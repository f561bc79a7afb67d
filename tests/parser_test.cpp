// Answers of the gateway, and the result sets that the parsers make of them, directly and over a
// socket. The slow decoder knows what is right.
#include <filesystem>
#include <functional>
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

using namespace zebsim;

// An answer in which every form of response and of value occurs.
Bytes makeAnswer(bool isStats) {
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

TEST(RecordedAnswer, IsReadWholeAndByTheExportedFormsThatDoNotKnowItsLength) {
  for (const auto& file : std::filesystem::directory_iterator(ZEB_REPLIES_DIR)) {
    const std::string name = file.path().stem();
    if (file.path().extension() != ".bin" || name == "protocol") continue;
    SCOPED_TRACE(name);
    const bool isStats = name.starts_with("stats");
    const Bytes answer = readFile(file.path());
    Bytes content;
    ASSERT_TRUE(decodeSlowly(isStats, answer, content));
    const auto* bytes = reinterpret_cast<const unsigned char*>(answer.data());
    EXPECT_EQ((isStats ? parseStatsData : parseIdsData)(bytes, sealedBuffer()), 0);
    EXPECT_TRUE(std::string_view(sealedBuffer(), kResultSetBufferSize).starts_with(content));
    EXPECT_STREQ(compareParser(isStats, answer), nullptr);
    const TraceCapture trace(4);  // under which the buffer is written in another way
    EXPECT_STREQ(compareParser(isStats, answer), nullptr);
  }
}

// Every field is at some byte, so all are changed. After the answer there is room for lengths that
// are taken without their sign.
TEST(Answer, CutShortAnywhereOrChangedInAnyFieldIsReadAsTheSlowDecoderReadsIt) {
  std::string traced;
  for (const bool isStats : {false, true}) {
    const Bytes answer = makeAnswer(isStats);
    for (std::size_t at = 0; at <= answer.size(); ++at) {
      if (answer.compare(at, 5, "vvvvv") == 0) continue;
      ASSERT_STREQ(compareParser(isStats, answer.substr(0, at)), nullptr) << "cut at " << at;
      for (const char* extreme : {"00", "FF", "8000", "7FFFFFFF", "FFFFFFFF"}) {
        const Bytes value = wire(extreme);
        const Bytes changed = Bytes(answer).replace(at, value.size(), value) + Bytes(70000, '\0');
        ASSERT_STREQ(compareParser(isStats, changed), nullptr) << extreme << " at " << at;
      }
    }
    const TraceCapture trace(4);
    EXPECT_STREQ(compareParser(isStats, answer), nullptr);
    for (const std::string& line : splitLines(trace.story()))
      if (line.starts_with("DEBUG  stapi_zeb_statcomms.parse")) traced += line + "\n";
  }
  expectRecorded(traced, ZEB_TESTDATA_DIR "/answers_trace.txt");
}

// Once a block of a value is short, the next ones are read as short, whatever their marker.
TEST(CutValue, OfShortBlocksIsReadWhateverTheirMarkers) {
  const Bytes whole = encodeAnswer({false, {{"q", 0, Stats{{"LONG", Bytes(1100, 'v')}}}}});
  Bytes content;
  ASSERT_TRUE(decodeSlowly(true, whole, content));
  Bytes other = whole;
  other.replace(other.find(wire("77 54")), 6, wire("77 04 'vvvv' 7A 50"));
  EXPECT_STREQ(compareParser(true, other, &content), nullptr);
}

// A gateway that writes one block may announce any length: more blocks are read only if they follow
// as a serialiser cuts them.
TEST(UncutAnswer, ThatAnnouncesAFullBlockIsReadAsOneBlock) {
  const Bytes fullBlock = wire("7A 00000400") + Bytes(1024, 'v');
  for (const Bytes& at1024 :
       {wire(""), wire("78"), wire("73"), wire("77 00 78"), wire("7A 00000000 73"),
        fullBlock + wire("77 00 78"), fullBlock + "v", wire("7A 00000401"), wire("7A FFFFFFFF"),
        wire("77 05 'ABCDE'"), wire("77 05 'ABCDEw'"), wire("7A 00000005 'ABCDE' 79"),
        wire("77 05 'ABCDE' 77 01 'A' 78"), fullBlock + fullBlock + fullBlock, wire("77 FF 'A'")}) {
    const Bytes id = Bytes(1024 - 12, 'v') + at1024 + Bytes(1025, 'v') + Bytes(300, 's');
    Bytes answer =
        encodeAnswer({true, {{"", 0, Ids{id}}, {"next", 0, Ids{"ID"}}}}, HeadBlocks::kOne);
    Bytes content;
    ASSERT_TRUE(decodeSlowly(false, answer, content));
    answer.replace(answer.find(wire("7870 7A")) + 3, 4, wire("00000400"));
    EXPECT_STREQ(compareParser(false, answer, &content), nullptr) << testing::PrintToString(at1024);
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
    Bytes answer = wire("01") + words({count});
    for (std::uint32_t i = 0; i < count; ++i) answer += response;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(answer.data());
    EXPECT_EQ(zeb::parseIds({bytes, answer.size()}, sealedBuffer()) == 0, count == 100);
  }
}

TEST(Answer, ReplacesTheOneBeforeAndReadsAsEmptyIfItIsRefused) {
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
    for (const auto& [answer, reason] : {std::pair(Bytes(), "is malformed"),
                                         {good.substr(0, good.size() / 2), "is malformed"},
                                         {answerOf(12000), "outgrows"},
                                         {good, ""},
                                         {good, ""}}) {
      for (const char* name : {"GET_STATS", "STAT_IDS", "RESOURCE_GROUPS"})
        server.setAnswer(name, answer);
      trace.restart();
      EXPECT_EQ(queries[i % 6](), 0);
      EXPECT_NE(trace.text().find(reason), Bytes::npos) << reason;
      for (const int rc : answer == good ? std::vector{0, 0, 0, -113} : std::vector{-119})
        EXPECT_EQ(next(), rc);
    }
  }
}

}  // namespace
}  // namespace zebtest
