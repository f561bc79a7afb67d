// Feeds any bytes as call data to one parser: that of statistics if ZEBFUZZ_STATS is true,
// otherwise that of ids. Its output must be the slow decoder's, to the last byte.
#include "harness.h"
#include "slow_decoder.h"

int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  const std::span answer(reinterpret_cast<const std::uint8_t*>(data), size);
  static std::string content;
  const bool isGood = decodeSlowly(ZEBFUZZ_STATS, answer, content);
  const char* const problem = compareParser(ZEBFUZZ_STATS, answer, isGood, content);
  require(problem == nullptr, problem);
  return 0;
}
