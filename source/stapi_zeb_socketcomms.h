// What the modules above need of the exchange with a gateway, beyond the exported functions.
#ifndef STAPI_ZEB_SOCKETCOMMS_H
#define STAPI_ZEB_SOCKETCOMMS_H

#include "zebstats_private.h"

namespace zeb {

// Whether an exchange that returned rc and filled failure has lost the connection.
bool isConnectionLost(int rc, const reasons& failure) noexcept;

// Looks, without waiting, whether the gateway has sent anything that nobody asked for, or has gone. Returns 0 if
// it has not; otherwise the two sides are out of step: the socket is shut down, and ZEB_CONNECTION_LOST is returned.
int checkInStep(int socketDesc) noexcept;

}  // namespace zeb

#endif
