/* Polls several gateways in one thread, once a second, and prints numbers: counters as rates, other
 * statistics as they are. A silent gateway delays the others by no more than the timeout, and after
 * a failure its connection is opened again only after a pause.
 *
 * poll_with_timeout ROUNDS HOST PORT [HOST PORT]... */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <zebstats.h>

#define TIMEOUT_MS 2000
#define INTERVAL_SECONDS 1
#define PAUSE_SECONDS 5

/* The statistics that are asked for, and which of them only ever grow. */
static const char* const query = "LISTEN_OPEN:REQ_COUNT:LISTEN_BYTES_IN";
static const struct {
  const char* id;
  int isCounter;
} statistics[] = {{"LISTEN_OPEN", 0}, {"REQ_COUNT", 1}, {"LISTEN_BYTES_IN", 1}};
#define STATISTICS ((int)(sizeof statistics / sizeof statistics[0]))

typedef struct Value {
  double number;
  double time; /* when it was read; 0: there is no value */
} Value;

typedef struct Gateway {
  const char* host;
  int port;
  GatewayToken* token; /* null while it is not open */
  double retryAt;      /* when it may be opened again */
  Value before[STATISTICS];
} Gateway;

/* Returns the seconds of the monotonic clock, which is never set. */
static double now(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static void sleepUntil(double end) {
  struct timespec time;
  time.tv_sec = (time_t)end;
  time.tv_nsec = (long)((end - (double)time.tv_sec) * 1e9);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, NULL) == EINTR) continue;
}

/* Returns whether the whole text is a decimal number. Values are any texts, and have no NUL. */
static int readNumber(const char* text, int length, double* number) {
  char copy[40];
  char* end;
  if (length < 1 || length >= (int)sizeof copy) return 0;
  memcpy(copy, text, (size_t)length);
  copy[length] = '\0';
  if (copy[strspn(copy, "+-.0123456789")] != '\0') return 0;
  *number = strtod(copy, &end);
  return *end == '\0';
}

static void showValue(const Gateway* gateway, int i, const Value* value) {
  const Value* before = &gateway->before[i];
  if (!statistics[i].isCounter)
    printf("%s:%d %s = %.15g\n", gateway->host, gateway->port, statistics[i].id, value->number);
  else if (before->time > 0 && value->number >= before->number) /* otherwise it was restarted */
    printf("%s:%d %s = %.1f/s\n", gateway->host, gateway->port, statistics[i].id,
           (value->number - before->number) / (value->time - before->time));
}

static int showAnswer(Gateway* gateway, ResultSetToken* answer) {
  StatData stat;
  Value value;
  int i;
  int rc = getFirstStat(answer, &stat);
  value.time = now();
  for (; rc == ZEB_OK; rc = getNextStat(answer, &stat)) {
    if (stat.queryElementRC < 0) continue; /* this gateway does not have it */
    for (i = 0; i < STATISTICS; ++i) {
      if (stat.statIdLen != (int)strlen(statistics[i].id) ||
          memcmp(stat.statIdPtr, statistics[i].id, (size_t)stat.statIdLen) != 0 ||
          !readNumber(stat.statValuePtr, stat.statValueLen, &value.number))
        continue;
      showValue(gateway, i, &value);
      gateway->before[i] = value;
    }
  }
  return rc == ZEB_END_OF_RESULTS ? ZEB_OK : rc;
}

static int openGateway(Gateway* gateway) {
  char* version = NULL;
  int rc = openRemoteGatewayConnection(gateway->host, gateway->port, &gateway->token, &version);
  if (rc == ZEB_OK) free(version);
  memset(gateway->before, 0, sizeof gateway->before); /* it may be another process now */
  return rc;
}

static int askGateway(Gateway* gateway) {
  ResultSetToken* answer = NULL;
  int rc = gateway->token == NULL ? openGateway(gateway) : ZEB_OK;
  if (rc == ZEB_OK) rc = getStatsByStatId(gateway->token, query, &answer);
  return rc == ZEB_OK ? showAnswer(gateway, answer) : rc;
}

/* Returns whether the gateway answered. */
static int pollGateway(Gateway* gateway) {
  const char* host = gateway->host;
  int rc;
  if (gateway->token == NULL && now() < gateway->retryAt) return 0;
  rc = askGateway(gateway);
  if (rc == ZEB_OK) return 1;
  fprintf(stderr, "poll_with_timeout: %s:%d: %s\n", host, gateway->port, getAPICodeText(rc));
  closeGatewayConnection(&gateway->token); /* returns -101 if it was removed already: no harm */
  gateway->token = NULL;
  gateway->retryAt = now() + PAUSE_SECONDS;
  return 0;
}

/* Returns how many gateways answered in the last round. */
static int pollAll(Gateway* gateways, int count, int rounds) {
  double next = now();
  int answered, i;
  for (;;) {
    answered = 0;
    for (i = 0; i < count; ++i) answered += pollGateway(&gateways[i]);
    fflush(stdout);
    if (--rounds == 0) return answered;
    next += INTERVAL_SECONDS;
    if (next < now()) next = now(); /* silent gateways have taken longer than the interval */
    sleepUntil(next);
  }
}

int main(int argc, char** argv) {
  int count = (argc - 2) / 2, rounds = argc > 1 ? atoi(argv[1]) : 0, answered, i, rc;
  Gateway* gateways = count > 0 ? calloc((size_t)count, sizeof *gateways) : NULL;
  if (argc % 2 != 0 || rounds < 1 || gateways == NULL) {
    fprintf(stderr, "usage: poll_with_timeout ROUNDS HOST PORT [HOST PORT]...\n");
    free(gateways);
    return 2;
  }
  for (i = 0; i < count; ++i) {
    gateways[i].host = argv[2 + 2 * i];
    gateways[i].port = atoi(argv[3 + 2 * i]);
  }
  rc = setAPITimeout(TIMEOUT_MS);
  if (rc != ZEB_OK) fprintf(stderr, "poll_with_timeout: %s\n", getAPICodeText(rc));
  answered = rc == ZEB_OK ? pollAll(gateways, count, rounds) : 0;
  closeAllGatewayConnections(); /* takes at most the timeout for all together */
  free(gateways);
  return answered == count ? 0 : 1;
}
