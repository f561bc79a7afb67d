#include "help.h"

namespace zebtool {

namespace {

// The options of stats, ids and groups.
constexpr char kShowOptions[] =
    R"(  --watch[=SECONDS]   repeat on one connection, every 2 seconds; Ctrl-C ends it
  --count N           end the watch after N rounds
  --format FORMAT     table, json, jsonl, csv, prometheus (stats only)
  --output FILE       replace FILE by the answer when that is complete
  --include GLOB      show only ids that match; may be repeated, as may
  --exclude GLOB      leave out ids that match
  --host HOST         the gateway's name or address (127.0.0.1)
  --port PORT         the gateway's statistics port (2980)
  --timeout SECONDS   time for connecting, and for each answer (10)
  --trace LEVEL       the library's trace: 0 nothing to 5 everything
  --trace-file FILE   append the trace to FILE, not to standard error
)";

constexpr char kConnectOptions[] =
    R"(  --host HOST         the gateway's name or address (127.0.0.1)
  --port PORT         the gateway's statistics port (2980)
  --timeout SECONDS   time for connecting, and for each answer (10)
  --trace LEVEL       the library's trace: 0 nothing to 5 everything
  --trace-file FILE   append the trace to FILE, not to standard error
)";

std::string helpForStats() {
  return std::string(R"(Usage: zebstat stats [ID...] [OPTION...]
       zebstat stats --group GROUP... [OPTION...]
Shows statistics with their values: all, those named, or those of groups.

  --group GROUP...    the statistics of these groups
)") + kShowOptions +
         R"(
Examples:
  zebstat stats WORK_BUSY WORK_QUEUED --host gateway-1
  zebstat stats --group REQ --watch=5 --exclude '*_PEAK'
)";
}

std::string helpForIds() {
  return std::string(R"(Usage: zebstat ids [GROUP...] [OPTION...]
Shows the ids of the statistics, of all groups or of those named.

)") + kShowOptions +
         R"(
Examples:
  zebstat ids LISTEN
  zebstat ids --include '*_PEAK' --format csv
)";
}

std::string helpForGroups() {
  return std::string(R"(Usage: zebstat groups [OPTION...]
Shows the resource groups that the gateway has.

)") + kShowOptions +
         R"(
Examples:
  zebstat groups --host gateway-1
  zebstat groups --format json --output groups.json
)";
}

std::string helpForCheck() {
  return std::string(R"(Usage: zebstat check ID [--warning RANGE] [--critical RANGE] [OPTION...]
A monitoring plug-in: prints one line and exits with 0 OK, 1 WARNING,
2 CRITICAL or 3 UNKNOWN.

  --warning RANGE     a value outside is a warning
  --critical RANGE    a value outside is critical
)") + kConnectOptions +
         R"(
A RANGE is 10 (0 to 10), 10:20, 10: (10 and more) or ~:10 (10 and less); with @
in front a value inside raises the alarm.

Examples:
  zebstat check WORK_QUEUED --warning 20 --critical 100
  zebstat check LINK_SESSIONS --critical @0:0 --timeout 5
)";
}

std::string helpForAll() {
  return R"(Usage: zebstat COMMAND [OPTION...]
Shows the statistics of a transaction gateway.

  stats [ID...]     statistics with their values
  ids [GROUP...]    the ids of the statistics
  groups            the resource groups
  check ID          a monitoring plug-in
  exporter          starts zebstats-exporter, which serves them to Prometheus

zebstat COMMAND --help prints the options of a command, --version the version.

Exit codes: 0 done, 1 the gateway answered an element with an error, 2 usage,
3 not connected, 4 no answer in time, 5 nothing matched. check has its own.

Examples:
  zebstat stats --host gateway-1 --port 2980
  zebstat stats --group LINK --watch
)";
}

}  // namespace

std::string helpFor(std::string_view command) {
  if (command == "stats") return helpForStats();
  if (command == "ids") return helpForIds();
  if (command == "groups") return helpForGroups();
  if (command == "check") return helpForCheck();
  return helpForAll();
}

}  // namespace zebtool
