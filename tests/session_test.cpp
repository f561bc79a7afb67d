// Whole sessions: the bytes that cross the wire, the code that each fault of the other side
// becomes, and their traces, which are compared with recorded ones.
#include <bit>

#include "public_calls.h"
#include "scripted_gateway.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwycon.h"
#include "stapi_zeb_gwytok.h"
#include "stapi_zeb_protocol.h"
#include "stapi_zeb_socketcomms.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace zebtest {
namespace {

using namespace zebsim;

const Bytes kNoIds = wire("01 00000000");  // the answer that nothing was found
const Bytes kBase = reply("BASE", "");

Bytes auth(std::initializer_list<std::uint32_t> data) {
  return reply("Auth", words(data));
}
Bytes admin(const Bytes& data, std::uint32_t gatewayRc = 0) {
  return reply("Admin", data, gatewayRc);
}
Bytes called(std::uint32_t kind, const Bytes& answer) {
  return admin(callData(kind, answer));
}

TEST(Requests, OfAWholeSession) {
  const Bytes opening =
      wire("'Gate' 00700000 00000001 00000000 00000000 00000005 'Admin' 00 00000004 00000000");
  const Bytes bean = wire(
      "0002 'US' 0002 'en' 0000 003C 'DefaultDomain:ProdId=com.kro.zeb,Activity=Control,type=Stats'");
  ScriptedGateway gateway(
      Script()
          .expect(wire("'Gate' 00700000 00000005 00000000 00000000 00000004 'BASE' 00 00000012"
                       "0002 'en' 0002 'GB' 00000000000000000000"))
          .reply(wire("'xxxx' 01020304 05060708 090A0B0C 00000000 00000004 'abcd' FF 00000000"))
          .expect(wire(
              "'Gate' 00700000 00000001 00000000 00000000 00000004 'Auth' 00 00000004 00000000"))
          // The second step returns the header of the first reply, its tag in another place, and
          // the three words.
          .reply(wire("'eTaG' 01020304 00000009 CAFEBABE 00000000 00000004 'xxxx' 5A 00000014"
                      "00000000 00000000 00000011 00000022 80000033"))
          .expect(wire("'eTaG' 01020304 00000001 00000000 CAFEBABE 00000004 'Auth' 5A 00000014"
                       "00000001 00000011 00000022 80000033 00000000"))
          .reply(auth({1, 77, 0, 0}))  // the code of the second step is ignored
          .expect(opening)
          .reply(wire("'GATE' 0A0B0C0D 00000002 12345678 00000000 00000005 'zzzzz' 01 0000000C"
                      "00000000 00000000 DEADBEEF"))
          .expect(wire("'GATE' 0A0B0C0D 00000001 00000000 12345678 00000005 'Admin' 01 0000005E"
                       "00000001 DEADBEEF 00000052") +
                  bean + wire("0008 'protocol'"))
          .reply(called(kGetAttribute, encodeProtocol("2_0_0_1")))
          .expect(opening)
          .reply(admin(openingData(8)))
          .expect(wire("'Gate' 00700000 00000001 00000000 00000000 00000005 'Admin' 00 00000082"
                       "00000005 00000008 00000076") +
                  bean +
                  wire("0008 'STAT_IDS' 00000001 ACED000574 0003 'a:b'"
                       "00000001 0010 'java.lang.String'"))
          .reply(called(kInvoke, kNoIds))
          .expect(wire("'Gate' 00700000 0000000A 00000000 FFFFFFFF 00000004 'BASE' 00 00000000"))
          .reply(kBase));
  const Connection opened(gateway.port());
  EXPECT_EQ(opened.rc, 0);
  EXPECT_STREQ(opened.version, "2_0_0_1");
  ResultSetToken* answer = nullptr;
  EXPECT_EQ(getStatIdsByStatGroupId(opened.token, "a:b", &answer), 0);
}

TEST(Requests, CarryUpTo32765Characters) {
  GatewayServer server;
  const Connection connection(server.port());
  const std::string query(32765, 'q');
  ResultSetToken* answer = nullptr;
  EXPECT_EQ(getStatIdsByStatGroupId(connection.token, query.c_str(), &answer), 0);
  EXPECT_EQ(std::string(connection.token->resultSetBuf + 16, query.size()), query);
}

// What does not fill the length that the record announces is sent as zeros; nothing is sent of what
// does not fit.
TEST(Requests, AreAsLongAsTheirRecordsSay) {
  AdminCallRecord record = {};
  record.callKind = kGetAttribute;
  record.country = record.language = record.qualifier = record.beanName = "";
  reasons failure = {};
  const auto codeOf = [&](const Script& script, std::uint32_t length,
                          const std::string& attribute) {
    const ScriptedGateway gateway(script);
    record.header = zeb::makeHeader("Admin", 1, length);
    record.attributeName = attribute.c_str();
    Bytes(61, '\xCC');  // leaves its bytes in the memory that the request gets
    return flowAdminRequest(connectTo(gateway.port()).get(), &record, &failure);
  };
  const Bytes sent = wire(
      "'Gate' 00700000 00000001 00000000 00000000 00000005 'Admin' 00 0000001B"
      "00000001 00000000 00000000 0000 0000 0000 0000 0002 'at' 000000");
  EXPECT_EQ(codeOf(Script().expect(sent).reply(admin(callExceptionData(1))), 27, "at"), -3);
  EXPECT_EQ(codeOf(Script(), 21, "at"), -111);
  EXPECT_EQ(codeOf(Script(), 22 + 65536, std::string(65536, 'a')), -111);
}

TEST(Requests, AreNotSentToABadDescriptorNorIsItWaitedFor) {
  for (const int bad : {-1, 1 << 20}) {
    int error = 0;
    reasons failure = {};
    EXPECT_EQ(flowHandshakeRequest(bad, &failure), -1);
    EXPECT_EQ(failure.sockErrno, EBADF);
    EXPECT_EQ(readFromSocket(bad, 1, &error), EBADF);
    EXPECT_EQ(waitForConnection(&bad, &error), -100);
    EXPECT_EQ(error, EBADF);
  }
}

int codeOf(const Script& script) {
  return runSession(ScriptedGateway(script).port());
}

TEST(Session, MapsEveryFailureToItsCodeTracesItAndLeavesNothingBehind) {
  const Script connected = Script().answerConnect(), opened = Script().answerOpen();
  const Script asked = Script(connected).answerOpening().expect();
  const Script queried = Script(opened).answerOpening().expect();
  const Bytes good = callData(kInvoke, kNoIds);
  const Bytes callData = called(kInvoke, "call data");
  const auto version = [](const char* text) {
    return called(kGetAttribute, Bytes(6, '\0') + wire(text));
  };
  const Script greeted = Script().answer(kBase);
  // With the code of the open call, or of the query after it.
  std::vector<std::tuple<const char*, Script, int>> cases = {
      {"handshake: code", Script().answer(reply("BASE", "", 5)), -118},
      {"handshake: name of another length", Script().answer(admin("")), -118},
      {"handshake: a shorter name", Script().answer(reply("BAS", "") + "?"), -118},
      {"authorisation: refused at once", Script(greeted).answer(auth({0, 7, 1, 2, 3})), -118},
      {"authorisation: a word too short", Script(greeted).answer(auth({0, 0, 1, 2})), -118},
      {"authorisation: short second step", Script(greeted).answer(auth({1, 0, 2})), -118},
      {"opening: connection gone", Script(connected).answer(admin("", 0xF004)), -102},
      {"opening: code", Script(connected).answer(admin("", 5)), -122},
      {"opening: refused", Script(connected).answer(admin(words({0, 5, 0}))), -122},
      {"opening: refused, cut short", Script(connected).answer(admin(words({0, 5}))), -122},
      {"opening: a short call", Script(connected).answer(admin(good.substr(0, 11))), -122},
      {"opening: a call", Script(connected).answer(callData).expect().halfClose(), -102},
      {"version: an opening", Script(asked).reply(admin(openingData(7))), -122},
      {"version: a short opening", Script(asked).reply(admin(Bytes(9, '\0'))), -122},
      {"version: no length", Script(asked).reply(version("00")), -122},
      {"version: negative length", Script(asked).reply(version("FFFF 'abc'")), -122},
      {"version: a byte too long", Script(asked).reply(version("0004 'abc'")), -122},
      {"query: more after the version", Script(asked).reply(version("0001 'v'") + "?"), -102},
      {"query: opening without data", Script(opened).answer(admin("")), -122},
      // An answer to an earlier request, which came too late to be noticed before this one.
      {"query: opening is a call", Script(opened).answer(callData), -102},
      {"query: answer is an opening", Script(queried).reply(admin(openingData(7))), -102},
      {"query: connection gone", Script(queried).reply(admin(good, 0xF004)), -102},
      {"query: another code", Script(queried).reply(admin(good, 0xF005)), -122},
      {"query: refused", Script(queried).reply(admin(callFailedData(kInvoke, 6))), -122},
      {"query: exception", Script(queried).reply(admin(callExceptionData(kInvoke))), -122},
      {"query: refused, eight bytes", Script(queried).reply(admin(words({5, 6}))), -122},
      {"query: no data", Script(queried).reply(admin("")), -122},
      {"query: over 16 MiB", Script(queried).reply(replyHeader("Admin", 0, (16 << 20) + 1)), -122},
      // The call's own header, which repeats that of the opening's reply, looks like an answer.
      {"query: no data, which the request could be",
       Script(opened)
           .answer(wire("'GATE' 00000000 00000001 00000000 00000000 00000005 'Admin' 00") +
                   words({12, 0, 0, 7}))
           .answer(admin("")),
       -122},
  };
  for (const std::size_t size : {0U, 1U, 28U, 32U, 33U, 37U, 40U})
    cases.emplace_back("handshake: cut short",
                       Script().answer(reply("BASE", words({1, 2})).substr(0, size)).halfClose(),
                       -118);
  // The resolver opens its own descriptors at its first use. No host has such a name.
  GatewayToken* token = nullptr;
  char* text = nullptr;
  EXPECT_EQ(openRemoteGatewayConnection(std::string(70, 'x').c_str(), 1, &token, &text), -132);
  TraceCapture trace(1);
  const std::ptrdiff_t before = countDescriptors();
  std::string all;
  for (const auto& [what, script, rc] : cases) {
    SCOPED_TRACE(what);
    trace.restart();
    EXPECT_EQ(codeOf(script), rc);
    all += what + ("\n" + trace.masked());
    EXPECT_EQ(deleteGatewayTokens(), kNothingToWalk);
    EXPECT_EQ(countDescriptors(), before);
  }
  expectRecorded(all, ZEB_TESTDATA_DIR "/failures_trace.txt");
}

TEST(Session, SucceedsWithRepliesThatOnlyLookWrong) {
  const TraceCapture trace(4);  // which shows the call data, if there are any
  for (const Bytes& first : {auth({1, 7, 2, 3}), reply("Auth", "")}) {
    Script opened = Script().answer(kBase).answer(first).answer(auth({1, 0, 0, 0}));
    opened.answerCall(kGetAttribute, encodeProtocol("v")).answerQuery(kNoIds);
    EXPECT_EQ(codeOf(opened), ZEB_END_OF_RESULTS);
  }
  EXPECT_EQ(codeOf(Script().answerOpen().answerOpening().answer(called(kInvoke, ""))),
            ZEB_WRONG_CONTENT);
  for (const std::size_t length : {0U, 63U, 64U, 32767U}) {
    const ScriptedGateway gateway(Script().answerOpen(std::string(length, 'v')));
    EXPECT_EQ(Connection(gateway.port()).version,
              std::string(std::min<std::size_t>(length, 63), 'v'));
  }
}

// ---- recorded sessions

class RecordedSession : public testing::Test {
 protected:
  void SetUp() override {
    if (std::endian::native != std::endian::little || sizeof(void*) != 8)
      GTEST_SKIP() << "the recorded sizes and dumps are those of a 64-bit little-endian host";
    server.setAnswer("RESOURCE_GROUPS", encodeAnswer({false, {{"", 0, Ids{"GD"}}}}));
    server.setAnswer(
        "GET_STATS",
        encodeAnswer({true, {{"Q1", 0, Stats{{"a", "1"}, {"b", "2"}}}, {"Q2", -5, Stats{}}}}));
    server.setAnswer("STAT_IDS",
                     encodeAnswer({true, {{"Q1", -5, Ids{}}, {"Q2", 0, Ids{"a", "b"}}}}));
  }
  GatewayServer server;
};

// The dump after it shows the order of its locks.
TEST_F(RecordedSession, TracesEachLineAtLevel5) {
  TraceCapture trace(5);
  std::vector<Named> names = {{"TRACELOCK", &traceLock}};
  {
    const Connection connection(server.port());
    names.push_back({"VERSION", connection.token->protocolVersion});
    names.push_back({"SOCKET", &connection.token->socket});
    ResultSetToken* groups = nullptr;
    IdData id;
    ASSERT_EQ(getResourceGroupIds(connection.token, &groups), 0);
    EXPECT_EQ(getFirstId(groups, &id), 0);
    EXPECT_EQ(getNextId(groups, &id), ZEB_END_OF_RESULTS);
  }
  dumpState();
  expectRecorded(trace.masked(names), ZEB_TESTDATA_DIR "/session_trace.txt");
}

// Each call with right arguments; the walks of the other kind, or without a first step; and each
// call with more and more of its arguments, so that each check refuses it once.
TEST_F(RecordedSession, TracesEachCallAtLevel4) {
  Variables v;
  std::string all;
  TraceCapture trace(4);
  const auto record = [&](const auto& makeCalls) {
    std::vector<Named> names = {{"VARIABLES", &v, sizeof v}};
    if (v.token != nullptr)
      names.insert(names.end(), {{"TOKEN", v.token},
                                 {"BUFFER", v.token->resultSetBuf, kResultSetBufferSize},
                                 {"RESULTS", v.token->connRSToken}});
    trace.restart();
    makeCalls();
    all += trace.masked(names);
  };
  for (const PublicCall& call : kPublicCalls) {
    if (call.kind == Kind::kCloseAll) continue;
    if (call.kind == Kind::kOpen) setAPITimeout(0);  // with one, a connect waits now and then
    const bool isRepeated = std::string_view(call.name).starts_with("getNext");
    record([&] {
      while (v.make(call, server.port(), 4, trace.path().c_str()) == 0 && isRepeated) continue;
    });
    if (call.kind == Kind::kOpen) std::free(v.text);
  }
  for (const auto query : {getStats, getStatIds}) {
    record([&] {
      query(v.token, &v.answer);
      getNextStat(v.answer, &v.stat);
      getFirstStat(v.answer, &v.stat);
      getNextId(v.answer, &v.id);
      getFirstId(v.answer, &v.id);
      freeResultSet(&v.answer);
    });
  }
  record([&] { getStatsByStatId(v.token, std::string(32766, 'q').c_str(), &v.answer); });
  GatewayToken* none = nullptr;
  ResultSetToken* noAnswer = nullptr;
  const Arguments incomplete[] = {
      {.path = "/", .number = -1, .port = 65535},
      {.token = v.token, .answer = v.answer, .path = "/", .number = -1, .port = 65536},
      {.token = v.token, .tokenPtr = &none, .query = "a", .path = "/", .number = -1, .port = 1},
      {.tokenPtr = &none,
       .answerPtr = &noAnswer,
       .path = "/",
       .textPtr = &v.text,
       .number = -1,
       .port = 1}};
  for (const Arguments& some : incomplete)
    for (const PublicCall& call : kPublicCalls)
      if (call.kind != Kind::kCloseAll) record([&] { call.make(some); });
  record([] { closeAllGatewayConnections(), closeAllGatewayConnections(); });
  expectRecorded(all, ZEB_TESTDATA_DIR "/calls_trace.txt");
}

}  // namespace
}  // namespace zebtest
