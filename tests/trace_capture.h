// Collects the library's trace in a temporary file while it lives, and compares whole traces.
#ifndef ZEBTEST_TRACE_CAPTURE_H
#define ZEBTEST_TRACE_CAPTURE_H

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "zebstats.h"

namespace zebtest {

// What printf makes of the arguments.
[[gnu::format(printf, 1, 2)]] inline std::string formatText(const char* format, ...) {
  std::string text(8192, '\0');
  std::va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return text.substr(0, static_cast<std::size_t>(length));
}

inline std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A block of storage that a text may name.
struct Named {
  std::string name;
  const void* start;
  std::size_t size = 1;
};

// The text with its addresses replaced: "RS" for the start of a named block, "BUFFER+12" inside of
// one, and "ADDRESS" anywhere else.
inline std::string nameAddresses(std::string text, const std::vector<Named>& names) {
  for (std::size_t at = 0; (at = text.find("0x", at)) != text.npos; ++at) {
    const std::size_t end =
        std::min(text.find_first_not_of("0123456789abcdef", at + 2), text.size());
    const auto address = static_cast<std::uintptr_t>(std::strtoull(&text[at], nullptr, 16));
    std::string shown = "ADDRESS";
    for (const Named& block : names) {
      const std::size_t offset = address - reinterpret_cast<std::uintptr_t>(block.start);
      if (offset < block.size)
        shown = block.name + (offset == 0 ? "" : "+" + std::to_string(offset));
    }
    text.replace(at, end - at, shown);
  }
  return text;
}

inline std::ptrdiff_t countDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

inline std::string readFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// An empty file of its own, removed at the end of the scope.
class TemporaryFile {
 public:
  TemporaryFile() {
    const int descriptor = mkstemp(path_.data());
    if (descriptor < 0) throw std::runtime_error("no temporary file " + path_);
    close(descriptor);
  }
  ~TemporaryFile() { unlink(path_.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string text() const { return readFile(path_); }

 private:
  std::string path_ = "/tmp/zebtrace.XXXXXX";
};

// The trace goes to a file of its own; at the end of the scope it is switched off and goes to
// standard error again.
class TraceCapture {
 public:
  explicit TraceCapture(int level) {
    if (setAPITraceFile(file_.path().c_str()) != 0 || setAPITraceLevel(level) != 0)
      throw std::runtime_error("no trace in " + file_.path());
    restart();
  }
  ~TraceCapture() {
    setAPITraceLevel(0);
    setAPITraceFile(nullptr);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  // Forgets what has been traced so far, as the constructor does with its own lines.
  void restart() { seen_ = file_.text().size(); }
  // What was written since then.
  [[nodiscard]] std::string text() const { return file_.text().substr(seen_); }
  // All of it, with everything replaced that changes from run to run: times, ids, addresses,
  // descriptors, ports and file names.
  [[nodiscard]] std::string masked(const std::vector<Named>& names = {}) const {
    static const std::vector<std::pair<std::regex, const char*>> masks = {
        {std::regex(R"(^\d\d/\d\d/\d\d \d\d:\d\d:\d\d:\d{3} \[0x[0-9A-F]{8},0x[0-9A-F]{8}\])"),
         "TIME [PID,TID]"},
        {std::regex("^0x[0-9A-F]{8}: "), "ADDRESS: "},
        {std::regex(R"(^(\*\*\* )\d\d/\d\d/\d\d )"), "$1DATE "},
        {std::regex("(0x)+(?=[0-9a-f])"), "0x"},
        {std::regex(R"(((socketDesc|socketDescriptor|socket|port)[=(]|(on|Created) socket:? )\d+)"),
         "$1NUMBER"},
        {std::regex(R"(127\.0\.0\.1:\d+)"), "127.0.0.1:PORT"},
        {std::regex(R"(/tmp/zebtrace\.\w{6})"), "FILE"},
        {std::regex(R"((owningPid|owningTid)\([0-9A-F]{8}\))"), "$1(ID)"}};
    std::string all;
    for (std::string line : splitLines(text())) {
      for (const auto& [pattern, placeholder] : masks)
        line = std::regex_replace(line, pattern, placeholder);
      all += nameAddresses(line, names) + "\n";
    }
    return all;
  }
  // Of that the lines with a prefix, from the level word on ("ENTRY  text").
  [[nodiscard]] std::string story() const {
    std::string story;
    for (const std::string& line : splitLines(masked()))
      if (line.starts_with("TIME ")) story += line.substr(line.find("] ", 16) + 2) + "\n";
    return story;
  }
  [[nodiscard]] const std::string& path() const { return file_.path(); }

 private:
  TemporaryFile file_;
  std::size_t seen_ = 0;
};

// Compares a masked trace with the recorded one. If they differ, the trace is written to a file of
// that name in the temporary folder.
inline void expectRecorded(const std::string& actual, const std::string& recordedPath) {
  const std::string recorded = readFile(recordedPath);
  if (actual == recorded) return;
  const std::string path =
      testing::TempDir() + std::filesystem::path(recordedPath).filename().string();
  std::ofstream(path) << actual;
  const auto is =
      std::mismatch(actual.begin(), actual.end(), recorded.begin(), recorded.end()).first;
  ADD_FAILURE() << path << " is not as recorded from line "
                << 1 + std::count(actual.begin(), is, '\n') << " on";
}

}  // namespace zebtest

#endif
