// The TCP connection to a gateway.
#ifndef STAPI_ZEB_GWYCON_H
#define STAPI_ZEB_GWYCON_H

#include "zebstats_private.h"

extern "C" {
extern ZEB_INTERNAL_DATA int sockOptOn;
extern ZEB_INTERNAL_DATA int sockOptOff;
}

// Resolves, connects and authorises. The socket is stored in *socketDescriptorPtr as soon as it
// exists, with one atomic write; the caller closes it, also after a failure. Returns 0,
// kConnectFailed, kHostNotResolved, kSocketFailed, kConnectTimedOut (only with a deadline),
// kConnectRefused, kConnectUnreachable, or authorizeConnection's codes.
ZEB_INTERNAL int connectToGateway(int port, const char* ipAddr,
                                  int* socketDescriptorPtr) ZEB_NOEXCEPT;
// Waits until a connect in progress has ended. Returns 0, kConnectFailed (*errorPtr has the
// reason), or kConnectTimedOut.
ZEB_INTERNAL int waitForConnection(const int* socketDescriptorPtr, int* errorPtr) ZEB_NOEXCEPT;
// The two steps of the authorisation. Returns flowAuthRequest's codes.
ZEB_INTERNAL int authorizeConnection(int socketDescriptor, reasons* reasons) ZEB_NOEXCEPT;
// Sends the close request, waits for its reply, and closes the socket. Returns close's result.
ZEB_INTERNAL int closeConnection(const int* socketDescriptorPtr) ZEB_NOEXCEPT;

namespace zeb {

// For a fork: no other thread is resolving a numeric address between the two.
void lockResolverForFork() noexcept;
void unlockResolverAfterFork() noexcept;

}  // namespace zeb

#endif
