// Whole sessions through the public calls: their exact trace, who may use a connection, and what
// the calls of other threads do to one that is being opened.

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "gateway_encoder.h"
#include "gateway_server.h"
#include "scripted_gateway.h"
#include "stapi_zeb_gwytok.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace {

using zebsim::GatewayServer;
using zebtest::Connection;
using zebtest::Named;
using zebtest::TraceCapture;

// What changes from run to run: times, ids, addresses, descriptors, ports and file names.
std::string maskTrace(const std::string& trace, const std::vector<Named>& names = {}) {
  static const std::vector<std::pair<std::regex, const char*>> masks = {
      {std::regex("^0x[0-9A-F]{8}: "), "ADDRESS: "},
      {std::regex(R"(^(\*\*\* )\d\d/\d\d/\d\d )"), "$1DATE "},
      {std::regex("(0x)+(?=[0-9a-f])"), "0x"},
      {std::regex(R"((socketDesc|socketDescriptor|socket|port)(=|\()\d+)"), "$1$2NUMBER"},
      {std::regex(R"((on socket|socketDescriptor\(|Created socket:) ?\d+)"), "$1 NUMBER"},
      {std::regex(R"(127\.0\.0\.1:\d+)"), "127.0.0.1:PORT"},
      {std::regex(R"(/tmp/zebtrace\.\w{6})"), "FILE"},
      {std::regex(R"((owningPid|owningTid)\([0-9A-F]{8}\))"), "$1(ID)"}};
  std::string all;
  for (const std::string& line : zebtest::splitLines(trace)) {
    std::string masked = zebtest::maskPrefix(line);
    for (const auto& [pattern, placeholder] : masks)
      masked = std::regex_replace(masked, pattern, placeholder);
    all += zebtest::nameAddresses(masked, names) + "\n";
  }
  return all;
}

// Compares with a recorded trace; what differs is in a file of that name in the temporary folder.
void expectRecorded(const std::string& actual, const std::string& name) {
  std::ifstream file(ZEB_TESTDATA_DIR "/" + name);
  const std::vector<std::string> recorded =
      zebtest::splitLines({std::istreambuf_iterator(file), {}});
  const std::vector<std::string> lines = zebtest::splitLines(actual);
  const auto [is, was] =
      std::mismatch(lines.begin(), lines.end(), recorded.begin(), recorded.end());
  if (is == lines.end() && was == recorded.end()) return;
  const std::string path = testing::TempDir() + name;
  std::ofstream(path) << actual;
  ADD_FAILURE() << "line " << is - lines.begin() + 1 << " of " << path << " is\n"
                << (is == lines.end() ? "missing" : *is) << "\nand not\n"
                << (was == recorded.end() ? "the end" : *was);
}

class RecordedSession : public testing::Test {
 protected:
  void SetUp() override {
    if (std::endian::native != std::endian::little || sizeof(void*) != 8)
      GTEST_SKIP() << "the recorded sizes and dumps are those of a 64-bit little-endian host";
    using namespace zebsim;
    server.setAnswer("RESOURCE_GROUPS", encodeAnswer({false, {{"", 0, Ids{"GD"}, {}}}}));
    server.setAnswer(
        "GET_STATS",
        encodeAnswer(
            {true, {{"Q1", 0, Stats{{"a", "1"}, {"b", "2"}}, {}}, {"Q2", -5, Stats{}, {}}}}));
    server.setAnswer("STAT_IDS",
                     encodeAnswer({true, {{"Q1", -5, Ids{}, {}}, {"Q2", 0, Ids{"a", "b"}, {}}}}));
  }
  GatewayServer server;
};

TEST_F(RecordedSession, TracesAtLevel5) {
  TraceCapture trace(5);
  {
    Connection connection(server.port());
    ResultSetToken* groups = nullptr;
    IdData id;
    ASSERT_EQ(getResourceGroupIds(connection.token, &groups), 0);
    EXPECT_EQ(getFirstId(groups, &id), 0);
    EXPECT_EQ(getNextId(groups, &id), ZEB_END_OF_RESULTS);
  }
  expectRecorded(maskTrace(trace.text()), "session_trace.txt");
}

// Every call that needs no other gateway, with good arguments and with null pointers.
TEST_F(RecordedSession, TracesEachCallAtLevel4) {
  Connection c(server.port());
  ResultSetToken *stats = nullptr, *ids = nullptr, *copy = nullptr;
  char* text = nullptr;
  StatData stat;
  IdData id;
  TraceCapture trace(4);
  const std::vector<Named> names = {{"TOKEN", c.token},
                                    {"BUFFER", c.token->resultSetBuf, kResultSetBufferSize},
                                    {"RESULTS", c.token->connRSToken},
                                    {"STATS", &stats},
                                    {"IDS", &ids},
                                    {"STAT", &stat},
                                    {"ID", &id},
                                    {"VARIABLE", &copy},
                                    {"HANDLE", &c.token}};
  getStats(c.token, &stats);
  for (int rc = getNextStat(stats, &stat); rc == 0;) rc = getNextStat(stats, &stat);
  getFirstStat(stats, &stat);
  getFirstId(stats, &id);
  getStatsByStatId(c.token, "a", &stats);
  getStatsByStatGroupId(c.token, "Q1", &stats);
  getStatIdsByStatGroupId(c.token, "Q1", &ids);
  getStatIds(c.token, &ids);
  for (int rc = getNextId(ids, &id); rc == 0;) rc = getNextId(ids, &id);
  getFirstId(ids, &id);
  getFirstStat(ids, &stat);
  getIdQuery(ids, &text);
  dumpResultSet(ids);
  dumpState();
  freeResultSet(&ids);
  std::string told = maskTrace(trace.text(), names);

  trace.restart();
  copyResultSet(ids, &copy);
  std::vector<Named> copied = names;
  copied.insert(copied.end(), {{"COPY", copy}, {"STORE", copy->head}});
  freeResultSet(&copy);
  told += maskTrace(trace.text(), copied);

  trace.restart();
  for (GatewayToken* token : {c.token, static_cast<GatewayToken*>(nullptr)}) {
    for (const auto query : {getStats, getStatIds, getResourceGroupIds}) query(token, nullptr);
    for (const auto query : {getStatsByStatId, getStatsByStatGroupId, getStatIdsByStatGroupId}) {
      query(token, nullptr, &ids);
      query(token, "a", nullptr);
    }
  }
  getStatsByStatId(c.token, std::string(32766, 'q').c_str(), &stats);
  for (ResultSetToken* set : {ids, static_cast<ResultSetToken*>(nullptr)}) {
    for (const auto step : {getFirstStat, getNextStat}) step(set, nullptr);
    for (const auto step : {getFirstId, getNextId}) step(set, nullptr);
    getIdQuery(set, nullptr);
    copyResultSet(set, nullptr);
  }
  dumpResultSet(nullptr);
  freeResultSet(nullptr);
  freeResultSet(&copy);
  getAPITraceLevel(nullptr);
  setAPITraceLevel(6);
  setAPITraceLevel(4);
  setAPITraceFile("/no/such/folder");
  getStatsAPIVersion(nullptr);
  getAPITimeout(nullptr);
  setAPITimeout(-1);
  getAPICodeText(1);
  closeGatewayConnection(nullptr);
  GatewayToken* none = nullptr;
  closeGatewayConnection(&none);
  for (const int port : {0, 65536}) openGatewayConnection(port, &none, &text);
  openRemoteGatewayConnection(nullptr, 1, nullptr, nullptr);
  openRemoteGatewayConnection(nullptr, 1, &none, nullptr);
  openRemoteGatewayConnection(nullptr, 65535, &none, &text);
  closeGatewayConnection(&c.token);
  closeAllGatewayConnections();
  told += maskTrace(std::regex_replace(trace.text(), std::regex("q{32766}"), "QUERY"), names);
  expectRecorded(told, "calls_trace.txt");
}

TEST(Session, IsRefusedToAnotherThreadWhoseIdIsTraced) {
  GatewayServer server;
  const Connection connection(server.port());
  const TraceCapture trace(1);
  int other = 0;
  std::thread([&] {
    ResultSetToken* answer = nullptr;
    other = static_cast<int>(pthread_self());
    EXPECT_EQ(getStats(connection.token, &answer), ZEB_OTHER_THREAD);
  }).join();
  const int own = static_cast<int>(pthread_self());
  const std::string told = zebtest::formatText("currentTid=%d, owningTid=%d\n", other, own);
  EXPECT_NE(trace.story().find(told), std::string::npos) << trace.text();
}

TEST(Session, OpeningBesideCloseAllLosesNoMemoryAndNoConnection) {
  GatewayServer server;
  std::atomic<bool> done = false;
  std::vector<std::thread> openers;
  for (int i = 0; i < 3; ++i) {
    openers.emplace_back([&] {
      for (int round = 0; round < 100; ++round) {
        GatewayToken* token = nullptr;
        char* version = nullptr;
        const int rc = openGatewayConnection(server.port(), &token, &version);
        EXPECT_TRUE(rc == 0 || rc == ZEB_TOKEN_UNKNOWN) << rc;
        if (rc == 0) std::free(version);
      }
    });
  }
  std::thread closer([&] {
    while (!done) EXPECT_EQ(closeAllGatewayConnections(), 0);
  });
  for (std::thread& opener : openers) opener.join();
  done = true;
  closer.join();
  EXPECT_EQ(closeAllGatewayConnections(), 0);
}

}  // namespace
