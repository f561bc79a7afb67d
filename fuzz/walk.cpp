// Makes the calls that read a result set, on buffers with any content. The first byte of the input
// selects the calls, the second fills the buffer, the third is the number of the last input bytes
// that become the end of the buffer; those between are its beginning.
#include <string_view>

#include "harness.h"
#include "memory_gateway.h"

using namespace zebfuzz;

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

// Opens a stream that discards what is written to it.
FILE* openSink() {
  cookie_io_functions_t functions = {};
  functions.write = [](void*, const char*, std::size_t size) { return static_cast<ssize_t>(size); };
  return fopencookie(nullptr, "w", functions);
}

// The buffer keeps its filling from run to run: filling it takes longer than all the rest of a run.
class FilledBuffer {
 public:
  char* fill(std::uint8_t filling) {
    if (filling != filling_) std::memset(bytes_, filling, kResultSetBufferSize);
    filling_ = filling;
    return bytes_;
  }
  void put(std::size_t offset, const void* bytes, std::size_t size) {
    if (size > 0) std::memcpy(bytes_ + offset, bytes, size);
  }
  void restore(std::size_t offset, std::size_t size) {
    std::memset(bytes_ + offset, filling_, size);
  }

 private:
  char* const bytes_ = sealedBuffer();
  int filling_ = -1;
};

void useBuffer(ResultSetToken* resultSet, std::uint8_t what, bool isSlow) {
  const int unknown = zeb::hasKnownContent(resultSet->head) ? 0 : ZEB_WRONG_CONTENT;
  if ((what & kWithoutFirst) != 0) {
    IdData id;
    StatData stat;
    requireOneOf(getNextId(resultSet, &id), {0, ZEB_END_OF_RESULTS, ZEB_WRONG_CONTENT},
                 "getNextId");
    requireOneOf(getNextStat(resultSet, &stat), {0, ZEB_END_OF_RESULTS, ZEB_WRONG_CONTENT},
                 "getNextStat");
  }
  const bool isShort =
      memmem(resultSet->head, kShortDump, &kTerminator, sizeof kTerminator) != nullptr;
  if ((what & kDumped) != 0 && (isShort || isSlow))
    require(dumpResultSet(resultSet) == unknown, "known content is dumped");
  useResultSet(resultSet, (what & kCopied) != 0, true);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FilledBuffer buffer;
  static char queryString[kQueryStringSize];
  startLibrary();
  static FILE* const sink = statAPITraceHandle = openSink();
  require(sink != nullptr, "there is a sink");
  MemoryGateway gateway;  // counts the blocks, and makes allocation fast
  const MemoryGatewayScope scope(gateway);

  Input input(data, size);
  const std::uint8_t what = takeByte(input);
  const std::uint8_t wanted = takeByte(input);
  const bool isSlow = (what & kSlow) == kSlow && wanted == 0;
  const std::uint8_t filling = isSlow ? 0 : std::max<std::uint8_t>(wanted, 1);
  const std::size_t asked = takeByte(input);
  const std::size_t tail = std::min(asked, input.size());
  const std::size_t marked = (what & kMarked) != 0 ? zeb::kMarkerLength : 0;
  const std::size_t head = std::min(input.size() - tail, zeb::kContentSize - marked);
  ResultSetToken resultSet = {};
  resultSet.owner = kOwnerUser;
  resultSet.verifiedQueryString = queryString;
  resultSet.head = resultSet.next = buffer.fill(filling);
  buffer.put(0, (what & kIds) != 0 ? zeb::kIdsMarker : zeb::kStatsMarker, marked);
  buffer.put(marked, input.data(), head);
  buffer.put(kResultSetBufferSize - tail, input.data() + input.size() - tail, tail);
  if ((what & kSealed) != 0) buffer.put(zeb::kContentSize, &kTerminator, sizeof kTerminator);
  useBuffer(&resultSet, what, isSlow);
  require(gateway.blocks == 0, "no block is left allocated");
  buffer.restore(0, marked + head);
  buffer.restore(kResultSetBufferSize - tail, tail);
  buffer.restore(zeb::kContentSize, sizeof kTerminator);
  return 0;
}
