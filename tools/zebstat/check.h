// The command check: a monitoring plug-in that judges one statistic.
#ifndef ZEBSTAT_CHECK_H
#define ZEBSTAT_CHECK_H

#include <string>

#include "options.h"

namespace zebtool {

// Prints one line of less than 80 characters and returns the exit code of a plug-in: 0 OK, 1
// WARNING, 2 CRITICAL, 3 UNKNOWN, also for a gateway that does not answer.
int runCheck(const Options& options, Gateway& gateway);

}  // namespace zebtool

#endif  // ZEBSTAT_CHECK_H
