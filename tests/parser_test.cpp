// Answers of the gateway, and the result sets that the parsers and the whole way over a socket make of them.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "gateway_server.h"
#include "scripted_gateway.h"
#include "stapi_zeb_statcomms.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace zebtest {
namespace {

enum class Kind { kIds, kStats };

// The answer to one element of a query; the values of ids are not looked at.
struct Item {
  Bytes id = "";
  Bytes value = "";
};
struct Response {
  Bytes query;
  int rc = 0;
  std::vector<Item> items = {};
};
using Responses = std::vector<Response>;

// ---- what a result set holds

Bytes word(std::size_t value) {
  const auto cut = static_cast<std::uint32_t>(value);
  return Bytes(reinterpret_cast<const char*>(&cut), sizeof cut);
}
Bytes counted(const Bytes& text) {
  return word(text.size()) + text;
}

const Bytes kEmpty = word(kTerminator);

Bytes resultSet(Kind kind, const Responses& responses) {
  Bytes out = (kind == Kind::kIds ? "ZEBIDSET" : "ZEBSTSET") + word(responses.size());
  for (const Response& response : responses) {
    out += counted(response.query) + word(static_cast<std::uint32_t>(response.rc));
    if (response.rc >= 0) out += word(response.items.size());
    for (const auto& [id, value] : response.items)
      out += counted(id) + (kind == Kind::kIds ? "" : counted(value));
  }
  return out + kEmpty;
}

// One entry of a walk.
Bytes entry(const Bytes& query, int rc, const Bytes& id = "", const Bytes& value = "") {
  return query + "|" + std::to_string(rc) + "|" + id + "|" + value;
}

std::vector<Bytes> entriesOf(Kind kind, const Responses& responses) {
  std::vector<Bytes> entries;
  for (const auto& [query, rc, items] : responses) {
    if (rc < 0) entries.push_back(entry(query, rc));
    for (const auto& [id, value] : items)
      entries.push_back(entry(query, rc, id, kind == Kind::kIds ? "" : value));
  }
  return entries;
}

Bytes textAt(const char* text, int length) {
  return {text, static_cast<std::size_t>(length)};
}

std::vector<Bytes> walk(Kind kind, ResultSetToken* resultSet) {
  std::vector<Bytes> entries;
  IdData id = {};
  StatData stat = {};
  int rc = kind == Kind::kIds ? getFirstId(resultSet, &id) : getFirstStat(resultSet, &stat);
  while (rc == 0) {
    if (kind == Kind::kIds) {
      entries.push_back(entry(textAt(id.queryElementPtr, id.queryElementLen), id.queryElementRC,
                              textAt(id.idPtr, id.idLen)));
      rc = getNextId(resultSet, &(id = {}));
    } else {
      entries.push_back(entry(textAt(stat.queryElementPtr, stat.queryElementLen), stat.queryElementRC,
                              textAt(stat.statIdPtr, stat.statIdLen),
                              textAt(stat.statValuePtr, stat.statValueLen)));
      rc = getNextStat(resultSet, &(stat = {}));
    }
  }
  EXPECT_EQ(rc, -113);
  return entries;
}

// ---- the parsers, and the whole way

// Answer and buffer are blocks of their exact size, so that a sanitiser sees every step outside. The exported
// forms do not know the answer's length.
Bytes parse(Kind kind, std::string_view answer, bool isExportedForm = false) {
  static const auto buffer = std::make_unique<char[]>(kResultSetBufferSize);
  memset(buffer.get(), 0xCC, kResultSetBufferSize);
  const auto copy = std::make_unique<std::uint8_t[]>(answer.size());
  std::copy(answer.begin(), answer.end(), copy.get());
  int rc = 0;
  if (isExportedForm) {
    rc = (kind == Kind::kIds ? parseIdsData : parseStatsData)(copy.get(), buffer.get());
  } else {
    rc = (kind == Kind::kIds ? zeb::parseIds : zeb::parseStats)({copy.get(), answer.size()}, buffer.get());
  }
  EXPECT_EQ(rc != 0, Bytes(buffer.get(), kEmpty.size()) == kEmpty);
  if (rc != 0) return kEmpty;
  const Bytes written(buffer.get(), kResultSetBufferSize);
  return written.substr(0, written.find_last_not_of(Bytes("\xCC\0", 2)) + 1);  // 0: what a dump would read
}

class Session {
 public:
  explicit Session(std::size_t segment = 0) : server_({.segment = segment}) {
    char* version = nullptr;
    if (openGatewayConnection(server_.port(), &token_, &version) != 0)
      throw std::runtime_error("not connected");
    free(version);
  }
  ~Session() { EXPECT_EQ(closeGatewayConnection(&token_), 0); }

  // Asks, with this answer. The last word of the buffer is out of its reach.
  ResultSetToken* query(Kind kind, const Bytes& answer) {
    server_.setAnswer(kind == Kind::kIds ? "STAT_IDS" : "GET_STATS", answer);
    ResultSetToken* resultSet = nullptr;
    EXPECT_EQ((kind == Kind::kIds ? getStatIds : getStats)(token_, &resultSet), 0);
    EXPECT_TRUE(buffer().ends_with(kEmpty));
    return resultSet;
  }
  // The code of a walk's first step.
  int firstOf(Kind kind, const Bytes& answer) {
    ResultSetToken* resultSet = query(kind, answer);
    StatData stat;
    IdData id;
    return kind == Kind::kIds ? getFirstId(resultSet, &id) : getFirstStat(resultSet, &stat);
  }
  [[nodiscard]] Bytes buffer() const { return {token_->resultSetBuf, kResultSetBufferSize}; }

 private:
  zebsim::GatewayServer server_;
  GatewayToken* token_ = nullptr;
};

// ---- recorded answers

struct Recorded {
  Bytes answer;
  Kind kind;
  Responses responses;
};

Recorded readRecorded(const std::string& name) {
  const std::filesystem::path stem = std::filesystem::path(ZEB_REPLIES_DIR) / name;
  std::ifstream binary(stem.string() + ".bin", std::ios::binary);
  std::ifstream text(stem.string() + ".json");
  const auto told = nlohmann::json::parse(text);
  const auto textOf = [](const nlohmann::json& item) { return wire(item.at("hex").get<std::string>()); };
  const auto none = nlohmann::json::array();
  Recorded recorded = {{std::istreambuf_iterator<char>(binary), {}},
                       told.at("kind") == "stats" ? Kind::kStats : Kind::kIds,
                       {}};
  for (const auto& response : told.at("responses")) {
    Response& read =
        recorded.responses.emplace_back(Response{textOf(response.at("query")), response.at("rc")});
    for (const auto& id : response.value("ids", none)) read.items.push_back({textOf(id), ""});
    for (const auto& stat : response.value("stats", none))
      read.items.push_back({textOf(stat.at("id")), textOf(stat.at("value"))});
  }
  return recorded;
}

class RecordedAnswer : public testing::TestWithParam<const char*> {};

TEST_P(RecordedAnswer, isReadAsItsDescriptionSays) {
  const auto [answer, kind, responses] = readRecorded(GetParam());
  const Bytes expected = resultSet(kind, responses);
  EXPECT_EQ(parse(kind, answer), expected);
  EXPECT_EQ(parse(kind, answer, true), expected);
  Session session(1);  // byte by byte
  EXPECT_EQ(walk(kind, session.query(kind, answer)), entriesOf(kind, responses));
  EXPECT_EQ(session.buffer().substr(0, expected.size()), expected);
  const TraceCapture trace(4);  // under which the buffer is written in another way
  EXPECT_EQ(parse(kind, answer), expected);
}

TEST_P(RecordedAnswer, cutShortAnywhereReadsAsEmpty) {
  const auto [answer, kind, responses] = readRecorded(GetParam());
  const std::size_t size = answer.size() - 2;  // the last bytes only close objects
  for (std::size_t cut = 0; cut < size; ++cut)
    ASSERT_EQ(parse(kind, std::string_view(answer).substr(0, cut)), kEmpty) << cut;
  Session session;
  for (std::size_t cut = 0; cut < size; cut += 1 + size / 16)
    ASSERT_EQ(session.firstOf(kind, answer.substr(0, cut)), -119) << cut;
}

INSTANTIATE_TEST_SUITE_P(Jdk, RecordedAnswer,
                         testing::Values("groups_single", "ids_long_block", "ids_no_response", "ids_several",
                                         "stats_long_query", "stats_several", "stats_single",
                                         "stats_value_over_1024_long_end", "stats_value_over_1024_short_end",
                                         "stats_value_over_255"),
                         [](const auto& told) { return std::string(told.param); });

// ---- answers made by hand; EE stands for what is stepped over

Bytes be16(int value) {
  return {static_cast<char>(value >> 8), static_cast<char>(value)};
}
Bytes be32(std::int64_t value) {
  return be16(static_cast<int>(value >> 16)) + be16(static_cast<int>(value));
}
Bytes text16(const Bytes& text) {
  return be16(static_cast<int>(text.size())) + text;
}
Bytes skipped(std::size_t size) {
  return Bytes(size, '\xEE');
}
Bytes list(std::int64_t responses) {
  return wire("01") + be32(responses);
}

Bytes head(const Bytes& query, int rc, const Bytes& block = wire("77 EE")) {
  return skipped(6) + text16("class A") + skipped(13) + text16("B") + skipped(13) + block + text16(query) +
         be32(rc);
}
Bytes failed(const Bytes& query, int rc) {
  return head(query, rc) + skipped(1);
}
Bytes idsResponse(const Bytes& query, const std::vector<Item>& ids) {
  Bytes out = head(query, 0) + be32(std::ssize(ids));
  for (const Item& item : ids) out += text16(item.id);
  return out + skipped(1);
}
// K and what stands ahead of the records.
Bytes statsHead(const Bytes& query, std::int64_t records) {
  return head(query, 0) + be32(records) + skipped(2) + text16("desc") + skipped(8);
}
Bytes shortRecord(const Bytes& id, const Bytes& value) {
  return skipped(5) + wire("77 EE") + text16(id) + text16(value) + skipped(2);
}
// A record whose first block has this room; data is all that stands behind the value's length.
Bytes longRecord(const Bytes& id, int room, int length, const Bytes& data) {
  return skipped(5) + wire("7A EEEE") + be16(static_cast<int>(id.size()) + 4 + room) + text16(id) +
         be16(length) + data + skipped(2);
}
Bytes longPiece(const Bytes& data) {
  return wire("7A EEEE") + text16(data);
}
Bytes shortPiece(const Bytes& data) {
  return wire("77") + static_cast<char>(data.size()) + data;
}

TEST(Answer, ofAnyFormButAListIsOneResponse) {
  for (const char* form : {"00", "02", "FF"})
    EXPECT_EQ(parse(Kind::kIds, wire(form) + idsResponse("q", {{"ID"}})),
              resultSet(Kind::kIds, {{"q", 0, {{"ID"}}}}));
  for (const Kind kind : {Kind::kIds, Kind::kStats})
    EXPECT_EQ(parse(kind, list(0) + skipped(9)), resultSet(kind, {}));
}

TEST(Answer, withIdsGoesOnBehindFailedEmptyAndLongBlockResponses) {
  const Bytes answer = list(5) + failed("bad", -1) + idsResponse("none", {}) + failed("worse", INT32_MIN) +
                       head("block", 7, wire("7A EEEEEEEE")) + be32(1) + text16("ONE") + skipped(1) +
                       idsResponse("", {{""}, {"LAST"}});
  const Responses responses = {
      {"bad", -1}, {"none"}, {"worse", INT32_MIN}, {"block", 7, {{"ONE"}}}, {"", 0, {{""}, {"LAST"}}}};
  EXPECT_EQ(parse(Kind::kIds, answer), resultSet(Kind::kIds, responses));
}

TEST(Answer, withoutStatisticsEndsAsTheSerialiserEndsIt) {
  const Bytes ended = head("none", 0) + be32(0) + wire("78");
  EXPECT_EQ(parse(Kind::kStats, wire("00") + ended), resultSet(Kind::kStats, {{"none"}}));
  Bytes next = statsHead("next", 1) + shortRecord("ID", "v");
  next.replace(0, 4, wire("ACED0005"));
  const Bytes expected = resultSet(Kind::kStats, {{"bad", -9}, {"none"}, {"next", 0, {{"ID", "v"}}}});
  EXPECT_EQ(parse(Kind::kStats, list(3) + failed("bad", -9) + ended + next), expected);
  // Anything else has the fields of an answer with statistics, though it begins alike.
  for (const char* start : {"78 EE", "78 AC", "EE 78"}) {
    const Bytes full = head("none", 0) + be32(0) + wire(start) + text16("desc") + skipped(8);
    EXPECT_EQ(parse(Kind::kStats, list(3) + failed("bad", -9) + full + next), expected) << start;
  }
}

TEST(Answer, withALongBlockTakesTheValueFromAllItsPieces) {
  struct Case {
    const char* what;
    int room;
    Bytes value;
    Bytes data;
  };
  const Bytes big(32767 - 3, 'b');
  const Case cases[] = {
      {"room to spare", 6, "value", "value"},
      {"room exactly", 5, "value", "value"},
      {"room one short", 4, "value", "valu" + shortPiece("e")},
      {"no room", 0, "value", longPiece("value")},
      {"empty value", 0, "", ""},
      {"long pieces, then short ones", 1, "abcdefg",
       "a" + longPiece("bc") + longPiece("d") + shortPiece("ef") + shortPiece("g")},
      {"an empty piece", 1, "ab", "a" + longPiece("") + shortPiece("") + shortPiece("b")},
      {"behind a short piece any marker", 1, "abcdef",
       "a" + shortPiece("b") + wire("7A 02 'cd'") + wire("00 02 'ef'")},
      {"the longest value", 3, "aaa" + big, "aaa" + longPiece(big)},
  };
  for (const Case& c : cases) {
    const int length = static_cast<int>(c.value.size());
    const Bytes answer =
        wire("00") + statsHead("q", 2) + longRecord("ID", c.room, length, c.data) + shortRecord("END", "");
    EXPECT_EQ(parse(Kind::kStats, answer),
              resultSet(Kind::kStats, {{"q", 0, {{"ID", c.value}, {"END", ""}}}}))
        << c.what;
  }
}

TEST(Answer, thatIsMalformedReadsAsEmptyAndTheNextOneIsRead) {
  auto stat = [](const Bytes& record) { return wire("00") + statsHead("q", 1) + record; };
  auto ids = [](const Bytes& body) { return wire("00") + head("q", 0) + body; };
  const Bytes plenty = skipped(70000);  // a length that is taken without its sign does not run past the end
  struct Case {
    const char* what;
    Kind kind;
    Bytes answer;
  };
  const Case cases[] = {
      {"nothing", Kind::kIds, ""},
      {"half a count", Kind::kStats, wire("01 0000")},
      {"more responses than there are", Kind::kIds, list(2) + idsResponse("q", {{"ID"}})},
      {"the largest count of responses", Kind::kStats,
       list(INT32_MAX) + statsHead("q", 1) + shortRecord("ID", "v")},
      {"negative A", Kind::kIds, wire("00") + skipped(6) + wire("FFFF") + plenty},
      {"negative B", Kind::kStats,
       wire("00") + skipped(6) + text16("") + skipped(13) + wire("8000") + plenty},
      {"negative query length", Kind::kIds,
       wire("00") + skipped(6) + text16("") + skipped(13) + text16("") + skipped(13) + wire("77 EE FFFE") +
           plenty},
      {"more ids than there are", Kind::kIds, ids(be32(2) + text16("ID") + skipped(1))},
      {"the largest count of ids", Kind::kIds, ids(be32(INT32_MAX) + plenty)},
      {"negative id length", Kind::kIds, ids(be32(1) + wire("FFFF") + plenty)},
      {"more statistics than there are", Kind::kStats,
       wire("00") + statsHead("q", 2) + shortRecord("ID", "v")},
      {"negative D", Kind::kStats, ids(be32(1) + skipped(2) + wire("FFFF") + plenty)},
      {"negative statistic id", Kind::kStats, stat(skipped(5) + wire("77 EE FFFF") + plenty)},
      {"negative value", Kind::kStats,
       stat(skipped(5) + wire("77 EE") + text16("ID") + wire("FFFF") + plenty)},
      {"negative value in a long block", Kind::kStats, stat(longRecord("ID", 9, -1, plenty))},
      {"negative room", Kind::kStats, stat(longRecord("ID", -1, 5, shortPiece("value") + plenty))},
      {"negative room, empty value", Kind::kStats, stat(longRecord("ID", -1, 0, plenty))},
      {"no further piece", Kind::kStats, stat(longRecord("ID", 4, 5, "valu" + plenty))},
      {"last piece too long", Kind::kStats, stat(longRecord("ID", 4, 5, "valu" + shortPiece("e!")))},
      {"last long piece too long", Kind::kStats, stat(longRecord("ID", 4, 5, "valu" + longPiece("e!")))},
      {"negative piece", Kind::kStats, stat(longRecord("ID", 4, 5, "valu" + wire("7A EEEE FFFF") + plenty))},
  };
  Session session;
  const TraceCapture trace(4);
  for (const Case& c : cases) {
    EXPECT_EQ(parse(c.kind, c.answer), kEmpty) << c.what;
    EXPECT_EQ(session.firstOf(c.kind, c.answer), -119) << c.what;
  }
  std::size_t told = 0;
  for (const std::string& line : trace.lines()) told += line.find("*EXC*  stapi_zeb_statcomms") != line.npos;
  EXPECT_EQ(told, std::size(cases) * 2);
  EXPECT_EQ(walk(Kind::kIds, session.query(Kind::kIds, wire("00") + idsResponse("q", {{"ID"}}))),
            std::vector{entry("q", 0, "ID")});
}

// One response that fills so much of a buffer.
Responses filling(Kind kind, std::size_t size) {
  const Bytes big(32000, 'b');
  Responses responses = {{"q", 0, std::vector<Item>(4, {kind == Kind::kIds ? big : "ID", big})}};
  const std::size_t left = size + kEmpty.size() - resultSet(kind, responses).size();
  responses[0].items.push_back(kind == Kind::kIds ? Item{Bytes(left - 4, 'l')}
                                                  : Item{"ID", Bytes(left - 10, 'l')});
  return responses;
}

// The last value comes in two pieces, so that the second one meets the end of the buffer.
Bytes answerOf(Kind kind, const Responses& responses) {
  const std::vector<Item>& items = responses[0].items;
  if (kind == Kind::kIds) return wire("00") + idsResponse("q", items);
  Bytes answer = wire("00") + statsHead("q", 5);
  for (std::size_t i = 0; i < 4; ++i) answer += shortRecord(items[i].id, items[i].value);
  const Bytes& last = items[4].value;
  return answer + longRecord("ID", 1000, static_cast<int>(last.size()),
                             last.substr(0, 1000) + longPiece(last.substr(1000)));
}

TEST(Answer, fillsTheBufferToItsLastWordButNotOneByteFurther) {
  const std::size_t room = kResultSetBufferSize - kEmpty.size();
  Session session;
  for (const Kind kind : {Kind::kIds, Kind::kStats}) {
    for (const std::size_t size : {room - 4, room - 3, room - 2, room - 1, room, room + 1, room + 5000}) {
      SCOPED_TRACE(size);
      const Responses responses = filling(kind, size);
      const Bytes answer = answerOf(kind, responses);
      const bool fits = size <= room;
      const TraceCapture trace(1);
      const Bytes content = resultSet(kind, responses).substr(0, size);
      EXPECT_TRUE(parse(kind, answer).substr(0, size) == (fits ? content : kEmpty));
      if (fits) {
        EXPECT_TRUE(walk(kind, session.query(kind, answer)) == entriesOf(kind, responses));
      } else {
        EXPECT_EQ(session.firstOf(kind, answer), -119);
      }
      EXPECT_EQ(trace.text().find("outgrows") == std::string::npos, fits);
      EXPECT_EQ(trace.text().find("malformed"), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace zebtest
