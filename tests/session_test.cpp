// Whole sessions through the public calls: their exact trace, who may use a connection, and what
// the calls of other threads do to one that is being opened.

#include <atomic>
#include <bit>
#include <cstdlib>
#include <fstream>
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
using zebtest::TraceCapture;

// What changes from run to run: times, ids, addresses, descriptors and the port.
std::string maskLine(const std::string& line) {
  static const std::vector<std::pair<std::regex, const char*>> masks = {
      {std::regex("^0x[0-9A-F]{8}: "), "ADDRESS: "},
      {std::regex("(0x)+[0-9a-f]+"), "ADDRESS"},
      {std::regex(R"((socketDesc|socketDescriptor|socket|port)(=|\()\d+)"), "$1$2NUMBER"},
      {std::regex(R"((on socket|socketDescriptor\(|Created socket:) ?\d+)"), "$1 NUMBER"},
      {std::regex(R"(127\.0\.0\.1:\d+)"), "127.0.0.1:PORT"},
      {std::regex(R"((owningPid|owningTid)\([0-9A-F]{8}\))"), "$1(ID)"}};
  std::string masked = line;
  for (const auto& [pattern, placeholder] : masks)
    masked = std::regex_replace(masked, pattern, placeholder);
  return masked;
}

TEST(Session, TraceAtLevel5IsExactlyAsRecorded) {
  if (std::endian::native != std::endian::little || sizeof(void*) != 8)
    GTEST_SKIP() << "the recorded sizes and dumps are those of a 64-bit little-endian host";
  GatewayServer server;
  server.setAnswer("RESOURCE_GROUPS",
                   zebsim::encodeAnswer({false, {{"", 0, zebsim::Ids{"GD"}, {}}}}));
  TraceCapture trace(5);
  {
    Connection connection(server.port());
    ResultSetToken* groups = nullptr;
    IdData id;
    ASSERT_EQ(getResourceGroupIds(connection.token, &groups), 0);
    EXPECT_EQ(getFirstId(groups, &id), 0);
    EXPECT_EQ(getNextId(groups, &id), ZEB_END_OF_RESULTS);
  }
  std::ifstream file(ZEB_TESTDATA_DIR "/session_trace.txt");
  const std::vector<std::string> lines = trace.lines();
  const std::string actualPath = testing::TempDir() + "session_trace.txt";
  std::ofstream actual(actualPath);
  std::size_t count = 0;
  bool same = true;
  for (const std::string& line : lines) {
    std::string expected;
    std::getline(file, expected);
    const std::string masked = maskLine(line);
    actual << masked << '\n';
    ++count;
    if (!same) continue;
    same = masked == expected;
    EXPECT_EQ(masked, expected) << "line " << count << "; the whole trace is in " << actualPath;
  }
  EXPECT_GT(count, 100U);
  EXPECT_EQ(file.peek(), std::ifstream::traits_type::eof()) << "the recorded trace goes on";
}

TEST(Session, ConnectionBelongsToTheThreadThatOpenedIt) {
  GatewayServer server;
  Connection connection(server.port());
  ASSERT_EQ(connection.rc, 0);
  std::thread([&] {
    ResultSetToken* answer = nullptr;
    EXPECT_EQ(getStats(connection.token, &answer), ZEB_OTHER_THREAD);
    EXPECT_EQ(closeGatewayConnection(&connection.token), 0);  // closing is anybody's
  }).join();
  EXPECT_EQ(connection.token, nullptr);
}

TEST(Session, EveryQueryHandsOutTheSameResultSetWhoseIdsAreTheNextQuery) {
  GatewayServer server;
  Connection connection(server.port());
  ResultSetToken* stats = nullptr;
  ResultSetToken* ids = nullptr;
  char* query = nullptr;
  StatData stat;
  ASSERT_EQ(getStats(connection.token, &stats), 0);
  ASSERT_EQ(getStatIds(connection.token, &ids), 0);
  EXPECT_EQ(stats, ids);
  EXPECT_EQ(freeResultSet(&stats), ZEB_NOT_A_COPY);
  ASSERT_EQ(getIdQuery(ids, &query), 0);
  const std::string all = query;
  ASSERT_EQ(getStatsByStatId(connection.token, all.c_str(), &stats), 0);
  std::string walked;
  for (int rc = getFirstStat(stats, &stat); rc == 0; rc = getNextStat(stats, &stat))
    walked.append(walked.empty() ? "" : ":")
        .append(stat.statIdPtr, static_cast<std::size_t>(stat.statIdLen));
  EXPECT_EQ(walked, all);
}

TEST(Session, TwoHundredAndFiftySixConnectionsAreTheLimitOfTheList) {
  GatewayServer server;
  std::vector<GatewayToken*> tokens(256);
  for (GatewayToken*& token : tokens) {
    char* version = nullptr;
    ASSERT_EQ(openGatewayConnection(server.port(), &token, &version), 0);
    std::free(version);
  }
  EXPECT_EQ(verifyGatewayToken(tokens.back()), 0);
  {
    TraceCapture trace(0);
    EXPECT_EQ(dumpGatewayTokens(), 1005);
  }
  EXPECT_EQ(closeAllGatewayConnections(), ZEB_TOKEN_LIST_CORRUPT);
  EXPECT_EQ(closeAllGatewayConnections(), 0);
  EXPECT_EQ(closeGatewayConnection(&tokens.back()), ZEB_TOKEN_UNKNOWN);
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
