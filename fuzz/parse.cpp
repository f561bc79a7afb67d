// Feeds any bytes as call data to one parser: that of statistics if ZEBFUZZ_STATS is true,
// otherwise that of ids. Its output must be the slow decoder's, to the last byte.
#include "harness.h"
#include "slow_decoder.h"
#include "stapi_zeb_statcomms.h"

using namespace zebfuzz;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  char* const buffer = sealedBuffer();
  const Input answer(data, size);
  const int rc = ZEBFUZZ_STATS ? zeb::parseStats(answer, buffer) : zeb::parseIds(answer, buffer);
  static std::string expected;
  const bool isGood = zebtest::decodeSlowly(ZEBFUZZ_STATS, answer, expected);
  require((rc == 0) == isGood, "the parser and the slow decoder agree on what is an answer");
  if (isGood) {
    require(std::memcmp(buffer, expected.data(), expected.size()) == 0,
            "they agree on what is in it");
    require(expected.size() + 4 > zeb::kContentSize || zeb::isTerminator(buffer + expected.size()),
            "a terminator follows the content");
  } else {
    require(zeb::isTerminator(buffer), "a refused answer reads as empty");
  }
  require(zeb::isTerminator(buffer + zeb::kContentSize), "no content reaches the last word");
  return 0;
}
