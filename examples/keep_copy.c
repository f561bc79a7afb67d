/* Keeps an answer across the next query, and prints which statistics have changed:
 * keep_copy HOST PORT */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <zebstats.h>

static int isSame(const StatData* a, const StatData* b) {
  return a->statIdLen == b->statIdLen &&
         memcmp(a->statIdPtr, b->statIdPtr, (size_t)a->statIdLen) == 0 &&
         a->statValueLen == b->statValueLen &&
         memcmp(a->statValuePtr, b->statValuePtr, (size_t)a->statValueLen) == 0;
}

/* Both answers list the same statistics in the same order. */
static int showChanges(ResultSetToken* before, ResultSetToken* now) {
  StatData old, stat;
  int rc = getFirstStat(before, &old);
  if (rc == ZEB_OK) rc = getFirstStat(now, &stat);
  while (rc == ZEB_OK) {
    if (stat.queryElementRC >= 0 && old.queryElementRC >= 0 && !isSame(&stat, &old))
      printf("%.*s: %.*s -> %.*s\n", stat.statIdLen, stat.statIdPtr, old.statValueLen,
             old.statValuePtr, stat.statValueLen, stat.statValuePtr);
    rc = getNextStat(before, &old);
    if (rc == ZEB_OK) rc = getNextStat(now, &stat);
  }
  return rc;
}

int main(int argc, char** argv) {
  GatewayToken* gateway = NULL;
  ResultSetToken *answer = NULL, *copy = NULL;
  char* version = NULL;
  int rc;
  if (argc != 3) {
    fprintf(stderr, "usage: keep_copy HOST PORT\n");
    return 2;
  }

  rc = openRemoteGatewayConnection(argv[1], atoi(argv[2]), &gateway, &version);
  if (rc == ZEB_OK) rc = getStatsByStatGroupId(gateway, "REQ:VM", &answer);
  if (rc == ZEB_OK) rc = copyResultSet(answer, &copy);
  if (rc == ZEB_OK) {
    sleep(2);
    /* It overwrites the first answer, but not the copy. */
    rc = getStatsByStatGroupId(gateway, "REQ:VM", &answer);
  }
  if (rc == ZEB_OK) rc = showChanges(copy, answer);
  freeResultSet(&copy);
  free(version);
  closeGatewayConnection(&gateway);

  if (rc == ZEB_END_OF_RESULTS) return 0;
  fprintf(stderr, "keep_copy: %s\n", getAPICodeText(rc));
  return 1;
}
