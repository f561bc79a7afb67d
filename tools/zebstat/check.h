// The command check: one statistic for a monitoring system, by the rules of its plug-ins.
#ifndef ZEBSTAT_CHECK_H
#define ZEBSTAT_CHECK_H

#include <string>

#include "options.h"

namespace zebtool {

// Prints one line of less than 80 characters and returns 0 OK, 1 WARNING, 2 CRITICAL or 3 UNKNOWN.
int runCheck(const Options& options, Gateway& gateway);

}  // namespace zebtool

#endif  // ZEBSTAT_CHECK_H
