/* A host that has functions and data of its own under each inner name that the library exports. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zebstats.h"

#define FUNCTION(name)         \
  void name(void);             \
  void name(void) {            \
    puts(#name " was called"); \
    fflush(stdout);            \
    abort();                   \
  }
#define DATA(name) char name[4096] = "the host's";
#include "inner_names.inc"
#undef FUNCTION
#undef DATA

static const char untouched[4096] = "the host's";

static int check(const char* call, int rc, int expected) {
  if (rc != expected) printf("%s returns %d\n", call, rc);
  return rc != expected;
}
#define CHECK(call, expected) failures += check(#call, call, expected)

int main(int argc, char** argv) {
  GatewayToken* token = NULL;
  ResultSetToken* answer = NULL;
  ResultSetToken* copy = NULL;
  StatData stat;
  IdData id;
  char* text = NULL;
  int failures = 0;
  if (argc != 3) return 2;
  CHECK(setAPITraceFile(argv[2]), 0);
  CHECK(setAPITraceLevel(5), 0);
  CHECK(openGatewayConnection(atoi(argv[1]), &token, &text), 0);
  free(text);
  CHECK(getStats(token, &answer), 0);
  CHECK(getFirstStat(answer, &stat), 0);
  CHECK(getStatIdsByStatGroupId(token, "GD", &answer), 0);
  CHECK(copyResultSet(answer, &copy), 0);
  CHECK(getFirstId(copy, &id), 0);
  CHECK(getIdQuery(copy, &text), 0);
  CHECK(dumpResultSet(copy), 0);
  CHECK(freeResultSet(&copy), 0);
  CHECK(dumpState(), 0);
  CHECK(closeGatewayConnection(&token), 0);
  CHECK(closeAllGatewayConnections(), 0);
#define FUNCTION(name)
#define DATA(name) \
  if (memcmp(name, untouched, sizeof untouched) != 0) failures += puts(#name " was changed") >= 0;
#include "inner_names.inc"
  return failures != 0;
}
