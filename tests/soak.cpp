// soak [QUERIES [PAIRS]]: so many queries on one connection, then so many pairs of an open and a
// close, against a simulated gateway in this process. Shows its progress, resident memory and
// descriptors, and fails unless both stay flat behind the first tenth.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <thread>

#include "gateway_encoder.h"
#include "gateway_server.h"
#include "zebstats.h"

namespace {

constexpr long kSlackKilobytes = 512;  // a byte lost in every query would be more

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "soak: %s\n", what);
  std::exit(1);
}

long residentKilobytes() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

long openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

struct Connection {
  explicit Connection(int port) {
    char* version = nullptr;
    require(openGatewayConnection(port, &token, &version) == 0 && version != nullptr,
            "an open failed");
    std::free(version);
  }
  ~Connection() { require(closeGatewayConnection(&token) == 0, "a close failed"); }
  GatewayToken* token = nullptr;
};

void askOnce(GatewayToken* token, long round) {
  ResultSetToken* answer = nullptr;
  ResultSetToken* copy = nullptr;
  char* query = nullptr;
  StatData stat;
  const bool isStats = round % 2 == 0;
  const int rc =
      isStats ? getStatsByStatId(token, "GD_CALLS", &answer) : getStatIds(token, &answer);
  require(rc == 0, "a query failed");
  if (isStats) {
    require(getFirstStat(answer, &stat) == 0 && std::string_view(stat.statValuePtr, 2) == "42",
            "a wrong answer");
  } else {
    require(getIdQuery(answer, &query) == 0 && query == std::string_view("GD_CALLS"),
            "a wrong query string");
  }
  if (round % 16 == 0)
    require(copyResultSet(answer, &copy) == 0 && freeResultSet(&copy) == 0, "a copy failed");
}

// Runs all rounds, behind which so many descriptors are to be open.
template <typename Round>
void soak(const char* what, long rounds, long descriptors, Round round) {
  const long step = std::max(rounds / 10, 1L);
  long warm = 0;
  long peak = 0;
  for (long i = 0; i < rounds; ++i) {
    round(i);
    if ((i + 1) % step != 0) continue;
    const long resident = residentKilobytes();
    if (warm == 0) warm = resident;
    peak = std::max(peak, resident);
    std::printf("%9ld %s  %6ld KB resident  %3ld descriptors\n", i + 1, what, resident,
                openDescriptors());
    std::fflush(stdout);
  }
  // The gateway's thread may be about to close its side of the last connection.
  for (int wait = 0; wait < 100 && openDescriptors() != descriptors; ++wait)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  require(openDescriptors() == descriptors, "descriptors were lost");
  require(peak <= warm + kSlackKilobytes, "resident memory grew");
  std::printf("EVIDENCE F14 points=%ld failures=0\n", rounds);
}

}  // namespace

int main(int argc, char** argv) {
  const long queries = argc > 1 ? std::atol(argv[1]) : 1000000;
  const long pairs = argc > 2 ? std::atol(argv[2]) : 100000;
  require(queries >= 10 && pairs >= 10, "usage: soak [QUERIES [PAIRS]], 10 or more of each");
  zebsim::GatewayServer server;
  const zebsim::Stats stats{{"GD_CALLS", "42"}};
  const zebsim::Ids ids{"GD_CALLS"};
  server.setAnswer("GET_STATS", zebsim::encodeAnswer({true, {{"GD_CALLS", 0, stats, {}}}}));
  server.setAnswer("STAT_IDS", zebsim::encodeAnswer({true, {{"GD", 0, ids, {}}}}));
  const long descriptors = openDescriptors();
  {
    const Connection connection(server.port());
    soak("queries", queries, descriptors + 2, [&](long i) { askOnce(connection.token, i); });
  }
  soak("pairs of open and close", pairs, descriptors,
       [&](long) { const Connection connection(server.port()); });
}
