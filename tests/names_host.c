/* A host that has functions and data of its own under each inner name that the library exports. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zebstats.h"

#define FUNCTION(name)               \
  void name(void);                   \
  void name(void) {                  \
    exit(puts(#name " was called")); \
  }
#define DATA(name) char name[4096] = "the host's";
#include "inner_names.inc"
#undef FUNCTION
#undef DATA

static const char untouched[4096] = "the host's";

int main(int argc, char** argv) {
  GatewayToken* token = NULL;
  ResultSetToken *answer = NULL, *copy = NULL;
  StatData stat;
  IdData id;
  char *version = NULL, *text = NULL;
  int rc = argc != 3 || setAPITraceFile(argv[2]) != 0 || setAPITraceLevel(5) != 0 ||
           openGatewayConnection(atoi(argv[1]), &token, &version) != 0 ||
           getStats(token, &answer) != 0 || getFirstStat(answer, &stat) != 0 ||
           getStatIdsByStatGroupId(token, "GD", &answer) != 0 ||
           copyResultSet(answer, &copy) != 0 || getFirstId(copy, &id) != 0 ||
           getIdQuery(copy, &text) != 0 || dumpResultSet(copy) != 0 || freeResultSet(&copy) != 0 ||
           dumpState() != 0 || closeGatewayConnection(&token) != 0 ||
           closeAllGatewayConnections() != 0;
  free(version);
#define FUNCTION(name)
#define DATA(name) \
  if (memcmp(name, untouched, sizeof untouched) != 0) rc = puts(#name " was changed");
#include "inner_names.inc"
  return rc != 0;
}
