// What the command line asks for.
#ifndef ZEBSTAT_OPTIONS_H
#define ZEBSTAT_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "address.h"
#include "check.h"
#include "gateway.h"
#include "option_table.h"

namespace zebtool {

// In the order of the words of --format.
enum class Format { kTable, kJson, kJsonl, kCsv, kValue, kPrometheus };

struct Options {
  Command command = Command::kStats;
  std::vector<Address> gateways;  // at least one; for check exactly one, for completion none
  double timeoutSeconds = 10;
  int traceLevel = 0;
  std::string traceFile;

  // stats, ids, groups
  std::vector<std::string> ids;  // globs among them
  std::vector<std::string> groups;
  double watchSeconds = 0;  // 0: ask once
  long rounds = 0;          // of a watch; 0: until a signal ends it
  Format format = Format::kTable;
  std::string outputFile;  // empty: standard output
  std::vector<std::string> included;
  std::vector<std::string> excluded;

  CheckOptions check;

  // completion
  std::string shell;

  [[nodiscard]] Question question() const;
  [[nodiscard]] bool isByGroup() const { return !groups.empty(); }
};

// Returns the options, or nothing after it has printed --help or --version. Does not return for a
// command that another program carries out: executes that. Throws a Fault with kUsage for
// bad arguments, or a CheckUsageFault for those of `check`.
std::optional<Options> parseOptions(int argc, char** argv);

}  // namespace zebtool

#endif  // ZEBSTAT_OPTIONS_H
