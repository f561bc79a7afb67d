// The commands stats, ids and groups, once or watched.
#ifndef ZEBSTAT_SHOW_H
#define ZEBSTAT_SHOW_H

#include "options.h"

namespace zebtool {

// Returns the exit code; if some gateways fail, the worst. Throws a Fault if the output cannot be
// written.
int showOnce(const Options& options);

// The same for a watch: returns the exit code of its last answers. It ends early if no gateway
// answers the first question; later a gateway that fails is asked again until it answers.
int showWatched(const Options& options);

}  // namespace zebtool

#endif  // ZEBSTAT_SHOW_H
