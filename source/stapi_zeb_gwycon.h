// The TCP connection to a gateway.
#ifndef STAPI_ZEB_GWYCON_H
#define STAPI_ZEB_GWYCON_H

#include "zebstats_private.h"

extern "C" {
// 1 and 0: the arguments that switch a socket to non-blocking and back. Nothing changes them.
extern ZEB_INTERNAL_DATA int sockOptOn;
extern ZEB_INTERNAL_DATA int sockOptOff;
}

// Resolves ipAddr, a host name or a numeric address, connects to its first address, and flows the
// handshake and the authorisation. Stores the socket in *socketDescriptorPtr, with one atomic
// write, as soon as it exists, so that another thread can shut it down; the caller closes it, also
// after a failure. If no socket was opened, *socketDescriptorPtr is -1 or as it was. Returns 0,
// kConnectFailed, kHostNotResolved, kSocketFailed, kConnectTimedOut (only with a deadline),
// kConnectRefused, kConnectUnreachable, or authorizeConnection's codes.
ZEB_INTERNAL int connectToGateway(int port, const char* ipAddr,
                                  int* socketDescriptorPtr) ZEB_NOEXCEPT;
// Waits for the end of a connect in progress: until the deadline of the call, or without one for at
// most 60 s. Returns 0, kConnectFailed (*errorPtr receives the reason, an errno), or
// kConnectTimedOut.
ZEB_INTERNAL int waitForConnection(const int* socketDescriptorPtr, int* errorPtr) ZEB_NOEXCEPT;
// Flows the two steps of the authorisation. Returns flowAuthRequest's codes; a failure also sets
// the matching field of *failure.
ZEB_INTERNAL int authorizeConnection(int socketDescriptor, reasons* failure) ZEB_NOEXCEPT;
// Sends the close request, waits for its reply, and closes the socket. A close request that fails
// is ignored. Returns the result of close(): 0, or -1 with errno.
ZEB_INTERNAL int closeConnection(const int* socketDescriptorPtr) ZEB_NOEXCEPT;

#endif
