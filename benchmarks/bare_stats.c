/* The smallest program that prints a gateway's statistics: connects to 127.0.0.1, asks, prints,
 * closes. It knows neither errors nor more than one response nor a value that needs a second
 * block. */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define BEAN "DefaultDomain:ProdId=com.kro.zeb,Activity=Control,type=Stats"

static unsigned char request[1024], reply[1 << 20];
static size_t size;

static void bytes(const void* data, size_t count) {
  memcpy(request + size, data, count);
  size += count;
}
static void u32(unsigned value) {
  const unsigned wire = htonl(value);
  bytes(&wire, 4);
}
static void text(const char* value) {
  const unsigned short wire = htons((unsigned short)strlen(value));
  bytes(&wire, 2);
  bytes(value, strlen(value));
}
static void begin(const char* name, unsigned type, unsigned tag) {
  size = 0;
  bytes("Gate", 4);
  u32(0x00700000);
  u32(type);
  u32(0);
  u32(tag);
  u32((unsigned)strlen(name));
  bytes(name, strlen(name));
  bytes("", 1);
  u32(0); /* the length of the data, set by flow() */
}
static unsigned wire32(const unsigned char* at) {
  return (unsigned)at[0] << 24 | (unsigned)at[1] << 16 | (unsigned)at[2] << 8 | at[3];
}

/* Sends the request and receives the reply. Both headers have `header` bytes. Returns the reply's
 * data. */
static unsigned char* flow(int connection, size_t header) {
  const unsigned data = htonl((unsigned)(size - header));
  size_t got = 0;
  ssize_t received;
  memcpy(request + header - 4, &data, 4);
  if (send(connection, request, size, 0) < 0) exit(1);
  do {
    received = recv(connection, reply + got, sizeof reply - got, 0);
    if (received <= 0) exit(1);
    got += (size_t)received;
  } while (got < header || got < header + wire32(reply + header - 4));
  return reply + header;
}

static void printStatistics(const unsigned char* at) {
  unsigned count;
  /* kind, return code, exception flag, form; stream header, TC_OBJECT, TC_CLASSDESC */
  at += 4 + 4 + 1 + 1 + 4 + 2;
  at += 2 + (at[0] << 8 | at[1]) + 13;
  at += 2 + (at[0] << 8 | at[1]) + 13;
  at += *at == 'w' ? 2 : 5;
  at += 2 + (at[0] << 8 | at[1]) + 4; /* the element, the return code */
  count = wire32(at);
  at += 6;
  at += 2 + (at[0] << 8 | at[1]) + 8; /* the class of the first statistic */
  while (count-- > 0) {
    int id, value;
    at += 5;
    at += *at == 'w' ? 2 : 5;
    id = at[0] << 8 | at[1];
    value = at[2 + id] << 8 | at[3 + id];
    printf("%.*s %.*s\n", id, at + 2, value, at + 4 + id);
    at += 4 + id + value + 2;
  }
}

int main(int argc, char** argv) {
  struct sockaddr_in address = {0};
  const int connection = socket(AF_INET, SOCK_STREAM, 0);
  unsigned id, tag, call;
  size_t length;
  (void)argc;
  address.sin_family = AF_INET;
  address.sin_port = htons((unsigned short)atoi(argv[1]));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(connection, (struct sockaddr*)&address, sizeof address) != 0) return 1;

  begin("BASE", 5, 0);
  bytes("\0\2en\0\2GB\0\0\0\0\0\0\0\0\0\0", 18);
  flow(connection, 33);
  begin("Auth", 1, 0);
  u32(0);
  flow(connection, 33);
  tag = wire32(reply + 12);
  {
    unsigned char words[12];
    memcpy(words, reply + 33 + 8, 12);
    begin("Auth", 1, tag);
    u32(1);
    bytes(words, 12);
    u32(0);
  }
  flow(connection, 33);
  begin("Admin", 1, 0);
  u32(0);
  id = wire32(flow(connection, 34) + 8);
  tag = wire32(reply + 12);
  begin("Admin", 1, tag);
  u32(5);
  u32(id);
  length = size;
  u32(0); /* the length of the call, set below */
  text("US");
  text("en");
  text("");
  text(BEAN);
  text("GET_STATS");
  u32(1);
  bytes("\xAC\xED\0\5t", 5);
  text("");
  u32(1);
  text("java.lang.String");
  call = htonl((unsigned)(size - length - 4));
  memcpy(request + length, &call, 4);
  printStatistics(flow(connection, 34));
  begin("BASE", 10, 0xFFFFFFFF);
  flow(connection, 33);
  close(connection);
  return 0;
}
