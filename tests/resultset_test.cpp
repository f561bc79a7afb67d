// Result sets made by hand: their bytes, the walks over them, copies, dumps and query strings.

#include "stapi_zeb_resultsetbuffer.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <climits>
#include <cstddef>
#include <memory>
#include <set>
#include <thread>

#include "stapi_zeb_impl.h"
#include "trace_capture.h"

using testing::AllOf;
using testing::AnyOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using zebtest::formatText;
using zebtest::Named;
using zebtest::TraceCapture;
using Lines = std::vector<std::string>;

namespace {

struct Header {
  std::string element;
  int rc;
  Lines ids;  // the value of a statistic is its id, twice
};

// A token and its buffer, of exactly the size that buffers have.
struct Answer {
  Answer(const std::string& marker, const std::vector<Header>& headers,
         std::uint32_t owner = kOwnerUser) {
    EXPECT_EQ(createResultSet(&token, owner == kOwnerUser ? "ZEBRSUSR" : "ZEBRSROB", owner), 0);
    char* cursor = token->head = buffer.get();
    const auto addText = [&](const std::string& text) {
      addInteger(&cursor, static_cast<int>(text.size()));
      addChars(&cursor, text.data(), static_cast<int>(text.size()));
    };
    addPlatformChars(&cursor, marker.data(), 8);
    addInteger(&cursor, static_cast<int>(headers.size()));
    for (const Header& header : headers) {
      addText(header.element);
      addInteger(&cursor, header.rc);
      if (header.rc >= 0) addInteger(&cursor, static_cast<int>(header.ids.size()));
      for (const std::string& id : header.ids) {
        addText(id);
        if (marker == zeb::kStatsMarker) addText(id + id);
      }
    }
    addTerminator(cursor);
  }
  ~Answer() { deleteResultSet(&token); }
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;

  void put(std::size_t offset, int value) { memcpy(&buffer[offset], &value, sizeof value); }
  std::string story(const TraceCapture& trace, std::vector<Named> more = {}) const {
    more.insert(more.end(), {{"RS", token}, {"BUFFER", buffer.get(), kResultSetBufferSize}});
    return trace.story(more);
  }

  std::unique_ptr<char[]> buffer{new char[kResultSetBufferSize]()};
  ResultSetToken* token = nullptr;
};

std::string textOf(const char* start, int length) {
  return std::string(start, start + length);
}

struct Stats {
  using Record = StatData;
  static constexpr const char *marker = "ZEBSTSET", *otherMarker = "ZEBIDSET";
  static constexpr bool isStats = true;
  static constexpr auto first = getFirstStat, next = getNextStat;
  static std::string show(const Record& r) {
    const std::string id = textOf(r.statIdPtr, r.statIdLen);
    return textOf(r.statValuePtr, r.statValueLen) == id + id ? id : "not the value of " + id;
  }
};
struct Ids {
  using Record = IdData;
  static constexpr const char *marker = "ZEBIDSET", *otherMarker = "ZEBSTSET";
  static constexpr bool isStats = false;
  static constexpr auto first = getFirstId, next = getNextId;
  static std::string show(const Record& r) { return textOf(r.idPtr, r.idLen); }
};

// One call: what it found, or its code. A negative element must leave the fields of an entry alone,
// and a call that finds nothing must leave the walk where it was.
template <typename Kind>
std::string step(int (*call)(ResultSetToken*, typename Kind::Record*) noexcept,
                 ResultSetToken* token) {
  typename Kind::Record record;
  auto* const bytes = reinterpret_cast<char*>(&record);
  const std::string untouched(sizeof record, 'Z'),
      before(reinterpret_cast<char*>(token), sizeof *token);
  untouched.copy(bytes, sizeof record);
  if (const int rc = call(token, &record); rc != 0) {
    EXPECT_EQ(memcmp(before.data(), token, sizeof *token), 0) << "after " << rc;
    return std::to_string(rc);
  }
  const std::string element = textOf(record.queryElementPtr, record.queryElementLen) +
                              formatText("(%d)", record.queryElementRC);
  if (record.queryElementRC >= 0) return element + " " + Kind::show(record);
  const std::size_t entryAt = offsetof(typename Kind::Record, queryElementRC) + sizeof(int);
  EXPECT_EQ(std::string(bytes + entryAt, bytes + sizeof record), untouched.substr(entryAt));
  return element;
}

// A whole walk, with the code that ended it.
template <typename Kind>
Lines walk(ResultSetToken* token, bool withFirst = true) {
  Lines found = {step<Kind>(withFirst ? Kind::first : Kind::next, token)};
  while (found.back()[0] != '-' && found.size() < 50000)
    found.push_back(step<Kind>(Kind::next, token));
  return found;
}

template <typename Kind>
class Walk : public testing::Test {};
using Kinds = testing::Types<Stats, Ids>;
TYPED_TEST_SUITE(Walk, Kinds);

TYPED_TEST(Walk, FindsEveryEntryOfEveryShape) {
  const std::string terminator(reinterpret_cast<const char*>(&kTerminator), 4);
  const std::vector<std::pair<std::vector<Header>, Lines>> shapes = {
      {{}, {"-113"}},
      {{{"Q1", -1, {}}}, {"Q1(-1)", "-113"}},
      {{{"Q1", 0, {"a", "b"}}, {"Q2", -5, {}}, {"Q3", 0, {"c"}}},
       {"Q1(0) a", "Q1(0) b", "Q2(-5)", "Q3(0) c", "-113"}},
      {{{"Q1", -5, {}}, {"Q2", 4, {"a"}}, {"Q3", -6, {}}}, {"Q1(-5)", "Q2(4) a", "Q3(-6)", "-113"}},
      {{{"Q1", 0, {}}}, {"-113"}},
      {{{"Q1", 0, {}}, {"Q2", 0, {}}, {"Q3", 0, {"a"}}}, {"Q3(0) a", "-113"}},
      {{{"Q1", 0, {"a"}}, {"Q2", 0, {}}, {"Q3", 0, {"b"}}}, {"Q1(0) a", "Q3(0) b", "-113"}},
      {{{"Q1", 0, {"a"}}, {"Q2", 0, {}}, {"Q3", -1, {}}, {"Q4", 0, {}}},
       {"Q1(0) a", "Q3(-1)", "-113"}},
      {{{"", 0, {"", terminator}}, {terminator, 0, {"a"}}},
       {"(0) ", "(0) " + terminator, terminator + "(0) a", "-113"}},
  };
  for (const auto& [headers, expected] : shapes) {
    const Answer answer(TypeParam::marker, headers);
    EXPECT_EQ(walk<TypeParam>(answer.token, false), expected) << "started by the next call";
    EXPECT_EQ(step<TypeParam>(TypeParam::next, answer.token), "-113") << "the end stays the end";
    EXPECT_EQ(walk<TypeParam>(answer.token), expected) << "restarted";
    step<TypeParam>(TypeParam::first, answer.token);
    EXPECT_EQ(walk<TypeParam>(answer.token), expected) << "restarted half-way";
  }
}

TYPED_TEST(Walk, RefusesDamagedBuffersAndStaysInside) {
  const std::vector<Header> headers = {{"Q1", 0, {"aa", "bb"}}, {"Q2", 0, {"cc"}}};
  const Lines all = {"Q1(0) aa", "Q1(0) bb", "Q2(0) cc"};
  constexpr bool stats = TypeParam::isStats;
  const std::size_t second = stats ? 54 : 38;  // where the second header begins
  const std::pair<std::size_t, int> lengths[] = {
      {12, 0},
      {26, 0},
      {32, stats ? 0 : 1},
      {second, 2},
      {second + 14, 2}};  // and the entries ahead of each
  for (const int bad : {-1, INT_MIN, INT_MAX, 153600, 153600 - 16, 153600 - 13}) {
    for (const auto& [offset, good] : lengths) {
      Answer answer(TypeParam::marker, headers);
      answer.put(offset, bad);
      Lines expected(all.begin(), all.begin() + good);
      expected.push_back("-119");
      EXPECT_EQ(walk<TypeParam>(answer.token, false), expected) << bad << " at " << offset;
      EXPECT_EQ(walk<TypeParam>(answer.token), expected) << bad << " at " << offset;
    }
  }
}

TYPED_TEST(Walk, ChecksItsArgumentsInOrder) {
  typename TypeParam::Record record;
  Answer other(TypeParam::otherMarker, {{"Q1", 0, {"a"}}});
  for (const auto call : {TypeParam::first, TypeParam::next}) {
    EXPECT_EQ(call(nullptr, nullptr), -127);
    EXPECT_EQ(call(other.token, nullptr), TypeParam::isStats ? -129 : -128);
    EXPECT_EQ(call(other.token, &record), -119);
    other.put(0, kTerminator);
    EXPECT_EQ(call(other.token, &record), -119) << "a buffer that no answer has filled";
    memcpy(other.token->head, TypeParam::otherMarker, 8);
    char* const head = std::exchange(other.token->head, nullptr);
    EXPECT_EQ(call(other.token, &record), -110);
    other.token->head = head;
  }
  Answer answer(TypeParam::marker, {{"Q1", 0, {"a"}}});
  answer.put(8, kTerminator);
  EXPECT_EQ(step<TypeParam>(TypeParam::first, answer.token), "-113")
      << "the end stands where the count was";
}

TEST(Owner, IsTheThreadAndTheProcessOfTheConnection) {
  const std::vector<Header> headers = {{"Q1", 0, {"a"}}};
  const Answer stats("ZEBSTSET", headers, kOwnerGateway), ids("ZEBIDSET", headers, kOwnerGateway);
  const TraceCapture trace(0);
  const auto codes = [](const Answer& stat, const Answer& id) {
    StatData statData;
    IdData idData;
    char* query;
    ResultSetToken* copy = nullptr;
    EXPECT_EQ(getFirstId(stat.token, &idData), -119) << "the content is looked at first";
    std::set<int> found = {getNextStat(stat.token, &statData), getFirstStat(stat.token, &statData),
                           getNextId(id.token, &idData),       getFirstId(id.token, &idData),
                           getIdQuery(id.token, &query),       dumpResultSet(id.token),
                           copyResultSet(id.token, &copy)};
    freeResultSet(&copy);
    return found;
  };
  EXPECT_THAT(codes(stats, ids), ElementsAre(0));
  const auto own = static_cast<unsigned>(getpid()), ownTid = static_cast<unsigned>(pthread_self());
  const pid_t child = fork();
  if (child == 0) _exit(codes(stats, ids) == std::set{-123} ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);

  unsigned other = 0;
  std::thread([&] {
    other = static_cast<unsigned>(pthread_self());
    EXPECT_THAT(codes(stats, ids), ElementsAre(-124));
    setAPITraceLevel(1);
    EXPECT_EQ(verifyAPIResultSetTokenOwner(stats.token), -124);
    const Answer copies("ZEBSTSET", headers), copiedIds("ZEBIDSET", headers);
    std::thread([&] {
      EXPECT_THAT(codes(copies, copiedIds), ElementsAre(0)) << "copies are anyone's";
    }).join();
  }).join();
  stats.token->owningPid = own + 1;  // the process is compared first
  EXPECT_EQ(verifyAPIResultSetTokenOwner(stats.token), -123);
  EXPECT_THAT(trace.story(),
              AllOf(HasSubstr(formatText(
                        "verifyAPIResultSetToken TID mismatch: currentTid=%x, owningTid=%x\n",
                        other, ownTid)),
                    EndsWith(formatText(
                        "verifyAPIResultSetToken PID mismatch: currentPid=%x, owningPid=%x\n", own,
                        own + 1))));
}

TYPED_TEST(Walk, EndsInAQueryStringOfTheGoodIds) {
  const std::string a(31990, 'A'), b(31998, 'B'), c(31999, 'C');
  const std::vector<std::pair<std::vector<Header>, std::string>> strings = {
      {{{"Q1", 0, {"A", "B", "C"}}}, "A:B:C"},
      {{{"Q1", -1, {}}}, "-131"},
      {{}, "-131"},
      {{{"Q1", 4, {"A"}}, {"Q2", 0, {"X"}}}, ":X"},
      {{{"Q1", 0, {"A"}}, {"Q2", -1, {}}, {"Q3", 0, {"B"}}}, "A:B"},
      {{{"Q1", 0, {"A"}}, {"Q2", 0, {}}, {"Q3", 4, {"B"}}, {"Q4", -1, {}}}, "A"},
      {{{"Q1", 0, {"", ""}}}, ":"},
      {{{"Q1", 0, {a, "12345678"}}}, a + ":12345678"},
      {{{"Q1", 0, {a, "123456789", "C"}}}, a + ":"},
      {{{"Q1", 0, {b, "C"}}}, b + ":"},
      {{{"Q1", 0, {c, "C"}}}, c},
      {{{"Q1", 0, {c + "C", "C"}}}, "-131"},
  };
  for (const auto& [headers, expected] : strings) {
    const Answer answer(TypeParam::marker, headers);
    char* query = nullptr;
    const int rc = getIdQuery(answer.token, &query);
    EXPECT_EQ(rc == 0 ? std::string(query) : std::to_string(rc), expected);
    EXPECT_EQ(query, rc == 0 ? answer.token->verifiedQueryString : nullptr);
  }
}

TEST(IdQuery, ChecksItsArguments) {
  Answer answer("ZEBIDSET", {{"Q1", 0, {"A", "B"}}});
  char* query = nullptr;
  EXPECT_EQ(getIdQuery(answer.token, nullptr), -109);
  EXPECT_EQ(getIdQuery(answer.token, &query), 0);
  EXPECT_EQ(step<Ids>(getNextId, answer.token), "-113") << "the walk is over";
  answer.put(0, kTerminator);
  EXPECT_EQ(getIdQuery(answer.token, nullptr), -119) << "replaces the code of the null address";
  answer.token->head = nullptr;
  EXPECT_EQ(getIdQuery(answer.token, &query), -110);
}

TEST(Copy, OutlivesItsSource) {
  Answer source("ZEBIDSET", {{"Q1", 0, {"a", "b"}}}, kOwnerGateway);
  source.put(kResultSetBufferSize - 4, 0x12345678);
  source.token->spare = 77;
  step<Ids>(getFirstId, source.token);
  const std::string content(source.token->head, kResultSetBufferSize);
  ResultSetToken* copy = nullptr;
  ASSERT_EQ(copyResultSet(source.token, &copy), 0);
  source.put(0, kTerminator);
  EXPECT_EQ(std::string(copy->eyecatcher, 8), "ZEBRSUSR");
  EXPECT_EQ(copy->owner, 0x9999U);
  EXPECT_EQ(copy->spare, 77U);
  EXPECT_EQ(copy->next, copy->head);
  EXPECT_EQ(std::string(copy->head, kResultSetBufferSize), content);
  EXPECT_EQ(walk<Ids>(copy, false), (Lines{"Q1(0) a", "Q1(0) b", "-113"})) << "not begun yet";
  EXPECT_EQ(freeResultSet(&copy), 0);
  EXPECT_EQ(copy, nullptr);
}

TEST(ResultSet, IsRefusedWhereItCannotBeUsed) {
  Answer answer("ZEBIDSET", {}, kOwnerGateway);
  ResultSetToken *copy = nullptr, *const token = answer.token;
  EXPECT_EQ(freeResultSet(&answer.token), -106);
  EXPECT_EQ(answer.token, token);
  answer.put(0, kTerminator);
  EXPECT_EQ(copyResultSet(token, &copy), -119);
  EXPECT_EQ(dumpResultSet(token), -119);
  token->head = nullptr;
  EXPECT_EQ(copyResultSet(token, &copy), -110);
  EXPECT_EQ(dumpResultSet(token), -110);
  EXPECT_EQ(createResultSet(&copy, "ZEBRSUSR", kOwnerUser), 0);
  EXPECT_EQ(freeResultSet(&copy), 0);
}

TEST(Dump, ShowsTokenAndBufferWhateverTheLevel) {
  const Answer answer("ZEBIDSET", {{"", -1, {}}}, kOwnerGateway);
  const void* const rs = answer.token;
  char* const head = answer.token->next = answer.token->head;
  const auto low = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(head));
  const std::string rule(80, '-');
  const TraceCapture trace(0);
  EXPECT_EQ(dumpResultSet(answer.token), 0);
  EXPECT_EQ(dumpResultSetInternal(nullptr), -103);
  EXPECT_EQ(trace.text(),
            formatText("Dump of ResultSet(%p) owner(8888) head(%p) next(%p)\n%s\n"
                       "0x%8.8X: 5A454249 44534554 %8.8X 00000000 : ZEBIDSET........ \n"
                       "0x%8.8X: FFFFFFFF                            : ....\n%s\n",
                       rs, head, head, rule.c_str(), low, htonl(1), low + 16, rule.c_str()));
}

std::string hostBytes(std::int32_t value) {
  return {reinterpret_cast<const char*>(&value), sizeof value};
}

TEST(Buffer, IsWrittenByteForByte) {
  char buffer[16] = "...............";
  char *cursor = buffer + 1, *none = nullptr;
  int end = -1;
  ResultSetToken* token = nullptr;
  const TraceCapture trace(4);
  EXPECT_EQ(addTerminator(cursor), 0);
  EXPECT_EQ(checkTerminator(cursor, &end), 0);
  EXPECT_EQ(end, 1);
  EXPECT_EQ(addIdStr(&cursor, "abc"), 0);
  EXPECT_EQ(std::string(buffer, 10), "." + hostBytes(3) + std::string("abc\0.", 5))
      << "the terminator is overwritten";
  EXPECT_EQ(addInteger(&cursor, -2), 0);
  EXPECT_EQ(std::string(buffer + 7, 6), "c" + hostBytes(-2) + ".");
  EXPECT_EQ(checkTerminator(buffer, &end), 0);
  EXPECT_EQ(end, 0);
  EXPECT_EQ(addChars(&cursor, "x", 1), 0);
  EXPECT_EQ(addPlatformChars(&cursor, "yz", 2), 0);
  EXPECT_STREQ(buffer + 12, "xyz");
  EXPECT_EQ(cursor, buffer + 15);
  EXPECT_EQ((std::set{addTerminator(nullptr), checkTerminator(nullptr, &end),
                      checkTerminator(buffer, nullptr), addInteger(&none, 1),
                      addChars(&none, "a", 1), addPlatformChars(&none, "a", 1),
                      addIdStr(nullptr, "a"), addIdStr(&none, "a"), addIdStr(&cursor, nullptr)}),
            std::set{-103});
  EXPECT_THAT(trace.story(), HasSubstr("idString=(nil)) function received a null parameter\n"));
  EXPECT_EQ(zeb::dup2ASCIIString("a", nullptr), -2);
  EXPECT_EQ(createResultSet(nullptr, "ZEBRSUSR", kOwnerUser), -103);
  EXPECT_EQ(createResultSet(&token, nullptr, kOwnerUser), -103);
  EXPECT_EQ(createResultSet(&token, "ZEBRSUSR", 0x9998), -116);
  EXPECT_EQ(deleteResultSet(&token), -127);
  EXPECT_EQ(deleteResultSet(nullptr), -125);
}

// What a dump from another thread meets: nothing until all is there, and then no old memory where
// it looks.
TEST(ResultSetWriter, showsNothingUntilItIsFinished) {
  for (const int level : {0, 3}) {
    const TraceCapture trace(level);
    std::string buffer(kResultSetBufferSize, '\xCC');
    zeb::sealBuffer(buffer.data());
    zeb::ResultSetWriter out(buffer.data());
    out.marker(zeb::kStatsMarker);
    for (std::size_t size = 0; out.room() > 5000; size += 7) {
      ASSERT_TRUE(zeb::isTerminator(buffer.data()));
      out.counted(std::string(size % 4096, 'v'));
      out.counted(std::string_view("X"));
    }
    const std::size_t end = zeb::kContentSize - out.room();
    const std::string terminator(reinterpret_cast<const char*>(&kTerminator), sizeof kTerminator);
    out.finish();
    EXPECT_TRUE(out.ok() && buffer.starts_with(zeb::kStatsMarker));
    EXPECT_EQ(buffer.substr(end, zeb::kDumpReach),
              terminator + std::string(zeb::kDumpReach - 4, '\0'));
  }
}

}  // namespace
