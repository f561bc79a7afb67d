/* The public header as a C program meets it. It comes first and alone: what it needs it must bring
 * along. Each call is made with arguments of their exact types. Compiles as C++ too. */
#include "zebstats.h"

ZEB_EXTERN_C int printf(const char* format, ...);

static int failures = 0;

static void check(const char* what, int found, int wanted) {
  if (found == wanted) return;
  printf("%s: %d, not %d\n", what, found, wanted);
  ++failures;
}

#define CHECK(call, wanted) check(#call, call, wanted)

/* The arguments are checked in one order: the code says which fault came first. */
int main(void) {
  char foreign = 0;
  GatewayToken* none = 0;
  GatewayToken* unknown = (GatewayToken*)&foreign;
  ResultSetToken* answer = 0;
  ResultSetToken* some = (ResultSetToken*)&foreign;
  char* text = 0;
  int number = -1;
  const char* (*const codeText)(int) = getAPICodeText;
  CHECK(openGatewayConnection(0, 0, 0), ZEB_PORT_INVALID);
  CHECK(openRemoteGatewayConnection(0, 1, 0, 0), ZEB_TOKEN_POINTER_NULL);
  CHECK(openRemoteGatewayConnection(0, 1, &none, &text), ZEB_HOST_NULL);
  CHECK(openGatewayConnection(1, &none, &text), ZEB_CONNECT_REFUSED);
  CHECK(none == 0 && text == 0, 1);
  CHECK(closeGatewayConnection(&none), ZEB_TOKEN_NULL);
  CHECK(closeGatewayConnection(&unknown), ZEB_TOKEN_UNKNOWN);
  CHECK(closeAllGatewayConnections(), ZEB_OK);
  CHECK(getStats(unknown, &answer), ZEB_TOKEN_UNKNOWN);
  CHECK(getStatIds(unknown, &answer), ZEB_TOKEN_UNKNOWN);
  CHECK(getResourceGroupIds(unknown, &answer), ZEB_TOKEN_UNKNOWN);
  CHECK(getStatsByStatId(unknown, 0, 0), ZEB_QUERY_NULL);
  CHECK(getStatsByStatGroupId(unknown, "A", 0), ZEB_RESULT_SET_POINTER_NULL);
  CHECK(getStatIdsByStatGroupId(unknown, "A", &answer), ZEB_TOKEN_UNKNOWN);
  CHECK(getFirstStat(some, 0), ZEB_STAT_DATA_NULL);
  CHECK(getNextStat(some, 0), ZEB_STAT_DATA_NULL);
  CHECK(getFirstId(some, 0), ZEB_ID_DATA_NULL);
  CHECK(getNextId(some, 0), ZEB_ID_DATA_NULL);
  CHECK(copyResultSet(some, 0), ZEB_RESULT_SET_POINTER_NULL);
  CHECK(freeResultSet(&answer), ZEB_RESULT_SET_NULL);
  CHECK(dumpResultSet(0), ZEB_RESULT_SET_NULL);
  CHECK(getIdQuery(0, &text), ZEB_RESULT_SET_NULL);
  CHECK(getStatsAPIVersion(&text), ZEB_OK);
  CHECK(text != 0, 1);
  CHECK(setAPITraceLevel(6), ZEB_TRACE_LEVEL_INVALID);
  CHECK(getAPITraceLevel(&number) + number, 0);
  CHECK(setAPITraceFile(0), ZEB_OK);
  CHECK(dumpState(), ZEB_OK);
  CHECK(setAPITimeout(250), ZEB_OK);
  CHECK(setAPITimeout(-1), ZEB_TIMEOUT_INVALID);
  CHECK(getAPITimeout(&number) + number, 250);
  CHECK(codeText(1) != 0 && codeText(1) == codeText(-99), 1);
  return failures == 0 ? 0 : 1;
}
