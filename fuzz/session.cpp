// Feeds any bytes to a whole session: open, two queries with walk, copy and query string, close.
// The first byte of the input selects the query, the second says how the replies arrive. The rest
// are the replies: all of them, or those after a good open.
#include <cerrno>

#include "harness.h"

namespace {

enum What : std::uint8_t { kQuery = 7, kAfterOpen = 8, kCopied = 16 };
enum How : std::uint8_t { kPieces = 0x0F, kReset = 0x10 };

void runSession(std::uint8_t what, int queries) {
  Session s(2980);
  int rc = s.open();
  require(rc == 0 || rc == ZEB_CONNECT_FAILED || rc == ZEB_CONNECTION_LOST ||
              rc == ZEB_COMMUNICATION_FAILED,
          "an open call returns a documented code");
  if (rc != 0) return;
  require(std::strlen(s.version) < kProtocolVersionSize, "a version has at most 63 characters");
  for (; rc == 0 && queries > 0; --queries) {
    rc = s.make(kQueries[(what & kQuery) % kQueries.size()]);
    require(rc == 0 || rc == ZEB_CONNECTION_LOST || rc == ZEB_COMMUNICATION_FAILED,
            "a query returns a documented code");
    if (rc == 0 && !zeb::isTerminator(s.answer->head))
      useResultSet(s.answer, what & kCopied, false);
  }
  require(s.release() == (rc == 0 ? 0 : ZEB_TOKEN_UNKNOWN), "a failed query ends the connection");
}

// The replies to an open call.
std::string recordOpen() {
  const Injection injection;
  runSession(0, 0);
  return injection.replies.substr(0, injection.received - zebsim::reply("BASE", "").size());
}

}  // namespace

int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  if (size < 2) return 0;
  const auto what = static_cast<std::uint8_t>(data[0]), how = static_cast<std::uint8_t>(data[1]);
  const std::string_view input(data + 2, size - 2);
  runClean([&] {
    static const std::string open = recordOpen();
    const std::string replies = ((what & kAfterOpen) != 0 ? open : "") + std::string(input);
    const Injection injection(
        {}, {.replies = replies,
             .piece = (how & kPieces) != 0 ? how & std::size_t{kPieces} : SIZE_MAX,
             .error = (how & kReset) != 0 ? ECONNRESET : 0});
    runSession(what, 2);
  });
  return 0;
}
