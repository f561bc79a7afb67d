#include "filter.h"

#include "glob.h"

namespace zebtool {

Filter::Filter(const std::vector<std::string>& included, const std::vector<std::string>& excluded) {
  for (const std::string& glob : included) included_.push_back({"--include", glob});
  for (const std::string& glob : excluded) excluded_.push_back({"--exclude", glob});
}

// Tries every pattern even after a match, so that unmatched() knows those that never match.
bool Filter::matchesAny(std::vector<Pattern>& patterns, const std::string& id) {
  bool matches = false;
  for (Pattern& pattern : patterns) {
    if (!matchesGlob(pattern.glob, id)) continue;
    pattern.hasMatched = true;
    matches = true;
  }
  return matches;
}

void Filter::apply(Answer& answer) {
  std::erase_if(answer.entries, [this](const Entry& entry) {
    bool isIncluded = matchesAny(included_, entry.id) || included_.empty();
    bool isExcluded = matchesAny(excluded_, entry.id);
    return !isIncluded || isExcluded;
  });
}

std::vector<std::string> Filter::unmatched() const {
  std::vector<std::string> found;
  for (const auto* patterns : {&included_, &excluded_}) {
    for (const Pattern& pattern : *patterns) {
      if (!pattern.hasMatched) found.push_back(pattern.option + " '" + pattern.glob + "'");
    }
  }
  return found;
}

}  // namespace zebtool
