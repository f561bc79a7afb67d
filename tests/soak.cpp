// soak [QUERIES [PAIRS]]: makes QUERIES queries on one connection, then PAIRS pairs of an open and
// a close, with a simulated gateway in another process. Shows its progress, resident memory and
// descriptors, and fails unless both stay flat after the first tenth.
#include "client_session.h"

namespace {

using namespace zebtest;

constexpr long kSlackKilobytes = 512;  // a byte lost in every query would be more

long residentKilobytes() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

template <typename Round>
void soak(const char* what, long rounds, Round round) {
  const auto descriptors = countDescriptors();
  long warm = 0;
  for (long i = 1; i <= rounds; ++i) {
    round(static_cast<std::size_t>(i));
    if (i % (rounds / 10) != 0) continue;
    const long resident = residentKilobytes();
    if (warm == 0) warm = resident;
    std::printf("%9ld %s  %6ld KB resident  %3td descriptors\n", i, what, resident,
                countDescriptors());
    std::fflush(stdout);
    require(countDescriptors() == descriptors, "no descriptor is lost");
    require(resident <= warm + kSlackKilobytes, "memory does not grow");
  }
  std::printf("EVIDENCE F14 points=%ld failures=0\n", rounds);
}

}  // namespace

int main(int argc, char** argv) {
  const long queries = argc > 1 ? std::atol(argv[1]) : 1000000;
  const long pairs = argc > 2 ? std::atol(argv[2]) : 100000;
  require(queries >= 10 && pairs >= 10, "usage: soak [QUERIES [PAIRS]], 10 or more of each");
  const GatewayProcess gateway;
  Session s = {.port = gateway.port()};
  require(s.open() == 0, "the connection opens");
  std::array<std::string, kQueries.size()> expected;
  soak("queries", queries, [&](std::size_t i) {
    std::string& told = expected[i % kQueries.size()];
    require(kQueries[i % kQueries.size()].ask(s) == 0, "a query succeeds");
    require(getIdQuery(s.answer, &s.text) == 0, "its answer has ids");
    if (i % 16 == 0) require(copyResultSet(s.answer, &s.copy) == 0, "it can be copied");
    if (told.empty()) told = tellAnswer(s.answer);
    require(tellAnswer(s.answer) == told, "it is what it was");
    if (i % 16 == 0) require(freeResultSet(&s.copy) == 0, "the copy can be freed");
  });
  s.text = nullptr;
  soak("pairs of open and close", pairs, [&](std::size_t) {
    Session other = {.port = gateway.port()};
    require(other.open() == 0 && other.release() == 0, "another connection opens and closes");
  });
  require(s.release() == 0, "the connection closes");
}
