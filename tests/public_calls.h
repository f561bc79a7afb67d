// Each public call, for tests that make all of them.
#ifndef ZEBTEST_PUBLIC_CALLS_H
#define ZEBTEST_PUBLIC_CALLS_H

#include <string>

#include "zebstats.h"

namespace zebtest {

struct Arguments {
  GatewayToken *token = nullptr, **tokenPtr = nullptr;
  ResultSetToken *answer = nullptr, **answerPtr = nullptr;
  const char *query = nullptr, *host = nullptr, *path = nullptr;
  char** textPtr = nullptr;
  StatData* stat = nullptr;
  IdData* id = nullptr;
  int number = 0, port = 0, *numberPtr = nullptr;
};

enum class Kind { kOpen, kClose, kCloseAll, kQuery, kWalk, kCopy, kFree, kOther };

struct PublicCall {
  const char* name;
  Kind kind;
  const char* codes;  // those that are documented
  int (*make)(const Arguments& a);
};

inline constexpr char kOpenCodes[] = "0 -107 -108 -105 -133 -132 -135 -136 -118 -134 -102 -122";
inline constexpr char kQueryCodes[] = "0 -100 -125 -126 -101 -123 -124 -2 -102 -122 -138";
inline constexpr char kStatCodes[] = "0 -127 -129 -110 -119 -123 -124 -113";
inline constexpr char kIdCodes[] = "0 -127 -128 -110 -119 -123 -124 -113";

// With right arguments all of them succeed in this order.
#define ZEB_CALL(kind, codes, call)                                                    \
  {                                                                                    \
#call, Kind::kind, codes, []([[maybe_unused]] const Arguments& a) { return call; } \
  }
inline constexpr PublicCall kPublicCalls[] = {
    ZEB_CALL(kOther, "0 -130", setAPITraceFile(a.path)),
    ZEB_CALL(kOther, "0 -109", getAPITraceLevel(a.numberPtr)),
    ZEB_CALL(kOther, "0 -104", setAPITraceLevel(a.number)),
    ZEB_CALL(kOther, "0 -137", setAPITimeout(a.number * 5000)),
    ZEB_CALL(kOther, "0 -109", getAPITimeout(a.numberPtr)),
    ZEB_CALL(kOther, "0", getAPICodeText(-100 - a.number) != nullptr ? 0 : 1),
    ZEB_CALL(kOther, "0 -109", getStatsAPIVersion(a.textPtr)),
    ZEB_CALL(kOpen, kOpenCodes, openRemoteGatewayConnection(a.host, a.port, a.tokenPtr, a.textPtr)),
    ZEB_CALL(kQuery, kQueryCodes, getStatsByStatId(a.token, a.query, a.answerPtr)),
    ZEB_CALL(kQuery, kQueryCodes, getStatsByStatGroupId(a.token, a.query, a.answerPtr)),
    ZEB_CALL(kQuery, kQueryCodes, getStats(a.token, a.answerPtr)),
    ZEB_CALL(kWalk, kStatCodes, getFirstStat(a.answer, a.stat)),
    ZEB_CALL(kWalk, kStatCodes, getNextStat(a.answer, a.stat)),
    ZEB_CALL(kQuery, kQueryCodes, getStatIdsByStatGroupId(a.token, a.query, a.answerPtr)),
    ZEB_CALL(kQuery, kQueryCodes, getResourceGroupIds(a.token, a.answerPtr)),
    ZEB_CALL(kQuery, kQueryCodes, getStatIds(a.token, a.answerPtr)),
    ZEB_CALL(kWalk, kIdCodes, getFirstId(a.answer, a.id)),
    ZEB_CALL(kWalk, kIdCodes, getNextId(a.answer, a.id)),
    ZEB_CALL(kWalk, "0 -127 -109 -110 -119 -123 -124 -131", getIdQuery(a.answer, a.textPtr)),
    ZEB_CALL(kWalk, "0 -127 -110 -119 -123 -124", dumpResultSet(a.answer)),
    ZEB_CALL(kCopy, "0 -127 -125 -110 -119 -123 -124", copyResultSet(a.answer, a.answerPtr)),
    ZEB_CALL(kFree, "0 -125 -127 -106 -110", freeResultSet(a.answerPtr)),
    ZEB_CALL(kOther, "0", dumpState()),
    ZEB_CALL(kClose, "0 -108 -100 -101", closeGatewayConnection(a.tokenPtr)),
    ZEB_CALL(kOpen, kOpenCodes, openGatewayConnection(a.port, a.tokenPtr, a.textPtr)),
    ZEB_CALL(kCloseAll, "0", closeAllGatewayConnections()),
};
#undef ZEB_CALL

// The variables of a caller.
struct Variables {
  GatewayToken* token = nullptr;
  ResultSetToken *answer = nullptr, *copy = nullptr;
  char* text = nullptr;
  StatData stat = {};
  IdData id = {};
  int number = 0;

  // Makes a call with right arguments.
  int make(const PublicCall& call, int port, int level = 0, const char* path = "/dev/null") {
    const bool isOfCopy = call.kind == Kind::kCopy || call.kind == Kind::kFree;
    return call.make({token, &token, answer, isOfCopy ? &copy : &answer, "A", "127.0.0.1", path,
                      &text, &stat, &id, level, port, &number});
  }
};

inline bool isDocumented(const PublicCall& call, int rc) {
  const std::string codes = " " + std::string(call.codes) + " ";
  return codes.find(" " + std::to_string(rc) + " ") != codes.npos;
}

}  // namespace zebtest

#endif
