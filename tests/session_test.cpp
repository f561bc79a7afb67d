// Whole sessions through the public calls, whose traces are compared with recorded ones.

#include <bit>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "gateway_encoder.h"
#include "gateway_server.h"
#include "scripted_gateway.h"
#include "trace_capture.h"
#include "zebstats_private.h"

namespace {

using zebtest::Connection;
using zebtest::Named;
using zebtest::TraceCapture;

class RecordedSession : public testing::Test {
 protected:
  void SetUp() override {
    if (std::endian::native != std::endian::little || sizeof(void*) != 8)
      GTEST_SKIP() << "the recorded sizes and dumps are those of a 64-bit little-endian host";
    using namespace zebsim;
    server.setAnswer("RESOURCE_GROUPS", encodeAnswer({false, {{"", 0, Ids{"GD"}}}}));
    server.setAnswer(
        "GET_STATS",
        encodeAnswer({true, {{"Q1", 0, Stats{{"a", "1"}, {"b", "2"}}}, {"Q2", -5, Stats{}}}}));
    server.setAnswer("STAT_IDS",
                     encodeAnswer({true, {{"Q1", -5, Ids{}}, {"Q2", 0, Ids{"a", "b"}}}}));
  }
  zebsim::GatewayServer server;
};

TEST_F(RecordedSession, TracesEachLineAtLevel5) {
  const TraceCapture trace(5);
  {
    const Connection connection(server.port());
    ResultSetToken* groups = nullptr;
    IdData id;
    ASSERT_EQ(getResourceGroupIds(connection.token, &groups), 0);
    EXPECT_EQ(getFirstId(groups, &id), 0);
    EXPECT_EQ(getNextId(groups, &id), ZEB_END_OF_RESULTS);
  }
  zebtest::expectRecorded(trace.masked(), ZEB_TESTDATA_DIR "/session_trace.txt");
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
  std::string all = trace.masked(names);

  trace.restart();
  copyResultSet(ids, &copy);
  std::vector<Named> copied = names;
  copied.insert(copied.end(), {{"COPY", copy}, {"STORE", copy->head}});
  freeResultSet(&copy);
  all += trace.masked(copied);

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
  all += std::regex_replace(trace.masked(names), std::regex("q{32766}"), "QUERY");
  zebtest::expectRecorded(all, ZEB_TESTDATA_DIR "/calls_trace.txt");
}

}  // namespace
