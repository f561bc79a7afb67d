// What the modules above need of the exchange with a gateway, beyond the exported functions.
#ifndef STAPI_ZEB_SOCKETCOMMS_H
#define STAPI_ZEB_SOCKETCOMMS_H

#include "zebstats_private.h"

// Writes a message header of 29 bytes and the request name to data.
ZEB_INTERNAL void writeHeader(const RequestHeader* req, unsigned char* data) ZEB_NOEXCEPT;
// Loads a complete message header; the request name stays as it is.
ZEB_INTERNAL void populateHeader(const unsigned char* data, RequestHeader* req) ZEB_NOEXCEPT;
// Receives exactly dataSize bytes. Returns 0, -1 (the connection ended before the first byte), or
// an errno.
ZEB_INTERNAL int readFromSocket(int socketDesc, int dataSize, void* dataBuf) ZEB_NOEXCEPT;
// One request and its reply. *data in: malloc'ed request; out: reply data, or still the request;
// the caller frees it. Returns 0, kFlowFailed, kGatewayRefused (header->headerWord4 is the
// gateway's code), or ZEB_NO_MEMORY; each failure sets its field of *reasons.
ZEB_INTERNAL int flow(int socketDesc, int datalen, unsigned char** data, const char* requestName,
                      RequestHeader* header, reasons* reasons) ZEB_NOEXCEPT;
// The requests of a session. A connection that fails in one of them, or in flowAdminRequest, is
// shut down, so that closing it waits for nothing. Each returns flow's codes; flowAuthRequest also
// kAuthRefused.
ZEB_INTERNAL int flowHandshakeRequest(int socketDesc, reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int flowAuthRequest(int socketDesc, AuthRequestRecord* request,
                                 reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int flowCloseRequest(int socketDesc, reasons* reasons) ZEB_NOEXCEPT;
// On success after an attribute or invoke call, request->callData is a malloc'ed block of
// request->header.dataLength bytes that the caller frees; after an opening call, request->adminId
// is set. Returns flow's codes, or kAdminFailed.
ZEB_INTERNAL int flowAdminRequest(int socketDesc, AdminCallRecord* request,
                                  reasons* reasons) ZEB_NOEXCEPT;

namespace zeb {

// Whether an exchange that returned rc and filled failure has lost the connection.
bool isConnectionLost(int rc, const reasons& failure) noexcept;

// Looks, without waiting, whether the gateway has sent anything that nobody asked for, or has gone.
// Returns 0 if it has not; otherwise the two sides are out of step, and it returns
// ZEB_CONNECTION_LOST.
int checkInStep(int socketDesc) noexcept;

}  // namespace zeb

#endif
