/* The public header as a C program meets it. It comes first and alone: what it needs it must bring
 * along. Every public name is used with its whole type, and the calls that need no gateway are
 * made. Compiles as C++ too. */
#include "zebstats.h"

ZEB_EXTERN_C int printf(const char* format, ...);

/* The signatures: an initialiser of another type does not compile. */
typedef int (*QueryAll)(GatewayToken*, ResultSetToken**);
typedef int (*QueryThese)(GatewayToken*, const char*, ResultSetToken**);
typedef int (*StatStep)(ResultSetToken*, StatData*);
typedef int (*IdStep)(ResultSetToken*, IdData*);
static const QueryAll queryAll[] = {getStats, getStatIds, getResourceGroupIds};
static const QueryThese queryThese[] = {getStatsByStatId, getStatsByStatGroupId,
                                        getStatIdsByStatGroupId};
static const StatStep statSteps[] = {getFirstStat, getNextStat};
static const IdStep idSteps[] = {getFirstId, getNextId};
static int (*const openHere)(int, GatewayToken**, char**) = openGatewayConnection;
static int (*const openThere)(const char*, int, GatewayToken**,
                              char**) = openRemoteGatewayConnection;
static int (*const closeOne)(GatewayToken**) = closeGatewayConnection;
static int (*const closeAll)(void) = closeAllGatewayConnections;
static int (*const copy)(ResultSetToken*, ResultSetToken**) = copyResultSet;
static int (*const release)(ResultSetToken**) = freeResultSet;
static int (*const dump)(ResultSetToken*) = dumpResultSet;
static int (*const idQuery)(ResultSetToken*, char**) = getIdQuery;
static int (*const version)(char**) = getStatsAPIVersion;
static int (*const level)(int*) = getAPITraceLevel;
static int (*const setLevel)(int) = setAPITraceLevel;
static int (*const setFile)(const char*) = setAPITraceFile;
static int (*const state)(void) = dumpState;
static int (*const timeout)(int*) = getAPITimeout;
static int (*const setTimeout)(int) = setAPITimeout;
static const char* (*const codeText)(int) = getAPICodeText;

static int failures = 0;

static void check(const char* what, int found, int wanted) {
  if (found == wanted) return;
  printf("%s: %d, not %d\n", what, found, wanted);
  ++failures;
}

/* Compiled programs hold these numbers. */
static void checkCodes(void) {
  static const int codes[] = {ZEB_TOKEN_NULL,           ZEB_TOKEN_UNKNOWN,
                              ZEB_CONNECTION_LOST,      ZEB_BUFFER_NULL,
                              ZEB_TRACE_LEVEL_INVALID,  ZEB_VERSION_POINTER_NULL,
                              ZEB_NOT_A_COPY,           ZEB_PORT_INVALID,
                              ZEB_TOKEN_POINTER_NULL,   ZEB_OUTPUT_POINTER_NULL,
                              ZEB_NO_RESULT_SET_BUFFER, ZEB_NO_MEMORY,
                              /* no -112 */ -112,       ZEB_END_OF_RESULTS,
                              /* no -114 */ -114,       ZEB_TOKEN_LIST_CORRUPT,
                              ZEB_OWNER_INVALID,        /* no -117 */ -117,
                              ZEB_CONNECT_FAILED,       ZEB_WRONG_CONTENT,
                              /* no -120 */ -120,       ZEB_TRACE_LOCK_FAILED,
                              ZEB_COMMUNICATION_FAILED, ZEB_OTHER_PROCESS,
                              ZEB_OTHER_THREAD,         ZEB_RESULT_SET_POINTER_NULL,
                              ZEB_QUERY_NULL,           ZEB_RESULT_SET_NULL,
                              ZEB_ID_DATA_NULL,         ZEB_STAT_DATA_NULL,
                              ZEB_TRACE_FILE_FAILED,    ZEB_NO_GOOD_ID,
                              ZEB_HOST_UNKNOWN,         ZEB_HOST_NULL,
                              ZEB_CONNECT_TIMED_OUT,    ZEB_CONNECT_REFUSED,
                              ZEB_NETWORK_UNREACHABLE};
  int i;
  for (i = 0; i < (int)(sizeof codes / sizeof codes[0]); ++i)
    check("a return code", codes[i], -100 - i);
  check("the last of these", -100 - (i - 1), -136);
  check("a negative timeout", ZEB_TIMEOUT_INVALID, -137);
  check("a query that timed out", ZEB_TIMED_OUT, -138);
  check("success", ZEB_OK, 0);
  check("a long query", ZEB_QUERY_TOO_LONG, -2);
}

#define OFFSET(record, field) ((int)((char*)&(record).field - (char*)&(record)))

/* Where compiled programs look for the fields: no gap but what alignment asks for. */
static void checkRecords(void) {
  StatData stat;
  IdData id;
  int pointer = (int)sizeof(char*);
  int behindRc = 8 + pointer + 8;
  int behindId = behindRc + 4 + (pointer == 8 ? 4 : 0) + pointer;
  check("StatData.contentMarker", (int)sizeof stat.contentMarker + OFFSET(stat, contentMarker), 8);
  check("StatData.queryElementPtr", OFFSET(stat, queryElementPtr), 8);
  check("StatData.queryElementLen", OFFSET(stat, queryElementLen), 8 + pointer);
  check("StatData.queryElementRC", OFFSET(stat, queryElementRC), behindRc - 4);
  check("StatData.statIdLen", OFFSET(stat, statIdLen), behindRc);
  check("StatData.statIdPtr", OFFSET(stat, statIdPtr), behindId - pointer);
  check("StatData.statValueLen", OFFSET(stat, statValueLen), behindId);
  check("StatData.statValuePtr", OFFSET(stat, statValuePtr), (int)sizeof stat - pointer);
  check("sizeof(StatData)", (int)sizeof stat, 2 * behindId - behindRc);
  check("IdData.contentMarker", (int)sizeof id.contentMarker + OFFSET(id, contentMarker), 8);
  check("IdData.queryElementPtr", OFFSET(id, queryElementPtr), 8);
  check("IdData.queryElementLen", OFFSET(id, queryElementLen), 8 + pointer);
  check("IdData.queryElementRC", OFFSET(id, queryElementRC), behindRc - 4);
  check("IdData.idLen", OFFSET(id, idLen), behindRc);
  check("IdData.idPtr", OFFSET(id, idPtr), behindId - pointer);
  check("sizeof(IdData)", (int)sizeof id, behindId);
}

/* The arguments are looked at in one order: the code tells which fault came first. */
static void checkConnectionFaults(void) {
  char foreign = 0;
  GatewayToken* none = 0;
  GatewayToken* unknown = (GatewayToken*)&foreign;
  char* text = 0;
  check("port 0", openHere(0, 0, 0), ZEB_PORT_INVALID);
  check("no token", openThere(0, 1, 0, 0), ZEB_TOKEN_POINTER_NULL);
  check("no version", openThere(0, 65535, &none, 0), ZEB_VERSION_POINTER_NULL);
  check("no host", openThere(0, 1, &none, &text), ZEB_HOST_NULL);
  check("refused", openHere(1, &none, &text), ZEB_CONNECT_REFUSED);
  check("outputs of a failed open", none == 0 && text == 0, 1);
  check("close of a null token", closeOne(&none), ZEB_TOKEN_NULL);
  check("close of an unknown token", closeOne(&unknown), ZEB_TOKEN_UNKNOWN);
  check("an unknown token after its close", unknown == (GatewayToken*)&foreign, 1);
  check("close of none", closeAll(), ZEB_OK);
}

/* One code for each, which shows that its arguments arrive. */
static void checkQueries(void) {
  char foreign = 0;
  GatewayToken* unknown = (GatewayToken*)&foreign;
  ResultSetToken* answer = 0;
  int i;
  for (i = 0; i < 3; ++i) {
    check("query", queryAll[i](unknown, &answer), ZEB_TOKEN_UNKNOWN);
    check("query without ids", queryThese[i](unknown, 0, 0), ZEB_QUERY_NULL);
    check("query of ids", queryThese[i](unknown, "A", &answer), ZEB_TOKEN_UNKNOWN);
  }
  check("answer of a failed query", answer == 0, 1);
}

static void checkResultSets(void) {
  char foreign = 0;
  ResultSetToken* none = 0;
  ResultSetToken* some = (ResultSetToken*)&foreign;
  int i;
  for (i = 0; i < 2; ++i) {
    check("statistics", statSteps[i](some, 0), ZEB_STAT_DATA_NULL);
    check("ids", idSteps[i](some, 0), ZEB_ID_DATA_NULL);
  }
  check("copy", copy(some, 0), ZEB_RESULT_SET_POINTER_NULL);
  check("release", release(&none), ZEB_RESULT_SET_NULL);
  check("dump", dump(0), ZEB_RESULT_SET_NULL);
  check("id query", idQuery(0, 0), ZEB_RESULT_SET_NULL);
}

static void checkLibrary(void) {
  char* text = 0;
  char* again = 0;
  int current = -1;
  check("version", version(&text), ZEB_OK);
  check("version again", version(&again), ZEB_OK);
  check("version's address", text != 0 && text == again, 1);
  check("level 6", setLevel(6), ZEB_TRACE_LEVEL_INVALID);
  check("level", level(&current), ZEB_OK);
  check("level at the start", current, 0);
  check("standard error", setFile(0), ZEB_OK);
  check("state", state(), ZEB_OK);
  check("timeout to nowhere", timeout(0), ZEB_OUTPUT_POINTER_NULL);
  check("timeout", timeout(&current), ZEB_OK);
  check("timeout at the start", current, 0);
  check("timeout of 250 ms", setTimeout(250), ZEB_OK);
  check("timeout of -1 ms", setTimeout(-1), ZEB_TIMEOUT_INVALID);
  check("timeout again", timeout(&current), ZEB_OK);
  check("timeout after a failed call", current, 250);
  check("text of an unknown code", codeText(1) != 0 && codeText(1) == codeText(-99), 1);
}

int main(void) {
  checkCodes();
  checkRecords();
  checkConnectionFaults();
  checkQueries();
  checkResultSets();
  checkLibrary();
  return failures == 0 ? 0 : 1;
}
