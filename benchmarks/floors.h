// The floors of the library's work: bare loops without checks, copies or any state but a pointer.
#ifndef ZEB_BENCH_FLOORS_H
#define ZEB_BENCH_FLOORS_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "zebstats.h"

namespace zebbench {

// An answer in memory, and the offset of its first statistic.
struct WireAnswer {
  explicit WireAnswer(std::size_t statistics);
  void step() const;  // steps over the lengths of its statistics
  [[nodiscard]] std::span<const std::uint8_t> callData() const;

  std::size_t count;
  std::string bytes;
  std::size_t first;
};

// Steps over the lengths of count statistics on the wire; at is the first of them. Returns the end.
const char* stepOverLengths(const char* at, std::size_t count);
// Steps over the entries of a result set buffer up to its terminator and fills a record for each.
void stepOverEntries(char* at, StatData& record);
// Joins the ids of a result set buffer. Returns the length.
std::size_t joinIds(const char* at, char* joined);

// The first entry of a result set buffer with one query header.
char* firstEntry(char* buffer);

}  // namespace zebbench

#endif
