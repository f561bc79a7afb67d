// What every benchmark of this folder is: a quantity measured beside its floor, in one process, in
// rounds.
//
// A round runs each step as often as the batch says, one step after the other, the order turning
// with every round, so that whatever disturbs the machine disturbs all of them. The times reported
// are medians over the rounds, the spread is half the distance of the quartiles of the rounds' own
// ratios.
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

constexpr int kRounds = 301;
// The answers by which growth is told: each handled until so many statistics are.
constexpr std::size_t kGrowthSizes[] = {10, 100, 1000, 3000};
constexpr std::size_t kGrowthTotal = 3000;

// What a value must not exceed, or with atLeast not fall below; aim is what would be better still,
// 0: none.
struct Goal {
  double reach;
  double aim;
  bool atLeast = false;
};

struct Step {
  std::string name;
  std::function<void()> run;
};

// The value of a row from the nanoseconds that the steps took, in their order.
using Value = std::function<double(std::span<const double>)>;

// The second step against the first.
double secondOverFirst(std::span<const double> times);

// By how much the times grow from the second step on.
double growthFromSecond(std::span<const double> times);

// What the rounds took: times[step][round], in nanoseconds.
struct Rounds {
  std::vector<std::vector<double>> times;
  [[nodiscard]] std::vector<double> medians() const;
  [[nodiscard]] double spread(const Value& value) const;
};
Rounds runRounds(int batch, const std::vector<Step>& steps, int rounds = kRounds);

// One row of the table. name is "ID quantity / floor".
void addRow(const std::string& name, Goal goal, std::function<void(benchmark::State&, Goal)> body);

// Runs the rounds of a row and reports it.
void measure(benchmark::State& state, Goal goal, int batch, const std::vector<Step>& steps,
             const Value& value = secondOverFirst, int rounds = kRounds);

// Reports a row that is counted, not timed.
void report(benchmark::State& state, Goal goal, double value);

// Ends the process with a message when a step of the benchmark itself fails.
void require(bool holds, const char* what);

// Pins the process to one core, ahead of other work where that is allowed, and runs what is
// registered.
int runRows(int argc, char** argv);
void pinToOneCore();

}  // namespace zebbench

#endif
