// Feeds any bytes to a whole session: open, two queries with walk, copy and query string, close.
// The first byte of the input selects the queries, the second says how the replies arrive. The rest
// are the replies: all of them, or those after a good open.
#include <cerrno>

#include "harness.h"

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

int query(GatewayToken* token, std::uint8_t what, ResultSetToken** resultSet) {
  if ((what & kGroups) != 0) return getResourceGroupIds(token, resultSet);
  if ((what & kStats) != 0)
    return (what & kByText) != 0 ? getStatsByStatId(token, "VM_UPTIME", resultSet)
                                 : getStats(token, resultSet);
  return (what & kByText) != 0 ? getStatIdsByStatGroupId(token, "VM", resultSet)
                               : getStatIds(token, resultSet);
}

// Returns the code of the open call, or of the first query that failed.
int runSession(std::uint8_t what, int queries) {
  GatewayToken* token = nullptr;
  char* version = nullptr;
  int rc = openGatewayConnection(2980, &token, &version);
  requireOneOf(rc, {0, ZEB_CONNECT_FAILED, ZEB_CONNECTION_LOST, ZEB_COMMUNICATION_FAILED}, "open");
  if (rc != 0) return rc;
  require(std::strlen(version) < kProtocolVersionSize, "a version has at most 63 characters");
  std::free(version);
  ResultSetToken* resultSet = nullptr;
  for (; rc == 0 && queries > 0; --queries) {
    rc = query(token, what, &resultSet);
    requireOneOf(rc, {0, ZEB_CONNECTION_LOST, ZEB_COMMUNICATION_FAILED}, "query");
    if (rc != 0) break;
    const bool isAnswer = zeb::hasKnownContent(resultSet->head);
    require(isAnswer || zeb::isTerminator(resultSet->head), "a result set holds an answer or none");
    if (isAnswer) useResultSet(resultSet, (what & kCopied) != 0, false);
  }
  requireOneOf(closeGatewayConnection(&token), {rc == 0 ? 0 : ZEB_TOKEN_UNKNOWN}, "close");
  return rc;
}

std::string recordOpen() {
  const Injection injection;
  runSession(0, 0);
  return injection.replies.substr(0, injection.received - zebsim::reply("BASE", "").size());
}

}  // namespace

int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  static std::string replies;
  std::string_view input(data, size);
  const std::uint8_t what = takeByte(input);
  const std::uint8_t how = takeByte(input);
  runClean([&] {
    static const std::string open = recordOpen();
    replies.assign((what & kAfterOpen) != 0 ? open : "").append(input);
    std::vector<Fault> faults;
    if ((how & kFewSends) != 0) faults = {{"send", (how >> 5) + 1, true, EPIPE}};
    const Injection injection(
        faults, {.replies = replies,
                 .piece = (how & kPieces) != 0 ? how & std::size_t{kPieces} : SIZE_MAX,
                 .receiveError = how & kReset ? ECONNRESET : 0});
    runSession(what, 2);
  });
  if ((what & kGoodAfter) == 0) return 0;
  runClean([&] {
    const Injection injection;
    require(runSession(what, 2) == 0, "a good session works after any other");
  });
  return 0;
}
