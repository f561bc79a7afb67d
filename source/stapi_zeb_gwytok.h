// Gateway tokens, one for each open connection, and the list of them.
#ifndef STAPI_ZEB_GWYTOK_H
#define STAPI_ZEB_GWYTOK_H

#include "zebstats_private.h"

// Initialises gtlLock. Returns initializeLock's codes.
ZEB_INTERNAL int initGTL(void) ZEB_NOEXCEPT;
// Writes a token's fields to dst, which has at least kTokenTextMinimum bytes. Returns 0, or
// ZEB_BUFFER_NULL.
ZEB_INTERNAL int formatGatewayToken(const GatewayToken* token, char* dst) ZEB_NOEXCEPT;
// Writes the list to the trace destination; takes gtlLock and traceLock. Returns 0, kNothingToWalk,
// or kListRunaway if kRunawayLimit tokens were written.
ZEB_INTERNAL int dumpGatewayTokens(void) ZEB_NOEXCEPT;
// Opens a connection; the calling thread owns it. Stores the token in *gwTokPtr on success only.
// Returns 0, ZEB_TOKEN_POINTER_NULL, ZEB_NO_MEMORY, ZEB_TOKEN_LIST_CORRUPT (also if the list is
// full), ZEB_HOST_UNKNOWN, ZEB_CONNECT_FAILED, ZEB_CONNECT_REFUSED, ZEB_CONNECT_TIMED_OUT,
// ZEB_NETWORK_UNREACHABLE, ZEB_CONNECTION_LOST, ZEB_COMMUNICATION_FAILED, or ZEB_TOKEN_UNKNOWN
// (another thread has closed it).
ZEB_INTERNAL int createGatewayToken(GatewayToken** gwTokPtr, const char* hostname,
                                    int port) ZEB_NOEXCEPT;
// Whether a token is listed and the calling thread owns it. Returns 0, ZEB_TOKEN_UNKNOWN,
// ZEB_OTHER_PROCESS, or ZEB_OTHER_THREAD.
ZEB_INTERNAL int verifyGatewayToken(const GatewayToken* gwTokPtr) ZEB_NOEXCEPT;
// Closes a connection and sets *gwTokPtr to null. With lockRequired 1 it takes gtlLock and searches
// the token; otherwise the caller holds the lock, and the token is the head. Returns 0,
// ZEB_TOKEN_POINTER_NULL, ZEB_TOKEN_NULL, or ZEB_TOKEN_UNKNOWN.
ZEB_INTERNAL int deleteGatewayToken(GatewayToken** gwTokPtr, int lockRequired) ZEB_NOEXCEPT;
// Closes all connections, up to kRunawayLimit. Returns 0, kNothingToWalk, or kListRunaway if it was
// that many.
ZEB_INTERNAL int deleteGatewayTokens(void) ZEB_NOEXCEPT;

namespace zeb {

// Searches the list; the caller holds gtlLock. parent may be null; if the target is found, it
// receives the token before it (null for the head). Returns kTokenFound, kTokenNotFound,
// kTargetNull, kListEmpty or kListRunaway.
int findGatewayToken(const GatewayToken* target, GatewayToken** parent) noexcept;

// A hold keeps a token and all that it owns in memory while a call uses it, whoever closes the
// connection meanwhile. Only the thread that owns the connection gets one, and every hold ends with
// leaveToken.

// createGatewayToken, but the new token comes with a hold, and in newToken; gwTokPtr is only
// traced. Returns the same codes.
int createHeldToken(GatewayToken** gwTokPtr, const char* hostname, int port,
                    GatewayToken*& newToken) noexcept;

// verifyGatewayToken, and a hold if that returns 0.
int enterToken(GatewayToken* token) noexcept;

// Ends a hold. Returns true if the connection is still open, and false if another thread has closed
// it: then the token is gone, and if this was the last hold, it has been freed here.
bool leaveToken(GatewayToken* token) noexcept;

// Shuts down the connection of a held token that has failed, removes the token, and ends the hold.
void removeHeldToken(GatewayToken* token) noexcept;

// For a fork: no other thread changes the list between the two.
void lockListForFork() noexcept;
void unlockListAfterFork() noexcept;

}  // namespace zeb

#endif
