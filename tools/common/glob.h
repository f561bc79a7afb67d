// Patterns for names, as shells have them: *, ? and [...].
#ifndef ZEBTOOL_GLOB_H
#define ZEBTOOL_GLOB_H

#include <fnmatch.h>

#include <algorithm>
#include <string>
#include <vector>

namespace zebtool {

// Returns whether the text is a pattern rather than a name.
inline bool isGlob(const std::string& text) {
  return text.find_first_of("*?[") != std::string::npos;
}

// A name with such characters, as completion offers it, matches itself.
inline bool matchesGlob(const std::string& glob, const std::string& text) {
  return glob == text || fnmatch(glob.c_str(), text.c_str(), 0) == 0;
}

inline bool matchesAnyGlob(const std::vector<std::string>& globs, const std::string& text) {
  return std::any_of(globs.begin(), globs.end(),
                     [&](const std::string& glob) { return matchesGlob(glob, text); });
}

}  // namespace zebtool

#endif  // ZEBTOOL_GLOB_H
