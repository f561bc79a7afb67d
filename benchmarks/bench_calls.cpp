// The calls of the library, each against its floor: bare code that does the same work.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>

#include "connection.h"
#include "floors.h"
#include "zebstats_private.h"

namespace {

using namespace zebbench;
using benchmark::State;

constexpr std::size_t kSmall = 10;
constexpr std::size_t kMany = 1000;

// ---- Queries ------------------------------------------------------------------------------------

void smallQuery(State& state, Goal goal) {
  const Bytes answer = statsAnswer(kSmall);
  Peer peer(answer);
  Connection library(peer.port());
  const BareQuery bare(peer.port(), answer);
  measure(state, goal, 10, {{"bare", [&] { bare(); }}, {"call", [&] { library.query(); }}});
}

void limitedQuery(State& state, Goal goal) {
  Peer peer(statsAnswer(kSmall));
  Connection library(peer.port());
  const auto query = [&](int milliseconds) {
    setAPITimeout(milliseconds);
    library.query();
    setAPITimeout(0);
  };
  measure(state, goal, 10,
          {{"without a limit", [&] { query(0); }}, {"with one", [&] { query(60000); }}});
}

// ---- Walks --------------------------------------------------------------------------------------

void requireEntries(ResultSetToken* answer, std::size_t count) {
  require(walk(answer) == static_cast<int>(count), "a walk does not find every entry");
}

void stepEntries(const ResultSetToken* answer) {
  StatData record;
  stepOverEntries(firstEntry(answer->head), record);
}

void walkAnswer(State& state, Goal goal, ResultSetToken* answer) {
  requireEntries(answer, kMany);
  measure(state, goal, 10,
          {{"bare", [=] { stepEntries(answer); }}, {"call", [=] { walk(answer); }}});
}

void walkOwn(State& state, Goal goal) {
  Peer peer(statsAnswer(kMany));
  Connection library(peer.port());
  walkAnswer(state, goal, library.query());
}

void walkCopy(State& state, Goal goal) {
  Peer peer(statsAnswer(kMany));
  Connection library(peer.port());
  ResultSetToken* copy = nullptr;
  require(copyResultSet(library.query(), &copy) == ZEB_OK, "copyResultSet failed");
  walkAnswer(state, goal, copy);
  freeResultSet(&copy);
}

void wholeCycle(State& state, Goal goal) {
  const WireAnswer answer(kMany);
  Peer peer(answer.bytes);
  Connection library(peer.port());
  const BareQuery bare(peer.port(), answer.bytes);
  ResultSetToken* decoded = library.query();
  measure(state, goal, 5,
          {{"bare",
            [&] {
              bare();
              answer.step();
              stepEntries(decoded);
            }},
           {"call", [&] { walk(library.query()); }}});
}

// ---- Copies and query strings -------------------------------------------------------------------

void copyWarm(State& state, Goal goal) {
  Peer peer(statsAnswer(kMany));
  Connection library(peer.port());
  ResultSetToken* answer = library.query();
  std::vector<char> room(kResultSetBufferSize);
  measure(state, goal, 10,
          {{"bare",
            [&] {
              memcpy(room.data(), answer->head, kResultSetBufferSize);
              benchmark::ClobberMemory();
            }},
           {"call", [&] {
              ResultSetToken* copy = nullptr;
              require(copyResultSet(answer, &copy) == ZEB_OK, "copyResultSet failed");
              freeResultSet(&copy);
            }}});
}

void joinMany(State& state, Goal goal) {
  Peer peer(idsAnswer(kMany));
  Connection library(peer.port());
  ResultSetToken* ids = library.queryIds();
  std::vector<char> room(kQueryStringSize);
  char* joined = nullptr;
  require(getIdQuery(ids, &joined) == ZEB_OK, "getIdQuery failed");
  require(joinIds(firstEntry(ids->head), room.data()) == strlen(joined), "the joined ids differ");
  measure(state, goal, 10,
          {{"bare",
            [&] {
              joinIds(firstEntry(ids->head), room.data());
              benchmark::ClobberMemory();
            }},
           {"call", [&] { getIdQuery(ids, &joined); }}});
}

// ---- Opening and tracing ------------------------------------------------------------------------

void openAndClose(State& state, Goal goal) {
  Peer peer(statsAnswer(kSmall));
  peer.startRecording();
  { const Connection recorded(peer.port()); }
  const std::vector<Bytes> requests = peer.stopRecording();
  require(requests.size() == 6, "opening and closing is not six exchanges");
  // The replies: handshake, the two steps of the authorisation, opening call, protocol version,
  // close.
  const std::size_t protocol = 29 + 5 + 9 + zebsim::encodeProtocol("2_0_0_1").size();
  const std::size_t sizes[] = {29 + 4, 29 + 4 + 20, 29 + 4 + 16, 29 + 5 + 12, protocol, 29 + 4};
  measure(state, goal, 3,
          {{"bare",
            [&] {
              const int connection = connectBare(peer.port());
              for (std::size_t i = 0; i < requests.size(); ++i)
                exchangeBare(connection, requests[i], sizes[i]);
              close(connection);
            }},
           {"call", [&] { const Connection opened(peer.port()); }}});
}

// Returns the lines of the trace file, with their line ends.
std::vector<Bytes> readLines(const char* path) {
  std::ifstream file(path);
  std::vector<Bytes> lines;
  for (Bytes line; std::getline(file, line);) lines.push_back(line + '\n');
  return lines;
}

void traceLine(State& state, Goal goal) {
  char path[] = "/tmp/zebbench.XXXXXX";
  const int file = mkstemp(path);
  fcntl(file, F_SETFL, O_APPEND);
  int level = 0;
  setAPITraceFile(path);
  setAPITraceLevel(3);  // the calls themselves
  require(truncate(path, 0) == 0 && getAPITraceLevel(&level) == ZEB_OK, "cannot trace");
  const std::vector<Bytes> lines = readLines(path);
  require(lines.size() == 2, "getAPITraceLevel does not write two lines");
  measure(state, goal, 20,
          {{"bare",
            [&] {
              for (const Bytes& line : lines)
                require(write(file, line.data(), line.size()) > 0, "cannot write");
            }},
           {"call", [&] { getAPITraceLevel(&level); }}});
  setAPITraceLevel(0);
  setAPITraceFile(nullptr);
  close(file);
  unlink(path);
}

// ---- Growth -------------------------------------------------------------------------------------

// A connection whose answers have `count` statistics. Each step handles kGrowthTotal statistics.
struct SizedGateway {
  explicit SizedGateway(std::size_t count) : peer(statsAnswer(count)), library(peer.port()) {
    answer = library.query();
    requireEntries(answer, count);
  }
  Peer peer;
  Connection library;
  ResultSetToken* answer;
};

void measureGrowth(State& state, Goal goal, void (*work)(SizedGateway&)) {
  std::vector<std::unique_ptr<SizedGateway>> gateways;
  std::vector<Step> steps;
  for (const std::size_t size : kGrowthSizes) {
    gateways.push_back(std::make_unique<SizedGateway>(size));
    steps.push_back({std::to_string(size), [&gateway = *gateways.back(), size, work] {
                       for (std::size_t done = 0; done < kGrowthTotal; done += size) work(gateway);
                     }});
  }
  measureFlatness(state, goal, steps);
}

// Measures a query on the first of many connections, which the search of the list finds at once,
// against the bare query, and one on the last connection, to show the cost of the search.
void manyConnections(State& state, Goal goal) {
  const Bytes answer = statsAnswer(kSmall);
  double flattest = 0;
  double steepest = 0;
  for (const int count : {1, 16, 64, 250}) {
    // In a process of its own: many threads in this one would slow down sigaction.
    const PeerProcess peer(kSmall, count + 1);
    std::vector<std::unique_ptr<Connection>> connections;
    for (int i = 0; i < count; ++i)
      connections.push_back(std::make_unique<Connection>(peer.port()));
    const BareQuery bare(peer.port(), answer);
    const std::vector<double> medians =
        runRounds(10, {{"bare", [&] { bare(); }},
                       {"first", [&] { connections.front()->query(); }},
                       {"last", [&] { connections.back()->query(); }}})
            .medians();
    const std::string many = std::to_string(count) + " connections ";
    state.counters[many + "bare ns"] = medians[0];
    state.counters[many + "first ns"] = medians[1];
    state.counters[many + "last ns"] = medians[2];
    const double ratio = secondOverFirst(medians);
    flattest = flattest == 0 ? ratio : std::min(flattest, ratio);
    steepest = std::max(steepest, ratio);
  }
  report(state, goal, steepest / flattest);
}

}  // namespace

int main(int argc, char** argv) {
  pinToOneCore();
  addRow("P1 getStats, small answer / the same four bare sends and receives", {1.18, 1.12},
         smallQuery);
  addRow("P17 getStats with a time limit / without one", {1.05, 0}, limitedQuery);
  addRow("P4 walk of a connection's own 1,000 statistics / bare pointer loop", {1.9, 1.5}, walkOwn);
  addRow("P5 walk of a copy / bare pointer loop", {1.7, 1.4}, walkCopy);
  addRow("P6 query, decoding and walk of 1,000 / sum of the floors", {1.20, 1.15}, wholeCycle);
  addRow("P8 copyResultSet and freeResultSet, warm / memcpy of 153,600 bytes", {1.15, 1.05},
         copyWarm);
  addRow("P9 open and close / bare connect, six exchanges, close", {1.25, 1.15}, openAndClose);
  addRow("P10 trace line to a file / bare write of the same bytes", {2.0, 1.7}, traceLine);
  addRow("P11 getIdQuery over 1,000 ids / bare loop joining them", {2.0, 1.5}, joinMany);
  addRow("P16 time per statistic of a query, 100 to 3,000: growth", {1.10, 0},
         [](State& state, Goal goal) {
           measureGrowth(state, goal, [](SizedGateway& gateway) { gateway.library.query(); });
         });
  addRow("P16 time per statistic of a walk, 100 to 3,000: growth", {1.10, 0},
         [](State& state, Goal goal) {
           measureGrowth(state, goal, [](SizedGateway& gateway) { walk(gateway.answer); });
         });
  addRow("P16 query with 1 to 250 connections / bare: growth", {1.10, 0}, manyConnections);
  return runRows(argc, argv);
}
