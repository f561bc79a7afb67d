// Calls of the statistics bean, and the parsers of its answers.
#ifndef STAPI_ZEB_STATCOMMS_H
#define STAPI_ZEB_STATCOMMS_H

#include <cstdint>
#include <span>

#include "zebstats_private.h"

// The lengths of a call's data.
ZEB_INTERNAL int calculateGetAttrCallLength(const AdminCallRecord* record) ZEB_NOEXCEPT;
ZEB_INTERNAL int calculateCallLength(const AdminCallRecord* record) ZEB_NOEXCEPT;
// The opening call, which comes before every other. Returns flowAdminRequest's codes, as do the
// next three.
ZEB_INTERNAL int getInitAdminRequest(int socketDesc, AdminCallRecord* record,
                                     reasons* reasons) ZEB_NOEXCEPT;
// Asks for the protocol version and stores it in the token.
ZEB_INTERNAL int statProtocolVer(GatewayToken* gwTokPtr, reasons* reasons) ZEB_NOEXCEPT;
// Invokes an operation and parses its answer into buffer, which has kResultSetBufferSize bytes. An
// answer that cannot be parsed leaves it empty and is no failure.
ZEB_INTERNAL int statCommsString(int socketDesc, const char* queryType, const char* queryString,
                                 char* buffer, reasons* reasons) ZEB_NOEXCEPT;
ZEB_INTERNAL int statComms(int socketDesc, const char* queryType, char* buffer,
                           reasons* reasons) ZEB_NOEXCEPT;
// rawData must be complete and well-formed: its length is not known here. buffer has
// kResultSetBufferSize bytes.
ZEB_INTERNAL int parseIdsData(const unsigned char* rawData, char* buffer) ZEB_NOEXCEPT;
ZEB_INTERNAL int parseStatsData(const unsigned char* rawData, char* buffer) ZEB_NOEXCEPT;

namespace zeb {

// The parsers with the length of the call data. Both fill buffer (kResultSetBufferSize bytes) and
// return 0; if the answer is malformed or outgrows the buffer, they leave it empty and return -1.
int parseIds(std::span<const std::uint8_t> callData, char* buffer) noexcept;
int parseStats(std::span<const std::uint8_t> callData, char* buffer) noexcept;

}  // namespace zeb

#endif
