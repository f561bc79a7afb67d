// Polls several gateways three times, at intervals of a second, each from a thread of its own over
// a connection of its own: poll_many HOST PORT [HOST PORT]...
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
#include <zebstats.hpp>

namespace {

constexpr int kRounds = 3;

// A connection belongs to the thread that opens it.
zebstats::Error poll(const char* host, int port) {
  zebstats::Connection gateway;
  if (zebstats::Error failed = gateway.open(host, port)) return failed;
  for (int round = 0; round < kRounds; ++round) {
    if (round > 0) std::this_thread::sleep_for(std::chrono::seconds(1));
    zebstats::StatSet answer = gateway.statsByIds("VM_UPTIME:REQ_COUNT");
    std::ostringstream lines;
    for (const zebstats::Stat& stat : answer) {
      if (stat.ok()) lines << host << ':' << port << ' ' << stat.id << " = " << stat.value << '\n';
    }
    if (answer.error()) return answer.error();
    std::cout << lines.str();
  }
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc % 2 == 0) {
    std::cerr << "usage: poll_many HOST PORT [HOST PORT]...\n";
    return 2;
  }
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (int i = 1; i < argc; i += 2) {
    threads.emplace_back([&failures, host = argv[i], port = std::atoi(argv[i + 1])] {
      zebstats::Error failed = poll(host, port);
      if (!failed) return;
      ++failures;
      std::cerr << "poll_many: " + std::string(host) + ':' + std::to_string(port) + ": " +
                       failed.text() + '\n';
    });
  }
  for (std::thread& thread : threads) thread.join();
  return failures == 0 ? 0 : 1;
}
