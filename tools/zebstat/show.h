// The commands stats, ids and groups, once or watched.
#ifndef ZEBSTAT_SHOW_H
#define ZEBSTAT_SHOW_H

#include "options.h"

namespace zebtool {

// Both return the exit code of the last answer, and throw a Fault if the gateway cannot be asked or
// the answer cannot be written. After its first answer, showWatched() does not throw for a gateway
// that cannot be asked: it asks until the gateway answers.
int showOnce(const Options& options, Gateway& gateway);
int showWatched(const Options& options, Gateway& gateway);

}  // namespace zebtool

#endif  // ZEBSTAT_SHOW_H
