// Keeps an answer across the next query, and prints which statistics have changed:
// keep_copy HOST PORT
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <thread>
#include <zebstats.hpp>

namespace {

int fail(zebstats::Error error) {
  std::cerr << "keep_copy: " << error.text() << '\n';
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: keep_copy HOST PORT\n";
    return 2;
  }
  zebstats::Connection gateway;
  if (zebstats::Error failed = gateway.open(argv[1], std::atoi(argv[2]))) return fail(failed);

  zebstats::StatSetCopy before = gateway.statsByGroups("REQ:VM").copy();
  if (before.error()) return fail(before.error());
  std::this_thread::sleep_for(std::chrono::seconds(2));
  zebstats::StatSet now = gateway.statsByGroups("REQ:VM");

  // Both answers list the same statistics in the same order.
  auto old = before.begin();
  for (const zebstats::Stat& stat : now) {
    if (old == before.end()) break;
    if (stat.ok() && old->id == stat.id && old->value != stat.value)
      std::cout << stat.id << ": " << old->value << " -> " << stat.value << '\n';
    ++old;
  }
  if (before.error()) return fail(before.error());
  if (now.error()) return fail(now.error());
}
