// What the public calls need of the Gateway Token List beyond its exported functions.
#ifndef STAPI_ZEB_GWYTOK_H
#define STAPI_ZEB_GWYTOK_H

#include "zebstats_private.h"

namespace zeb {

// Searches the list; the caller holds gtlLock. parent may be null; where the target is found it receives the
// token ahead of it (null for the head). Returns 1001 to 1005.
int findGatewayToken(const GatewayToken* target, GatewayToken** parent) noexcept;

// Copies a new connection's protocol version while its token can not be deleted. Returns dst, or null when the
// token has none or is gone already, closed by another thread.
const char* readProtocolVersion(const GatewayToken* token, char (&dst)[kProtocolVersionSize]) noexcept;

}  // namespace zeb

#endif
