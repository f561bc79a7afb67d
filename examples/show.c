/* Shows all statistics of a gateway: show HOST PORT */
#include <stdio.h>
#include <stdlib.h>
#include <zebstats.h>

int main(int argc, char** argv) {
  GatewayToken* gateway = NULL;
  ResultSetToken* answer = NULL;
  StatData stat;
  char* version = NULL;
  int rc;
  if (argc != 3) {
    fprintf(stderr, "usage: show HOST PORT\n");
    return 2;
  }

  rc = openRemoteGatewayConnection(argv[1], atoi(argv[2]), &gateway, &version);
  if (rc == ZEB_OK) rc = getStats(gateway, &answer);
  if (rc == ZEB_OK) rc = getFirstStat(answer, &stat);
  for (; rc == ZEB_OK; rc = getNextStat(answer, &stat))
    if (stat.queryElementRC >= 0)
      printf("%.*s = %.*s\n", stat.statIdLen, stat.statIdPtr, stat.statValueLen, stat.statValuePtr);
  free(version);
  closeGatewayConnection(&gateway);

  if (rc == ZEB_END_OF_RESULTS) return 0;
  fprintf(stderr, "show: %s\n", getAPICodeText(rc));
  return 1;
}
