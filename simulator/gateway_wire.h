// The gateway's messages: encodes headers and replies, and decodes requests. These are plain
// functions, so that a scripted peer can use them without a server.
#ifndef ZEBSIM_GATEWAY_WIRE_H
#define ZEBSIM_GATEWAY_WIRE_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "gateway_bytes.h"

namespace zebsim {

constexpr std::string_view kBaseName = "BASE";
constexpr std::string_view kAuthName = "Auth";
constexpr std::string_view kAdminName = "Admin";
constexpr std::string_view kStatsBean =
    "DefaultDomain:ProdId=com.kro.zeb,Activity=Control,type=Stats";
constexpr std::string_view kOwnProtocol = "2_0_0_1";  // the simulated bean's "protocol" attribute

enum MessageType : std::uint32_t { kCallType = 1, kHandshakeType = 5, kCloseType = 10 };
enum CallKind : std::uint32_t { kOpening = 0, kGetAttribute = 1, kInvoke = 5 };

struct Header {
  std::uint32_t type = kCallType;
  // At offset 12. Reply: the gateway's tag, which a request that continues the reply repeats at
  // offset 16. Request: 0.
  std::uint32_t tag = 0;
  // At offset 16. Request: the tag of the reply that it continues, -1 in a close request, otherwise
  // 0. Reply: the gateway return code.
  std::uint32_t tagOrRc = 0;
  std::string name;
  std::uint8_t flag = 0;
  std::uint32_t dataLength = 0;
};

struct Request {
  Header header;
  Bytes data;
};

// The data of an "Admin" request.
struct AdminCall {
  std::uint32_t kind = kOpening;
  std::uint32_t adminId = 0;
  std::string target;    // the attribute or the operation
  std::string argument;  // only of an operation
};

Bytes encodeHeader(const Header& header);

// Takes the next request from the front of `in`, or returns false if it is not complete yet. Throws
// BadRequest as soon as the bytes received so far cannot be the start of a request.
bool takeRequest(Bytes& in, Request& request);

// Returns whether the request invokes an operation of the statistics bean.
bool isQuery(const Request& request);

// Decodes the data of an admin request. Throws BadRequest if the lengths, the counts, the bean or
// the signature are wrong.
AdminCall readAdminCall(std::string_view data);

// Returns the values as 32-bit words in wire order.
Bytes words(std::initializer_list<std::uint32_t> values);

// Returns a reply header with message type 1 and tag 0.
Bytes replyHeader(std::string_view name, std::uint32_t gatewayRc, std::size_t dataLength);

// Returns that header and the data.
Bytes reply(std::string_view name, std::string_view data, std::uint32_t gatewayRc = 0);

// The data of the replies. The replies to handshake and close have no data.
Bytes authFirstData(std::uint32_t word1, std::uint32_t word2, std::uint32_t word3);
Bytes authSecondData();
Bytes openingData(std::uint32_t adminId);
Bytes callData(std::uint32_t kind, std::string_view answer);  // the bean's answer
Bytes callFailedData(std::uint32_t kind, std::uint32_t replyRc);
Bytes callExceptionData(std::uint32_t kind);

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_WIRE_H
