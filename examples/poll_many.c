/* Polls several gateways three times, at intervals of a second, each from a thread of its own over
 * a connection of its own: poll_many HOST PORT [HOST PORT]... */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
#include <zebstats.h>

#define ROUNDS 3

typedef struct Poller {
  pthread_t thread;
  const char* host;
  int port;
  int rc;
} Poller;

static int showAnswer(const Poller* poller, ResultSetToken* answer) {
  StatData stat;
  int rc = getFirstStat(answer, &stat);
  for (; rc == ZEB_OK; rc = getNextStat(answer, &stat))
    if (stat.queryElementRC >= 0)
      printf("%s:%d %.*s = %.*s\n", poller->host, poller->port, stat.statIdLen, stat.statIdPtr,
             stat.statValueLen, stat.statValuePtr);
  return rc == ZEB_END_OF_RESULTS ? ZEB_OK : rc;
}

/* A connection belongs to the thread that opens it. */
static void* poll(void* argument) {
  Poller* poller = argument;
  GatewayToken* gateway = NULL;
  ResultSetToken* answer = NULL;
  char* version = NULL;
  int round;
  int rc = openRemoteGatewayConnection(poller->host, poller->port, &gateway, &version);
  for (round = 0; rc == ZEB_OK && round < ROUNDS; ++round) {
    if (round > 0) sleep(1);
    rc = getStatsByStatId(gateway, "VM_UPTIME:REQ_COUNT", &answer);
    if (rc == ZEB_OK) rc = showAnswer(poller, answer);
  }
  free(version);
  closeGatewayConnection(&gateway); /* returns -101 if the connection was lost: no harm */
  poller->rc = rc;
  return NULL;
}

int main(int argc, char** argv) {
  int count = (argc - 1) / 2, started = 0, failed = 0, i;
  Poller* pollers = count > 0 ? calloc((size_t)count, sizeof *pollers) : NULL;
  if (argc % 2 == 0 || pollers == NULL) {
    fprintf(stderr, "usage: poll_many HOST PORT [HOST PORT]...\n");
    free(pollers);
    return 2;
  }
  for (; started < count; ++started) {
    pollers[started].host = argv[1 + 2 * started];
    pollers[started].port = atoi(argv[2 + 2 * started]);
    if (pthread_create(&pollers[started].thread, NULL, poll, &pollers[started]) != 0) break;
  }
  for (i = 0; i < started; ++i) {
    pthread_join(pollers[i].thread, NULL);
    if (pollers[i].rc == ZEB_OK) continue;
    fprintf(stderr, "poll_many: %s:%d: %s\n", pollers[i].host, pollers[i].port,
            getAPICodeText(pollers[i].rc));
    ++failed;
  }
  free(pollers);
  return failed != 0 || started != count;
}
