// Makes the calls that read a result set, on buffers with any content. The first byte of the input
// selects the calls, the second fills the buffer, the third is the number of the last input bytes
// that become the end of the buffer; those between are its beginning.
#include "harness.h"

namespace {

enum What : std::uint8_t {
  kMarked = 1,
  kDumped = 2,
  kCopied = 4,
  kSealed = 8,
  kWithoutFirst = 16,
  kIds = 32
};

// With these bits and a filling of 0 a run is slow: it walks tens of thousands of entries and dumps
// the whole buffer.
constexpr std::uint8_t kSlow = 0xC0;
constexpr std::size_t kShortDump = 256;

void useBuffer(ResultSetToken* resultSet, std::uint8_t what, bool isSlow) {
  const int unknown = zeb::hasKnownContent(resultSet->head) ? 0 : ZEB_WRONG_CONTENT;
  if ((what & kWithoutFirst) != 0) {
    IdData id;
    StatData stat;
    for (const int rc : {getNextId(resultSet, &id), getNextStat(resultSet, &stat)})
      requireOneOf(rc, {0, ZEB_END_OF_RESULTS, ZEB_WRONG_CONTENT}, "a step without a first one");
  }
  const bool isShort =
      memmem(resultSet->head, kShortDump, &kTerminator, sizeof kTerminator) != nullptr;
  if ((what & kDumped) != 0 && (isShort || isSlow))
    require(dumpResultSet(resultSet) == unknown, "known content is dumped");
  useResultSet(resultSet, (what & kCopied) != 0, true);
}

}  // namespace

int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  static char queryString[kQueryStringSize];
  static char* const buffer = static_cast<char*>(std::malloc(kResultSetBufferSize));
  static const int sink = setAPITraceFile("/dev/null");
  require(sink == 0, "there is a sink for the dumps");
  std::string_view input(data, size);
  const std::uint8_t what = takeByte(input);
  const std::uint8_t wanted = takeByte(input);
  const bool isSlow = (what & kSlow) == kSlow && wanted == 0;
  const std::size_t asked = takeByte(input);
  const std::size_t tail = std::min(asked, input.size());
  const std::size_t marked = (what & kMarked) != 0 ? zeb::kMarkerLength : 0;
  const std::size_t head = std::min(input.size() - tail, zeb::kContentSize - marked);

  // The buffer keeps its filling from run to run: filling it takes longer than all the rest.
  static int filling = -1;
  if (const int fill = isSlow ? 0 : std::max<int>(wanted, 1); fill != filling)
    std::memset(buffer, filling = fill, kResultSetBufferSize);
  std::memcpy(buffer, (what & kIds) != 0 ? zeb::kIdsMarker : zeb::kStatsMarker, marked);
  std::copy_n(input.begin(), head, buffer + marked);
  std::copy_n(input.end() - tail, tail, buffer + kResultSetBufferSize - tail);
  if ((what & kSealed) != 0)
    std::memcpy(buffer + zeb::kContentSize, &kTerminator, sizeof kTerminator);
  runClean([&] {
    ResultSetToken resultSet = {};
    resultSet.owner = kOwnerUser;
    resultSet.verifiedQueryString = queryString;
    resultSet.head = resultSet.next = buffer;
    const Injection injection;
    useBuffer(&resultSet, what, isSlow);
  });
  std::memset(buffer, filling, marked + head);
  std::memset(buffer + kResultSetBufferSize - tail, filling, tail);
  std::memset(buffer + zeb::kContentSize, filling, sizeof kTerminator);
  return 0;
}
