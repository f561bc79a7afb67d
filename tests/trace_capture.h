// Collects the library's trace in a temporary file while it lives.
#ifndef ZEBTEST_TRACE_CAPTURE_H
#define ZEBTEST_TRACE_CAPTURE_H

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "zebstats.h"

namespace zebtest {

// Does the text begin in the shape of another? There "9" is any digit and "F" any hexadecimal one.
inline bool hasShape(std::string_view text, std::string_view shape) {
  const auto fits = [](char model, char c) {
    if (model == '9') return c >= '0' && c <= '9';
    return model == 'F' ? std::isxdigit(c) != 0 && std::islower(c) == 0 : c == model;
  };
  return text.size() >= shape.size() && std::equal(shape.begin(), shape.end(), text.begin(), fits);
}

// A trace line with the parts that change from run to run replaced: "TIME [PID,TID] [2000] ENTRY
// text". Lines without a prefix (banner, dumps) stay as they are.
inline std::string maskPrefix(const std::string& line) {
  constexpr std::string_view shape = "99/99/99 99:99:99:999 [0xFFFFFFFF,0xFFFFFFFF] [9999";
  return hasShape(line, shape) ? "TIME [PID,TID]" + line.substr(shape.size() - 6) : line;
}

// What printf makes of the arguments.
[[gnu::format(printf, 1, 2)]] inline std::string formatText(const char* format, ...) {
  char* text = nullptr;
  std::va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  if (length < 0) throw std::runtime_error("no memory for a text");
  std::string result(text, static_cast<std::size_t>(length));
  std::free(text);
  return result;
}

inline std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A block of storage that a text may name.
struct Named {
  const char* name;
  const void* start;
  std::size_t size = 1;
};

// The text with its addresses replaced: "RS" for the start of a named block, "BUFFER+12" inside of
// one, and "ADDRESS" anywhere else.
inline std::string nameAddresses(std::string text, const std::vector<Named>& names) {
  for (std::size_t at = 0; (at = text.find("0x", at)) != text.npos;) {
    if (at > 0 &&
        (std::isalnum(static_cast<unsigned char>(text[at - 1])) != 0 || text[at - 1] == '.')) {
      at += 2;  // the name of a temporary file may hold these letters, too
      continue;
    }
    const std::size_t end =
        std::min(text.find_first_not_of("0123456789abcdef", at + 2), text.size());
    const auto address = static_cast<std::uintptr_t>(std::strtoull(&text[at], nullptr, 16));
    std::string shown = "ADDRESS";
    for (const Named& block : names) {
      const std::size_t offset = address - reinterpret_cast<std::uintptr_t>(block.start);
      if (offset < block.size)
        shown = formatText(offset == 0 ? "%s" : "%s+%zu", block.name, offset);
    }
    text.replace(at, end - at, shown);
  }
  return text;
}

// The lines that have a prefix, from the level word on ("ENTRY  text"), with their addresses
// replaced.
inline std::string storyOf(const std::string& trace, const std::vector<Named>& names = {}) {
  std::string story;
  for (const std::string& line : splitLines(trace)) {
    const std::string masked = maskPrefix(line);
    if (masked.starts_with("TIME ")) story += masked.substr(masked.find("] ", 16) + 2) + "\n";
  }
  return nameAddresses(story, names);
}

inline std::ptrdiff_t countDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
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
  [[nodiscard]] std::string text() const {
    std::ifstream in(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

 private:
  std::string path_ = "/tmp/zebtrace.XXXXXX";
};

// The trace goes to the file from the constructor on, and back to standard error at the end,
// switched off.
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

  // Forgets what has been traced so far; the constructor does so too, so that its own lines are not
  // seen.
  void restart() { seen_ = file_.text().size(); }
  // What was written since then, as it stands in the file.
  [[nodiscard]] std::string text() const { return file_.text().substr(seen_); }
  // The same line by line, without newlines and with masked prefixes.
  [[nodiscard]] std::vector<std::string> lines() const {
    std::vector<std::string> all = splitLines(text());
    for (std::string& line : all) line = maskPrefix(line);
    return all;
  }
  [[nodiscard]] std::string story(const std::vector<Named>& names = {}) const {
    return storyOf(text(), names);
  }
  [[nodiscard]] const std::string& path() const { return file_.path(); }

 private:
  TemporaryFile file_;
  std::size_t seen_ = 0;
};

}  // namespace zebtest

#endif
