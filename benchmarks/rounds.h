// Measures a quantity against its floor, the least time that the same work takes, in one process
// and in rounds.
//
// A round runs the steps one after the other, each as often as the batch says, and every second
// round in reverse order, so that any other load on the machine affects all of them. A row's value
// is the median of the rounds' ratios, because the machine may change its speed between rounds; the
// spread is half the distance between their quartiles.
//
// A row may have two values on one machine, each for minutes: one while this thread has its core
// for itself, and one while another hardware thread of that core, perhaps of another virtual
// machine, is busy too. A floor that mostly waits for its last load, such as a bare pointer loop,
// hardly notices; the library's checks, which otherwise fill the time of such waits, then take time
// of their own. So a row runs until enough rounds have had a core for themselves, and counts only
// those; if they are not enough after a long time, it counts all. It reports in what part of its
// rounds the core was shared.
#ifndef ZEB_BENCH_ROUNDS_H
#define ZEB_BENCH_ROUNDS_H

#include <benchmark/benchmark.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

namespace zebbench {

// Answer sizes; with each, the steps handle kGrowthTotal statistics.
constexpr std::size_t kGrowthSizes[] = {10, 100, 1000, 3000};
constexpr std::size_t kGrowthTotal = 3000;

// The limit of a row. The value must not exceed target or, with atLeast, must not be below it. aim
// is a stricter limit that would be welcome; 0: none.
struct Goal {
  double target;
  double aim;
  bool atLeast = false;
};

struct Step {
  std::string name;
  std::function<void()> run;
};

// Computes the value of a row from the times of its steps, in nanoseconds and in their order.
using Value = std::function<double(std::span<const double>)>;

// Returns the ratio of the second step to the first.
double secondOverFirst(std::span<const double> times);

// The times of the rounds that count: times[step][round], in nanoseconds.
struct Rounds {
  std::vector<std::vector<double>> times;
  double sharedPart = 0;  // of all rounds, those on a shared core
  [[nodiscard]] std::vector<double> medians() const;
  [[nodiscard]] std::vector<double> values(const Value& value) const;  // one for each round
};
Rounds runRounds(int batch, const std::vector<Step>& steps);

// Adds a row to the table. The name is "ID quantity / floor".
void addRow(const std::string& name, Goal goal, std::function<void(benchmark::State&, Goal)> body);

// Runs the rounds of a row and reports it.
void measure(benchmark::State& state, Goal goal, int batch, const std::vector<Step>& steps,
             const Value& value = secondOverFirst);

// The same for a row whose value is the greatest growth of the medians from the second step on, or
// 1 if they do not grow.
void measureFlatness(benchmark::State& state, Goal goal, const std::vector<Step>& steps);

// Reports a row that is counted, not timed.
void report(benchmark::State& state, Goal goal, double value);

// Ends the process with a message if a step of the benchmark itself fails.
void require(bool holds, const char* what);

// Pins the process, and so client and server, to one core. Their scheduling stays the ordinary one,
// which hosts have: with real-time priority the kernel switches between the two more slowly, which
// changes the floors.
void pinToOneCore();

// Runs the rows that have been added. Returns the exit code.
int runRows(int argc, char** argv);

}  // namespace zebbench

#endif
