// Runs a harness without a fuzzer. Each file of the folders named on the command line is an input,
// in a block of its exact size.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "harness.h"

namespace {

std::vector<std::filesystem::path> listFiles(int argc, char** argv) {
  std::vector<std::filesystem::path> files;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i]))
      files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

void replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  const auto input = std::make_unique<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), input.get());
  LLVMFuzzerTestOneInput(input.get(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) try {
  const auto files = listFiles(argc, argv);
  for (const auto& file : files) {
    std::printf("%s\n", file.c_str());
    std::fflush(stdout);  // so that the last line names the input that ended the process
    replay(file);
  }
  std::printf("EVIDENCE F7 points=%zu failures=0\n", files.size());
  return files.empty() ? 1 : 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
  return 1;
}
