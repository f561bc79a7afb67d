// The bytes that cross the wire, and the code that each fault of the other side becomes.
#include <fcntl.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "scripted_gateway.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace zebtest {
namespace {

using zebsim::callExceptionData;
using zebsim::openingData;
using zebsim::words;
using enum RequestKind;

// What stands behind the call length in every call.
const Bytes kCallHead =
    wire("0002 'US' 0002 'en' 0000 003C 'DefaultDomain:ProdId=com.kro.zeb,Activity=Control,type=Stats'");
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

struct Opened {
  int rc = 0;
  GatewayToken* token = nullptr;
  std::string version = "untouched";
};

Opened openAt(int port, const char* host = "127.0.0.1") {
  Opened opened;
  char* version = nullptr;
  opened.rc = openRemoteGatewayConnection(host, port, &opened.token, &version);
  if (version != nullptr) opened.version = version;
  free(version);
  return opened;
}

GatewayToken* openGood(const ScriptedGateway& gateway) {
  const Opened opened = openAt(gateway.port());
  EXPECT_EQ(opened.rc, 0);
  return opened.token;
}

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// A client of the gateway that is only a socket.
Descriptor connectTo(const ScriptedGateway& gateway) {
  Descriptor client(socket(AF_INET, SOCK_STREAM, 0));
  const sockaddr_in address = loopback(gateway.port());
  EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  return client;
}

std::ptrdiff_t countDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// ---- requests

TEST(Requests, ofAWholeSessionAreByteForByteAsAgreedThoughRepliesComeInSingleBytes) {
  Script script;
  script.inSegments(1);
  script.expect(
      wire("'Gate' 00700000 00000005 00000000 00000000 00000004 'BASE' 00 00000012"
           "0002 'en' 0002 'GB' 00000000000000000000"));
  script.reply(wire("'xxxx' 01020304 05060708 090A0B0C 00000000 00000004 'abcd' FF 00000000"));
  script.expect(wire("'Gate' 00700000 00000001 00000000 00000000 00000004 'Auth' 00 00000004 00000000"));
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
  script.expect(wire("'Gate' 00700000 0000000A 00000000 FFFFFFFF 00000004 'BASE' 00 00000000")).reply(kBase);

  ScriptedGateway gateway(script);
  Opened opened = openAt(gateway.port());
  EXPECT_EQ(opened.rc, 0);
  EXPECT_EQ(opened.version, "2_0_0_1");
  ResultSetToken* answer = nullptr;
  EXPECT_EQ(getStats(opened.token, &answer), 0);
  EXPECT_EQ(getStatIdsByStatGroupId(opened.token, "a:b", &answer), 0);
  EXPECT_EQ(closeGatewayConnection(&opened.token), 0);
}

TEST(Requests, carryUpTo32765CharactersAndALongerQueryLeavesTheConnectionWhole) {
  ScriptedGateway gateway(Script().answerOpen().answerQuery(kNoIds).answerQuery(kNoIds));
  GatewayToken* token = openGood(gateway);
  ResultSetToken* answer = nullptr;
  for (auto* query : {getStatsByStatId, getStatsByStatGroupId, getStatIdsByStatGroupId})
    EXPECT_EQ(query(token, std::string(32766, 'q').c_str(), &answer), -2);
  EXPECT_EQ(answer, nullptr);
  const std::string longest(32765, 'q');
  EXPECT_EQ(getStatsByStatId(token, longest.c_str(), &answer), 0);
  EXPECT_NE(gateway.requests().back().find(wire("7FFD") + longest + wire("00000001")), Bytes::npos);
  EXPECT_EQ(getStats(token, &answer), 0);
  EXPECT_EQ(closeGatewayConnection(&token), 0);
}

// ---- one request and its reply

// Runs a handshake on a connection of its own.
int handshakeWith(const Script& script, reasons& failure, int errnoBefore = 0) {
  ScriptedGateway gateway(script);
  const Descriptor client = connectTo(gateway);
  errno = errnoBefore;
  return flowHandshakeRequest(client.get(), &failure);
}

TEST(Flow, takesAReplyCutShortAnywhereForABrokenConnection) {
  const Bytes whole = zebsim::reply("BASE", words({1, 2}));
  for (std::size_t size = 0; size < whole.size(); ++size) {
    const Script cut = Script().answer(kHandshake, whole.substr(0, size));
    const bool isBetween = size == 0 || size == kBase.size();  // nothing of the header, or of the data
    reasons hungUp = {}, halfClosed = {}, reset = {};
    EXPECT_EQ(handshakeWith(Script(cut).hangUp(), hungUp), -1) << size;
    EXPECT_EQ(handshakeWith(Script(cut).halfClose(), halfClosed, EAGAIN), -1) << size;
    EXPECT_EQ(handshakeWith(Script(cut).reset(), reset), -1) << size;
    EXPECT_EQ(hungUp.sockErrno == -1, isBetween) << size;
    EXPECT_EQ(halfClosed.sockErrno == -1, isBetween) << size;
    EXPECT_NE(reset.sockErrno, 0) << size;
  }
  reasons failure = {};
  EXPECT_EQ(handshakeWith(Script().answer(kHandshake, whole).halfClose(), failure), 0);
  EXPECT_EQ(handshakeWith(Script().answer(kHandshake, zebsim::reply("BASE", "data", 0xF004)), failure), -4);
  EXPECT_EQ(failure.gwyRc, 0xF004);
}

TEST(Flow, refusesAReplyWhoseNameHasAnotherLength) {
  for (const char* length : {"00000000", "00000003", "00000005", "7FFFFFFF", "80000000", "FFFFFFFF"}) {
    reasons failure = {};
    const Bytes header = wire("'Gate' 00700000 00000001 00000000 00000000") + wire(length) + Bytes(64, 'n');
    EXPECT_EQ(handshakeWith(Script().answer(kHandshake, header), failure), -1) << length;
    EXPECT_EQ(failure.sockErrno, EPROTO) << length;
  }
}

TEST(Flow, sendsNothingWhenThereIsNothingOrNowhereToSend) {
  ScriptedGateway gateway{Script()};
  const Descriptor client = connectTo(gateway);
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

TEST(Flow, leavesTheHostsSigpipeHandlerAsItWasAndTheProcessAlive) {
  static bool called = false;
  struct sigaction mine = {};
  mine.sa_sigaction = [](int, siginfo_t*, void*) { called = true; };
  mine.sa_flags = SA_SIGINFO | SA_RESTART;
  sigaddset(&mine.sa_mask, SIGUSR1);
  ASSERT_EQ(sigaction(SIGPIPE, &mine, nullptr), 0);
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &mine), 0);  // as the system keeps it

  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  const Descriptor client(pair[0]);
  close(pair[1]);
  reasons failure = {};
  EXPECT_EQ(flowHandshakeRequest(client.get(), &failure), -1);
  EXPECT_EQ(failure.sockErrno, EPIPE);

  struct sigaction after = {};
  ASSERT_EQ(sigaction(SIGPIPE, nullptr, &after), 0);
  EXPECT_EQ(after.sa_sigaction, mine.sa_sigaction);
  EXPECT_EQ(after.sa_flags, mine.sa_flags);
  EXPECT_EQ(sigismember(&after.sa_mask, SIGUSR1), 1);
  EXPECT_FALSE(called);

  ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
  EXPECT_EQ(flowCloseRequest(client.get(), &failure), -1);
}

// ---- authorisation and admin replies

using Codes = std::pair<int, int>;  // of the call, and of the gateway as the reasons tell it

Codes authoriseWith(const Bytes& data) {
  ScriptedGateway gateway(Script().answer(kAuthFirst, zebsim::reply("Auth", data)));
  AuthRequestRecord record = {
      {{'G', 'a', 't', 'e'}, 0x700000, 1, 0, 0, 4, "Auth", 0, 4}, 0, 0, 0, 0, 0, 0, 0, 0};
  reasons failure = {};
  const int rc = flowAuthRequest(connectTo(gateway).get(), &record, &failure);
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
  ScriptedGateway gateway(Script().answer(kAny, admin(data)));
  record = {};
  record.header = {{'G', 'a', 't', 'e'}, 0x700000, 1, 0, 0, 5, "Admin", 0, kind == 0 ? 4U : 128U};
  record.callKind = kind;
  for (const char** text : {&record.country, &record.language, &record.qualifier, &record.beanName,
                            &record.action, &record.argument, &record.signature})
    *text = "";
  reasons failure = {};
  const int rc = flowAdminRequest(connectTo(gateway).get(), &record, &failure);
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
  EXPECT_EQ(adminCallWith(5, callExceptionData(zebsim::kInvoke), record), Codes(-3, 0));
  EXPECT_EQ(record.callData, nullptr);
  EXPECT_EQ(adminCallWith(5, "", record), Codes(-3, 0x00700000));  // the request's own bytes are read
}

// ---- open

TEST(Open, mapsEveryFailureToItsCodeAndLeavesNothingBehind) {
  const Script start;
  const Script greeted = Script().answer(kHandshake, kBase);
  const Script connected = Script().answerConnect();
  const Script asked = Script(connected).answerOpening().expect(kGetAttribute);
  const auto version = [](const char* text) {
    return called(zebsim::kGetAttribute, Bytes(6, '\0') + wire(text));
  };
  const Case cases[] = {
      {"hang-up", Script(start).expect(kHandshake).hangUp(), -118},
      {"reset", Script(start).expect(kHandshake).reset(), -118},
      {"code", Script(start).answer(kHandshake, zebsim::reply("BASE", "", 5)), -118},
      {"another name length", Script(start).answer(kHandshake, admin("")), -118},
      {"refused, no second step", Script(greeted).answer(kAuthFirst, auth({0, 7})), -118},
      {"second step", Script(greeted).answer(kAuthFirst, auth({0, 0, 1, 2, 3})).expect(kAuthSecond).hangUp(),
       -118},
      {"opening hang-up", Script(connected).expect(kOpening).hangUp(), -102},
      {"opening: connection gone", Script(connected).answer(kOpening, admin("", 0xF004)), -102},
      {"opening code", Script(connected).answer(kOpening, admin("", 5)), -122},
      {"opening refused", Script(connected).answer(kOpening, admin(words({0, 5, 0}))), -122},
      {"opening cut short", Script(connected).answer(kOpening, admin(words({0, 0}))), -122},
      {"opening answered as a call",
       Script(connected).answer(kOpening, called(1, "call data")).expect(kGetAttribute).hangUp(), -102},
      {"version hang-up", Script(asked).hangUp(), -102},
      {"version exception", Script(asked).reply(admin(callExceptionData(1))), -122},
      {"version answered as an opening", Script(asked).reply(admin(openingData(7))), -122},
      {"version without a length", Script(asked).reply(version("00")), -122},
      {"version of negative length", Script(asked).reply(version("FFFF 'abc'")), -122},
      {"version a byte too long", Script(asked).reply(version("0004 'abc'")), -122},
  };
  // The resolver sees for itself that such a name can not exist.
  EXPECT_EQ(openAt(1, std::string(70, 'x').c_str()).rc, -132);
  const std::ptrdiff_t before = countDescriptors();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const Opened opened = openAt(ScriptedGateway(c.script).port());
    EXPECT_EQ(opened.rc, c.rc);
    EXPECT_EQ(opened.token, nullptr);
    EXPECT_EQ(opened.version, "untouched");
    EXPECT_EQ(deleteGatewayTokens(), kNothingToWalk);
    EXPECT_EQ(countDescriptors(), before);
  }
}

TEST(Open, tellsThatTheConnectionWasRefused) {
  const Descriptor silent(socket(AF_INET, SOCK_STREAM, 0));  // has its port but does not listen
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  ASSERT_EQ(bind(silent.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(getsockname(silent.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  EXPECT_EQ(openAt(ntohs(address.sin_port)).rc, -135);
}

TEST(Open, keepsAtMost63CharactersOfTheVersion) {
  for (const std::size_t length : {0U, 63U, 64U, 32767U}) {
    ScriptedGateway gateway(Script().answerOpen(std::string(length, 'v')));
    Opened opened = openAt(gateway.port());
    EXPECT_EQ(opened.version, std::string(std::min<std::size_t>(length, 63), 'v'));
    EXPECT_EQ(closeGatewayConnection(&opened.token), 0);
  }
}

// ---- queries

TEST(Query, mapsEveryFailureToItsCodeAndRemovesTheConnection) {
  const Script opened = Script().answerOpen();
  const Script asked = Script(opened).answerOpening().expect(kInvoke);
  const Bytes good = zebsim::callData(zebsim::kInvoke, kNoIds);
  const Case cases[] = {
      {"gone before the query", Script(opened).reset(), -102},
      {"opening hang-up", Script(opened).expect(kOpening).hangUp(), -102},
      {"opening code", Script(opened).answer(kOpening, admin("", 5)), -122},
      {"opening without data", Script(opened).answer(kOpening, admin("")), -122},
      {"opening answered as a call",
       Script(opened).answer(kOpening, called(zebsim::kInvoke, "call data")).expect(kInvoke).hangUp(), -102},
      {"hang-up", Script(asked).hangUp(), -102},
      {"another name length", Script(asked).reply(zebsim::reply("Admins", "")), -102},
      {"connection gone", Script(asked).reply(admin(good, 0xF004)), -102},
      {"another code", Script(asked).reply(admin(good, 0xF005)), -122},
      {"code of the call", Script(asked).reply(admin(zebsim::callFailedData(zebsim::kInvoke, 0xF004))), -122},
      {"exception", Script(asked).reply(admin(callExceptionData(zebsim::kInvoke))), -122},
      {"eight bytes", Script(asked).reply(admin(good.substr(0, 8))), -122},
      {"without data", Script(asked).reply(admin("")), -122},
  };
  const std::ptrdiff_t before = countDescriptors();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    {
      ScriptedGateway gateway(c.script);
      GatewayToken* token = openGood(gateway);
      ResultSetToken* answer = nullptr;
      EXPECT_EQ(getStatIds(token, &answer), c.rc);
      EXPECT_EQ(getStatIds(token, &answer), -101);
      EXPECT_EQ(answer, nullptr);
    }
    EXPECT_EQ(countDescriptors(), before);
  }
}

TEST(Query, answeredAsAnOpeningReadsAsEmpty) {
  const Bytes answer = admin(openingData(7));
  const Script script = Script().answerOpen().answerOpening().answer(kInvoke, answer);
  ScriptedGateway gateway(Script(script).answerOpening().answer(kInvoke, answer));
  GatewayToken* token = openGood(gateway);
  const TraceCapture trace(4);  // which has no call data to show either
  ResultSetToken* resultSet = nullptr;
  StatData stat;
  IdData id;
  ASSERT_EQ(getStats(token, &resultSet), 0);
  EXPECT_EQ(getFirstStat(resultSet, &stat), -119);
  ASSERT_EQ(getStatIds(token, &resultSet), 0);
  EXPECT_EQ(getFirstId(resultSet, &id), -119);
  EXPECT_EQ(closeGatewayConnection(&token), 0);
}

TEST(Query, worksOnDescriptorsBeyondThoseOfASelectSet) {
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  ScriptedGateway gateway(Script().answerOpen().answerQuery(kNoIds));
  std::vector<Descriptor> taken;
  while (taken.empty() || taken.back().get() <= FD_SETSIZE) {
    taken.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(taken.back().get(), 0);
  }
  GatewayToken* token = openGood(gateway);
  EXPECT_GT(token->socket, FD_SETSIZE);
  int error = 0;
  EXPECT_EQ(waitForConnection(&token->socket, &error), 0);
  ResultSetToken* answer = nullptr;
  EXPECT_EQ(getStatIds(token, &answer), 0);
  EXPECT_EQ(closeGatewayConnection(&token), 0);
}

}  // namespace
}  // namespace zebtest
