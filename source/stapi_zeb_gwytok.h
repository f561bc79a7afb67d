// The functions of the token list that are not exported.
#ifndef STAPI_ZEB_GWYTOK_H
#define STAPI_ZEB_GWYTOK_H

#include "zebstats_private.h"

namespace zeb {

// Searches the list; the caller holds gtlLock. parent may be null; if the target is found, it receives the token
// before it (null for the head). Returns kTokenFound, kTokenNotFound, kTargetNull, kListEmpty or kListRunaway.
int findGatewayToken(const GatewayToken* target, GatewayToken** parent) noexcept;

// A hold keeps a token and all that it owns in memory while a call uses it, whoever closes the connection
// meanwhile. Only the thread that owns the connection gets one, and every hold ends with leaveToken.

// createGatewayToken, but the new token comes with a hold. Returns its codes.
int createHeldToken(GatewayToken** gwTokPtr, const char* hostname, int port) noexcept;

// verifyGatewayToken, and a hold if that returns 0.
int enterToken(GatewayToken* token) noexcept;

// Ends a hold. Returns true if the connection is still open, and false if another thread has closed it: then
// the token is gone, and if this was the last hold, it has been freed here.
bool leaveToken(GatewayToken* token) noexcept;

// Removes a held token whose connection has failed, and ends the hold.
void removeHeldToken(GatewayToken* token) noexcept;

// For a fork: no other thread changes the list between the two.
void lockListForFork() noexcept;
void unlockListAfterFork() noexcept;

}  // namespace zeb

#endif
