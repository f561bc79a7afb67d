// The header that every request begins with, and the types of messages and calls.
#ifndef STAPI_ZEB_PROTOCOL_H
#define STAPI_ZEB_PROTOCOL_H

#include <cstring>

#include "zebstats_private.h"

namespace zeb {

constexpr std::uint32_t kHeaderWord1 = 0x00700000;

constexpr std::uint32_t kCallMessage = 1;  // authorisation and admin requests
constexpr std::uint32_t kHandshakeMessage = 5;
constexpr std::uint32_t kCloseMessage = 10;

constexpr std::int32_t kOpeningCall = 0;
constexpr std::int32_t kGetAttribute = 1;
constexpr std::int32_t kInvoke = 5;

inline RequestHeader makeHeader(const char* requestName, std::uint32_t messageType,
                                std::uint32_t dataLength) noexcept {
  return {{'G', 'a', 't', 'e'},
          kHeaderWord1,
          messageType,
          0,
          0,
          static_cast<std::uint32_t>(strlen(requestName)),
          requestName,
          0,
          dataLength};
}

}  // namespace zeb

#endif
