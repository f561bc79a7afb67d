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
 *              below. No call throws or ends the process. A call that fails leaves its output
 *              arguments as they were, unless its comment says otherwise.
 *   Start      There is no start-up call: the first call initialises the library and sets the trace
 *              level to 0. Any number of threads may make a first call at the same time. If the
 *              initialisation fails, the call returns ZEB_NO_MEMORY, ZEB_TRACE_LOCK_FAILED or
 *              ZEB_QUERY_TOO_LONG; the last one then means that the lock of the list of connections
 *              could not be initialised. The next call tries again. The comments below do not
 *              repeat these codes.
 *   Time       Without a timeout, calls wait for a gateway for ever: call setAPITimeout() first.
 *              The timeout bounds each open, query and close as a whole, and
 *              closeAllGatewayConnections() for all gateways together; a gateway that sends a byte
 *              now and then does not extend it. A call that still waits when the timeout has passed
 *              returns within a further tenth of it: an open returns ZEB_CONNECT_TIMED_OUT, a query
 *              ZEB_TIMED_OUT, a close ZEB_OK. Only the resolution of a host name is not bounded; a
 *              numeric address needs none. If hundreds of connections are closed at once, freeing
 *              them takes some milliseconds more, and a trace at level 5 up to half a millisecond
 *              for each. A trace at level 4 or 5 writes whole replies, at about half a millisecond
 *              for each KiB; meanwhile no other thread can write to the trace.
 *   Signals    With a timeout, a handled signal ends no call. Without one, a signal that is handled
 *              while a query waits ends the query with ZEB_CONNECTION_LOST, and a signal that is
 *              handled while an open waits may end it with ZEB_CONNECT_FAILED or
 *              ZEB_CONNECTION_LOST.
 *   Threads    A connection and its result set belong to the thread that opened it: queries and
 *              reads by another thread return ZEB_OTHER_THREAD. A copy of a result set belongs to
 *              no thread, but only one at a time may use it.
 *              Any thread may close a connection, even while its owner waits inside a query: the
 *              query is woken and returns ZEB_CONNECTION_LOST. An open that waits is woken by
 *              closeAllGatewayConnections() and returns ZEB_TOKEN_UNKNOWN.
 *              A close frees the answer of the connection. The library does not protect a thread
 *              that is reading the answer at that moment: the caller must do so.
 *              A gateway that does not answer holds up only the thread that waits for it.
 *   Lifetime   An answer lives until the next query on its connection or the end of the connection;
 *              a copy made by copyResultSet() lives until freeResultSet().
 *              A query that returns ZEB_CONNECTION_LOST, ZEB_TIMED_OUT or ZEB_COMMUNICATION_FAILED
 *              has removed its connection; no close is needed.
 *              The handles of a connection that has been closed or removed are recognised until
 *              1,024 further connections have been closed, or the process ends: a call with its
 *              token returns ZEB_TOKEN_UNKNOWN, a call with its result set
 *              ZEB_NO_RESULT_SET_BUFFER. Pointers from its entries, and its id query string, are
 *              not recognised: they point into freed memory.
 *   Memory     The caller releases protocol version texts with free() and copies of result sets
 *              with freeResultSet(). It must neither free nor change anything else that the library
 *              hands out.
 *   Sizes      An answer holds at most 153,596 bytes; a larger one is discarded, and its walk
 *              returns ZEB_WRONG_CONTENT. A reply that announces more than 16 MiB is not read, and
 *              the query returns ZEB_COMMUNICATION_FAILED. At most 256 connections can be open at
 *              once; a further open returns ZEB_TOKEN_LIST_CORRUPT before it connects.
 *   Children   A forked child cannot use its parent's connections: calls with them return
 *              ZEB_OTHER_PROCESS. If the child closes them, it only forgets them: nothing is sent,
 *              and the parent's session goes on. Sockets and the trace file are closed on exec.
 *              A child can always open connections of its own to numeric addresses. If another
 *              thread of the parent was resolving a host name at the fork, an open by name may
 *              never return in the child.
 *   Process    A call that succeeds leaves errno as it was. SIGPIPE is ignored while a request is
 *              sent; afterwards its disposition is what it was before, or what the host has set
 *              meanwhile. So while another thread opens, asks or closes, a host must neither save
 *              and restore the disposition, nor start a program with posix_spawn(), system() or
 *              popen(): it could read, or the program inherit, the ignored one. fork() restores it
 *              in the child. A thread that is cancelled inside a call ends after the call. A trace
 *              destination that is full, closed or not read loses lines; no call fails or waits
 *              because of it.
 *   Wire       Requests and replies are clear text, and no credentials are sent: use the library
 *              only on networks that are trusted.
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

/* getAPICodeText() returns the texts. ZEB_BUFFER_NULL and ZEB_OWNER_INVALID are internal: no public
 * call returns them. */
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

/* One entry of an answer with statistics, filled by getFirstStat() and getNextStat(). The pointers
 * point into the result set: the texts are not NUL-terminated, must not be freed, and live as long
 * as the answer. Lengths are in bytes. If queryElementRC is negative, the gateway could not answer
 * that element of the query, and the fields after queryElementRC are not set. */
typedef struct StatData {
  char contentMarker[8]; /* "ZEBSTSET", no NUL */
  char* queryElementPtr; /* the element of the query that this entry answers */
  int queryElementLen;
  int queryElementRC; /* the gateway's return code for that element */
  int statIdLen;
  char* statIdPtr;
  int statValueLen;
  char* statValuePtr;
} StatData;

/* One entry of an answer with ids, those of statistics or of resource groups, filled by
 * getFirstId() and getNextId(). The rules of StatData hold. */
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
 *   gwTokPtr          receives the connection's token; release it with closeGatewayConnection()
 *   protoColVersion   receives a copy of the gateway's protocol version, NUL-terminated; release it
 *                     with free(). If there is no memory for the copy, the call succeeds and
 *                     stores null.
 *
 * The calling thread becomes the owner of the connection. The call connects, authorises and asks
 * for the protocol version, and waits for the gateway each time; see "Time". After a failure
 * nothing stays open.
 *
 * Returns ZEB_OK, or
 *   ZEB_PORT_INVALID, ZEB_TOKEN_POINTER_NULL (null gwTokPtr), ZEB_VERSION_POINTER_NULL (null
 *   protoColVersion), ZEB_TOKEN_LIST_CORRUPT (256 connections are open already, or the list is
 *   corrupt), ZEB_NO_MEMORY: nothing was connected;
 *   ZEB_HOST_UNKNOWN (not resolved), ZEB_CONNECT_REFUSED, ZEB_NETWORK_UNREACHABLE,
 *   ZEB_CONNECT_FAILED (any other failure to connect or to authorise);
 *   ZEB_CONNECTION_LOST (while asking for the protocol version), ZEB_COMMUNICATION_FAILED (no
 *   usable protocol version);
 *   ZEB_CONNECT_TIMED_OUT (the timeout has passed, in any of these steps), ZEB_TOKEN_UNKNOWN
 *   (another thread has called closeAllGatewayConnections() meanwhile). */
ZEB_API int openGatewayConnection(int port, GatewayToken** gwTokPtr,
                                  char** protoColVersion) ZEB_NOEXCEPT;

/* Opens a connection to a gateway on any host. The other arguments are those of
 * openGatewayConnection().
 *
 *   hostname          a host name or a numeric address, NUL-terminated. If a name has several
 *                     addresses, only the first one is tried.
 *
 * Returns the codes of openGatewayConnection(), or ZEB_HOST_NULL (null hostname; the other
 * arguments are checked first). */
ZEB_API int openRemoteGatewayConnection(const char* hostname, int port, GatewayToken** gwTokPtr,
                                        char** protoColVersion) ZEB_NOEXCEPT;

/* Closes a connection and frees its result set, and so all that the entries of its answer point to.
 * Any thread may call it.
 *
 *   gwTokPtr          the address of the caller's token, which is set to null on success
 *
 * It sends a close request to the gateway and waits for the reply. If the gateway has gone, or does
 * not reply within the timeout, the call succeeds all the same. If the connection's owner is inside
 * a query, nothing is sent: the query is woken and fails; see "Threads". If two threads close the
 * same connection, one gets ZEB_OK and the other ZEB_TOKEN_UNKNOWN.
 *
 * Returns ZEB_OK, or ZEB_TOKEN_POINTER_NULL (null gwTokPtr), ZEB_TOKEN_NULL (null token),
 * ZEB_TOKEN_UNKNOWN (the token is not that of an open connection; it stays as it was). The two null
 * pointers are reported even if the library could not be initialised. */
ZEB_API int closeGatewayConnection(GatewayToken** gwTokPtr) ZEB_NOEXCEPT;

/* Closes the connections of all threads, each as closeGatewayConnection() does, and ends the opens
 * that are under way, which return ZEB_TOKEN_UNKNOWN. The callers' tokens are not set to null.
 * After the timeout it no longer waits for replies, and it may close connections without a request.
 *
 * Returns ZEB_OK, or ZEB_TOKEN_LIST_CORRUPT (256 connections were open; they have been closed). */
ZEB_API int closeAllGatewayConnections(void) ZEB_NOEXCEPT;

/* ---- Queries --------------------------------------------------------------------------------- */

/* Every query sends a request to the gateway, waits for the answer and hands out the connection's
 * own result set. That is the same token after each query; its former answer is overwritten.
 *
 *   gwTok             a connection that this thread has opened
 *   query string      the second argument of three of the calls: ids separated by ':', a
 *                     NUL-terminated text of at most 32,765 characters, which is sent unchanged
 *   last argument     receives the result set
 *
 * Each returns ZEB_OK, or one of these codes, after which an open connection stays open and nothing
 * has been sent:
 *   ZEB_TOKEN_NULL, ZEB_RESULT_SET_POINTER_NULL (null last argument), ZEB_TOKEN_UNKNOWN (not the
 *   token of an open connection), ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD (not the owner),
 *   ZEB_NO_RESULT_SET_BUFFER, ZEB_QUERY_NULL (null query string), ZEB_QUERY_TOO_LONG, ZEB_NO_MEMORY
 *   (for a copy of the query string);
 * or one of these codes, after which the connection has been removed:
 *   ZEB_CONNECTION_LOST (lost; or closed by another thread; or ended by a signal; or the gateway
 *   sent bytes, or a reply, that do not belong to the request), ZEB_TIMED_OUT,
 *   ZEB_COMMUNICATION_FAILED (the gateway refused the request, or its reply was malformed or
 *   announced more than 16 MiB, or there was no memory for the request or the reply). */
/* Asks for all statistics; walk the answers of this call and of the next two with getFirstStat()
 * and getNextStat(). */
ZEB_API int getStats(GatewayToken* gwTok, ResultSetToken** statRSPtr) ZEB_NOEXCEPT;

/* Asks for the statistics with the given ids. */
ZEB_API int getStatsByStatId(GatewayToken* gwTok, const char* statIdsPtr,
                             ResultSetToken** statRSPtr) ZEB_NOEXCEPT;

/* Asks for the statistics of the resource groups with the given ids. */
ZEB_API int getStatsByStatGroupId(GatewayToken* gwTok, const char* providerIdPtr,
                                  ResultSetToken** statRSPtr) ZEB_NOEXCEPT;

/* Asks for the ids of all statistics; walk the answers of this call and of the next two with
 * getFirstId() and getNextId(). */
ZEB_API int getStatIds(GatewayToken* gwTok, ResultSetToken** rs) ZEB_NOEXCEPT;

/* Asks for the ids of the statistics of the resource groups with the given ids. */
ZEB_API int getStatIdsByStatGroupId(GatewayToken* gwTok, const char* providerIdsPtr,
                                    ResultSetToken** statIdRsPtr) ZEB_NOEXCEPT;

/* Asks for the ids of the resource groups. */
ZEB_API int getResourceGroupIds(GatewayToken* gwTok, ResultSetToken** resGrpIdRSPtr) ZEB_NOEXCEPT;

/* ---- Walking an answer ----------------------------------------------------------------------- */

/* getFirstStat() and getFirstId() start a walk at the first entry, as often as the caller likes;
 * getNextStat() and getNextId() go on to the next entry, or start the walk if it has not begun.
 * Each call fills the caller's record, which need not be initialised.
 *
 * An element of the query that the gateway could not answer is one entry, with a negative
 * queryElementRC and no id. An element for which the gateway has no entries is skipped. A call that
 * fails leaves the walk where it was, but may have set the contentMarker of the record.
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

/* Makes a copy of a result set, which survives the next query and the connection. The walk of the
 * copy has not begun.
 *
 *   srcRsPtr          the result set of a connection that this thread has opened, or a copy
 *   tarRsPtr          receives the copy; release it with freeResultSet()
 *
 * Returns ZEB_OK, or ZEB_RESULT_SET_NULL (null srcRsPtr), ZEB_RESULT_SET_POINTER_NULL (null
 * tarRsPtr), ZEB_NO_RESULT_SET_BUFFER (its connection is gone), ZEB_WRONG_CONTENT (no answer in
 * it), ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD (not the owner of the connection), ZEB_NO_MEMORY.
 *
 * ZEB_NO_MEMORY may leave an incomplete copy in *tarRsPtr. So set *tarRsPtr to null before the
 * call, and if it is not null afterwards, release it with freeResultSet(). */
ZEB_API int copyResultSet(ResultSetToken* srcRsPtr, ResultSetToken** tarRsPtr) ZEB_NOEXCEPT;

/* Frees a copy, and so all that its entries point to, and sets the caller's token to null. The
 * library does not recognise a copy that has been freed: it must not be used again.
 *
 *   rsPtr             the address of the caller's token
 *
 * Returns ZEB_OK, or ZEB_RESULT_SET_POINTER_NULL (null rsPtr), ZEB_RESULT_SET_NULL (null token),
 * ZEB_NOT_A_COPY (the result set of an open connection), ZEB_NO_RESULT_SET_BUFFER (the result set
 * of a connection that is gone). */
ZEB_API int freeResultSet(ResultSetToken** rsPtr) ZEB_NOEXCEPT;

/* Writes a line with the fields of a result set, and the bytes of its answer, to the trace
 * destination, at any trace level.
 *
 * Returns ZEB_OK, or ZEB_RESULT_SET_NULL, ZEB_NO_RESULT_SET_BUFFER (its connection is gone),
 * ZEB_WRONG_CONTENT (no answer in it), ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD (not the owner of the
 * connection). */
ZEB_API int dumpResultSet(ResultSetToken* rsPtr) ZEB_NOEXCEPT;

/* Joins the ids of a result set into one string with ':' between them, which can be used as a query
 * string. It leaves out the ids of elements whose queryElementRC is not 0, and all ids from the
 * first one that would make the string longer than 31,999 characters; if it leaves any out, the
 * string may begin or end with ':'. The call moves the walk of the result set: start a new one
 * afterwards.
 *
 *   idQueryStringPtr  receives the address of the string, which lies in the result set: the next
 *                     getIdQuery() with the same result set overwrites it, and it is freed with the
 *                     result set
 *
 * Returns ZEB_OK, or ZEB_RESULT_SET_NULL, ZEB_OUTPUT_POINTER_NULL (null idQueryStringPtr),
 * ZEB_NO_RESULT_SET_BUFFER (its connection is gone), ZEB_WRONG_CONTENT (no answer in it),
 * ZEB_OTHER_PROCESS or ZEB_OTHER_THREAD (not the owner of the connection), ZEB_NO_GOOD_ID (no id is
 * left), ZEB_NO_MEMORY. */
ZEB_API int getIdQuery(ResultSetToken* rsPtr, char** idQueryStringPtr) ZEB_NOEXCEPT;

/* ---- Library and trace ----------------------------------------------------------------------- */

/* Sets the timeout for calls that wait for a gateway, for the whole process; see "Time".
 *
 *   milliseconds      the timeout of each call that starts afterwards, in any thread; 0, which is
 *                     set at the start, means that calls wait for ever
 *
 * Returns ZEB_OK, or ZEB_TIMEOUT_INVALID (negative: nothing is changed). */
ZEB_API int setAPITimeout(int milliseconds) ZEB_NOEXCEPT;

/* Stores the timeout of the process, in milliseconds, in *millisecondsPtr.
 *
 * Returns ZEB_OK, or ZEB_OUTPUT_POINTER_NULL (null millisecondsPtr). */
ZEB_API int getAPITimeout(int* millisecondsPtr) ZEB_NOEXCEPT;

/* Returns a static English text, without a full stop, for a code of the library, and "unknown code"
 * for any other number; never null. */
ZEB_API const char* getAPICodeText(int code) ZEB_NOEXCEPT;

/* Stores the address of the API version in *apiVersPtr. The text is NUL-terminated and lives as
 * long as the library is loaded.
 *
 * Returns ZEB_OK, or ZEB_OUTPUT_POINTER_NULL (null apiVersPtr). */
ZEB_API int getStatsAPIVersion(char** apiVersPtr) ZEB_NOEXCEPT;

/* Stores the trace level of the process in *traceStatePtr.
 *
 * Returns ZEB_OK, or ZEB_OUTPUT_POINTER_NULL (null traceStatePtr). */
ZEB_API int getAPITraceLevel(int* traceStatePtr) ZEB_NOEXCEPT;

/* Sets the trace level of the process. Each level traces what the levels below it trace, and more:
 *
 *   0  nothing
 *   1  failures
 *   2  events: connections, answers
 *   3  entry and exit of every function
 *   4  details and data
 *   5  locks
 *
 * Returns ZEB_OK, or ZEB_TRACE_LEVEL_INVALID (outside 0 to 5: nothing is changed). */
ZEB_API int setAPITraceLevel(int traceState) ZEB_NOEXCEPT;

/* Sets the destination of the trace, which is standard error at the start. Lines are appended to a
 * file; it stays open until another destination is set.
 *
 *   traceFile         the path of a file, of at most 1,023 characters, NUL-terminated; or null for
 *                     standard error
 *
 * Returns ZEB_OK, or ZEB_TRACE_FILE_FAILED (the file could not be opened, or is a FIFO that nobody
 * reads: the destination is unchanged). */
ZEB_API int setAPITraceFile(const char* traceFile) ZEB_NOEXCEPT;

/* Writes the state of the library, its open connections and their result sets to the trace
 * destination, at any level. An answer that another thread is receiving meanwhile is shown in part.
 *
 * Returns ZEB_OK. */
ZEB_API int dumpState(void) ZEB_NOEXCEPT;

#endif
