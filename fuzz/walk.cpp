// Makes the calls that read a result set, on buffers with any content. The first byte of the input
// selects the marks of the content, the second fills the buffer, the third is the number of the
// last input bytes that become the end of the buffer; those between are its beginning.
#include <vector>

#include "harness.h"

namespace {

enum What : std::uint8_t { kMarked = 1, kCopied = 4, kSealed = 8, kIds = 32 };

void useBuffer(char* buffer, bool isCopied) {
  static char queryString[kQueryStringSize];
  ResultSetToken resultSet = {};
  resultSet.owner = kOwnerUser;
  resultSet.verifiedQueryString = queryString;
  resultSet.head = resultSet.next = buffer;
  const Injection injection;
  IdData id;
  StatData stat;
  for (const int rc : {getNextId(&resultSet, &id), getNextStat(&resultSet, &stat)})
    require(rc == 0 || rc == ZEB_END_OF_RESULTS || rc == ZEB_WRONG_CONTENT, "a step has its code");
  // Only a short dump: a longer one is slow.
  if (memmem(buffer, 256, &kTerminator, sizeof kTerminator) != nullptr)
    require((dumpResultSet(&resultSet) == 0) == zeb::hasKnownContent(buffer),
            "known content is dumped");
  useResultSet(&resultSet, isCopied, true);
}

}  // namespace

int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  static std::vector<char> buffer;
  if (size < 3) return 0;
  const char what = data[0], filling = data[1];
  const std::string_view input(data + 3, size - 3);
  const std::size_t tail = std::min<std::size_t>(static_cast<std::uint8_t>(data[2]), input.size());
  const std::size_t marked = (what & kMarked) != 0 ? zeb::kMarkerLength : 0;
  const std::size_t head = std::min(input.size() - tail, zeb::kContentSize - marked);
  buffer.assign(kResultSetBufferSize, filling);
  std::memcpy(buffer.data(), (what & kIds) != 0 ? zeb::kIdsMarker : zeb::kStatsMarker, marked);
  std::memcpy(buffer.data() + marked, input.data(), head);
  std::memcpy(buffer.data() + kResultSetBufferSize - tail, input.end() - tail, tail);
  if ((what & kSealed) != 0)
    std::memcpy(buffer.data() + zeb::kContentSize, &kTerminator, sizeof kTerminator);
  runClean([&] { useBuffer(buffer.data(), what & kCopied); });
  return 0;
}
