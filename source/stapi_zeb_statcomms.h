// Calls of the statistics bean, and the parsers of its answers.
#ifndef STAPI_ZEB_STATCOMMS_H
#define STAPI_ZEB_STATCOMMS_H

#include <cstdint>
#include <span>

#include "zebstats_private.h"

// Each returns the length that a call's strings take in a request, with their counts and lengths:
// of an attribute call, and of an invoke call. The texts in *record must be set.
ZEB_INTERNAL int calculateGetAttrCallLength(const AdminCallRecord* record) ZEB_NOEXCEPT;
ZEB_INTERNAL int calculateCallLength(const AdminCallRecord* record) ZEB_NOEXCEPT;

// The next four return the codes of flowAdminRequest, and set *failure as it does.

// Makes the opening call, which precedes every other call. It sets the header, the call kind and
// the admin id of *record. It clears callData, which must own no block.
ZEB_INTERNAL int getInitAdminRequest(int socketDesc, AdminCallRecord* record,
                                     reasons* failure) ZEB_NOEXCEPT;
// Asks for the protocol version and stores it, cut to the size of the buffer and NUL-terminated, in
// gwTokPtr->protocolVersion. Returns ZEB_NO_MEMORY also without such a buffer, and kAdminFailed
// also if the answer is malformed.
ZEB_INTERNAL int statProtocolVer(GatewayToken* gwTokPtr, reasons* failure) ZEB_NOEXCEPT;
// Invokes the operation queryType with the argument queryString and parses its answer into buffer,
// which has kResultSetBufferSize bytes: as statistics if the operation is "GET_STATS", otherwise as
// ids. An answer that cannot be parsed leaves the buffer empty and is no failure. After a failure
// the buffer keeps its content. Returns kFlowFailed, with EPROTO, also if a reply is that to
// another kind of request.
ZEB_INTERNAL int statCommsString(int socketDesc, const char* queryType, const char* queryString,
                                 char* buffer, reasons* failure) ZEB_NOEXCEPT;
// Calls statCommsString with an empty argument.
ZEB_INTERNAL int statComms(int socketDesc, const char* queryType, char* buffer,
                           reasons* failure) ZEB_NOEXCEPT;

// Each parses the call data at rawData into buffer, as parseIds and parseStats do and with their
// codes. The length of the call data is not known here, so they must be complete and well-formed.
ZEB_INTERNAL int parseIdsData(const unsigned char* rawData, char* buffer) ZEB_NOEXCEPT;
ZEB_INTERNAL int parseStatsData(const unsigned char* rawData, char* buffer) ZEB_NOEXCEPT;

namespace zeb {

// Each parses call data of any content into buffer, which has kResultSetBufferSize bytes. Returns
// 0; or -1 if the answer is malformed or too long for the buffer, which is left empty then, or if
// buffer is null.
int parseIds(std::span<const std::uint8_t> callData, char* buffer) noexcept;
int parseStats(std::span<const std::uint8_t> callData, char* buffer) noexcept;

}  // namespace zeb

#endif
