// Applies --include and --exclude to an answer.
#ifndef ZEBTOOL_FILTER_H
#define ZEBTOOL_FILTER_H

#include <string>
#include <vector>

#include "gateway.h"

namespace zebtool {

class Filter {
 public:
  Filter(const std::vector<std::string>& included, const std::vector<std::string>& excluded);

  // Removes the entries that are not shown.
  void apply(Answer& answer);
  // Returns the patterns, each after its option, that have matched no id so far.
  [[nodiscard]] std::vector<std::string> unmatched() const;

 private:
  struct Pattern {
    std::string option;
    std::string glob;
    bool hasMatched = false;
  };
  static bool matchesAny(std::vector<Pattern>& patterns, const std::string& id);

  std::vector<Pattern> included_;
  std::vector<Pattern> excluded_;
};

}  // namespace zebtool

#endif  // ZEBTOOL_FILTER_H
