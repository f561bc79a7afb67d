// Reads the records of CutAnswers.java from standard input. The library must make of each answer
// the content that the record says, and the encoder of the simulated gateway must write the same
// answer.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "gateway_encoder.h"
#include "harness.h"
#include "stapi_zeb_statcomms.h"

namespace {

using zebsim::Bytes;

Bytes readBytes(std::size_t count) {
  Bytes bytes(count, '\0');
  zebfuzz::require(std::fread(bytes.data(), 1, count, stdin) == count, "a record is whole");
  return bytes;
}

Bytes readCounted() {
  return readBytes(zebsim::ByteReader(readBytes(4)).u32());
}

// Takes content apart again.
class ContentReader {
 public:
  explicit ContentReader(std::string_view content)
      : isStats_(content.starts_with("ZEBSTSET")), rest_(content) {
    rest_.remove_prefix(zeb::kMarkerLength);
  }
  zebsim::Answer answer(bool isList) {
    zebsim::Answer answer{isList, {}};
    for (std::int32_t left = integer(); left > 0; --left) answer.responses.push_back(response());
    zebfuzz::require(rest_.empty(), "the content ends with its last response");
    return answer;
  }

 private:
  zebsim::Response response() {
    zebsim::Response response{text(), integer(), zebsim::Ids{}};
    if (isStats_) response.items = zebsim::Stats{};
    if (response.rc < 0) return response;
    for (std::int32_t left = integer(); left > 0; --left) {
      if (auto* stats = std::get_if<zebsim::Stats>(&response.items))
        stats->push_back({text(), text()});
      if (auto* ids = std::get_if<zebsim::Ids>(&response.items)) ids->push_back(text());
    }
    return response;
  }
  std::int32_t integer() {
    zebfuzz::require(rest_.size() >= sizeof(std::int32_t), "the content is whole");
    const std::int32_t value = zeb::loadInteger(rest_.data());
    rest_.remove_prefix(sizeof value);
    return value;
  }
  Bytes text() {
    const auto size = static_cast<std::size_t>(integer());
    zebfuzz::require(size <= rest_.size(), "the content is whole");
    const Bytes text(rest_.substr(0, size));
    rest_.remove_prefix(size);
    return text;
  }

  bool isStats_;
  std::string_view rest_;
};

struct Counts {
  unsigned long answers = 0;
  unsigned long cut = 0;  // of which the simulated gateway makes something else without cuts
  unsigned long empty = 0;
  unsigned long wrong = 0;
  unsigned long encoded = 0;  // which the simulated gateway writes in another way
};

void check(Counts& counts, bool isStats, const Bytes& answer, const Bytes& content) {
  const zebsim::Answer parts = ContentReader(content).answer(answer[0] == 1);
  ++counts.answers;
  counts.cut += encodeAnswer(parts, zebsim::HeadBlocks::kOne) != answer;
  counts.encoded += encodeAnswer(parts) != answer;
  const auto block =
      std::make_unique<std::uint8_t[]>(answer.size());  // for a sanitiser to see its end
  std::copy(answer.begin(), answer.end(), block.get());
  char* const buffer = zebfuzz::sealedBuffer();
  const int rc = (isStats ? zeb::parseStats : zeb::parseIds)({block.get(), answer.size()}, buffer);
  if (rc != 0) {
    ++counts.empty;
  } else if (std::memcmp(buffer, content.data(), content.size()) != 0 ||
             !zeb::isTerminator(buffer + content.size())) {
    ++counts.wrong;
  }
}

}  // namespace

int main() {
  Counts counts;
  for (int kind = std::getchar(); kind != EOF; kind = std::getchar()) {
    const Bytes answer = readCounted();
    const Bytes content = readCounted();
    zebfuzz::require(content.size() + sizeof kTerminator <= zeb::kContentSize, "the content fits");
    check(counts, kind == 's', answer, content);
  }
  const unsigned long failures = counts.empty + counts.wrong + counts.encoded;
  std::printf(
      "%lu answers, %lu with a head that is cut; %lu read as empty, %lu wrongly; %lu written in "
      "another way by the simulated gateway\n",
      counts.answers, counts.cut, counts.empty, counts.wrong, counts.encoded);
  std::printf("EVIDENCE F17 points=%lu failures=%lu\n", counts.answers, failures);
  return counts.answers == 0 || failures != 0;
}
