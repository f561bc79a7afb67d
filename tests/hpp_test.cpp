// zebstats.hpp as an outside C++17 program sees it, against the simulated gateway.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <type_traits>

#include "gateway_server.h"
#include "zebstats.hpp"

namespace {

using zebstats::Connection;

template <typename C, typename = void>
struct CanAsk : std::false_type {};
template <typename C>
struct CanAsk<C, std::void_t<decltype(std::declval<C>().stats())>> : std::true_type {};

static_assert(CanAsk<Connection&>::value && !CanAsk<Connection>::value,
              "a temporary's answer would dangle");
static_assert(!std::is_copy_constructible_v<Connection> &&
              !std::is_copy_constructible_v<zebstats::StatSetCopy>);

class Hpp : public testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the server has a thread
    ASSERT_EQ(gateway.open("127.0.0.1", server->port()).code(), 0);
  }
  std::unique_ptr<zebsim::GatewayServer> server = std::make_unique<zebsim::GatewayServer>();
  Connection gateway;
};

// A view used after its answer is gone: an assertion fails, or with NDEBUG it returns an error.
template <typename View>
void expectStale(View& view, const char* assertion, [[maybe_unused]] int code) {
  EXPECT_DEBUG_DEATH((void)view.begin(), assertion);
#ifdef NDEBUG
  EXPECT_EQ(view.begin(), view.end());
  EXPECT_EQ(view.error().code(), code);
  EXPECT_EQ(view.copy().error().code(), code);
#endif
}

TEST_F(Hpp, AWalkMeetsGoodAndRefusedElementsAndReportsItsEnd) {
  zebstats::StatSet answer = gateway.statsByIds("HOST_CPUS:NO_SUCH:LISTEN_PORT");
  std::string met;
  for (const zebstats::Stat& stat : answer) {
    EXPECT_FALSE(answer.ended());
    met += std::string(stat.element) + (stat.ok() ? " ok " : " refused ") + std::string(stat.id) +
           "=" + std::string(stat.value) + "; ";
  }
  EXPECT_EQ(met, "HOST_CPUS ok HOST_CPUS=16; NO_SUCH refused =; LISTEN_PORT ok LISTEN_PORT=2980; ");
  EXPECT_TRUE(answer.ended() && !answer.error());
  EXPECT_EQ(std::distance(answer.begin(), answer.end()), 3);  // begin() starts again
}

TEST_F(Hpp, EachQueryAsksItsOwnQuestion) {
  const auto count = [](auto answer) { return std::distance(answer.begin(), answer.end()); };
  EXPECT_EQ(count(gateway.stats()), 60);
  EXPECT_EQ(count(gateway.statsByGroups("LISTEN:WORK")), 20);
  EXPECT_EQ(count(gateway.ids()), 60);
  EXPECT_EQ(count(gateway.idsByGroups("WORK")), 10);
  EXPECT_EQ(count(gateway.groups()), 6);
  const std::string tooLong(32766, 'x');
  EXPECT_EQ(gateway.statsByIds(tooLong.c_str()).error().code(), ZEB_QUERY_TOO_LONG);
  EXPECT_TRUE(gateway.isOpen());
}

TEST_F(Hpp, ACopyOutlivesQueryConnectionAndThread) {
  zebstats::IdSetCopy kept = gateway.groups().copy();
  (void)gateway.stats();
  gateway.close();
  const char* query = "";
  EXPECT_FALSE(kept.idQuery(query));
  EXPECT_STREQ(query, "LISTEN:WORK:REQ:LINK:VM:HOST");
  std::ptrdiff_t walked = 0;
  std::thread([moved = std::move(kept), &walked]() mutable {
    walked = std::distance(moved.begin(), moved.end());
  }).join();
  EXPECT_EQ(walked, 6);
  EXPECT_EQ(kept.copy().error().code(), ZEB_RESULT_SET_NULL);
}

TEST_F(Hpp, AViewNoticesTheNextQueryAndTheEndOfItsConnection) {
  zebstats::StatSet first = gateway.stats();
  zebstats::StatSet second = gateway.stats();
  expectStale(first, "after another query", ZEB_WRONG_CONTENT);
  Connection moved = std::move(gateway);
  EXPECT_NE(second.begin(), second.end());
  EXPECT_EQ(gateway.stats().error().code(), ZEB_TOKEN_NULL);
  moved = Connection();
  expectStale(second, "connection was closed or lost", ZEB_TOKEN_UNKNOWN);
}

TEST_F(Hpp, ALostOrSilentConnectionIsReportedOnceAndOpenedAgain) {
  zebsim::ServerOptions options;
  options.troubles.mute = zebsim::Troubles::Mute::kQuery;
  const zebsim::GatewayServer silent(options);
  zebstats::StatSet before = gateway.stats();
  server.reset();
  EXPECT_EQ(gateway.stats().error().code(), ZEB_CONNECTION_LOST);
  EXPECT_FALSE(gateway.isOpen());
  expectStale(before, "connection was closed or lost", ZEB_TOKEN_UNKNOWN);
  EXPECT_EQ(gateway.open("127.0.0.1", 0).code(), ZEB_PORT_INVALID);
  EXPECT_EQ(gateway.open("127.0.0.1", silent.port()).code(), 0);
  EXPECT_STREQ(gateway.protocolVersion(), "2_0_0_1");
  EXPECT_EQ(zebstats::setTimeout(-1).code(), ZEB_TIMEOUT_INVALID);
  EXPECT_FALSE(zebstats::setTimeout(50));
  EXPECT_EQ(zebstats::timeout(), 50);
  EXPECT_EQ(gateway.stats().error().code(), ZEB_TIMED_OUT);
  EXPECT_FALSE(gateway.isOpen());
}

std::string readFile(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(HppError, EveryCodeHasItsNumberAndATextThatTheHeaderAndTheManualPrint) {
  const std::string header = readFile(ZEB_PUBLIC_HEADER), manual = readFile(ZEB_MANUAL);
  const std::regex codeLine(R"(\n\s+ZEB_(\w+) = (-?\d+))");
  std::set<std::string> texts = {zebstats::describe(1)};
  std::map<int, std::string> names;
  for (std::sregex_iterator match(header.begin(), header.end(), codeLine), none; match != none;
       ++match) {
    const int code = std::stoi((*match)[2]);
    const std::string name = names[code] = (*match)[1], text = zebstats::describe(code);
    EXPECT_TRUE(texts.insert(text).second) << name << ": " << text;
    EXPECT_NE(header.find("/* " + text + " */"), std::string::npos) << name << ": " << text;
    EXPECT_NE(manual.find(".Dv ZEB_" + name + " :\n" + text + "\n."), std::string::npos) << name;
  }
  // Compiled programs hold these numbers: 0, -2, and from -100 down; there are gaps.
  std::string inOrder = names[0] + " " + names[-2] + " ";
  for (int code = -100; code >= -138; --code) inOrder += names[code] + " ";
  EXPECT_EQ(inOrder,
            "OK QUERY_TOO_LONG TOKEN_NULL TOKEN_UNKNOWN CONNECTION_LOST BUFFER_NULL "
            "TRACE_LEVEL_INVALID "
            "VERSION_POINTER_NULL NOT_A_COPY PORT_INVALID TOKEN_POINTER_NULL OUTPUT_POINTER_NULL "
            "NO_RESULT_SET_BUFFER NO_MEMORY  END_OF_RESULTS  TOKEN_LIST_CORRUPT OWNER_INVALID  "
            "CONNECT_FAILED WRONG_CONTENT  TRACE_LOCK_FAILED COMMUNICATION_FAILED OTHER_PROCESS "
            "OTHER_THREAD RESULT_SET_POINTER_NULL QUERY_NULL RESULT_SET_NULL ID_DATA_NULL "
            "STAT_DATA_NULL TRACE_FILE_FAILED NO_GOOD_ID HOST_UNKNOWN HOST_NULL CONNECT_TIMED_OUT "
            "CONNECT_REFUSED NETWORK_UNREACHABLE TIMEOUT_INVALID TIMED_OUT ");
}

}  // namespace
