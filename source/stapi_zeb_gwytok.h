// Gateway tokens, one for each open connection, and the list of them.
#ifndef STAPI_ZEB_GWYTOK_H
#define STAPI_ZEB_GWYTOK_H

#include "zebstats_private.h"

// Initialises gtlLock, the lock of the list. Returns initializeLock's codes: 0, 1 (initialised
// already), or -2.
ZEB_INTERNAL int initGTL(void) ZEB_NOEXCEPT;
// Writes a token's fields to dst, as a text that takes at most kTokenTextMinimum bytes with its
// NUL; token may be null. The caller ensures that the token is not freed meanwhile: it holds
// gtlLock, or owns the token. Returns 0, or ZEB_BUFFER_NULL (no dst).
ZEB_INTERNAL int formatGatewayToken(const GatewayToken* token, char* dst) ZEB_NOEXCEPT;
// Writes the list to the trace destination; takes gtlLock and traceLock. Returns 0, kNothingToWalk,
// or kListRunaway if kRunawayLimit tokens were written.
ZEB_INTERNAL int dumpGatewayTokens(void) ZEB_NOEXCEPT;
// Opens a connection, which the calling thread owns, and waits for the gateway. Stores the token in
// *gwTokPtr on success only. Returns 0, ZEB_TOKEN_POINTER_NULL, ZEB_NO_MEMORY,
// ZEB_TOKEN_LIST_CORRUPT (also if the list is full), ZEB_HOST_UNKNOWN, ZEB_CONNECT_FAILED,
// ZEB_CONNECT_REFUSED, ZEB_CONNECT_TIMED_OUT, ZEB_NETWORK_UNREACHABLE, ZEB_CONNECTION_LOST,
// ZEB_COMMUNICATION_FAILED, or ZEB_TOKEN_UNKNOWN (another thread has closed it).
ZEB_INTERNAL int createGatewayToken(GatewayToken** gwTokPtr, const char* hostname,
                                    int port) ZEB_NOEXCEPT;
// Checks that a token is listed and that the calling thread owns it; takes gtlLock. A pointer that
// is not in the list is not followed. Returns 0, ZEB_TOKEN_UNKNOWN, ZEB_OTHER_PROCESS, or
// ZEB_OTHER_THREAD.
ZEB_INTERNAL int verifyGatewayToken(const GatewayToken* gwTokPtr) ZEB_NOEXCEPT;
// Closes a connection of any thread and sets *gwTokPtr to null. With lockRequired 1, it takes
// gtlLock to search and remove the token, and releases it before it sends the close request. With
// any other value it neither takes the lock nor searches: the caller ensures that no other thread
// uses the list and that the token is its head; tokens before it would be lost. Returns 0,
// ZEB_TOKEN_POINTER_NULL (null gwTokPtr), ZEB_TOKEN_NULL (null token), or, with lockRequired 1,
// ZEB_TOKEN_UNKNOWN (not in the list).
ZEB_INTERNAL int deleteGatewayToken(GatewayToken** gwTokPtr, int lockRequired) ZEB_NOEXCEPT;
// Closes the connections of all threads, at most kRunawayLimit; takes gtlLock to remove them from
// the list. When the call is overdue, it sends no further close requests. Returns 0, kNothingToWalk
// (there was none), or kListRunaway (kRunawayLimit were closed).
ZEB_INTERNAL int deleteGatewayTokens(void) ZEB_NOEXCEPT;

namespace zeb {

// Searches the list; the caller holds gtlLock. If the target is found, *parent receives the token
// before it (null for the head); parent may be null. Returns kTokenFound, kTokenNotFound,
// kTargetNull, kListEmpty or kListRunaway.
int findGatewayToken(const GatewayToken* target, GatewayToken** parent) noexcept;

// A hold keeps a token and all that it owns in memory while a call uses it, even if another thread
// closes the connection meanwhile. A call gets one only in the thread that owns the connection,
// gives it back with leaveToken or removeHeldToken, and must not use the token afterwards. A
// removal takes a hold of its own.

// Like createGatewayToken, but stores the new token, which has a hold, in newToken. gwTokPtr is
// only checked for null and printed. Returns the same codes.
int createHeldToken(GatewayToken** gwTokPtr, const char* hostname, int port,
                    GatewayToken*& newToken) noexcept;

// Like verifyGatewayToken, and takes a hold if that returns 0.
int enterToken(GatewayToken* token) noexcept;

// Gives back a hold. Returns true if the connection is still listed, and false if another thread
// has closed it; the call that gives back the last hold then closes the socket and frees the token.
bool leaveToken(GatewayToken* token) noexcept;

// Removes the token of a connection that has failed, without waiting for the gateway, and gives
// back the hold.
void removeHeldToken(GatewayToken* token) noexcept;

// Take and release gtlLock around a fork, so that no other thread changes the list when the child
// is made.
void lockListForFork() noexcept;
void unlockListAfterFork() noexcept;

}  // namespace zeb

#endif
