// The header that begins every request, and the numbers that name messages and calls on the wire.
#ifndef STAPI_ZEB_PROTOCOL_H
#define STAPI_ZEB_PROTOCOL_H

#include <cstring>

#include "zebstats_private.h"

namespace zeb {

// The second word of every request; the gateway expects this value.
constexpr std::uint32_t kHeaderWord1 = 0x00700000;

// RequestHeader::messageType
constexpr std::uint32_t kCallMessage = 1;  // authorisation and admin requests
constexpr std::uint32_t kHandshakeMessage = 5;
constexpr std::uint32_t kCloseMessage = 10;

// AdminCallRecord::callKind
constexpr std::int32_t kOpeningCall = 0;   // precedes every other call and yields its admin id
constexpr std::int32_t kGetAttribute = 1;  // reads an attribute of the statistics bean
constexpr std::int32_t kInvoke = 5;        // invokes an operation of the bean with one String

// The operation of the statistics bean that answers with statistics; the others answer with ids.
constexpr char STATS_MBEAN_ACTION_GET_STATS[] = "GET_STATS";

// Precedes the String argument of an invoke call. Despite the name it begins no array: it is the
// header of a serialisation stream (4 bytes) and the tag of a string.
constexpr std::uint8_t OBJ_ARRAY_HEADER[] = {0xAC, 0xED, 0x00, 0x05, 0x74};

// Returns the header of a new request that carries dataLength bytes of data. It refers to
// requestName, which must live as long as the header is used.
inline RequestHeader makeHeader(const char* requestName, std::uint32_t messageType,
                                std::uint32_t dataLength) noexcept {
  return {.eyecatcher = {'G', 'a', 't', 'e'},
          .headerWord1 = kHeaderWord1,
          .messageType = messageType,
          .headerWord3 = 0,
          .headerWord4 = 0,
          .requestNameLength = static_cast<std::uint32_t>(strlen(requestName)),
          .requestName = requestName,
          .flag = 0,
          .dataLength = dataLength};
}

}  // namespace zeb

#endif
