#include "rounds.h"

#include <sched.h>
#include <sys/utsname.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <utility>

namespace zebbench {
namespace {

constexpr int kRounds = 301;        // of a series
constexpr int kEnoughRounds = 101;  // for a median
constexpr int kMostSeries = 20;     // of rounds, in search of enough on a core of their own

using Times = std::vector<std::vector<double>>;  // times[step][round], in nanoseconds

template <typename Work>
double nanosecondsOf(const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

double nanoseconds(const Step& step, int batch) {
  return nanosecondsOf([&] {
           for (int i = 0; i < batch; ++i) step.run();
         }) /
         batch;
}

// Does an addition that the compiler must do, and on its own.
void add(std::uint64_t& sum) {
  ++sum;
  asm volatile("" : "+r"(sum));
}

// Four additions that do not wait for each other take as long as one, unless another hardware
// thread uses the core's adders too. Returns the time of the four over the time of the one.
double timeFourAdditions() {
  constexpr int kSteps = 4000;
  std::uint64_t a = 0;
  std::uint64_t b = 0;
  std::uint64_t c = 0;
  std::uint64_t d = 0;
  const auto addOne = [&] {
#pragma GCC unroll 16
    for (int step = 0; step < kSteps; ++step) add(a);
  };
  const auto addFour = [&] {
#pragma GCC unroll 16
    for (int step = 0; step < kSteps; ++step) {
      add(a);
      add(b);
      add(c);
      add(d);
    }
  };
  const double one = nanosecondsOf(addOne);
  return nanosecondsOf(addFour) / one;
}

// Returns which rounds had their core for themselves; widths are those before the first round and
// after each. The width of a core of its own was seen to be 1.0, and that of a shared one 1.3 to
// 1.5. With fewer adders the width is always greater, so the least of all counts as that of a core
// of its own.
std::vector<bool> findOwnRounds(const std::vector<double>& widths) {
  const double widest = 1.15 * std::max(1.0, std::ranges::min(widths));
  std::vector<bool> own;
  for (std::size_t round = 0; round + 1 < widths.size(); ++round)
    own.push_back(widths[round] <= widest && widths[round + 1] <= widest);
  return own;
}

std::ptrdiff_t countOf(const std::vector<bool>& rounds) {
  return std::ranges::count(rounds, true);
}

// Runs every step once, every second time in reverse order, and adds their times.
void runRound(int batch, const std::vector<Step>& steps, Times& times) {
  const bool isReverse = times.front().size() % 2 == 1;
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const std::size_t at = isReverse ? steps.size() - 1 - i : i;
    times[at].push_back(nanoseconds(steps[at], batch));
  }
}

void keepRounds(const std::vector<bool>& kept, Times& times) {
  for (std::vector<double>& step : times) {
    std::size_t round = 0;
    std::erase_if(step, [&](double) { return !kept[round++]; });
  }
}

double quantile(std::vector<double> values, double part) {
  const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[static_cast<std::size_t>(at)];
}

// Returns the greatest growth of the times from the second step on: 1 if they do not grow.
double growthFromSecond(std::span<const double> times) {
  double lowest = times[1];
  double worst = 1;
  for (const double time : times.subspan(2)) {
    worst = std::max(worst, time / lowest);
    lowest = std::min(lowest, time);
  }
  return worst;
}

// Half the distance between the quartiles.
double spreadOf(const std::vector<double>& values) {
  return (quantile(values, 0.75) - quantile(values, 0.25)) / 2;
}

void reportRounds(benchmark::State& state, const std::vector<Step>& steps, const Rounds& measured,
                  const Value& value) {
  const std::vector<double> medians = measured.medians();
  for (std::size_t i = 0; i < steps.size(); ++i) state.counters[steps[i].name + " ns"] = medians[i];
  state.counters["spread"] = spreadOf(measured.values(value));
  state.counters["rounds"] = static_cast<double>(measured.times.front().size());
  state.counters["shared"] = measured.sharedPart;
}

std::string processorName() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("model name")) return line.substr(line.find(':') + 2);
  }
  return "unknown";
}

}  // namespace

double secondOverFirst(std::span<const double> times) {
  return times[1] / times[0];
}

std::vector<double> Rounds::medians() const {
  std::vector<double> result;
  for (const auto& step : times) result.push_back(quantile(step, 0.5));
  return result;
}

std::vector<double> Rounds::values(const Value& value) const {
  std::vector<double> values;
  for (std::size_t at = 0; at < times.front().size(); ++at) {
    std::vector<double> round;
    for (const auto& step : times) round.push_back(step[at]);
    values.push_back(value(round));
  }
  return values;
}

Rounds runRounds(int batch, const std::vector<Step>& steps) {
  Times times(steps.size());
  runRound(batch, steps, times);  // warms up
  for (std::vector<double>& step : times) step.clear();
  std::vector<double> widths = {timeFourAdditions()};
  std::vector<bool> own;
  for (int i = 0; i < kMostSeries && countOf(own) < kEnoughRounds; ++i) {
    for (int round = 0; round < kRounds; ++round) {
      runRound(batch, steps, times);
      widths.push_back(timeFourAdditions());
    }
    own = findOwnRounds(widths);
  }
  const double ownPart = static_cast<double>(countOf(own)) / static_cast<double>(own.size());
  if (countOf(own) >= kEnoughRounds) keepRounds(own, times);
  return {.times = std::move(times), .sharedPart = 1 - ownPart};
}

void addRow(const std::string& name, Goal goal, std::function<void(benchmark::State&, Goal)> body) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [goal, body = std::move(body)](benchmark::State& state) {
                                 for ([[maybe_unused]] auto iteration : state) body(state, goal);
                               })
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
}

void report(benchmark::State& state, Goal goal, double value) {
  state.counters["value"] = value;
  state.counters["target"] = goal.target;
  state.counters["aim"] = goal.aim;
  state.counters["atLeast"] = goal.atLeast ? 1 : 0;
}

void measure(benchmark::State& state, Goal goal, int batch, const std::vector<Step>& steps,
             const Value& value) {
  const Rounds measured = runRounds(batch, steps);
  report(state, goal, quantile(measured.values(value), 0.5));
  reportRounds(state, steps, measured, value);
}

void measureFlatness(benchmark::State& state, Goal goal, const std::vector<Step>& steps) {
  const Rounds measured = runRounds(1, steps);
  report(state, goal, growthFromSecond(measured.medians()));
  reportRounds(state, steps, measured, growthFromSecond);
}

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "benchmark: %s\n", what);
  std::exit(1);
}

void pinToOneCore() {
  cpu_set_t cores;
  require(sched_getaffinity(0, sizeof cores, &cores) == 0, "cannot read the cores of this process");
  int core = CPU_SETSIZE - 1;
  while (!CPU_ISSET(core, &cores)) --core;
  CPU_ZERO(&cores);
  CPU_SET(core, &cores);
  require(sched_setaffinity(0, sizeof cores, &cores) == 0, "cannot pin the process to one core");
  benchmark::AddCustomContext("core", std::to_string(core));
}

int runRows(int argc, char** argv) {
  utsname system = {};
  uname(&system);
  benchmark::AddCustomContext("processor", processorName());
  benchmark::AddCustomContext("system", std::string(system.sysname) + " " + system.release);
  benchmark::AddCustomContext("compiler", __VERSION__);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

}  // namespace zebbench
