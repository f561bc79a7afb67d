// Shows all statistics of a gateway: show HOST PORT
#include <cstdlib>
#include <iostream>
#include <zebstats.hpp>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: show HOST PORT\n";
    return 2;
  }
  zebstats::Connection gateway;
  if (zebstats::Error failed = gateway.open(argv[1], std::atoi(argv[2]))) {
    std::cerr << "show: " << failed.text() << '\n';
    return 1;
  }
  zebstats::StatSet answer = gateway.stats();
  for (const zebstats::Stat& stat : answer) {
    if (stat.ok()) std::cout << stat.id << " = " << stat.value << '\n';
  }
  if (zebstats::Error failed = answer.error()) {
    std::cerr << "show: " << failed.text() << '\n';
    return 1;
  }
}
