// Each public call, for tests that make all of them.
#ifndef ZEBTEST_PUBLIC_CALLS_H
#define ZEBTEST_PUBLIC_CALLS_H

#include "zebstats.h"

namespace zebtest {

struct Arguments {
  GatewayToken *token, **tokenPtr;
  ResultSetToken *answer, **answerPtr;
  const char *query, *host, *path;
  char** textPtr;
  StatData* stat;
  IdData* id;
  int number, port, *numberPtr;
};

enum class Kind { kOpen, kClose, kCloseAll, kQuery, kWalk, kCopy, kFree, kOther };

struct PublicCall {
  const char* name;
  Kind kind;
  const char* codes;  // those that are documented, each with a blank behind it
  int (*make)(const Arguments& a);
};

inline constexpr char kOpenCodes[] =
    "0 -107 -108 -105 -133 -132 -135 -136 -118 -134 -102 -122 -111 ";
inline constexpr char kQueryCodes[] = "0 -100 -125 -126 -101 -123 -124 -2 -111 -102 -122 -138 ";
inline constexpr char kStatCodes[] = "0 -127 -129 -110 -119 -123 -124 -113 ";
inline constexpr char kIdCodes[] = "0 -127 -128 -110 -119 -123 -124 -113 ";

// With right arguments all of them succeed in this order.
using A = const Arguments&;
inline constexpr PublicCall kPublicCalls[] = {
    {"setAPITraceFile", Kind::kOther, "0 -130 ", [](A a) { return setAPITraceFile(a.path); }},
    {"getAPITraceLevel", Kind::kOther, "0 -109 ",
     [](A a) { return getAPITraceLevel(a.numberPtr); }},
    {"setAPITraceLevel", Kind::kOther, "0 -104 ", [](A a) { return setAPITraceLevel(a.number); }},
    {"setAPITimeout", Kind::kOther, "0 -137 ", [](A a) { return setAPITimeout(a.number * 5000); }},
    {"getAPITimeout", Kind::kOther, "0 -109 ", [](A a) { return getAPITimeout(a.numberPtr); }},
    {"getAPICodeText", Kind::kOther, "0 ",
     [](A a) { return getAPICodeText(-a.port) != nullptr ? 0 : 1; }},
    {"getStatsAPIVersion", Kind::kOther, "0 -109 ",
     [](A a) { return getStatsAPIVersion(a.textPtr); }},
    {"openRemoteGatewayConnection", Kind::kOpen, kOpenCodes,
     [](A a) { return openRemoteGatewayConnection(a.host, a.port, a.tokenPtr, a.textPtr); }},
    {"getStatsByStatId", Kind::kQuery, kQueryCodes,
     [](A a) { return getStatsByStatId(a.token, a.query, a.answerPtr); }},
    {"getStatsByStatGroupId", Kind::kQuery, kQueryCodes,
     [](A a) { return getStatsByStatGroupId(a.token, a.query, a.answerPtr); }},
    {"getStats", Kind::kQuery, kQueryCodes, [](A a) { return getStats(a.token, a.answerPtr); }},
    {"getFirstStat", Kind::kWalk, kStatCodes, [](A a) { return getFirstStat(a.answer, a.stat); }},
    {"getNextStat", Kind::kWalk, kStatCodes, [](A a) { return getNextStat(a.answer, a.stat); }},
    {"getStatIdsByStatGroupId", Kind::kQuery, kQueryCodes,
     [](A a) { return getStatIdsByStatGroupId(a.token, a.query, a.answerPtr); }},
    {"getResourceGroupIds", Kind::kQuery, kQueryCodes,
     [](A a) { return getResourceGroupIds(a.token, a.answerPtr); }},
    {"getStatIds", Kind::kQuery, kQueryCodes, [](A a) { return getStatIds(a.token, a.answerPtr); }},
    {"getFirstId", Kind::kWalk, kIdCodes, [](A a) { return getFirstId(a.answer, a.id); }},
    {"getNextId", Kind::kWalk, kIdCodes, [](A a) { return getNextId(a.answer, a.id); }},
    {"getIdQuery", Kind::kWalk, "0 -127 -109 -110 -119 -123 -124 -131 -111 ",
     [](A a) { return getIdQuery(a.answer, a.textPtr); }},
    {"dumpResultSet", Kind::kWalk, "0 -127 -110 -119 -123 -124 ",
     [](A a) { return dumpResultSet(a.answer); }},
    {"copyResultSet", Kind::kCopy, "0 -127 -125 -110 -119 -123 -124 -111 ",
     [](A a) { return copyResultSet(a.answer, a.answerPtr); }},
    {"freeResultSet", Kind::kFree, "0 -125 -127 -106 -110 ",
     [](A a) { return freeResultSet(a.answerPtr); }},
    {"dumpState", Kind::kOther, "0 ", [](A) { return dumpState(); }},
    {"closeGatewayConnection", Kind::kClose, "0 -108 -100 -101 ",
     [](A a) { return closeGatewayConnection(a.tokenPtr); }},
    {"openGatewayConnection", Kind::kOpen, kOpenCodes,
     [](A a) { return openGatewayConnection(a.port, a.tokenPtr, a.textPtr); }},
    {"closeAllGatewayConnections", Kind::kCloseAll, "0 ",
     [](A) { return closeAllGatewayConnections(); }},
};

}  // namespace zebtest

#endif
