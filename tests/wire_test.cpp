// The bytes that cross the wire, and the code that each fault of the other side becomes.
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "scripted_gateway.h"
#include "stapi_zeb_gwycon.h"
#include "stapi_zeb_gwytok.h"
#include "stapi_zeb_protocol.h"
#include "stapi_zeb_socketcomms.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace zebtest {
namespace {

using zebsim::callExceptionData;
using zebsim::openingData;
using zebsim::words;

// What stands behind the call length in every call.
const Bytes kCallHead = wire(
    "0002 'US' 0002 'en' 0000 003C 'DefaultDomain:ProdId=com.kro.zeb,Activity=Control,type=Stats'");
const Bytes kNoIds = wire("01 00000000");  // the answer that nothing was found
const Bytes kBase = zebsim::reply("BASE", "");

Bytes auth(std::initializer_list<std::uint32_t> data) {
  return zebsim::reply("Auth", words(data));
}
Bytes admin(const Bytes& data, std::uint32_t gatewayRc = 0) {
  return zebsim::reply("Admin", data, gatewayRc);
}
Bytes called(std::uint32_t kind, const Bytes& answer) {
  return admin(zebsim::callData(kind, answer));
}

struct Case {
  const char* what;
  Script script;
  int rc;
};

// ---- requests

TEST(Requests, ofAWholeSession) {
  Script script;
  script.expect(
      wire("'Gate' 00700000 00000005 00000000 00000000 00000004 'BASE' 00 00000012"
           "0002 'en' 0002 'GB' 00000000000000000000"));
  script.reply(wire("'xxxx' 01020304 05060708 090A0B0C 00000000 00000004 'abcd' FF 00000000"));
  script.expect(
      wire("'Gate' 00700000 00000001 00000000 00000000 00000004 'Auth' 00 00000004 00000000"));
  // What the first answer's header holds comes back in the second step, and so do its three words.
  script.reply(
      wire("'eTaG' 01020304 00000009 CAFEBABE 00000000 00000004 'xxxx' 5A 00000014"
           "00000000 00000000 00000011 00000022 80000033"));
  script.expect(
      wire("'eTaG' 01020304 00000001 00000000 CAFEBABE 00000004 'Auth' 5A 00000014"
           "00000001 00000011 00000022 80000033 00000000"));
  script.reply(auth({1, 77, 0, 0}));  // the code of an accepted second step counts for nothing
  const Bytes opening =
      wire("'Gate' 00700000 00000001 00000000 00000000 00000005 'Admin' 00 00000004 00000000");
  script.expect(opening);
  script.reply(
      wire("'GATE' 0A0B0C0D 00000002 12345678 00000000 00000005 'zzzzz' 01 0000000C"
           "00000000 00000000 DEADBEEF"));
  script.expect(wire("'GATE' 0A0B0C0D 00000001 00000000 12345678 00000005 'Admin' 01 0000005E"
                     "00000001 DEADBEEF 00000052") +
                kCallHead + wire("0008 'protocol'"));
  script.reply(called(zebsim::kGetAttribute, zebsim::encodeProtocol("2_0_0_1")));
  script.expect(opening).reply(admin(openingData(7)));
  const Bytes callHeader = wire("'Gate' 00700000 00000001 00000000 00000000 00000005 'Admin' 00");
  const Bytes signature = wire("00000001 0010 'java.lang.String'");
  script.expect(callHeader + wire("00000080 00000005 00000007 00000074") + kCallHead +
                wire("0009 'GET_STATS' 00000001 ACED000574 0000") + signature);
  script.reply(called(zebsim::kInvoke, kNoIds));
  script.expect(opening).reply(admin(openingData(8)));
  script.expect(callHeader + wire("00000082 00000005 00000008 00000076") + kCallHead +
                wire("0008 'STAT_IDS' 00000001 ACED000574 0003 'a:b'") + signature);
  script.reply(called(zebsim::kInvoke, kNoIds));
  script.expect(wire("'Gate' 00700000 0000000A 00000000 FFFFFFFF 00000004 'BASE' 00 00000000"))
      .reply(kBase);

  ScriptedGateway gateway(script);
  const Connection opened(gateway.port());
  EXPECT_EQ(opened.rc, 0);
  EXPECT_STREQ(opened.version, "2_0_0_1");
  ResultSetToken* answer = nullptr;
  EXPECT_EQ(getStats(opened.token, &answer), 0);
  EXPECT_EQ(getStatIdsByStatGroupId(opened.token, "a:b", &answer), 0);
}

TEST(Requests, carryUpTo32765CharactersAndALongerQueryLeavesTheConnectionWhole) {
  zebsim::GatewayServer server;
  const Connection connection(server.port());
  ResultSetToken* answer = nullptr;
  for (auto* query : {getStatsByStatId, getStatsByStatGroupId, getStatIdsByStatGroupId})
    EXPECT_EQ(query(connection.token, std::string(32766, 'q').c_str(), &answer), -2);
  EXPECT_EQ(answer, nullptr);
  const std::string longest(32765, 'q');
  StatData stat;
  EXPECT_EQ(getStatsByStatId(connection.token, longest.c_str(), &answer), 0);
  EXPECT_EQ(getFirstStat(answer, &stat), 0);
  EXPECT_EQ(std::string(stat.queryElementPtr, static_cast<std::size_t>(stat.queryElementLen)),
            longest);
}

// ---- one request and its reply

// Runs a handshake on a connection of its own.
int handshakeWith(const Script& script, reasons& failure, int errnoBefore = 0) {
  ScriptedGateway gateway(script);
  const Descriptor client = connectTo(gateway.port());
  errno = errnoBefore;
  return flowHandshakeRequest(client.get(), &failure);
}

TEST(Flow, tellsAReplyThatDoesNotComeFromOneThatIsCutShort) {
  const Bytes whole = zebsim::reply("BASE", words({1, 2}));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const Script cut = Script().answer(whole.substr(0, size));
    const bool isBetween =
        size == 0 || size == kBase.size();  // nothing of the header, or of the data
    reasons halfClosed = {}, reset = {};
    EXPECT_EQ(handshakeWith(Script(cut).halfClose(), halfClosed, EAGAIN), -1) << size;
    EXPECT_EQ(handshakeWith(Script(cut).reset(), reset), -1) << size;
    EXPECT_EQ(halfClosed.sockErrno == -1, isBetween) << size;
    EXPECT_NE(reset.sockErrno, 0) << size;
  }
  reasons failure = {};
  EXPECT_EQ(handshakeWith(Script().answer(whole).halfClose(), failure), 0);
  EXPECT_EQ(handshakeWith(Script().answer(zebsim::reply("BASE", "data", 0xF004)), failure), -4);
  EXPECT_EQ(failure.gwyRc, 0xF004);
}

TEST(Flow, refusesAReplyWhoseNameHasAnotherLength) {
  for (const char* length :
       {"00000000", "00000003", "00000005", "7FFFFFFF", "80000000", "FFFFFFFF"}) {
    reasons failure = {};
    const Bytes header =
        wire("'Gate' 00700000 00000001 00000000 00000000") + wire(length) + Bytes(64, 'n');
    EXPECT_EQ(handshakeWith(Script().answer(header), failure), -1) << length;
    EXPECT_EQ(failure.sockErrno, EPROTO) << length;
  }
}

TEST(Flow, sendsNothingWhenThereIsNothingOrNowhereToSend) {
  ScriptedGateway gateway{Script()};
  const Descriptor client = connectTo(gateway.port());
  unsigned char byte = 'G';
  unsigned char* data = &byte;
  RequestHeader header = {};
  reasons failure = {};
  EXPECT_EQ(flow(client.get(), 0, &data, "BASE", &header, &failure), -1);
  EXPECT_EQ(flow(client.get(), -1, &data, "BASE", &header, &failure), -1);
  EXPECT_EQ(flow(client.get(), 1, nullptr, "BASE", &header, &failure), -1);
  EXPECT_EQ(failure.sockErrno, 0);

  const int bad = 1 << 20;
  int error = 0;
  EXPECT_EQ(flow(bad, 1, &data, "BASE", &header, &failure), -1);
  EXPECT_EQ(failure.sockErrno, EBADF);
  EXPECT_EQ(readFromSocket(bad, 1, &byte), EBADF);
  EXPECT_EQ(closeConnection(&bad), -1);
  EXPECT_EQ(waitForConnection(&bad, &error), -100);
  EXPECT_EQ(error, EBADF);
}

// ---- authorisation and admin replies

using Codes = std::pair<int, int>;  // of the call, and of the gateway as the reasons tell it

Codes authoriseWith(const Bytes& data) {
  ScriptedGateway gateway(Script().answer(zebsim::reply("Auth", data)));
  AuthRequestRecord record = {};
  record.header = zeb::makeHeader("Auth", 1, 4);
  reasons failure = {};
  const int rc = flowAuthRequest(connectTo(gateway.port()).get(), &record, &failure);
  return {rc, failure.authRc};
}

TEST(AuthorisationReply, isTakenByItsFirstWordsAndItsLength) {
  EXPECT_EQ(authoriseWith(words({0, 0, 1, 2, 3})), Codes(0, 0));
  EXPECT_EQ(authoriseWith(words({0, 7, 1, 2, 3})), Codes(-2, 7));
  EXPECT_EQ(authoriseWith(words({0, 7})), Codes(-2, 7));
  EXPECT_EQ(authoriseWith(words({0, 0, 1, 2})), Codes(-1, 0));
  EXPECT_EQ(authoriseWith(words({0})), Codes(-1, 0));
  EXPECT_EQ(authoriseWith(words({1, 7, 2, 3})), Codes(0, 0));  // as of a second step
  EXPECT_EQ(authoriseWith(words({1, 0, 2})), Codes(-1, 0));
  EXPECT_EQ(authoriseWith(""), Codes(0, 0));  // the request's own bytes are read
}

Codes adminCallWith(int kind, const Bytes& data, AdminCallRecord& record) {
  ScriptedGateway gateway(Script().answer(admin(data)));
  record = {};
  record.header = zeb::makeHeader("Admin", 1, kind == 0 ? 4 : 128);
  record.callKind = kind;
  for (const char** text : {&record.country, &record.language, &record.qualifier, &record.beanName,
                            &record.action, &record.argument, &record.signature})
    *text = "";
  reasons failure = {};
  const int rc = flowAdminRequest(connectTo(gateway.port()).get(), &record, &failure);
  return {rc, failure.adminRc};
}

TEST(AdminReply, isTakenByItsFirstWordsAndItsLength) {
  AdminCallRecord record;
  EXPECT_EQ(adminCallWith(0, openingData(0x01020304), record), Codes(0, 0));
  EXPECT_EQ(record.adminId, 0x01020304);
  EXPECT_EQ(adminCallWith(0, words({0, 5, 0}), record), Codes(-3, 5));
  EXPECT_EQ(adminCallWith(0, openingData(1).substr(0, 11), record), Codes(-111, 0));

  const Bytes good = zebsim::callData(zebsim::kInvoke, "answer");
  for (const std::size_t size : {good.size(), std::size_t{9}}) {
    EXPECT_EQ(adminCallWith(5, good.substr(0, size), record), Codes(0, 0));
    EXPECT_EQ(record.header.dataLength, size - 9);
    ASSERT_NE(record.callData, nullptr);
    EXPECT_EQ(memcmp(record.callData, "answer", size - 9), 0);
    free(record.callData);
  }
  EXPECT_EQ(adminCallWith(0, good.substr(0, 11), record),
            Codes(-111, 0));  // too short for an opening's answer
  for (const std::size_t size : {8U, 7U, 1U}) {
    EXPECT_EQ(adminCallWith(5, good.substr(0, size), record), Codes(-111, 0));
    EXPECT_EQ(record.callData, nullptr);
  }
  EXPECT_EQ(adminCallWith(5, words({5, 6, 0}), record), Codes(-3, 6));
  EXPECT_EQ(adminCallWith(5, words({0, 5, 0}), record), Codes(-3, 5));
  // A code in an answer that is too short counts for nothing.
  EXPECT_EQ(adminCallWith(0, words({0, 5}), record), Codes(-111, 0));
  EXPECT_EQ(adminCallWith(5, words({5, 6}), record), Codes(-111, 0));
  EXPECT_EQ(adminCallWith(5, callExceptionData(zebsim::kInvoke), record), Codes(-3, 0));
  EXPECT_EQ(record.callData, nullptr);
  EXPECT_EQ(adminCallWith(5, "", record),
            Codes(-3, 0x00700000));  // the request's own bytes are read
}

// ---- open

TEST(Open, mapsEveryFailureToItsCodeAndLeavesNothingBehind) {
  const Script connected = Script().answerConnect();
  const Script asked = Script(connected).answerOpening().expect();
  const auto version = [](const char* text) {
    return called(zebsim::kGetAttribute, Bytes(6, '\0') + wire(text));
  };
  const Case cases[] = {
      {"code", Script().answer(zebsim::reply("BASE", "", 5)), -118},
      {"another name length", Script().answer(admin("")), -118},
      {"refused, no second step", Script().answer(kBase).answer(auth({0, 7})), -118},
      {"opening: connection gone", Script(connected).answer(admin("", 0xF004)), -102},
      {"opening code", Script(connected).answer(admin("", 5)), -122},
      {"opening refused", Script(connected).answer(admin(words({0, 5, 0}))), -122},
      {"opening cut short", Script(connected).answer(admin(words({0, 0}))), -122},
      {"opening answered as a call",
       Script(connected).answer(called(1, "call data")).expect().hangUp(), -102},
      {"version exception", Script(asked).reply(admin(callExceptionData(1))), -122},
      {"version answered as an opening", Script(asked).reply(admin(openingData(7))), -122},
      {"version without a length", Script(asked).reply(version("00")), -122},
      {"version of negative length", Script(asked).reply(version("FFFF 'abc'")), -122},
      {"version a byte too long", Script(asked).reply(version("0004 'abc'")), -122},
  };
  // The resolver sees for itself that such a name can not exist.
  GatewayToken* token = nullptr;
  char* text = nullptr;
  EXPECT_EQ(openRemoteGatewayConnection(std::string(70, 'x').c_str(), 1, &token, &text), -132);
  const std::ptrdiff_t before = countDescriptors();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const Connection opened(ScriptedGateway(c.script).port());
    EXPECT_EQ(opened.rc, c.rc);
    EXPECT_EQ(opened.token, nullptr);
    EXPECT_EQ(opened.version, nullptr);
    EXPECT_EQ(deleteGatewayTokens(), kNothingToWalk);
    EXPECT_EQ(countDescriptors(), before);
  }
}

TEST(Open, tracesTheAddressesOfTheTokensOwnFields) {
  zebsim::GatewayServer server;
  const TraceCapture trace(3);
  const Connection connection(server.port());
  const std::string story = trace.story(
      {{"SOCKET", &connection.token->socket}, {"VERSION", connection.token->protocolVersion}});
  for (const char* shown :
       {"ENTRY  API.dup2NativeString(source dataPtr=VERSION,", "socketDescriptorPtr=SOCKET)\n",
        "socketDescriptorPtr=SOCKET) connectRc=0\n"})
    EXPECT_NE(story.find(shown), story.npos) << shown << " is missing in\n" << story;
}

TEST(Open, keepsAtMost63CharactersOfTheVersion) {
  for (const std::size_t length : {0U, 63U, 64U, 32767U}) {
    const ScriptedGateway gateway(Script().answerOpen(std::string(length, 'v')));
    EXPECT_EQ(Connection(gateway.port()).version,
              std::string(std::min<std::size_t>(length, 63), 'v'));
  }
}

// ---- queries

TEST(Query, mapsEveryFailureToItsCodeAndRemovesTheConnection) {
  const Script opened = Script().answerOpen();
  const Script asked = Script(opened).answerOpening().expect();
  const Bytes good = zebsim::callData(zebsim::kInvoke, kNoIds);
  const Case cases[] = {
      {"opening code", Script(opened).answer(admin("", 5)), -122},
      {"opening without data", Script(opened).answer(admin("")), -122},
      {"opening answered as a call",
       Script(opened).answer(called(zebsim::kInvoke, "call data")).expect().hangUp(), -102},
      {"another name length", Script(asked).reply(zebsim::reply("Admins", "")), -102},
      {"connection gone", Script(asked).reply(admin(good, 0xF004)), -102},
      {"another code", Script(asked).reply(admin(good, 0xF005)), -122},
      {"code of the call",
       Script(asked).reply(admin(zebsim::callFailedData(zebsim::kInvoke, 0xF004))), -122},
      {"exception", Script(asked).reply(admin(callExceptionData(zebsim::kInvoke))), -122},
      {"eight bytes", Script(asked).reply(admin(good.substr(0, 8))), -122},
      {"without data", Script(asked).reply(admin("")), -122},
  };
  const std::ptrdiff_t before = countDescriptors();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    {
      const ScriptedGateway gateway(c.script);
      Connection connection(gateway.port());
      ResultSetToken* answer = nullptr;
      EXPECT_EQ(getStatIds(connection.token, &answer), c.rc);
      EXPECT_EQ(getStatIds(std::exchange(connection.token, nullptr), &answer), -101);
      EXPECT_EQ(answer, nullptr);
    }
    EXPECT_EQ(countDescriptors(), before);
  }
}

TEST(Query, answeredAsAnOpeningReadsAsEmpty) {
  const Bytes answer = admin(openingData(7));
  const Script script = Script().answerOpen().answerOpening().answer(answer);
  const ScriptedGateway gateway(Script(script).answerOpening().answer(answer));
  const Connection connection(gateway.port());
  const TraceCapture trace(4);  // which has no call data to show either
  ResultSetToken* resultSet = nullptr;
  StatData stat;
  IdData id;
  ASSERT_EQ(getStats(connection.token, &resultSet), 0);
  EXPECT_EQ(getFirstStat(resultSet, &stat), -119);
  ASSERT_EQ(getStatIds(connection.token, &resultSet), 0);
  EXPECT_EQ(getFirstId(resultSet, &id), -119);
}

}  // namespace
}  // namespace zebtest
