// Result sets made by hand: the walks over them, their query strings, owners, copies and dumps.

#include "stapi_zeb_resultsetbuffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <set>
#include <thread>

#include "scripted_gateway.h"
#include "trace_capture.h"

namespace zebtest {
namespace {

using testing::AllOf, testing::ElementsAre, testing::HasSubstr;

const std::string kEnd(reinterpret_cast<const char*>(&kTerminator), sizeof kTerminator);
// What a dump may read after the end: no old memory.
const std::string kNothing = kEnd + std::string(zeb::kDumpReach - kEnd.size(), '\0');

struct Element {
  std::string name;
  int rc;
  std::vector<std::string> ids = {};  // the value of a statistic is its id, twice
};

// A token and its buffer, of exactly the size that buffers have. A dump from another thread finds
// nothing in the buffer until all is there.
struct Answer {
  Answer(bool isStats, const std::vector<Element>& elements, std::uint32_t owner = kOwnerUser) {
    EXPECT_EQ(createResultSet(&token, "ZEBRSTST", owner), 0);
    char* const start = token->head = buffer.get();
    memset(start, 0xCC, kResultSetBufferSize);
    zeb::sealBuffer(start);
    EXPECT_EQ(std::string(start, zeb::kDumpReach), kNothing);
    zeb::ResultSetWriter out(start);
    out.marker(isStats ? "ZEBSTSET" : "ZEBIDSET");
    out.integer(static_cast<int>(elements.size()));
    for (const auto& [name, rc, ids] : elements) {
      const std::string shown = name + formatText("(%d)", rc);
      out.counted(name);
      out.integer(rc);
      if (rc < 0) entries += shown + " ";
      if (rc >= 0) out.integer(static_cast<int>(ids.size()));
      for (const std::string& id : ids) {
        entries += shown + id + " ";
        out.counted(id);
        if (isStats) out.counted(id + id);
      }
    }
    EXPECT_TRUE(out.ok() && zeb::isTerminator(start));
    const char* const end = start + zeb::kContentSize - out.room();
    out.finish();
    const std::size_t shown =
        std::min(zeb::kDumpReach, static_cast<std::size_t>(start + kResultSetBufferSize - end));
    EXPECT_EQ(std::string(end, shown), kNothing.substr(0, shown));
  }
  ~Answer() { deleteResultSet(&token); }
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;

  std::unique_ptr<char[]> buffer{new char[kResultSetBufferSize]};
  ResultSetToken* token = nullptr;
  std::string entries;  // what a walk finds, as walk() shows it
};

void put(const Answer& answer, std::size_t offset, int value) {
  memcpy(&answer.buffer[offset], &value, sizeof value);
}

std::string entryOf(const IdData& r) {
  return {r.idPtr, r.idPtr + r.idLen};
}
std::string entryOf(const StatData& r) {
  const std::string id(r.statIdPtr, r.statIdPtr + r.statIdLen);
  return std::string(r.statValuePtr, r.statValuePtr + r.statValueLen) == id + id ? id : "?";
}

// One call: "ELEMENT(CODE)ID " or the call's code. A negative element must leave the fields of an
// entry alone, and a call that finds nothing must leave the walk where it was.
template <typename Record>
std::string step(int (*call)(ResultSetToken*, Record*) noexcept, ResultSetToken* token) {
  Record record;
  memset(&record, 'Z', sizeof record);
  const ResultSetToken before = *token;
  if (const int rc = call(token, &record); rc != 0) {
    EXPECT_EQ(memcmp(&before, token, sizeof before), 0) << "after " << rc;
    return std::to_string(rc);
  }
  std::string shown(record.queryElementPtr, record.queryElementPtr + record.queryElementLen);
  shown += formatText("(%d)", record.queryElementRC);
  if (record.queryElementRC >= 0) return shown + entryOf(record) + " ";
  const std::string entry(reinterpret_cast<char*>(&record.queryElementRC + 1),
                          reinterpret_cast<char*>(&record + 1));
  EXPECT_EQ(entry.find_first_not_of('Z'), entry.npos);
  return shown + " ";
}

// A whole walk, with the code that ended it.
std::string walk(bool isStats, bool withFirst, ResultSetToken* token) {
  const auto take = [&](bool isFirst) {
    return isStats ? step(isFirst ? getFirstStat : getNextStat, token)
                   : step(isFirst ? getFirstId : getNextId, token);
  };
  std::string found = take(withFirst);
  while (found.back() == ' ' && found.size() < 500000) found += take(false);
  return found;
}

struct WalkOf : testing::TestWithParam<bool> {
  const bool isStats = GetParam();
};
INSTANTIATE_TEST_SUITE_P(StatsAndIds, WalkOf, testing::Bool());

TEST_P(WalkOf, FindsEveryEntryAndJoinsTheGoodIds) {
  const std::string a(31990, 'A'), b(31998, 'B'), c(31999, 'C');
  std::vector<std::string> ofEachSize;
  std::string joined;
  for (std::size_t size = 0; size < 70; ++size)
    joined += ":" + ofEachSize.emplace_back(size, static_cast<char>('0' + size));
  const std::pair<std::vector<Element>, std::string> answersAndQueries[] = {
      {{}, "-131"},
      {{{"Q1", 0, {"a", "b", "c"}}, {"Q2", -5}, {"Q3", 0, {"d"}}}, "a:b:c:d"},
      {{{"Q1", -5}, {"Q2", 4, {"a", "b"}}, {"Q3", -6}}, "-131"},
      {{{"Q1", 0}, {"Q2", 0, {"a"}}, {"Q3", 0}, {"Q4", 0, {"b"}}}, "a:b"},
      {{{"Q1", 0, {"a"}}, {"Q2", 0}, {"Q3", 4, {"b"}}, {"Q4", -1}, {"Q5", 0}}, "a"},
      {{{"Q1", 4, {"a"}}, {"Q2", 0, {"b"}}}, ":b"},
      {{{"", 0, {"", kEnd}}, {kEnd, 0, {"a"}}}, ":" + kEnd + ":a"},
      {{{"Q1", 0, ofEachSize}}, joined.substr(1)},
      {{{"Q1", 0, {a, "12345678"}}}, a + ":12345678"},
      {{{"Q1", 0, {a, "123456789", "C"}}}, a + ":"},
      {{{"Q1", 0, {b, "C"}}}, b + ":"},
      {{{"Q1", 0, {c, "C"}}}, c},
      {{{"Q1", 0, {c + "C", "C"}}}, "-131"},
      {{{"", 0, {std::string(isStats ? 51188 : 153568, 'x')}}}, "-131"}};  // fills the buffer
  for (const int level : {0, 2, 3}) {  // from level 2 on there are no fast paths
    for (const auto& [elements, expected] : answersAndQueries) {
      TraceCapture trace(level);
      const Answer answer(isStats, elements);
      trace.restart();
      EXPECT_EQ(walk(isStats, false, answer.token), answer.entries + "-113") << "without a first";
      EXPECT_TRUE(level != 2 || std::ranges::count(trace.text(), '\n') ==
                                    std::ranges::count(answer.entries, ' '));
      EXPECT_EQ(walk(isStats, false, answer.token), "-113") << "the end stays the end";
      EXPECT_EQ(walk(isStats, true, answer.token), answer.entries + "-113") << "again";
      trace.restart();
      char* query = nullptr;
      const int rc = getIdQuery(answer.token, &query);
      EXPECT_EQ(rc == 0 ? query : std::to_string(rc), expected);
      EXPECT_TRUE(level != 2 || expected != "a:b:c:d" ||
                  std::ranges::count(trace.text(), '\n') == 6)
          << "each step and the query";
      EXPECT_EQ(query, rc == 0 ? answer.token->verifiedQueryString : nullptr);
    }
  }
}

TEST_P(WalkOf, RefusesDamagedBuffersAndStaysInside) {
  const std::string all = "Q1(0)aa Q1(0)bb Q2(0)cc ", ids = "aa:bb:cc";
  const std::size_t second = isStats ? 54 : 38;  // where the second element begins
  const Answer answer(isStats, {{"Q1", 0, {"aa", "bb"}}, {"Q2", 0, {"cc"}}});
  for (const int bad : {-1, INT_MIN, INT_MAX, 153600, 153600 - 16, 153600 - 13, 153600 - 21}) {
    // Lengths, and the size of what is found before them.
    for (const auto& [offset, found] :
         {std::pair(12UL, 0UL), {26, 0}, {32, isStats ? 0 : 8}, {second, 16}, {second + 14, 16}}) {
      const int good = zeb::loadInteger(&answer.buffer[offset]);
      put(answer, offset, bad);
      EXPECT_EQ(walk(isStats, true, answer.token), all.substr(0, found) + "-119") << bad;
      char* query = nullptr;
      EXPECT_EQ(getIdQuery(answer.token, &query) == 0 ? query : "", ids.substr(0, found / 3));
      put(answer, offset, good);
    }
  }
  put(answer, isStats ? 40 : 32, kTerminator);
  for (const int level : {0, 2}) {
    const TraceCapture trace(level);
    EXPECT_EQ(walk(isStats, true, answer.token), "Q1(0)aa -113") << "the end is where an entry was";
  }
  put(answer, 8, kTerminator);
  EXPECT_EQ(walk(isStats, true, answer.token), "-113") << "the end is where the count was";
}

// Under way a step checks them in another way than the first one.
TEST_P(WalkOf, RefusesWrongArgumentsUnderWay) {
  const Answer answer(isStats, {{"Q1", 0, {"a", "b", "c"}}}), other(!isStats, {});
  ResultSetToken* const token = answer.token;
  const auto next = [&] { return isStats ? step(getNextStat, token) : step(getNextId, token); };
  EXPECT_EQ(next(), "Q1(0)a ");
  EXPECT_EQ(isStats ? getNextStat(token, nullptr) : getNextId(token, nullptr),
            isStats ? -129 : -128);
  token->head = other.token->head;
  EXPECT_EQ(next(), "-119");
  token->head = nullptr;
  EXPECT_EQ(next(), "-110");
}

TEST(Owner, IsTheThreadAndTheProcessOfTheConnection) {
  zebsim::GatewayServer server;
  const Connection connection(server.port());
  const std::vector<Element> elements = {{"Q1", 0, {"a", "b", "c"}}};
  const Answer stats(true, elements, kOwnerGateway), ids(false, elements, kOwnerGateway);
  const Answer copied(false, elements);
  const auto codes = [&] {
    StatData stat;
    IdData id;
    char* query;
    ResultSetToken *copy = nullptr, *answer = nullptr;
    // The last two leave walks under way for the others.
    const std::set<int> found = {
        getNextStat(stats.token, &stat),  getNextId(ids.token, &id),
        getIdQuery(ids.token, &query),    getStats(connection.token, &answer),
        dumpResultSet(ids.token),         copyResultSet(ids.token, &copy),
        getFirstStat(stats.token, &stat), getFirstId(ids.token, &id)};
    freeResultSet(&copy);
    EXPECT_EQ(getFirstId(copied.token, &id), 0) << "anyone may use a copy";
    EXPECT_EQ(std::string(id.contentMarker, 8), "ZEBIDSET");
    return found;
  };
  const TraceCapture trace(1);
  EXPECT_THAT(codes(), ElementsAre(0));
  EXPECT_TRUE(trace.text().starts_with("Dump of ResultSet("));
  EXPECT_EXIT(_exit(codes() == std::set{-123} ? 0 : 1), testing::ExitedWithCode(0), "");
  std::thread([&] { EXPECT_THAT(codes(), ElementsAre(-124)); }).join();
  const auto pid = static_cast<unsigned>(getpid()), tid = static_cast<unsigned>(pthread_self());
  EXPECT_THAT(trace.text(), AllOf(HasSubstr(formatText(", owningPid=%x\n", pid)),
                                  HasSubstr(formatText(", owningPid=%d\n", pid)),
                                  HasSubstr(formatText(", owningTid=%x\n", tid)),
                                  HasSubstr(formatText(", owningTid=%d\n", tid))));
}

TEST(ResultSet, OutlivesItsSourceAsACopyAndIsRefusedIfItCannotBeUsed) {
  const Answer source(false, {{"Q1", 0, {"a", "b"}}}, kOwnerGateway);
  ResultSetToken *token = source.token, *copy = nullptr;
  token->spare = 77;
  put(source, kResultSetBufferSize - 4, 0x12345678);
  step(getFirstId, token);
  ASSERT_EQ(copyResultSet(token, &copy), 0);
  EXPECT_EQ(std::string(copy->eyecatcher, 8) + formatText("%u", copy->spare), "ZEBRSUSR77");
  EXPECT_EQ(memcmp(copy->head, token->head, kResultSetBufferSize), 0);
  put(source, 0, kTerminator);
  EXPECT_EQ(copy->next, copy->head);
  EXPECT_EQ(walk(false, false, copy), source.entries + "-113") << "it is not begun yet";
  EXPECT_EQ(freeResultSet(&copy), 0);

  EXPECT_EQ(getIdQuery(token, nullptr), -119) << "replaces the code of the null address";
  EXPECT_EQ((std::set{copyResultSet(token, &copy), dumpResultSet(token)}), std::set{-119});
  EXPECT_EQ(createResultSet(&copy, "ZEBRSUSR", kOwnerUser), 0);
  EXPECT_EQ(freeResultSet(&copy), 0) << "a copy without a buffer";
}

TEST(Buffer, IsNotWrittenWithoutArguments) {
  char buffer[] = "........", *cursor = buffer, *none = nullptr;
  int end = -1;
  ResultSetToken* token = nullptr;
  EXPECT_EQ(addIdStr(&cursor, "a"), 0);
  EXPECT_EQ(zeb::loadInteger(buffer), 1);
  EXPECT_EQ(std::string(buffer + 4, cursor + 3), std::string("a\0..", 4));
  EXPECT_EQ(checkTerminator(cursor, &end) + end, 0);
  EXPECT_EQ(checkTerminator(kEnd.data(), &end) + end, 1);
  EXPECT_EQ(
      (std::set{
          addTerminator(nullptr), checkTerminator(nullptr, &end), checkTerminator(cursor, nullptr),
          addInteger(&none, 1), addChars(&cursor, nullptr, 1), addPlatformChars(nullptr, "a", 1),
          addIdStr(&none, "a"), addIdStr(&cursor, nullptr), dumpResultSetInternal(nullptr),
          createResultSet(nullptr, "", kOwnerUser), createResultSet(&token, nullptr, kOwnerUser)}),
      std::set{-103});
  EXPECT_EQ(createResultSet(&token, "ZEBRSUSR", 0x9998), -116);
  EXPECT_EQ(deleteResultSet(&token), -127);
  EXPECT_EQ(deleteResultSet(nullptr), -125);
}

}  // namespace
}  // namespace zebtest
