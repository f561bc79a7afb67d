/* zebstats: the statistics API of a transaction gateway.
 *
 * A monitoring program opens a connection to a gateway's statistics port, asks for statistics, statistic
 * ids or resource groups, and walks the answer entry by entry:
 *
 *     GatewayToken *gateway = NULL;
 *     ResultSetToken *answer = NULL;
 *     StatData stat;
 *     char *version = NULL;
 *     int rc = openRemoteGatewayConnection("127.0.0.1", 2980, &gateway, &version);
 *     if (rc == ZEB_OK) rc = getStats(gateway, &answer);
 *     if (rc == ZEB_OK) rc = getFirstStat(answer, &stat);
 *     for (; rc == ZEB_OK; rc = getNextStat(answer, &stat))
 *         if (stat.queryElementRC >= 0)
 *             printf("%.*s = %.*s\n", stat.statIdLen, stat.statIdPtr, stat.statValueLen, stat.statValuePtr);
 *     free(version);
 *     closeGatewayConnection(&gateway);
 *
 * Rules that hold for every call
 *
 *   Codes      Every call returns 0 or one of the negative codes below; nothing is thrown, nothing ends the
 *              process. A call that fails leaves its output arguments as they were unless it says otherwise.
 *              While the library has not managed to start, every call returns -111 or -121, or -2 for the
 *              lock of its list of connections, and the next call tries again.
 *   Start      There is no start-up call: the first call initialises the library, sets the trace level to 0,
 *              and may be made by any number of threads at once.
 *   Threads    A connection, and the result set it owns, belong to the process and thread that opened it:
 *              another process gets -123, another thread -124. Closing is allowed from any thread, but not
 *              while another call uses the connection. Copies of result sets may be used by any thread, one
 *              at a time. A forked child can not use its parent's connections.
 *   Life time  An answer lives until the next query on its connection, and no longer than the connection. A
 *              connection that is lost (-102 or -122 from a query) is removed by that query: its token and
 *              its result set are gone, and calls with the old handle return -101. copyResultSet() keeps an
 *              answer for as long as it is wanted.
 *   Memory     The caller releases protocol version texts with free() and copies of result sets with
 *              freeResultSet(). Nothing else the library hands out may be freed or written to.
 *   Time       The library waits for a gateway without limit. A signal that is handled while a query waits
 *              ends that query with -102.
 *   Sizes      An answer holds at most 153,596 bytes; the answer of a query that would outgrow them reads as
 *              empty (-119). Up to 256 connections can be open at once; calls with further ones may get -101.
 *   Wire       Clear text, no credentials: use it on networks that are trusted.
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

enum ZebReturnCode {
  ZEB_OK = 0,
  ZEB_TOKEN_NULL = -100,              /* the gateway token is null */
  ZEB_TOKEN_UNKNOWN = -101,           /* the gateway token is not (or no longer) open */
  ZEB_CONNECTION_LOST = -102,         /* the connection to the gateway was lost */
  ZEB_BUFFER_NULL = -103,             /* an internal buffer pointer is null */
  ZEB_TRACE_LEVEL_INVALID = -104,     /* the trace level is outside 0..5 */
  ZEB_VERSION_POINTER_NULL = -105,    /* the address for the protocol version is null */
  ZEB_NOT_A_COPY = -106,              /* only copies of result sets can be freed by the caller */
  ZEB_PORT_INVALID = -107,            /* the port is outside 1..65535 */
  ZEB_TOKEN_POINTER_NULL = -108,      /* the address of the gateway token is null */
  ZEB_OUTPUT_POINTER_NULL = -109,     /* the address for the result is null */
  ZEB_NO_RESULT_SET_BUFFER = -110,    /* the result set has no buffer: the connection may have gone */
  ZEB_NO_MEMORY = -111,               /* a memory allocation failed */
  ZEB_END_OF_RESULTS = -113,          /* no further entry: the normal end of a walk */
  ZEB_TOKEN_LIST_CORRUPT = -115,      /* the list of connections is corrupt or longer than 256 */
  ZEB_OWNER_INVALID = -116,           /* an internal result set was asked for with an unknown owner */
  ZEB_CONNECT_FAILED = -118,          /* connecting failed for a reason not listed below */
  ZEB_WRONG_CONTENT = -119,           /* the result set holds no answer, or not the kind the call needs */
  ZEB_TRACE_LOCK_FAILED = -121,       /* the trace lock could not be initialised */
  ZEB_COMMUNICATION_FAILED = -122,    /* the gateway did not answer as agreed */
  ZEB_OTHER_PROCESS = -123,           /* the token belongs to another process */
  ZEB_OTHER_THREAD = -124,            /* the token belongs to another thread */
  ZEB_RESULT_SET_POINTER_NULL = -125, /* the address of the result set token is null */
  ZEB_QUERY_NULL = -126,              /* the query string is null */
  ZEB_RESULT_SET_NULL = -127,         /* the result set token is null */
  ZEB_ID_DATA_NULL = -128,            /* the identifier record is null */
  ZEB_STAT_DATA_NULL = -129,          /* the statistic record is null */
  ZEB_TRACE_FILE_FAILED = -130,       /* the trace file could not be opened for append */
  ZEB_NO_GOOD_ID = -131,              /* the result set holds no good identifier */
  ZEB_HOST_UNKNOWN = -132,            /* connecting: the host name could not be resolved */
  ZEB_HOST_NULL = -133,               /* the host name is null */
  ZEB_CONNECT_TIMED_OUT = -134,       /* connecting: the timeout has passed */
  ZEB_CONNECT_REFUSED = -135,         /* connecting: the gateway refused the connection */
  ZEB_NETWORK_UNREACHABLE = -136,     /* connecting: the network is unreachable */
  ZEB_TIMEOUT_INVALID = -137,         /* the timeout is negative */
  ZEB_TIMED_OUT = -138,               /* a query: the timeout has passed */
  ZEB_QUERY_TOO_LONG = -2             /* the query string has 32,766 characters or more; see "Codes" */
};

/* One statistic, filled by getFirstStat() and getNextStat(). The texts lie in the result set: they are not
 * NUL-terminated, are not to be freed, and live as long as the answer does. All lengths are in bytes. Where
 * queryElementRC is negative the gateway could not answer that element of the query: the record then holds
 * nothing behind queryElementRC that was set by the call. */
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

/* One statistic id or resource group id, filled by getFirstId() and getNextId(); as StatData. */
typedef struct IdData {
  char contentMarker[8]; /* "ZEBIDSET", no NUL */
  char* queryElementPtr;
  int queryElementLen;
  int queryElementRC;
  int idLen;
  char* idPtr;
} IdData;

/* ---- Connections ---------------------------------------------------------------------------------------- */

/* Opens a connection to the gateway on this host (127.0.0.1).
 *
 *   port              the gateway's statistics port, 1..65535
 *   gwTokPtr          receives the connection; release it with closeGatewayConnection()
 *   protoColVersion   receives a copy of the gateway's protocol version, NUL-terminated; release it with
 *                     free(). Null, though the call returned 0, when there was no memory for the copy
 *                     or closeAllGatewayConnections() has closed the connection already.
 *
 * The calling thread becomes the owner of the connection. Blocks while connecting, authorising and asking
 * for the version.
 *
 * Returns 0, or -107 (port), -108 (no gwTokPtr), -105 (no protoColVersion), -135 (refused), -136 (network
 * unreachable), -132 (host not resolved), -118 (any other failure to connect or authorise), -102 (lost while
 * asking for the protocol version), -122 (no usable protocol version), -101 (closed meanwhile by
 * closeAllGatewayConnections()), -115 (list of connections corrupt),
 * -111 (no memory). Nothing stays open after a failure. */
ZEB_API int openGatewayConnection(int port, GatewayToken** gwTokPtr, char** protoColVersion) ZEB_NOEXCEPT;

/* The same for a gateway anywhere.
 *
 *   hostname          host name or numeric address, NUL-terminated; its first address is used
 *
 * Returns as openGatewayConnection(), and -133 (no hostname, checked after the other arguments). */
ZEB_API int openRemoteGatewayConnection(const char* hostname, int port, GatewayToken** gwTokPtr,
                                        char** protoColVersion) ZEB_NOEXCEPT;

/* Closes a connection, from any thread, and frees its result set with all entries that point into it.
 *
 *   gwTokPtr          address of the caller's token, which is set to null
 *
 * Tells the gateway and waits for its answer; a gateway that has gone away is no failure.
 *
 * Returns 0, or -108 (no gwTokPtr), -100 (null token), -101 (not an open connection). */
ZEB_API int closeGatewayConnection(GatewayToken** gwTokPtr) ZEB_NOEXCEPT;

/* Closes the connections of all threads. Their owners' tokens become unknown (-101).
 *
 * Returns 0, or -115 (256 connections or more were open: the first 256 are closed, call again). */
ZEB_API int closeAllGatewayConnections(void) ZEB_NOEXCEPT;

/* ---- Queries -------------------------------------------------------------------------------------------- */

/* Every query asks the gateway, waits for the answer and hands out the connection's own result set, which is
 * the same token every time: its former content is overwritten. Query strings are NUL-terminated, of up to
 * 32,765 characters, ids are separated by ':'; the library sends them as they are.
 *
 *   gwTok             a connection opened by this thread
 *
 * Each returns 0, or -100 (null token), -126 (null query string, where there is one), -125 (no address for
 * the result set), -101 (not an open connection), -123, -124 (not the owner), -110 (no result set buffer),
 * -2 (query string too long: nothing was sent, the connection stays), -111 (no memory for a copy of the query
 * string, the connection stays), -102 (connection lost: the token has been removed), -122 (the gateway
 * failed or refused the call: the token has been removed). */

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

/* ---- Walking an answer ---------------------------------------------------------------------------------- */

/* getFirst...() starts a walk from the beginning, as often as wanted; getNext...() goes on, and starts where
 * no walk has begun. An element of the query that the gateway could not answer is one entry with a negative
 * queryElementRC and no id; an element with an empty list of entries is passed over. The records need not be
 * initialised. A failed call leaves the walk where it was; it may have set the
 * record's contentMarker.
 *
 * Each returns 0, or -127 (null result set), -129 or -128 (null record), -110 (no buffer), -119 (the result
 * set holds no answer, another kind of answer, or a damaged one), -123, -124 (not the owner of the
 * connection), -113 (end of the results). */
ZEB_API int getFirstStat(ResultSetToken* rsPtr, StatData* statDataPtr) ZEB_NOEXCEPT;
ZEB_API int getNextStat(ResultSetToken* rsPtr, StatData* statDataPtr) ZEB_NOEXCEPT;
ZEB_API int getFirstId(ResultSetToken* rsPtr, IdData* idDataPtr) ZEB_NOEXCEPT;
ZEB_API int getNextId(ResultSetToken* rsPtr, IdData* idDataPtr) ZEB_NOEXCEPT;

/* ---- Result sets as a whole ----------------------------------------------------------------------------- */

/* Takes a private copy of a result set, so that it survives the next query and the connection.
 *
 *   srcRsPtr          the result set of this thread's connection, or an earlier copy
 *   tarRsPtr          receives the copy; release it with freeResultSet(). The copy's walk has not begun.
 *
 * Returns 0, or -127 (no source), -125 (no target), -110 (no buffer), -119 (no answer in it), -123, -124 (not
 * the owner), -111 (no memory). Set *tarRsPtr to null before the call: where it is not null after -111 it is a
 * token without a buffer, to be released with freeResultSet() all the same. */
ZEB_API int copyResultSet(ResultSetToken* srcRsPtr, ResultSetToken** tarRsPtr) ZEB_NOEXCEPT;

/* Releases a copy and sets the caller's token to null; all entries that point into it are gone.
 *
 * Returns 0, or -125 (no address), -127 (null token), -106 (not a copy: it belongs to its connection). */
ZEB_API int freeResultSet(ResultSetToken** rsPtr) ZEB_NOEXCEPT;

/* Writes a result set's token line and the bytes of its buffer to the trace destination, whatever the level.
 *
 * Returns 0, or -127 (null token), -110 (no buffer), -119 (no answer in it), -123, -124 (not the owner). */
ZEB_API int dumpResultSet(ResultSetToken* rsPtr) ZEB_NOEXCEPT;

/* Joins the ids of a result set into one query string, separated by ':', leaving out those of elements whose
 * queryElementRC is not 0. Ids beyond 31,999 characters are left out. Ends the walk of the result set.
 *
 *   idQueryStringPtr  receives the string: it lies in the result set, is overwritten by the next call with
 *                     the same result set and freed with it
 *
 * Returns 0, or -127 (null token), -109 (no idQueryStringPtr), -110 (no buffer), -119 (no answer in it), -123,
 * -124 (not the owner), -131 (no good id), -111 (no memory). */
ZEB_API int getIdQuery(ResultSetToken* rsPtr, char** idQueryStringPtr) ZEB_NOEXCEPT;

/* ---- Library and trace ---------------------------------------------------------------------------------- */

/* Stores the address of the API version, a NUL-terminated text that lives as long as the library.
 *
 * Returns 0, or -109 (no apiVersPtr). */
ZEB_API int getStatsAPIVersion(char** apiVersPtr) ZEB_NOEXCEPT;

/* Stores the trace level.
 *
 * Returns 0, or -109 (no traceStatePtr). */
ZEB_API int getAPITraceLevel(int* traceStatePtr) ZEB_NOEXCEPT;

/* Sets the trace level of the process: 0 nothing, 1 failures, 2 events (connections, answers), 3 entry and
 * exit of every function, 4 details and data, 5 locks. Each level includes those below it.
 *
 * Returns 0, or -104 (level outside 0..5, nothing is changed). */
ZEB_API int setAPITraceLevel(int traceState) ZEB_NOEXCEPT;

/* Directs the trace to the end of a file, which stays open until the next call, or with null back to
 * standard error, where it starts.
 *
 *   traceFile         a path of at most 1,023 characters, NUL-terminated, or null
 *
 * Returns 0, or -130 (the file could not be opened: the destination is unchanged). */
ZEB_API int setAPITraceFile(const char* traceFile) ZEB_NOEXCEPT;

/* Limits how long each call that talks to a gateway may take: opening, a query, a close, and
 * closeAllGatewayConnections() with all its gateways together.
 *
 *   milliseconds      the limit of every call that starts after this one, in any thread; 0, the state at the
 *                     start, waits without limit
 *
 * Returns 0, or -137 (negative, nothing is changed). */
ZEB_API int setAPITimeout(int milliseconds) ZEB_NOEXCEPT;

/* Stores the limit that setAPITimeout() has set, in milliseconds.
 *
 * Returns 0, or -109 (no millisecondsPtr). */
ZEB_API int getAPITimeout(int* millisecondsPtr) ZEB_NOEXCEPT;

/* Returns an English text for a code of the library, without a full stop; never null. The text lives as long
 * as the library. */
ZEB_API const char* getAPICodeText(int code) ZEB_NOEXCEPT;

/* Writes the state of the library, its open connections and their result sets to the trace destination,
 * whatever the level.
 *
 * Returns 0. */
ZEB_API int dumpState(void) ZEB_NOEXCEPT;

#endif
