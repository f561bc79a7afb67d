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

int main(int argc, char** argv) {
  GatewayToken* token = NULL;
  ResultSetToken* answer = NULL;
  ResultSetToken* copy = NULL;
  StatData stat;
  IdData id;
  char* version = NULL;
  char* text = NULL;
  int rc = 2;
  if (argc != 3 || (rc = setAPITraceFile(argv[2])) != 0 || (rc = setAPITraceLevel(5)) != 0 ||
      (rc = openGatewayConnection(atoi(argv[1]), &token, &version)) != 0 ||
      (rc = getStats(token, &answer)) != 0 || (rc = getFirstStat(answer, &stat)) != 0 ||
      (rc = getStatIdsByStatGroupId(token, "GD", &answer)) != 0 ||
      (rc = copyResultSet(answer, &copy)) != 0 || (rc = getFirstId(copy, &id)) != 0 ||
      (rc = getIdQuery(copy, &text)) != 0 || (rc = dumpResultSet(copy)) != 0 ||
      (rc = freeResultSet(&copy)) != 0 || (rc = dumpState()) != 0 ||
      (rc = closeGatewayConnection(&token)) != 0 || (rc = closeAllGatewayConnections()) != 0)
    printf("a call returns %d\n", rc);
  free(version);
#define FUNCTION(name)
#define DATA(name) \
  if (memcmp(name, untouched, sizeof untouched) != 0) rc = puts(#name " was changed") | 1;
#include "inner_names.inc"
  return rc != 0;
}
