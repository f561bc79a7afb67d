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

constexpr int kEnoughRounds = 51;  // for a median

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

// Returns the greatest width of a round that had its core for itself. That was seen to be 1.0, and
// on a shared core 1.3 to 1.5. With fewer adders the width is always greater, so the least of all
// rounds counts as that of a core of its own.
double widestOwnCore(const std::vector<double>& widths) {
  return 1.15 * std::max(1.0, std::ranges::min(widths));
}

double quantile(std::vector<double> values, double part) {
  const auto at = static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + at, values.end());
  return values[static_cast<std::size_t>(at)];
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

double growthFromSecond(std::span<const double> times) {
  double lowest = times[1];
  double worst = 1;
  for (const double time : times.subspan(2)) {
    worst = std::max(worst, time / lowest);
    lowest = std::min(lowest, time);
  }
  return worst;
}

std::vector<double> Rounds::medians() const {
  std::vector<double> result;
  for (const auto& step : times) result.push_back(quantile(step, 0.5));
  return result;
}

double Rounds::spread(const Value& value) const {
  std::vector<double> values;
  for (std::size_t at = 0; at < times.front().size(); ++at) {
    std::vector<double> round;
    for (const auto& step : times) round.push_back(step[at]);
    values.push_back(value(round));
  }
  return (quantile(values, 0.75) - quantile(values, 0.25)) / 2;
}

Rounds runRounds(int batch, const std::vector<Step>& steps, int rounds) {
  for (const Step& step : steps) nanoseconds(step, batch);  // warms up
  Rounds result = {std::vector(steps.size(), std::vector<double>(static_cast<std::size_t>(rounds))),
                   0};
  std::vector<double> widths;
  for (int round = 0; round < rounds; ++round) {
    widths.push_back(timeFourAdditions());
    for (std::size_t i = 0; i < steps.size(); ++i) {
      const std::size_t at = round % 2 == 0 ? i : steps.size() - 1 - i;
      result.times[at][static_cast<std::size_t>(round)] = nanoseconds(steps[at], batch);
    }
  }
  const double widest = widestOwnCore(widths);
  const auto shared = std::ranges::count_if(widths, [=](double width) { return width > widest; });
  result.sharedPart = static_cast<double>(shared) / rounds;
  if (rounds - shared < kEnoughRounds) return result;
  for (std::vector<double>& step : result.times) {
    std::vector<double> own;
    for (std::size_t round = 0; round < widths.size(); ++round) {
      if (widths[round] <= widest) own.push_back(step[round]);
    }
    step = std::move(own);
  }
  return result;
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
             const Value& value, int rounds) {
  const Rounds measured = runRounds(batch, steps, rounds);
  const std::vector<double> medians = measured.medians();
  for (std::size_t i = 0; i < steps.size(); ++i) state.counters[steps[i].name + " ns"] = medians[i];
  report(state, goal, value(medians));
  state.counters["spread"] = measured.spread(value);
  state.counters["rounds"] = rounds;
  state.counters["shared"] = measured.sharedPart;
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
  const sched_param priority = {1};
  const bool isRealTime = sched_setscheduler(0, SCHED_FIFO, &priority) == 0;
  benchmark::AddCustomContext("core", std::to_string(core));
  benchmark::AddCustomContext("scheduling", isRealTime ? "before other work" : "among other work");
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
