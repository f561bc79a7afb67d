// soak [QUERIES]: makes QUERIES queries on one connection with a simulated gateway in another
// process, and opens and closes another connection after every tenth. Shows its progress, resident
// memory and descriptors, and fails unless both stay flat after the first tenth.
#include "client_session.h"

using namespace zebtest;

constexpr long kSlackKilobytes = 512;  // a byte lost in every query would be more

static long residentKilobytes() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

int main(int argc, char** argv) {
  const long queries = argc > 1 ? std::atol(argv[1]) : 1000000;
  require(queries >= 10, "usage: soak [QUERIES], 10 or more");
  const GatewayProcess gateway;
  Session s(gateway.port()), other(gateway.port());
  require(s.open() == 0, "the connection opens");
  const auto descriptors = countDescriptors();
  long warm = 0;
  for (long i = 1; i <= queries; ++i) {
    require(s.make(kQueries[static_cast<std::size_t>(i) % kQueries.size()]) == 0,
            "a query succeeds");
    require(tellAnswer(s.answer).ends_with("-113"), "its answer can be walked");
    if (i % 10 == 0) {
      require(copyResultSet(s.answer, &s.copy) == 0 && freeResultSet(&s.copy) == 0,
              "it can be copied");
      require(other.open() == 0 && other.release() == 0, "another connection opens and closes");
    }
    if (i % (queries / 10) != 0) continue;
    const long resident = residentKilobytes();
    if (warm == 0) warm = resident;
    std::printf("%9ld queries  %6ld KB resident  %3td descriptors\n", i, resident,
                countDescriptors());
    std::fflush(stdout);
    require(countDescriptors() == descriptors, "no descriptor is lost");
    require(resident <= warm + kSlackKilobytes, "memory does not grow");
  }
  std::printf("EVIDENCE F14 points=%ld failures=0\n", queries + queries / 10);
}
