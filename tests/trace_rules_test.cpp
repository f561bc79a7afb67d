// What holds for the trace as a whole: which lines share a number, a lock or a time stamp.

#include <unistd.h>

#include <deque>
#include <map>
#include <regex>
#include <set>

#include "scripted_gateway.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwytok.h"
#include "trace_capture.h"

namespace zebtest {
namespace {

// One line in a trace that has a prefix.
struct Line {
  std::string stamp, thread, point, word, text;
};

std::vector<Line> linesOf(const std::string& trace) {
  std::vector<Line> lines;
  for (const std::string& line : splitLines(trace)) {
    if (!hasShape(line, "99/99/99 99:99:99:999 [0xFFFFFFFF,0xFFFFFFFF] [9999] ")) continue;
    lines.push_back({line.substr(0, 21), line.substr(36, 8), line.substr(47, 4),
                     line.substr(53, line.find(' ', 53) - 53), line.substr(60)});
  }
  return lines;
}

// Every public call, with its good and its bad arguments.
void callEverything(int port) {
  const Connection connection(port);
  ResultSetToken* answer = nullptr;
  ResultSetToken* copy = nullptr;
  char* text = nullptr;
  StatData stat;
  IdData id;
  const std::string overlong(40000, 'q');
  for (GatewayToken* token : {connection.token, static_cast<GatewayToken*>(nullptr)}) {
    for (ResultSetToken** result : {&answer, static_cast<ResultSetToken**>(nullptr)}) {
      for (const auto query : {getStats, getStatIds, getResourceGroupIds}) query(token, result);
      for (const auto query : {getStatsByStatId, getStatsByStatGroupId, getStatIdsByStatGroupId})
        for (const char* ids : {"GD:CM", overlong.c_str(), static_cast<const char*>(nullptr)})
          query(token, ids, result);
    }
  }
  for (const bool ofStats : {true, false}) {
    ofStats ? getStats(connection.token, &answer) : getStatIds(connection.token, &answer);
    for (ResultSetToken* set : {answer, static_cast<ResultSetToken*>(nullptr)}) {
      for (StatData* record : {&stat, static_cast<StatData*>(nullptr)})
        for (int rc = getFirstStat(set, record); rc == 0;) rc = getNextStat(set, record);
      for (IdData* record : {&id, static_cast<IdData*>(nullptr)})
        for (int rc = getFirstId(set, record); rc == 0;) rc = getNextId(set, record);
      getNextStat(set, nullptr);
      getNextId(set, nullptr);
      copyResultSet(set, nullptr);
      dumpResultSet(set);
      getIdQuery(set, nullptr);
      getIdQuery(set, &text);
    }
    copyResultSet(answer, &copy);
    freeResultSet(&copy);
  }
  freeResultSet(nullptr);
  getStatsAPIVersion(nullptr);
  getAPITimeout(nullptr);
  dumpState();
}

TEST(TracePoints, leadToOneFunctionEach) {
  zebsim::GatewayServer server;
  server.setAnswer("GET_STATS",
                   zebsim::encodeAnswer({true,
                                         {{"GD", 0, zebsim::Stats{{"A", "1"}, {"B", "2"}}, {}},
                                          {"XX", -11, zebsim::Stats{}, {}},
                                          {"CM", 0, zebsim::Stats{{"C", "3"}}, {}}}}));
  server.setAnswer("STAT_IDS", zebsim::encodeAnswer({true,
                                                     {{"GD", 0, zebsim::Ids{"A", "B"}, {}},
                                                      {"XX", -11, zebsim::Ids{}, {}},
                                                      {"CM", 0, zebsim::Ids{"C"}, {}}}}));
  const TraceCapture trace(5);
  callEverything(server.port());
  std::map<std::string, std::set<std::string>> functions;
  static const std::regex name(R"((API|stapi_zeb_\w+)\.\w+)");
  for (const Line& line : linesOf(trace.text())) {
    std::smatch found;
    ASSERT_TRUE(std::regex_search(line.text, found, name)) << line.text;
    functions[line.point].insert(found.str());
  }
  EXPECT_GT(functions.size(), 150U);
  for (const auto& [point, names] : functions)
    EXPECT_LE(names.size(), point == "1029" || point == "3002" ? 2U : 1U)
        << point << ": " << *names.begin() << ", " << *names.rbegin();
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

// The lines of the list's own lock and of the functions that take it, in order.
std::string lockStory(const std::string& trace) {
  const std::string traced = formatText("lockPtr=%p)", static_cast<void*>(&traceLock));
  static const std::regex shown(
      R"((requestLock|releaseLock|chainGatewayToken|deleteGatewayToken|verifyGatewayToken)\()");
  std::string story;
  std::smatch found;
  for (const Line& line : linesOf(trace)) {
    if (!std::regex_search(line.text, found, shown) || line.text.find(traced) != line.text.npos)
      continue;
    const bool isLock = found[1] == "requestLock" || found[1] == "releaseLock";
    if (isLock ? line.word == "ENTRY" : line.word == "ENTRY" || line.word == "EXIT")
      story += isLock ? found.str(1) + " " : line.word + " " + found.str(1) + " ";
  }
  return story;
}

TEST(Open, takesTheLockOfTheListOnlyToChainAndToDelete) {
  zebsim::GatewayServer server;
  const std::string chained =
      "ENTRY chainGatewayToken requestLock releaseLock EXIT chainGatewayToken ";
  {
    TraceCapture trace(5);
    const Connection connection(server.port());
    EXPECT_EQ(lockStory(trace.text()), chained);
  }
  const Listener refusing;
  shutdown(refusing.socket.get(), SHUT_RDWR);  // keeps its port and refuses every client
  TraceCapture trace(5);
  EXPECT_EQ(Connection(refusing.port).rc, ZEB_CONNECT_REFUSED);
  EXPECT_EQ(lockStory(trace.text()),
            chained + "ENTRY deleteGatewayToken requestLock releaseLock EXIT deleteGatewayToken ");
}

TEST(Deletion, tracesItsLinesBetweenItsEntryAndItsExit) {
  alarm(20);
  const ScriptedGateway slow(Script().expect().silence());
  zebsim::GatewayServer server;
  std::deque<Connection> all;
  while (all.size() < kRunawayLimit) all.emplace_back(server.port());
  const TraceCapture trace(4);
  EXPECT_EQ(Connection(server.port()).rc, ZEB_TOKEN_LIST_CORRUPT);
  all.clear();
  EXPECT_EQ(Connection(server.port()).rc, 0);
  Connection(
      ScriptedGateway(Script().answerConnect().answer(zebsim::reply("Admin", "", 5))).port());
  std::thread closer([&] {
    slow.awaitSilence();
    EXPECT_EQ(closeAllGatewayConnections(), 0);
  });
  EXPECT_EQ(Connection(slow.port()).rc, ZEB_TOKEN_UNKNOWN);
  closer.join();
  std::map<std::string, int> inside;  // of each thread
  int deletions = 0;
  for (const Line& line : linesOf(trace.text())) {
    if (!line.text.starts_with("stapi_zeb_gwytok.deleteGatewayToken") ||
        line.text.find("Tokens(") < 40)
      continue;
    if (line.word == "ENTRY") ++inside[line.thread], ++deletions;
    EXPECT_EQ(inside[line.thread], 1) << line.text;
    if (line.word == "EXIT") --inside[line.thread];
  }
  EXPECT_GE(deletions, 3);
  alarm(0);
}

// A trace destination so slow that no two lines have the same time.
ssize_t writeSlowly(void* written, const char* bytes, std::size_t size) {
  usleep(2000);
  static_cast<std::string*>(written)->append(bytes, size);
  return static_cast<ssize_t>(size);
}

TEST(TimeStamp, isRepeatedFromTheLineBeforeEvenFromOneOfALock) {
  ASSERT_EQ(setAPITraceLevel(0), 0);
  std::string written;
  statAPITraceHandle = fopencookie(&written, "w", {nullptr, writeSlowly, nullptr, nullptr});
  setAPITraceLevel(5);
  EXPECT_EQ(dumpState(), 0);
  EXPECT_EQ(initGTL(), 1);
  setAPITraceLevel(0);
  fclose(std::exchange(statAPITraceHandle, stderr));
  const std::vector<Line> lines = linesOf(written);
  int repeated = 0;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const std::string event = lines[i].word + " " + lines[i].text;
    if (event != "EXIT API.dumpState()" && event != "ENTRY stapi_zeb_gwytok.initGTL()") continue;
    ++repeated;
    EXPECT_NE(lines[i - 1].text.find("stapi_zeb_lock."), std::string::npos) << lines[i - 1].text;
    EXPECT_EQ(lines[i].stamp, lines[i - 1].stamp) << event;
  }
  EXPECT_EQ(repeated, 2);
}

}  // namespace
}  // namespace zebtest
