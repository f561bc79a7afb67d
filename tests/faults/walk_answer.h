// Walks an answer as a caller does, and ends the process if the walk does what no walk may do.
#ifndef ZEBTEST_WALK_ANSWER_H
#define ZEBTEST_WALK_ANSWER_H

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "stapi_zeb_resultsetbuffer.h"
#include "zebstats_private.h"

namespace zebtest {

inline void require(bool holds, const char* fact) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", fact);
  std::abort();
}

// An id has no value; an element with a negative code has neither.
struct Entry {
  std::string_view element;
  int rc;
  std::string_view id;
  std::string_view value;
};

// Calls visit with each entry and returns the code that ends the walk. Every text must lie in the
// buffer, which has room for a limited number of entries. Before that, the calls for the other kind
// of content must refuse; otherwise their code is returned.
template <typename Visit>
int walkAnswer(ResultSetToken* answer, Visit visit) {
  const char* const start = answer->head;
  const auto show = [&](const char* text, int length) {
    const char* const end = start + zeb::kContentSize;
    require(length >= 0 && text >= start && text <= end && length <= end - text,
            "a text lies in the buffer");
    return std::string_view(text, static_cast<std::size_t>(length));
  };
  std::size_t entries = 0;
  const auto enter = [&](const auto& record, auto show_) {
    require(++entries <= kResultSetBufferSize / 4, "a walk ends");
    Entry entry = {
        show(record.queryElementPtr, record.queryElementLen), record.queryElementRC, {}, {}};
    if (entry.rc >= 0) show_(entry);
    visit(entry);
  };
  StatData stat = {};
  IdData id = {};
  const bool isStats = zeb::hasContent(start, zeb::kStatsMarker);
  int rc = isStats ? getFirstId(answer, &id) : getFirstStat(answer, &stat);
  if (rc != ZEB_WRONG_CONTENT) return rc;
  if (isStats) {
    for (rc = getFirstStat(answer, &stat); rc == 0; rc = getNextStat(answer, &stat)) {
      enter(stat, [&](Entry& entry) {
        entry.id = show(stat.statIdPtr, stat.statIdLen);
        entry.value = show(stat.statValuePtr, stat.statValueLen);
      });
    }
  } else {
    for (rc = getFirstId(answer, &id); rc == 0; rc = getNextId(answer, &id))
      enter(id, [&](Entry& entry) { entry.id = show(id.idPtr, id.idLen); });
  }
  return rc;
}

}  // namespace zebtest

#endif
