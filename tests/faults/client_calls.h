// What a client does with the library, and a walk that ends the process if it does what no walk may
// do.
#ifndef ZEBTEST_CLIENT_CALLS_H
#define ZEBTEST_CLIENT_CALLS_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "public_calls.h"
#include "stapi_zeb_resultsetbuffer.h"
#include "zebstats_private.h"

namespace zebtest {

inline void require(bool holds, const char* fact) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", fact);
  std::abort();
}

// All of an answer, and the code at its end. Each text must lie in the buffer, which has room for a
// limited number of entries. The calls for the other kind of content must refuse.
inline std::string tellAnswer(ResultSetToken* answer) {
  std::string told;
  const auto tell = [&](const char* text, int length) {
    const char *const start = answer->head, *const end = start + zeb::kContentSize;
    require(length >= 0 && text >= start && text <= end && length <= end - text,
            "a text lies in the buffer");
    told.append(text, static_cast<std::size_t>(length)) += ' ';
  };
  std::size_t entries = 0;
  // An element with a negative code has no texts.
  const auto tellElement = [&](const auto& entry) {
    require(++entries <= kResultSetBufferSize / 4, "a walk ends");
    tell(entry.queryElementPtr, entry.queryElementLen);
    told += std::to_string(entry.queryElementRC) + ' ';
    return entry.queryElementRC >= 0;
  };
  StatData stat = {};
  IdData id = {};
  const bool isStats = zeb::hasContent(answer->head, zeb::kStatsMarker);
  int rc = isStats ? getFirstId(answer, &id) : getFirstStat(answer, &stat);
  if (rc == ZEB_WRONG_CONTENT && isStats) {
    for (rc = getFirstStat(answer, &stat); rc == 0; rc = getNextStat(answer, &stat)) {
      if (!tellElement(stat)) continue;
      tell(stat.statIdPtr, stat.statIdLen);
      tell(stat.statValuePtr, stat.statValueLen);
    }
  } else if (rc == ZEB_WRONG_CONTENT) {
    for (rc = getFirstId(answer, &id); rc == 0; rc = getNextId(answer, &id))
      if (tellElement(id)) tell(id.idPtr, id.idLen);
  }
  return told + std::to_string(rc);
}

// The variables of a caller that frees and closes what it holds.
struct Session : Variables {
  explicit Session(int gatewayPort) : port(gatewayPort) {}
  int make(const PublicCall& call, int level = 0) {
    const int rc = Variables::make(call, port, level);
    if (call.kind == Kind::kOpen) version = std::exchange(text, nullptr);
    return rc;
  }
  int open() { return openGatewayConnection(port, &token, &version); }
  // Returns the code of the close.
  int release() {
    if (copy != nullptr) freeResultSet(&copy);
    const int rc = token != nullptr ? closeGatewayConnection(&token) : 0;
    std::free(version);
    *this = Session(port);
    return rc;
  }
  [[nodiscard]] std::string tell() const {
    return (answer != nullptr ? tellAnswer(answer) : "") +
           (copy != nullptr ? tellAnswer(copy) : "");
  }
  int port;
  char* version = nullptr;
};

inline const std::vector<PublicCall> kQueries = [] {
  std::vector<PublicCall> queries;
  for (const PublicCall& call : kPublicCalls)
    if (call.kind == Kind::kQuery) queries.push_back(call);
  return queries;
}();

}  // namespace zebtest

#endif
