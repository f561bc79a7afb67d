// Feeds any bytes to a whole session: open, two queries with walk, copy and query string, close.
// The first byte of the input selects the queries, the second says how the replies arrive. The rest
// are the replies: all of them, or those after a good open.
#include <string>

#include "gateway_encoder.h"
#include "gateway_wire.h"
#include "harness.h"
#include "memory_gateway.h"
#include "stapi_zeb_memory.h"

using namespace zebfuzz;

namespace {

enum What : std::uint8_t {
  kStats = 1,
  kByText = 2,
  kCopied = 4,
  kAfterOpen = 8,
  kGroups = 16,
  kGoodAfter = 32
};
enum How : std::uint8_t { kPieces = 0x0F, kReset = 0x10, kFewSends = 0xE0 };

std::string goodCall(zebsim::CallKind kind, const std::string& answer) {
  return zebsim::reply("Admin", zebsim::openingData(7)) +
         zebsim::reply("Admin", zebsim::callData(kind, answer));
}

const std::string& goodOpen() {
  static const std::string replies =
      zebsim::reply("BASE", "") + zebsim::reply("Auth", zebsim::authFirstData(1, 2, 3)) +
      zebsim::reply("Auth", zebsim::authSecondData()) +
      goodCall(zebsim::kGetAttribute, zebsim::encodeProtocol(zebsim::kOwnProtocol));
  return replies;
}

const std::string& goodSession() {
  static const std::string replies =
      goodOpen() +
      goodCall(zebsim::kInvoke, zebsim::encodeAnswer({false, {{"q", 0, zebsim::Ids{"ID"}}}})) +
      zebsim::reply("BASE", "");
  return replies;
}

Input bytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

int query(GatewayToken* token, std::uint8_t what, ResultSetToken** resultSet) {
  if ((what & kGroups) != 0) return getResourceGroupIds(token, resultSet);
  if ((what & kStats) != 0)
    return (what & kByText) != 0 ? getStatsByStatId(token, "VM_UPTIME", resultSet)
                                 : getStats(token, resultSet);
  return (what & kByText) != 0 ? getStatIdsByStatGroupId(token, "VM", resultSet)
                               : getStatIds(token, resultSet);
}

// Returns the code of the open call, or of the first query that failed.
int runSession(MemoryGateway& gateway, std::uint8_t what) {
  const MemoryGatewayScope scope(gateway);
  GatewayToken* token = nullptr;
  char* version = nullptr;
  int rc = openGatewayConnection(2980, &token, &version);
  requireOneOf(rc, {0, ZEB_CONNECT_FAILED, ZEB_CONNECTION_LOST, ZEB_COMMUNICATION_FAILED}, "open");
  if (rc == 0) {
    require(std::strlen(version) < kProtocolVersionSize, "a version has at most 63 characters");
    ResultSetToken* resultSet = nullptr;
    for (int i = 0; i < 2; ++i) {
      rc = query(token, what, &resultSet);
      requireOneOf(rc, {0, ZEB_CONNECTION_LOST, ZEB_COMMUNICATION_FAILED}, "query");
      if (rc != 0) break;
      const bool isAnswer = zeb::hasKnownContent(resultSet->head);
      require(isAnswer || zeb::isTerminator(resultSet->head),
              "a result set holds an answer or none");
      if (isAnswer) useResultSet(resultSet, (what & kCopied) != 0, false);
    }
    requireOneOf(closeGatewayConnection(&token), {rc == 0 ? 0 : ZEB_TOKEN_UNKNOWN}, "close");
  }
  std::free(version);
  zeb::freeRetired();
  require(gateway.sockets == 0 && gateway.blocks == 0,
          "no socket is left open, no block allocated");
  return rc;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string& open = goodOpen();
  static std::string replies;
  startLibrary();
  Input input(data, size);
  const std::uint8_t what = takeByte(input);
  const std::uint8_t how = takeByte(input);
  MemoryGateway gateway = {.replies = input, .endError = how & kReset ? 104 : 0};
  if ((how & kPieces) != 0) gateway.piece = how & kPieces;
  if ((how & kFewSends) != 0) gateway.sends = how >> 5;
  if ((what & kAfterOpen) != 0) {
    replies.assign(open).append(reinterpret_cast<const char*>(input.data()), input.size());
    gateway.replies = bytesOf(replies);
  }
  runSession(gateway, what);
  if ((what & kGoodAfter) != 0) {
    MemoryGateway good = {.replies = bytesOf(goodSession())};
    require(runSession(good, 0) == ZEB_CONNECTION_LOST && good.received == good.replies.size(),
            "a good session works after any other");
  }
  return 0;
}
