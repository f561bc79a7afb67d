// The bytes that cross the wire, and the code that each fault of the other side becomes.
#include <fcntl.h>
#include <sys/resource.h>
#include <csignal>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "scripted_gateway.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace zebtest {
namespace {

using zebsim::callData;
using zebsim::encodeProtocol;
using zebsim::openingData;
using zebsim::reply;
using zebsim::words;

constexpr RequestKind kOpening = RequestKind::kOpening;
constexpr RequestKind kInvoke = RequestKind::kInvoke;
constexpr RequestKind kGetAttribute = RequestKind::kGetAttribute;

// What stands behind the call length in every call.
const Bytes kCallHead =
    wire("0002 'US' 0002 'en' 0000 003C 'DefaultDomain:ProdId=com.kro.zeb,Activity=Control,type=Stats'");
const Bytes kNoIds = wire("01 00000000");  // the answer that nothing was found

GatewayToken* const kUntouched = reinterpret_cast<GatewayToken*>(std::uintptr_t{16});

struct Opened {
  int rc;
  GatewayToken* token;
  std::string version;
};

Opened openAt(int port, const char* host = "127.0.0.1") {
  Opened opened = {0, kUntouched, "untouched"};
  char* version = opened.version.data();
  opened.rc = openRemoteGatewayConnection(host, port, &opened.token, &version);
  if (opened.rc == 0) opened.version = version;
  if (version != opened.version.data()) free(version);
  return opened;
}

GatewayToken* openGood(ScriptedGateway& gateway) {
  const Opened opened = openAt(gateway.port());
  EXPECT_EQ(opened.rc, 0);
  return opened.token;
}

// A client of the gateway that is only a socket.
Descriptor connectTo(const ScriptedGateway& gateway) {
  Descriptor client(socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(gateway.port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  return client;
}

std::ptrdiff_t countDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// ---- requests

TEST(Requests, ofAWholeSessionAreByteForByteAsAgreed) {
  Script script;
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
  script.reply(
      reply("Auth", words({1, 77, 0, 0})));  // the code of an accepted second step counts for nothing
  const Bytes opening =
      wire("'Gate' 00700000 00000001 00000000 00000000 00000005 'Admin' 00 00000004 00000000");
  script.expect(opening).reply(wire(
      "'GATE' 0A0B0C0D 00000002 12345678 00000000 00000005 'zzzzz' 01 0000000C 00000000 00000000 DEADBEEF"));
  script.expect(wire("'GATE' 0A0B0C0D 00000001 00000000 12345678 00000005 'Admin' 01 0000005E"
                     "00000001 DEADBEEF 00000052") +
                kCallHead + wire("0008 'protocol'"));
  script.reply(reply("Admin", callData(zebsim::kGetAttribute, encodeProtocol("2_0_0_1"))));
  script.expect(opening).reply(reply("Admin", openingData(7)));
  script.expect(wire("'Gate' 00700000 00000001 00000000 00000000 00000005 'Admin' 00 00000080"
                     "00000005 00000007 00000074") +
                kCallHead +
                wire("0009 'GET_STATS' 00000001 ACED000574 0000 00000001 0010 'java.lang.String'"));
  script.reply(reply("Admin", callData(zebsim::kInvoke, kNoIds)));
  script.expect(opening).reply(reply("Admin", openingData(8)));
  script.expect(wire("'Gate' 00700000 00000001 00000000 00000000 00000005 'Admin' 00 00000082"
                     "00000005 00000008 00000076") +
                kCallHead +
                wire("0008 'STAT_IDS' 00000001 ACED000574 0003 'a:b' 00000001 0010 'java.lang.String'"));
  script.reply(reply("Admin", callData(zebsim::kInvoke, kNoIds)));
  script.expect(wire("'Gate' 00700000 0000000A 00000000 FFFFFFFF 00000004 'BASE' 00 00000000"));
  script.reply(reply("BASE", ""));

  ScriptedGateway gateway(script);
  Opened opened = openAt(gateway.port());
  EXPECT_EQ(opened.rc, 0);
  EXPECT_EQ(opened.version, "2_0_0_1");
  ResultSetToken* answer = nullptr;
  EXPECT_EQ(getStats(opened.token, &answer), 0);
  EXPECT_EQ(getStatIdsByStatGroupId(opened.token, "a:b", &answer), 0);
  EXPECT_EQ(closeGatewayConnection(&opened.token), 0);
  EXPECT_EQ(gateway.finish(), "");
}

TEST(Requests, carryUpTo32765CharactersAndALongerQueryLeavesTheConnectionWhole) {
  ScriptedGateway gateway(Script().answerOpen().answerQuery(kNoIds).answerQuery(kNoIds));
  GatewayToken* token = openGood(gateway);
  ResultSetToken* untouched = nullptr;
  for (auto* query : {getStatsByStatId, getStatsByStatGroupId, getStatIdsByStatGroupId})
    EXPECT_EQ(query(token, std::string(32766, 'q').c_str(), &untouched), -2);
  EXPECT_EQ(untouched, nullptr);
  ResultSetToken* answer = nullptr;
  const std::string longest(32765, 'q');
  EXPECT_EQ(getStatsByStatId(token, longest.c_str(), &answer), 0);
  EXPECT_NE(gateway.requests().back().find(wire("7FFD") + longest + wire("00000001")), Bytes::npos);
  EXPECT_EQ(getStats(token, &answer), 0);
  EXPECT_EQ(gateway.requests().size(), 9U);
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

Script handshakeAnswered(Bytes bytes) {
  return Script().expect(RequestKind::kHandshake).reply(std::move(bytes));
}

TEST(Flow, takesAReplyCutShortAnywhereForABrokenConnection) {
  const Bytes whole = reply("BASE", words({1, 2}));
  const std::size_t headerSize = whole.size() - 8;
  for (std::size_t size = 0; size < whole.size(); ++size) {
    for (const int end : {0, 1, 2}) {
      Script script = handshakeAnswered(whole.substr(0, size));
      if (end == 0) script.hangUp();
      if (end == 1) script.halfClose();
      if (end == 2) script.reset();
      reasons failure = {};
      EXPECT_EQ(handshakeWith(script, failure, end == 0 ? 0 : EAGAIN), -1) << size;
      EXPECT_NE(failure.sockErrno, 0) << size;
      EXPECT_EQ(failure.sockErrno == -1, end != 2 && (size == 0 || size == headerSize)) << size;
    }
  }
  reasons failure = {};
  EXPECT_EQ(handshakeWith(handshakeAnswered(whole).halfClose(), failure), 0);
}

TEST(Flow, refusesAReplyWhoseNameHasAnotherLength) {
  for (const char* length : {"00000000", "00000003", "00000005", "7FFFFFFF", "80000000", "FFFFFFFF"}) {
    reasons failure = {};
    const Bytes header = wire("'Gate' 00700000 00000001 00000000 00000000") + wire(length) + Bytes(64, 'n');
    EXPECT_EQ(handshakeWith(handshakeAnswered(header), failure), -1) << length;
    EXPECT_EQ(failure.sockErrno, EPROTO) << length;
  }
}

TEST(Flow, tellsTheGatewaysCodeAndHandsOverTheDataAllTheSame) {
  ScriptedGateway gateway(handshakeAnswered(reply("BASE", "data", 0xF004)));
  const Descriptor client = connectTo(gateway);
  const Bytes request = wire("'Gate' 00700000 00000005 00000000 00000000 00000004 'BASE' 00 00000000");
  auto* data = static_cast<unsigned char*>(malloc(request.size()));
  memcpy(data, request.data(), request.size());
  RequestHeader header = {};
  reasons failure = {};
  EXPECT_EQ(flow(client.get(), static_cast<int>(request.size()), &data, "BASE", &header, &failure), -4);
  EXPECT_EQ(failure.gwyRc, 0xF004);
  EXPECT_EQ(header.dataLength, 4U);
  EXPECT_EQ(Bytes(reinterpret_cast<char*>(data), 4), "data");
  free(data);
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
  EXPECT_EQ(gateway.finish(), "");

  const int bad = 1 << 20;
  EXPECT_EQ(flow(bad, 1, &data, "BASE", &header, &failure), -1);
  EXPECT_EQ(failure.sockErrno, EBADF);
  EXPECT_EQ(readFromSocket(bad, 1, &byte), EBADF);
  EXPECT_EQ(closeConnection(&bad), -1);
  int error = 0;
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
  EXPECT_EQ(sigismember(&after.sa_mask, SIGUSR2), 0);
  EXPECT_FALSE(called);

  ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
  EXPECT_EQ(flowCloseRequest(client.get(), &failure), -1);
}

// ---- authorisation and admin replies

TEST(Authorisation, readsTheReplyWordsThatItsStepSays) {
  struct Case {
    const char* what;
    Bytes data;
    int rc;
    int authRc;
  };
  const Case cases[] = {
      {"accepted", words({0, 0, 1, 2, 3}), 0, 0},
      {"refused", words({0, 7, 1, 2, 3}), -2, 7},
      {"refused in two words", words({0, 7}), -2, 7},
      {"a word short", words({0, 0, 1, 2}), -1, 0},
      {"half of the first words", words({0}), -1, 0},
      {"second step accepted whatever its code", words({1, 7, 2, 3}), 0, 0},
      {"second step a word short", words({1, 0, 2}), -1, 0},
      {"no data: the request's own bytes are read", "", 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScriptedGateway gateway(Script().expect(RequestKind::kAuthFirst).reply(reply("Auth", c.data)));
    const Descriptor client = connectTo(gateway);
    AuthRequestRecord record = {
        {{'G', 'a', 't', 'e'}, 0x700000, 1, 0, 0, 4, "Auth", 0, 4}, 0, 0, 0, 0, 0, 0, 0, 0};
    reasons failure = {};
    EXPECT_EQ(flowAuthRequest(client.get(), &record, &failure), c.rc);
    EXPECT_EQ(failure.authRc, c.authRc);
  }
}

TEST(AdminReply, isTakenByItsFirstWordsAndItsLength) {
  struct Case {
    const char* what;
    bool isOpening;
    Bytes data;
    int rc;
    int adminRc;
    int callDataLength;  // -1: none
  };
  const Bytes good = callData(zebsim::kInvoke, "answer");
  const Case cases[] = {
      {"an answer", false, good, 0, 0, 6},
      {"an empty answer", false, good.substr(0, 9), 0, 0, 0},
      {"no exception flag", false, good.substr(0, 8), -111, 0, -1},
      {"half a head", false, good.substr(0, 7), -111, 0, -1},
      {"a code", false, words({5, 6, 0}), -3, 6, -1},
      {"a code behind word 0 of an opening", false, words({0, 5, 0}), -3, 5, -1},
      {"an exception", false, zebsim::callExceptionData(zebsim::kInvoke), -3, 0, -1},
      {"no data: the request's own bytes are read", false, "", -3, 0x00700000, -1},
      {"an opening", true, openingData(0x01020304), 0, 0, -1},
      {"an opening refused", true, words({0, 5, 0}), -3, 5, -1},
      {"an opening cut by a byte", true, openingData(1).substr(0, 11), -111, 0, -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScriptedGateway gateway(Script().expect(RequestKind::kAny).reply(reply("Admin", c.data)));
    const Descriptor client = connectTo(gateway);
    AdminCallRecord record = {};
    record.header = {{'G', 'a', 't', 'e'}, 0x700000, 1, 0, 0, 5, "Admin", 0, c.isOpening ? 4U : 128U};
    record.callKind = c.isOpening ? 0 : 5;
    record.country = record.language = record.qualifier = record.beanName = record.action = record.argument =
        record.signature = "";
    reasons failure = {};
    EXPECT_EQ(flowAdminRequest(client.get(), &record, &failure), c.rc);
    EXPECT_EQ(failure.adminRc, c.adminRc);
    EXPECT_EQ(record.callData == nullptr, c.callDataLength < 0);
    if (record.callData != nullptr) {
      EXPECT_EQ(record.header.dataLength, static_cast<unsigned>(c.callDataLength));
    }
    EXPECT_EQ(record.adminId, c.isOpening && c.rc == 0 ? 0x01020304 : 0);
    free(record.callData);
  }
}

// ---- open

TEST(Open, mapsEveryFailureToItsCodeAndLeavesNothingBehind) {
  struct Case {
    const char* what;
    Script script;
    int rc;
  };
  auto connected = [] { return Script().answerConnect(); };
  auto asked = [] { return Script().answerConnect().answerOpening().expect(kGetAttribute); };
  auto attribute = [](const Bytes& answer) {
    return reply("Admin", callData(zebsim::kGetAttribute, answer));
  };
  const Case cases[] = {
      {"handshake hang-up", Script().expect(RequestKind::kHandshake).hangUp(), -118},
      {"handshake reset", Script().expect(RequestKind::kHandshake).reset(), -118},
      {"handshake code", handshakeAnswered(reply("BASE", "", 5)), -118},
      {"handshake with another name length", handshakeAnswered(reply("Admin", "")), -118},
      {"refused",
       handshakeAnswered(reply("BASE", ""))
           .expect(RequestKind::kAuthFirst)
           .reply(reply("Auth", words({0, 7}))),
       -118},
      {"hang-up in the second step",
       handshakeAnswered(reply("BASE", ""))
           .expect(RequestKind::kAuthFirst)
           .reply(reply("Auth", words({0, 0, 1, 2, 3})))
           .expect(RequestKind::kAuthSecond)
           .hangUp(),
       -118},
      {"opening hang-up", connected().expect(kOpening).hangUp(), -102},
      {"opening says the connection is gone", connected().expect(kOpening).reply(reply("Admin", "", 0xF004)),
       -102},
      {"opening code", connected().expect(kOpening).reply(reply("Admin", "", 5)), -122},
      {"opening refused", connected().expect(kOpening).reply(reply("Admin", words({0, 5, 0}))), -122},
      {"opening cut short", connected().expect(kOpening).reply(reply("Admin", words({0, 0}))), -122},
      {"opening answered as a call, then hang-up",
       connected().expect(kOpening).reply(attribute("call data")).expect(kGetAttribute).hangUp(), -102},
      {"version hang-up", asked().hangUp(), -102},
      {"version exception", asked().reply(reply("Admin", zebsim::callExceptionData(zebsim::kGetAttribute))),
       -122},
      {"version answered as an opening", asked().reply(reply("Admin", openingData(7))), -122},
      {"version without a length", asked().reply(attribute(Bytes(7, '\0'))), -122},
      {"version of negative length", asked().reply(attribute(Bytes(6, '\0') + wire("FFFF 414243"))), -122},
      {"version a byte too long", asked().reply(attribute(Bytes(6, '\0') + wire("0004 414243"))), -122},
  };
  // glibc sees for itself that such a name can not exist, and asks no server.
  EXPECT_EQ(openAt(1, std::string(70, 'x').c_str()).rc, -132);
  const std::ptrdiff_t before = countDescriptors();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    {
      ScriptedGateway gateway(c.script);
      const Opened opened = openAt(gateway.port());
      EXPECT_EQ(opened.rc, c.rc);
      EXPECT_EQ(opened.token, kUntouched);
      EXPECT_EQ(opened.version, "untouched");
      EXPECT_EQ(deleteGatewayTokens(), 1006);  // the list is empty
    }
    EXPECT_EQ(countDescriptors(), before);
  }
}

TEST(Open, tellsThatTheConnectionWasRefused) {
  const Descriptor silent(socket(AF_INET, SOCK_STREAM, 0));  // has its port but does not listen
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(bind(silent.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(getsockname(silent.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  EXPECT_EQ(openAt(ntohs(address.sin_port)).rc, -135);
}

TEST(Open, keepsAtMost63CharactersOfTheVersion) {
  for (const std::size_t length : {0U, 1U, 63U, 64U, 65U, 32767U}) {
    const std::string version(length, 'v');
    ScriptedGateway gateway(Script().answerOpen(version));
    Opened opened = openAt(gateway.port());
    EXPECT_EQ(opened.rc, 0);
    EXPECT_EQ(opened.version, version.substr(0, 63));
    EXPECT_EQ(closeGatewayConnection(&opened.token), 0);
  }
}

// ---- queries

TEST(Query, mapsEveryFailureToItsCodeAndRemovesTheConnection) {
  struct Case {
    const char* what;
    Script script;
    int rc;
  };
  auto opened = [] { return Script().answerOpen(); };
  auto asked = [] { return Script().answerOpen().answerOpening().expect(kInvoke); };
  const Case cases[] = {
      {"opening hang-up", opened().expect(kOpening).hangUp(), -102},
      {"opening reset", opened().expect(kOpening).reset(), -102},
      {"gone before the query", opened().reset(), -102},
      {"opening code", opened().expect(kOpening).reply(reply("Admin", "", 5)), -122},
      {"opening without data", opened().expect(kOpening).reply(reply("Admin", "")), -122},
      {"opening answered as a call, then hang-up",
       opened()
           .expect(kOpening)
           .reply(reply("Admin", callData(zebsim::kInvoke, "call data")))
           .expect(kInvoke)
           .hangUp(),
       -102},
      {"hang-up", asked().hangUp(), -102},
      {"another name length", asked().reply(reply("Admins", "")), -102},
      {"connection gone", asked().reply(reply("Admin", callData(zebsim::kInvoke, kNoIds), 0xF004)), -102},
      {"another code", asked().reply(reply("Admin", callData(zebsim::kInvoke, kNoIds), 0xF005)), -122},
      {"admin code", asked().reply(reply("Admin", zebsim::callFailedData(zebsim::kInvoke, 0xF004))), -122},
      {"exception", asked().reply(reply("Admin", zebsim::callExceptionData(zebsim::kInvoke))), -122},
      {"eight bytes", asked().reply(reply("Admin", words({5, 0}))), -122},
      {"without data", asked().reply(reply("Admin", "")), -122},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::ptrdiff_t before = countDescriptors();
    {
      ScriptedGateway gateway(c.script);
      GatewayToken* token = openGood(gateway);
      ResultSetToken* answer = nullptr;
      EXPECT_EQ(getStatIds(token, &answer), c.rc);
      EXPECT_EQ(answer, nullptr);
      EXPECT_EQ(getStatIds(token, &answer), -101);
      EXPECT_EQ(closeGatewayConnection(&token), -101);
      EXPECT_EQ(gateway.finish(), "");
    }
    EXPECT_EQ(countDescriptors(), before);
  }
}

TEST(Query, answeredAsAnOpeningReadsAsEmpty) {
  Script script = Script().answerOpen();
  for (int i = 0; i < 2; ++i) script.answerOpening().expect(kInvoke).reply(reply("Admin", openingData(7)));
  ScriptedGateway gateway(script);
  GatewayToken* token = openGood(gateway);
  const TraceCapture trace(4);  // which has no call data to show either
  ResultSetToken* answer = nullptr;
  StatData stat;
  IdData id;
  ASSERT_EQ(getStats(token, &answer), 0);
  EXPECT_EQ(getFirstStat(answer, &stat), -119);
  ASSERT_EQ(getStatIds(token, &answer), 0);
  EXPECT_EQ(getFirstId(answer, &id), -119);
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

TEST(Query, readsRepliesThatComeInAnyPieces) {
  const Bytes answer =
      zebsim::encodeAnswer({true, {{"q", 0, zebsim::Stats{{"ID", std::string(3000, 'v')}}}}});
  for (const std::size_t segment : {1U, 2U, 7U}) {
    ScriptedGateway gateway(Script().inSegments(segment).answerOpen().answerQuery(answer));
    GatewayToken* token = openGood(gateway);
    ResultSetToken* resultSet = nullptr;
    StatData stat;
    ASSERT_EQ(getStats(token, &resultSet), 0);
    ASSERT_EQ(getFirstStat(resultSet, &stat), 0);
    EXPECT_EQ(std::string(stat.statValuePtr, static_cast<std::size_t>(stat.statValueLen)),
              std::string(3000, 'v'));
    EXPECT_EQ(closeGatewayConnection(&token), 0);
  }
}

}  // namespace
}  // namespace zebtest
