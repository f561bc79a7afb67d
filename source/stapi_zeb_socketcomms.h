// The exchange of requests and replies with a gateway, on a connected socket.
#ifndef STAPI_ZEB_SOCKETCOMMS_H
#define STAPI_ZEB_SOCKETCOMMS_H

#include "zebstats_private.h"

// Writes the message header, with the request name in it, to data, which has room for 29 bytes and
// the name.
ZEB_INTERNAL void writeHeader(const RequestHeader* req, unsigned char* data) ZEB_NOEXCEPT;
// Loads a message header, which data holds as a whole, into *req. req->requestName stays as it is.
ZEB_INTERNAL void populateHeader(const unsigned char* data, RequestHeader* req) ZEB_NOEXCEPT;
// Receives exactly dataSize bytes. Returns 0, -1 (the connection ended before the first byte), or
// an errno. If the connection ends later, it returns whatever errno is set: set one that is not 0
// before the call.
ZEB_INTERNAL int readFromSocket(int socketDesc, int dataSize, void* dataBuf) ZEB_NOEXCEPT;
// Sends a request of datalen bytes and receives its reply: the header into *header, the data, if
// there are any, into a new block. *data is a malloc'ed block with the request; flow replaces it by
// the block with the reply's data, but leaves the request there if there are none. Whatever flow
// returns, the caller frees *data, which a failure may leave as it was, set to null, or filled with
// part of the reply. Sets the field of *failure that is named here and returns
//   0,
//   kFlowFailed      sockErrno: an errno (ETIMEDOUT after a timeout), or -1 if the connection ended
//                    before the reply or before its data; unchanged if datalen is not positive,
//                    data is null, or the wait failed otherwise,
//   kGatewayRefused  gwyRc: the gateway's return code from the reply's header,
//   ZEB_NO_MEMORY    none: there was no memory for the reply, or it is longer than 16 MiB.
// After a failure no other request may be sent on the connection but a close.
ZEB_INTERNAL int flow(int socketDesc, int datalen, unsigned char** data, const char* requestName,
                      RequestHeader* header, reasons* failure) ZEB_NOEXCEPT;

// Each of the following functions builds a request, sends it with flow and decodes the reply. They
// return flow's codes, those named here, and ZEB_NO_MEMORY if there is no memory for the request.

// Greets the gateway; this is the first request of a session.
ZEB_INTERNAL int flowHandshakeRequest(int socketDesc, reasons* failure) ZEB_NOEXCEPT;
// Makes the authorisation step that request->authStep names and stores the words of the reply in
// *request. Returns kAuthRefused and sets authRc if the gateway refuses the first step; kFlowFailed
// and sockErrno (EPROTO) if the reply is too short.
ZEB_INTERNAL int flowAuthRequest(int socketDesc, AuthRequestRecord* request,
                                 reasons* failure) ZEB_NOEXCEPT;
// Announces the end of the session; the caller closes the socket.
ZEB_INTERNAL int flowCloseRequest(int socketDesc, reasons* failure) ZEB_NOEXCEPT;
// Makes the call that *request describes. After an opening call request->adminId is set. After
// another call request->callData is a malloc'ed block of request->header.dataLength bytes, which
// the caller frees; it is unchanged if the gateway answered as if to an opening call. Returns
// kAdminFailed if the gateway refuses the call (adminRc is set) or the bean raises an exception (no
// field is set); ZEB_NO_MEMORY also if the reply is too short or the texts exceed
// request->header.dataLength.
ZEB_INTERNAL int flowAdminRequest(int socketDesc, AdminCallRecord* request,
                                  reasons* failure) ZEB_NOEXCEPT;

namespace zeb {

// Returns whether an exchange that returned rc and filled failure has lost the connection.
bool isConnectionLost(int rc, const reasons& failure) noexcept;

// Checks, without waiting, that no byte from the gateway is waiting to be received, and that the
// connection has not ended. Call it between exchanges: a byte there answers no request. Returns 0;
// or shuts the socket down and returns ZEB_CONNECTION_LOST.
int checkInStep(int socketDesc) noexcept;

}  // namespace zeb

#endif
