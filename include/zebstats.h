/* zebstats: the statistics API of a transaction gateway.
 *
 * A monitoring program opens a connection to a gateway's statistics port, asks for statistics,
 * statistic ids or resource groups, and walks the answer entry by entry:
 *
 *     GatewayToken *gateway = NULL;
 *     ResultSetToken *answer = NULL;
 *     StatData stat;
 *     char *version = NULL;
 *     int rc = setAPITimeout(5000);
 *     if (rc == ZEB_OK) rc = openRemoteGatewayConnection("127.0.0.1", 2980, &gateway, &version);
 *     if (rc == ZEB_OK) rc = getStats(gateway, &answer);
 *     if (rc == ZEB_OK) rc = getFirstStat(answer, &stat);
 *     for (; rc == ZEB_OK; rc = getNextStat(answer, &stat))
 *         if (stat.queryElementRC >= 0)
 *             printf("%.*s = %.*s\n", stat.statIdLen, stat.statIdPtr,
 *                    stat.statValueLen, stat.statValuePtr);
 *     if (rc != ZEB_END_OF_RESULTS) fprintf(stderr, "%s\n", getAPICodeText(rc));
 *     free(version);
 *     closeGatewayConnection(&gateway);
 *
 * Rules that hold for every call
 *
 *   Codes      Every call except getAPICodeText() returns ZEB_OK or one of the negative codes
 *              below; nothing is thrown, nothing ends the process. A call that fails leaves its
 *              output arguments as they were unless it says otherwise. Until initialisation has
 *              succeeded, every call returns ZEB_NO_MEMORY, ZEB_TRACE_LOCK_FAILED or, for the lock
 *              of the list of connections, ZEB_QUERY_TOO_LONG (closeGatewayConnection() checks its
 *              argument first); the next call tries again.
 *   Start      There is no start-up call: the first call initialises the library and sets the trace
 *              level to 0. Any number of threads may make it at once.
 *   Time       Call setAPITimeout() at the start: without a timeout, calls wait for a gateway for
 *              ever. It bounds each open, query and close as a whole, and
 *              closeAllGatewayConnections() for all gateways together; a gateway that sends a byte
 *              now and then does not extend it. The call returns within the timeout plus a tenth:
 *              an open with ZEB_CONNECT_TIMED_OUT, a query with ZEB_TIMED_OUT, a close with ZEB_OK.
 *              Only the resolution of a host name cannot be bounded; a numeric address needs none.
 *   Signals    With a timeout, a handled signal ends no call. Without one, a signal that is handled
 *              while a query waits ends the query with ZEB_CONNECTION_LOST, and one that is handled
 *              while an open waits may end it with ZEB_CONNECT_FAILED or ZEB_CONNECTION_LOST.
 *   Threads    A connection and its result set belong to the thread that opened it; calls from
 *              another thread return ZEB_OTHER_THREAD. A copy of a result set may be used by any
 *              thread, one at a time. Any thread may close a connection at any time. If the owner
 *              is inside a call that waits, the close wakes it: a query returns
 *              ZEB_CONNECTION_LOST, an open, which closeAllGatewayConnections() ends,
 *              ZEB_TOKEN_UNKNOWN. But a close frees the answer: the caller must keep it apart from
 *              walks and other reads of it. A silent gateway holds up only the thread that waits
 *              for it.
 *   Lifetime   An answer lives until the next query on its connection, and no longer than the
 *              connection; copyResultSet() keeps it. A query that returns ZEB_CONNECTION_LOST,
 *              ZEB_TIMED_OUT or ZEB_COMMUNICATION_FAILED has removed its connection, and that needs
 *              no close. While fewer than 1,024 further connections have been closed, the handles
 *              of a connection that is gone are recognised: its token returns ZEB_TOKEN_UNKNOWN,
 *              its result set ZEB_NO_RESULT_SET_BUFFER. The entries and id queries taken from its
 *              answer are not: they point into freed memory.
 *   Memory     The caller releases protocol version texts with free() and copies of result sets
 *              with freeResultSet(). Nothing else the library hands out may be freed or written to.
 *   Sizes      An answer holds at most 153,596 bytes; a larger one is discarded, and its walk
 *              returns ZEB_WRONG_CONTENT. A reply that announces more than 16 MiB is treated like a
 *              lack of memory: nothing of it is read, and a query returns ZEB_COMMUNICATION_FAILED.
 *              Up to 256 connections can be open at once; a further open returns
 *              ZEB_TOKEN_LIST_CORRUPT before it connects.
 *   Children   A forked child cannot use its parent's connections (ZEB_OTHER_PROCESS). If it closes
 *              them, it only forgets them: nothing is sent, and the parent's session goes on.
 *              Sockets and the trace file are closed on exec.
 *   Process    A call that succeeds leaves errno as it was. SIGPIPE is ignored while a request is
 *              sent; afterwards it is what it was before, or what the host has set meanwhile. A
 *              thread that is cancelled inside a call ends after the call. A trace destination that
 *              is full, closed or not read loses lines; no call fails or waits because of it.
 *   Wire       Clear text, no credentials: use it only on networks that are trusted.
 */
#ifndef ZEBSTATS_H
#define ZEBSTATS_H

#if defined(__cplusplus)
#define ZEB_EXTERN_C extern "C"
#if __cplusplus >= 201103L
#define ZEB_NOEXCEPT noexcept
#else
#define ZEB_NOEXCEPT throw()
#endif
#else
#define ZEB_EXTERN_C extern
#define ZEB_NOEXCEPT
#endif

#if defined(__GNUC__)
#define ZEB_API ZEB_EXTERN_C __attribute__((visibility("default")))
#else
#define ZEB_API ZEB_EXTERN_C
#endif

/* One open connection to a gateway. */
typedef struct GatewayToken GatewayToken;

/* One answer: the result set of a connection, or a caller's copy of one. */
typedef struct ResultSetToken ResultSetToken;

/* getAPICodeText() returns the texts. */
enum ZebReturnCode {
  ZEB_OK = 0,                         /* no error */
  ZEB_TOKEN_NULL = -100,              /* not connected */
  ZEB_TOKEN_UNKNOWN = -101,           /* the connection is not open any more */
  ZEB_CONNECTION_LOST = -102,         /* the connection to the gateway was lost */
  ZEB_BUFFER_NULL = -103,             /* an internal buffer is missing */
  ZEB_TRACE_LEVEL_INVALID = -104,     /* the trace level is outside 0 to 5 */
  ZEB_VERSION_POINTER_NULL = -105,    /* no address was given for the protocol version */
  ZEB_NOT_A_COPY = -106,              /* only copies of result sets can be freed */
  ZEB_PORT_INVALID = -107,            /* the port is outside 1 to 65535 */
  ZEB_TOKEN_POINTER_NULL = -108,      /* no address was given for the connection */
  ZEB_OUTPUT_POINTER_NULL = -109,     /* no address was given for the result */
  ZEB_NO_RESULT_SET_BUFFER = -110,    /* the result set has no buffer; its connection may be gone */
  ZEB_NO_MEMORY = -111,               /* out of memory */
  ZEB_END_OF_RESULTS = -113,          /* the results have ended */
  ZEB_TOKEN_LIST_CORRUPT = -115,      /* 256 connections are open, or their list is corrupt */
  ZEB_OWNER_INVALID = -116,           /* an internal result set was given an unknown owner */
  ZEB_CONNECT_FAILED = -118,          /* connecting failed */
  ZEB_WRONG_CONTENT = -119,           /* the result set holds no answer of this kind */
  ZEB_TRACE_LOCK_FAILED = -121,       /* the trace lock could not be initialised */
  ZEB_COMMUNICATION_FAILED = -122,    /* the gateway did not answer as agreed */
  ZEB_OTHER_PROCESS = -123,           /* the connection belongs to another process */
  ZEB_OTHER_THREAD = -124,            /* the connection belongs to another thread */
  ZEB_RESULT_SET_POINTER_NULL = -125, /* no address was given for the result set */
  ZEB_QUERY_NULL = -126,              /* no query was given */
  ZEB_RESULT_SET_NULL = -127,         /* there is no result set */
  ZEB_ID_DATA_NULL = -128,            /* no record was given for the id */
  ZEB_STAT_DATA_NULL = -129,          /* no record was given for the statistic */
  ZEB_TRACE_FILE_FAILED = -130,       /* the trace file could not be opened for append */
  ZEB_NO_GOOD_ID = -131,              /* the result set holds no good id */
  ZEB_HOST_UNKNOWN = -132,            /* the host name could not be resolved */
  ZEB_HOST_NULL = -133,               /* no host name was given */
  ZEB_CONNECT_TIMED_OUT = -134,       /* connecting timed out */
  ZEB_CONNECT_REFUSED = -135,         /* the gateway refused the connection */
  ZEB_NETWORK_UNREACHABLE = -136,     /* the network is unreachable */
  ZEB_TIMEOUT_INVALID = -137,         /* the timeout is negative */
  ZEB_TIMED_OUT = -138,               /* the gateway did not answer in time */
  /* the query has 32,766 characters or more, or a lock could not be initialised */
  ZEB_QUERY_TOO_LONG = -2
};

/* One statistic, filled by getFirstStat() and getNextStat(). The texts lie in the result set: they
 * are not NUL-terminated, must not be freed, and live as long as the answer does. All lengths are
 * in bytes. If queryElementRC is negative, the gateway could not answer that element of the query,
 * and the fields after queryElementRC are not set. */
typedef struct StatData {
  char contentMarker[8]; /* "ZEBSTSET", no NUL */
  char* queryElementPtr; /* the element of the query that this statistic answers */
  int queryElementLen;
  int queryElementRC; /* the gateway's return code for that element */
  int statIdLen;
  char* statIdPtr;
  int statValueLen;
  char* statValuePtr;
} StatData;

/* One statistic id or resource group id, filled by getFirstId() and getNextId(); the same rules
 * hold. */
typedef struct IdData {
  char contentMarker[8]; /* "ZEBIDSET", no NUL */
  char* queryElementPtr;
  int queryElementLen;
  int queryElementRC;
  int idLen;
  char* idPtr;
} IdData;

/* ---- Connections ----------------------------------------------------------------------------- */

/* Opens a connection to the gateway on this host (127.0.0.1).
 *
 *   port              the gateway's statistics port, 1 to 65535
 *   gwTokPtr          receives the connection; release it with closeGatewayConnection()
 *   protoColVersion   receives a copy of the gateway's protocol version, NUL-terminated; release it
 *                     with free(). May be null on success, if there was no memory for the copy.
 *
 * The calling thread becomes the owner of the connection. The call connects, authorises and asks
 * for the protocol version, and waits for the gateway; see "Time".
 *
 * Returns ZEB_OK, or ZEB_PORT_INVALID, ZEB_TOKEN_POINTER_NULL (no gwTokPtr),
 * ZEB_VERSION_POINTER_NULL (no protoColVersion), ZEB_TOKEN_LIST_CORRUPT (256 connections are open
 * already: nothing was connected; or the list is corrupt), ZEB_HOST_UNKNOWN (not resolved),
 * ZEB_CONNECT_TIMED_OUT (the timeout has passed, wherever the call was by then),
 * ZEB_CONNECT_REFUSED, ZEB_NETWORK_UNREACHABLE, ZEB_CONNECT_FAILED (any other failure to connect or
 * authorise), ZEB_CONNECTION_LOST (lost while asking for the protocol version),
 * ZEB_COMMUNICATION_FAILED (no usable protocol version), ZEB_TOKEN_UNKNOWN (closed meanwhile by
 * closeAllGatewayConnections()), ZEB_NO_MEMORY. Nothing stays open after a failure. */
ZEB_API int openGatewayConnection(int port, GatewayToken** gwTokPtr,
                                  char** protoColVersion) ZEB_NOEXCEPT;

/* Opens a connection to a gateway on any host.
 *
 *   hostname          host name or numeric address, NUL-terminated; only its first address is tried
 *
 * Returns as openGatewayConnection(), and ZEB_HOST_NULL (no hostname, checked after the other
 * arguments). */
ZEB_API int openRemoteGatewayConnection(const char* hostname, int port, GatewayToken** gwTokPtr,
                                        char** protoColVersion) ZEB_NOEXCEPT;

/* Closes a connection, from any thread, and frees its result set with all entries that point into
 * it.
 *
 *   gwTokPtr          address of the caller's token, which is set to null on success
 *
 * Tells the gateway and waits for its answer. A gateway that has gone away or does not answer
 * within the timeout is no failure. If the owner is inside a call on the connection, nothing is
 * sent: the call is woken and fails; see "Threads". Of two threads that close the same connection,
 * one gets ZEB_OK and the other ZEB_TOKEN_UNKNOWN.
 *
 * Returns ZEB_OK, or ZEB_TOKEN_POINTER_NULL (no gwTokPtr), ZEB_TOKEN_NULL (null token),
 * ZEB_TOKEN_UNKNOWN (not, or no longer, an open connection: the token is left as it was). */
ZEB_API int closeGatewayConnection(GatewayToken** gwTokPtr) ZEB_NOEXCEPT;

/* Closes the connections of all threads, also those that are just being opened. Their tokens return
 * ZEB_TOKEN_UNKNOWN afterwards.
 *
 * Returns ZEB_OK, or ZEB_TOKEN_LIST_CORRUPT (256 connections were open; they have been closed). */
ZEB_API int closeAllGatewayConnections(void) ZEB_NOEXCEPT;

/* ---- Queries --------------------------------------------------------------------------------- */

/* Every query asks the gateway, waits for the answer and hands out the connection's own result set,
 * which is the same token every time: its former content is overwritten. Query strings are
 * NUL-terminated, of up to 32,765 characters, with ids separated by ':'; the library sends its own
 * copy, unchanged.
 *
 *   gwTok             a connection opened by this thread
 *
 * Each returns ZEB_OK, or one of these, which leave an open connection open:
 *   ZEB_TOKEN_NULL, ZEB_RESULT_SET_POINTER_NULL (no address for the result set), ZEB_TOKEN_UNKNOWN
 *   (not, or no longer, an open connection), ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD (not the owner),
 *   ZEB_NO_RESULT_SET_BUFFER, and with a query string, of which nothing was sent then,
 *   ZEB_QUERY_NULL, ZEB_QUERY_TOO_LONG, ZEB_NO_MEMORY (no memory for its copy);
 * or one of these, which have removed the connection:
 *   ZEB_CONNECTION_LOST (lost, closed by another thread, ended by a signal, or bytes from the
 *   gateway that answer no question), ZEB_TIMED_OUT (the timeout has passed),
 *   ZEB_COMMUNICATION_FAILED (the gateway refused the call, its reply was malformed or announced
 *   more than 16 MiB, or there was no memory for request or reply). */

/* All statistics; walk them with getFirstStat() and getNextStat(). */
ZEB_API int getStats(GatewayToken* gwTok, ResultSetToken** statRSPtr) ZEB_NOEXCEPT;

/* The statistics with the given ids. */
ZEB_API int getStatsByStatId(GatewayToken* gwTok, const char* statIdsPtr,
                             ResultSetToken** statRSPtr) ZEB_NOEXCEPT;

/* The statistics of the given resource groups. */
ZEB_API int getStatsByStatGroupId(GatewayToken* gwTok, const char* providerIdPtr,
                                  ResultSetToken** statRSPtr) ZEB_NOEXCEPT;

/* The ids of all statistics; walk them with getFirstId() and getNextId(). */
ZEB_API int getStatIds(GatewayToken* gwTok, ResultSetToken** rs) ZEB_NOEXCEPT;

/* The ids of the statistics of the given resource groups. */
ZEB_API int getStatIdsByStatGroupId(GatewayToken* gwTok, const char* providerIdsPtr,
                                    ResultSetToken** statIdRsPtr) ZEB_NOEXCEPT;

/* The ids of the resource groups. */
ZEB_API int getResourceGroupIds(GatewayToken* gwTok, ResultSetToken** resGrpIdRSPtr) ZEB_NOEXCEPT;

/* ---- Walking an answer ----------------------------------------------------------------------- */

/* getFirst...() starts a walk from the beginning, as often as wanted; getNext...() continues it, or
 * starts one. An element of the query that the gateway could not answer is one entry with a
 * negative queryElementRC and no id; an element with an empty list of entries is skipped. The
 * records need not be initialised. A failed call leaves the walk where it was; it may have set the
 * record's contentMarker.
 *
 * Each returns ZEB_OK, or ZEB_END_OF_RESULTS (the normal end of a walk), ZEB_RESULT_SET_NULL,
 * ZEB_STAT_DATA_NULL or ZEB_ID_DATA_NULL (null record), ZEB_NO_RESULT_SET_BUFFER (its connection is
 * gone), ZEB_WRONG_CONTENT (no answer, another kind of answer, or a damaged one), ZEB_OTHER_PROCESS
 * or ZEB_OTHER_THREAD (not the owner of the connection). */
ZEB_API int getFirstStat(ResultSetToken* rsPtr, StatData* statDataPtr) ZEB_NOEXCEPT;
ZEB_API int getNextStat(ResultSetToken* rsPtr, StatData* statDataPtr) ZEB_NOEXCEPT;
ZEB_API int getFirstId(ResultSetToken* rsPtr, IdData* idDataPtr) ZEB_NOEXCEPT;
ZEB_API int getNextId(ResultSetToken* rsPtr, IdData* idDataPtr) ZEB_NOEXCEPT;

/* ---- Result sets as a whole ------------------------------------------------------------------ */

/* Takes a private copy of a result set, so that it survives the next query and the connection.
 *
 *   srcRsPtr          the result set of this thread's connection, or an earlier copy
 *   tarRsPtr          receives the copy; release it with freeResultSet(). The copy's walk has not
 *                     begun.
 *
 * Returns ZEB_OK, or ZEB_RESULT_SET_NULL (no source), ZEB_RESULT_SET_POINTER_NULL (no target),
 * ZEB_NO_RESULT_SET_BUFFER (its connection is gone), ZEB_WRONG_CONTENT (no answer in it),
 * ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD (not the owner), ZEB_NO_MEMORY. Set *tarRsPtr to null
 * before the call: if it is not null after ZEB_NO_MEMORY, free it too. */
ZEB_API int copyResultSet(ResultSetToken* srcRsPtr, ResultSetToken** tarRsPtr) ZEB_NOEXCEPT;

/* Releases a copy and sets the caller's token to null; entries that point into it are gone. A copy
 * that has been freed is not recognised: it must not be used again.
 *
 * Returns ZEB_OK, or ZEB_RESULT_SET_POINTER_NULL (no address), ZEB_RESULT_SET_NULL (null token),
 * ZEB_NOT_A_COPY (it belongs to its connection), ZEB_NO_RESULT_SET_BUFFER (and that is gone). */
ZEB_API int freeResultSet(ResultSetToken** rsPtr) ZEB_NOEXCEPT;

/* Writes a result set's token line and the bytes of its buffer to the trace destination, at any
 * level.
 *
 * Returns ZEB_OK, or ZEB_RESULT_SET_NULL, ZEB_NO_RESULT_SET_BUFFER (its connection is gone),
 * ZEB_WRONG_CONTENT (no answer in it), ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD (not the owner). */
ZEB_API int dumpResultSet(ResultSetToken* rsPtr) ZEB_NOEXCEPT;

/* Joins the ids of a result set into one query string, separated by ':'. Ids of elements whose
 * queryElementRC is not 0 and ids beyond 31,999 characters are left out. Moves the walk of
 * the result set: start a new one afterwards.
 *
 *   idQueryStringPtr  receives the string: it lies in the result set, is overwritten by the next
 *                     call with the same result set and freed with it
 *
 * Returns ZEB_OK, or ZEB_RESULT_SET_NULL, ZEB_OUTPUT_POINTER_NULL (no idQueryStringPtr),
 * ZEB_NO_RESULT_SET_BUFFER (its connection is gone), ZEB_WRONG_CONTENT (no answer in it),
 * ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD (not the owner), ZEB_NO_GOOD_ID, ZEB_NO_MEMORY. */
ZEB_API int getIdQuery(ResultSetToken* rsPtr, char** idQueryStringPtr) ZEB_NOEXCEPT;

/* ---- Library and trace ----------------------------------------------------------------------- */

/* Sets the timeout of the process for calls that wait for a gateway; see "Time".
 *
 *   milliseconds      the timeout of each call that starts afterwards, in any thread; 0, the state
 *                     at the start, waits for ever
 *
 * Returns ZEB_OK, or ZEB_TIMEOUT_INVALID (negative: nothing is changed). */
ZEB_API int setAPITimeout(int milliseconds) ZEB_NOEXCEPT;

/* Stores the timeout of the process in milliseconds.
 *
 * Returns ZEB_OK, or ZEB_OUTPUT_POINTER_NULL (no millisecondsPtr). */
ZEB_API int getAPITimeout(int* millisecondsPtr) ZEB_NOEXCEPT;

/* Returns an English text for a code of the library, without a full stop, "unknown code" for any
 * other number; never null. The text is static. */
ZEB_API const char* getAPICodeText(int code) ZEB_NOEXCEPT;

/* Stores the address of the API version, a NUL-terminated text that lives as long as the library.
 *
 * Returns ZEB_OK, or ZEB_OUTPUT_POINTER_NULL (no apiVersPtr). */
ZEB_API int getStatsAPIVersion(char** apiVersPtr) ZEB_NOEXCEPT;

/* Stores the trace level.
 *
 * Returns ZEB_OK, or ZEB_OUTPUT_POINTER_NULL (no traceStatePtr). */
ZEB_API int getAPITraceLevel(int* traceStatePtr) ZEB_NOEXCEPT;

/* Sets the trace level of the process: 0 nothing, 1 failures, 2 events (connections, answers), 3
 * entry and exit of every function, 4 details and data, 5 locks. Each level includes those below
 * it.
 *
 * Returns ZEB_OK, or ZEB_TRACE_LEVEL_INVALID (outside 0 to 5: nothing is changed). */
ZEB_API int setAPITraceLevel(int traceState) ZEB_NOEXCEPT;

/* Appends the trace to a file, which stays open until the next call, or with null to standard
 * error, where it goes at the start.
 *
 *   traceFile         a path of at most 1,023 characters, NUL-terminated, or null
 *
 * Returns ZEB_OK, or ZEB_TRACE_FILE_FAILED (the file could not be opened, or is a FIFO that nobody
 * reads: the destination is unchanged). */
ZEB_API int setAPITraceFile(const char* traceFile) ZEB_NOEXCEPT;

/* Writes the state of the library, its open connections and their result sets to the trace
 * destination, at any level.
 *
 * Returns ZEB_OK. */
ZEB_API int dumpState(void) ZEB_NOEXCEPT;

#endif
