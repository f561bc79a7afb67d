// Feeds any bytes as call data to one parser: that of statistics if ZEBFUZZ_STATS is true,
// otherwise that of ids. Its output must be the slow decoder's, to the last byte.
#include "harness.h"
#include "slow_decoder.h"

int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  const char* const problem = compareParser(ZEBFUZZ_STATS, {data, size});
  require(problem == nullptr, problem);
  return 0;
}
