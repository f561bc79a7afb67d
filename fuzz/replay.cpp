// Runs a harness without a fuzzer. Each file of the folder named on the command line is an input,
// in a block of its exact size.
#include <filesystem>
#include <fstream>
#include <vector>

#include "harness.h"

int main(int, char** argv) {
  int points = 0;
  for (const auto& file : std::filesystem::directory_iterator(argv[1])) {
    std::fprintf(stderr, "%s\n", file.path().c_str());  // the last one may have ended the process
    std::ifstream in(file.path(), std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    const std::vector<char> input(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ++points;
  }
  std::printf("EVIDENCE F7 points=%d failures=0\n", points);
  return points == 0;
}
