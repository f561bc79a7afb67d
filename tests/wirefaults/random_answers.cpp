// Random answers as the simulated gateway writes them: what is put into them, what the slow decoder
// finds and what the library's parsers write must be the same. ZEB_RANDOM_ANSWERS is the number of
// answers of the first test.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>

#include <gtest/gtest.h>

#include "gateway_encoder.h"
#include "slow_decoder.h"

namespace zebtest {
namespace {

using namespace zebsim;

// The same number makes the same answer.
class RandomAnswer {
 public:
  explicit RandomAnswer(std::uint64_t number) : random_(number) {}

  // The first ones, and some of the others, fill a buffer to about its end.
  void makeAny(std::uint64_t number) {
    isStats = number % 2 == 0;
    if (number < 32 || oneIn(100)) {
      fill(zeb::kContentSize - 6 + number / 2 % 16);
    } else {
      addSome();
    }
    for (Response& response : answer.responses) {
      if (oneIn(2)) response.classes = {anyClass(), anyClass(), anyClass()};
    }
    answer.isList = answer.responses.size() != 1 || oneIn(2);
  }
  // Each size of block data up to 20,000 bytes of ids, or 5,000 before the statistics, and each end
  // of a block in or about the lengths of a statistic. False after the last.
  bool makeCut(std::size_t number) {
    constexpr std::size_t kIds = 20000, kHeads = kIds + 5000, kLengths = kHeads + 41 * 41;
    isStats = number >= kIds;
    if (number < kIds) {
      addIds(6 + number);
    } else if (number < kHeads) {
      addStats(number - kIds, pick(0, 2));
    } else {
      const std::size_t at = number - kHeads;
      answer.responses = {{"q", 0, Stats{{text(1000 + at / 41), text(at % 41)}}}};
    }
    return number < kLengths;
  }

  // What the result set is to hold.
  [[nodiscard]] Bytes content() const {
    Bytes out = isStats ? "ZEBSTSET" : "ZEBIDSET";
    const auto put = [&](auto value) {
      const auto word = static_cast<std::uint32_t>(value);
      out.append(reinterpret_cast<const char*>(&word), sizeof word);
    };
    const auto putText = [&](const Bytes& text) {
      put(text.size());
      out += text;
    };
    put(answer.responses.size());
    for (const Response& response : answer.responses) {
      putText(response.query);
      put(response.rc);
      if (response.rc < 0) continue;
      put(std::visit([](const auto& items) { return items.size(); }, response.items));
      if (const auto* ids = std::get_if<Ids>(&response.items))
        std::for_each(ids->begin(), ids->end(), putText);
      else
        for (const Stat& stat : std::get<Stats>(response.items)) {
          putText(stat.id);
          putText(stat.value);
        }
    }
    return out;
  }
  // One bit changes, or a field of one, two or four bytes, or the end is missing: anywhere, or in
  // what is between texts. That begins with one of these marks.
  void damage(Bytes& wire) {
    using namespace std::string_view_literals;
    constexpr std::string_view marks[] = {"z\0\0"sv, "xp"sv, "sq"sv, "sr"sv};
    const std::size_t any = pick(0, wire.size() - 1), mark = wire.find(marks[pick(0, 3)], any);
    const std::size_t at =
        mark == Bytes::npos || oneIn(3) ? any : std::min(mark + pick(0, 12), wire.size() - 1);
    const std::size_t width = std::min(wire.size() - at, std::size_t{1} << pick(0, 2));
    if (oneIn(8)) {
      wire.resize(at);
    } else if (oneIn(2)) {
      wire[at] = static_cast<char>(wire[at] ^ 1 << pick(0, 7));
    } else {
      wire.replace(at, width, oneIn(2) ? text(width) : Bytes(width, "\0\x7F\xFFwzx"[pick(0, 5)]));
    }
  }

  bool isStats = false;
  Answer answer = {};

 private:
  // uniform_int_distribution would differ from library to library.
  std::size_t pick(std::size_t least, std::size_t most) {
    return least + static_cast<std::size_t>(random_() % (most - least + 1));
  }
  bool oneIn(std::size_t chance) { return pick(1, chance) == 1; }
  Bytes text(std::size_t size) {
    static const Bytes all = [] {
      Bytes bytes(1 << 16, '\0');
      std::generate(bytes.begin(), bytes.end(), std::minstd_rand());
      return bytes;
    }();
    return all.substr(pick(0, all.size() - size), size);
  }
  std::size_t randomSize() { return oneIn(8) ? pick(900, 7000) : pick(0, 40); }
  ClassDesc anyClass() {
    return {text(pick(0, 40)), random_(), static_cast<std::uint8_t>(random_())};
  }
  void addSome() {
    for (std::size_t i = oneIn(300) ? pick(100, 300) : pick(0, 5); i > 0; --i) {
      const std::size_t most = oneIn(4) ? 40 : 6;
      if (isStats)
        addStats(randomSize(), oneIn(1000) ? pick(1000, 4000) : pick(0, most));
      else
        addIds(pick(6, oneIn(4) ? 5000 : 200));
      if (oneIn(5)) answer.responses.back().rc = static_cast<std::int32_t>(random_());
    }
  }
  void addStats(std::size_t query, std::size_t count) {
    Stats stats(count);
    for (Stat& stat : stats) stat = {text(randomSize()), text(randomSize())};
    answer.responses.push_back({text(query), 0, stats});
  }
  // A response whose block data have this size. The smallest are refused ones.
  void addIds(std::size_t size) {
    if (size < 10) return answer.responses.push_back({text(size - 6), -1, Ids()});
    const std::size_t query = std::min(size - 10, oneIn(10) ? pick(0, 2000) : pick(0, 20));
    const std::size_t longest = oneIn(4) ? 40 : 600;
    Ids ids;
    std::size_t left = size - 10 - query;
    for (; left >= 2; left -= 2 + ids.back().size())
      ids.push_back(text(std::min(left - 2, pick(0, longest))));
    answer.responses.push_back({text(query + left), 0, ids});  // an id needs two bytes
  }
  // Responses with long texts until the content has this size.
  void fill(std::size_t size) {
    const std::size_t integers = isStats ? 28 : 16;  // of a response, besides its long text
    for (std::size_t left = size - 12; left > 0;) {
      const std::size_t length = left > 0x7FFF + integers ? 30000 : left - integers;
      answer.responses.push_back({"", 0, Ids{text(length)}});
      if (isStats) answer.responses.back().items = Stats{{"", text(length)}, {"", ""}};
      left -= length + integers;
    }
  }

  std::mt19937_64 random_;
};

void printEvidence(const char* row, std::uint64_t points) {
  std::printf("EVIDENCE %s points=%llu failures=%d\n", row, static_cast<unsigned long long>(points),
              testing::Test::HasFailure());
}

TEST(RandomAnswers, areReadAsTheyWereMadeAndAsTheSlowDecoderReadsThem) {
  const char* const wanted = std::getenv("ZEB_RANDOM_ANSWERS");
  const std::uint64_t count = wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 3000;
  ASSERT_EQ(setAPITraceFile("/dev/null"), 0);
  for (std::uint64_t number = 0; number < count; ++number) {
    SCOPED_TRACE(number);
    RandomAnswer random(number);
    random.makeAny(number);
    const Bytes content = random.content();
    const Bytes wire =
        encodeAnswer(random.answer, number % 8 < 2 ? HeadBlocks::kOne : HeadBlocks::kCut);
    if (number % 512 == 0) setAPITraceLevel(4);  // the buffer is then written in another way
    ASSERT_STREQ(compareParser(random.isStats, wire, &content), nullptr);
    setAPITraceLevel(0);
    for (int damages = 0; damages < 8; ++damages) {
      Bytes damaged = wire;
      random.damage(damaged);
      ASSERT_STREQ(compareParser(random.isStats, damaged), nullptr) << damages;
    }
  }
  EXPECT_EQ(setAPITraceFile(nullptr), 0);
  printEvidence("F8", count * 9);
}

TEST(CutAnswers, ofEverySizeAreReadAsTheyWereMade) {
  std::size_t number = 0;
  for (;; ++number) {
    SCOPED_TRACE(number);
    RandomAnswer random(number);
    if (!random.makeCut(number)) break;
    const Bytes content = random.content(), wire = encodeAnswer(random.answer);
    ASSERT_STREQ(compareParser(random.isStats, wire, &content), nullptr);
  }
  printEvidence("F17", number);
}

}  // namespace
}  // namespace zebtest
