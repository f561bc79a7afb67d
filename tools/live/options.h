// The command line of the live view.
#ifndef ZEBSTAT_LIVE_OPTIONS_H
#define ZEBSTAT_LIVE_OPTIONS_H

#include <optional>
#include <vector>

#include "history.h"
#include "poller.h"
#include "view.h"

namespace zebtool {

struct LiveOptions {
  PollOptions poll;
  std::vector<Limit> limits;
  View view;
};

// Returns the options, or nothing after it has printed --help or --version. Throws a Fault with
// kUsage for bad arguments.
std::optional<LiveOptions> parseLiveOptions(int argc, char** argv);

}  // namespace zebtool

#endif  // ZEBSTAT_LIVE_OPTIONS_H
