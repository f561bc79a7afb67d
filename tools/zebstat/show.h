// The commands stats, ids and groups, once or watched.
#ifndef ZEBSTAT_SHOW_H
#define ZEBSTAT_SHOW_H

#include "options.h"

namespace zebtool {

// Each returns the exit code, and throws a Fault.
int showOnce(const Options& options, Gateway& gateway);
int showWatched(const Options& options, Gateway& gateway);

}  // namespace zebtool

#endif  // ZEBSTAT_SHOW_H
