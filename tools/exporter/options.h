// The command line of the exporter.
#ifndef ZEBSTATS_EXPORTER_OPTIONS_H
#define ZEBSTATS_EXPORTER_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "address.h"

namespace zebtool {

struct ExporterOptions {
  std::string listen = "127.0.0.1:9480";
  std::vector<std::string> gateways;
  std::string targetsFile;                  // empty: none
  std::vector<std::string> allowedTargets;  // globs of HOST:PORT that /probe may ask
  double timeoutSeconds = 5;
  std::vector<std::string> groups;  // empty: all
  std::vector<std::string> included;
  std::vector<std::string> excluded;
  std::vector<std::string> texts;
  std::string metadataFile;  // empty: none
  bool isCheck = false;      // only the options and the files are checked
  int traceLevel = 0;
  std::string traceFile;
};

// Returns the options, or nothing after it has printed --help or --version. Throws a Fault (kUsage)
// for bad arguments.
std::optional<ExporterOptions> parseOptions(int argc, char** argv);

}  // namespace zebtool

#endif  // ZEBSTATS_EXPORTER_OPTIONS_H
