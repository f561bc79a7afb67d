// Random answers: what is put into them, what the slow decoder finds and what the library's parsers
// write must be the same. The simulated gateway, a JDK and this program write them, the last with
// everything that is skipped at random.
//
//   wirefault_tests             the test; ZEB_RANDOM_ANSWERS is the number of answers
//   wirefault_tests describe    prints the descriptions that Serialise.java reads
//   wirefault_tests check       reads the answers that it writes
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
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
    padding_ = oneIn(1000) ? 0x7FFF : 40;  // which can make megabytes of little content
    if (number < 32 || oneIn(100)) {
      fill(zeb::kContentSize - 6 + number / 2 % 16);
    } else if (oneIn(500)) {
      fill(1 << 20);
    } else {
      addSome();
    }
    isList = responses.size() != 1 || oneIn(2);
  }
  // Each size of block data up to 20,000 bytes of ids, or 5,000 before the statistics; each end of
  // a block in or about the lengths of a statistic; and any number of such. False after the last.
  bool makeCut(std::uint64_t number) {
    constexpr std::uint64_t kIds = 20000, kHeads = kIds + 5000, kLengths = kHeads + 41 * 41;
    isStats = number >= kIds && (number < kLengths || oneIn(2));
    isList = number >= kLengths;
    if (number < kIds) {
      addIds(6 + number);
    } else if (number < kHeads) {
      const std::size_t size = 6 + number - kIds;
      const bool isRefused = size < 10 || oneIn(4);
      add(text(size - (isRefused ? 6 : 10)), isRefused ? -1 : 0, isRefused ? 0 : pick(0, 2));
    } else if (number < kLengths) {
      add("q", 0, 1);
      responses[0].items[0] = {text(1000 + (number - kHeads) / 41), text((number - kHeads) % 41)};
    } else {
      addSome();
    }
    return number < kLengths + 4000;
  }

  // What the result set is to hold or, if described, what Serialise.java reads: other numbers, and
  // also the items of a refused response.
  [[nodiscard]] Bytes content(bool isDescribed = false) const {
    Bytes out = isStats ? "ZEBSTSET" : "ZEBIDSET";
    if (isDescribed) out = {static_cast<char>(isStats), static_cast<char>(isList)};
    const auto put = [&](auto value) {
      const auto word = static_cast<std::uint32_t>(value);
      if (isDescribed) return appendU32(out, word);
      out.append(reinterpret_cast<const char*>(&word), sizeof word);
    };
    const auto putText = [&](const Bytes& text) {
      if (isDescribed) return appendText16(out, text);
      put(text.size());
      out += text;
    };
    put(responses.size());
    for (const Response& response : responses) {
      putText(response.query);
      put(response.rc);
      if (response.rc < 0 && !isDescribed) continue;
      put(response.items.size());
      for (const auto& [id, value] : response.items) {
        putText(id);
        if (isStats) putText(value);
      }
    }
    return out;
  }
  // As the simulated gateway writes it.
  [[nodiscard]] Bytes encode(HeadBlocks blocks) const {
    Answer answer{isList, {}};
    for (const Response& response : responses) {
      Ids ids;
      for (const auto& item : response.items) ids.push_back(item.id);
      answer.responses.push_back({response.query, response.rc, ids});
      if (isStats) answer.responses.back().items = response.items;
    }
    return encodeAnswer(answer, blocks);
  }
  // With all that is skipped at random, and values in any pieces that add up.
  Bytes writeFreely() {
    Bytes out(1, isList ? '\1' : oneOf({'\0', '\2', '\xFF'}));
    if (isList) appendU32(out, static_cast<std::uint32_t>(responses.size()));
    for (const Response& response : responses) writeFreely(out, response);
    return out;
  }
  // One bit changes, or a field of one, two or four bytes, or the end is missing: anywhere, or in
  // the head of a long block.
  void damage(Bytes& wire) {
    const std::size_t any = pick(0, wire.size() - 1), head = wire.find(Bytes("z\0\0", 3), any);
    const std::size_t at =
        head == Bytes::npos || oneIn(2) ? any : std::min(head + pick(0, 5), wire.size() - 1);
    const std::size_t width = std::min(wire.size() - at, std::size_t{1} << pick(0, 2));
    if (oneIn(8)) {
      wire.resize(at);
    } else if (oneIn(2)) {
      wire[at] = static_cast<char>(wire[at] ^ 1 << pick(0, 7));
    } else {
      wire.replace(at, width,
                   oneIn(2) ? noise(width) : Bytes(width, oneOf({'\0', '\x7F', '\xFF'})));
    }
  }

  struct Response {
    Bytes query;
    std::int32_t rc;
    Stats items;
  };
  bool isStats = false;
  bool isList = false;
  std::vector<Response> responses = {};

 private:
  // uniform_int_distribution would differ from library to library.
  std::size_t pick(std::size_t least, std::size_t most) {
    return least + random_() % (most - least + 1);
  }
  bool oneIn(std::size_t chance) { return pick(1, chance) == 1; }
  char oneOf(std::initializer_list<char> bytes) { return bytes.begin()[pick(0, bytes.size() - 1)]; }
  Bytes noise(std::size_t size) {
    Bytes bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random_());
    return bytes;
  }
  // Characters of one, two and three bytes of modified UTF-8.
  Bytes text(std::size_t size) {
    Bytes bytes;
    while (bytes.size() < size) {
      const std::size_t room = size - bytes.size();
      if (room < 3 || !oneIn(8))
        bytes += static_cast<char>(pick('A', 'z'));
      else
        bytes += oneIn(3) ? "\xE2\x82\xAC" : oneIn(2) ? "\xC3\xA5" : "\xC0\x80";
    }
    return bytes;
  }
  std::size_t randomSize() {
    if (oneIn(2000)) return 0x7FFF;
    return oneIn(8) ? pick(900, 7000) : pick(0, 40);
  }
  void add(const Bytes& query, std::int64_t rc, std::size_t count) {
    responses.push_back({query, static_cast<std::int32_t>(rc), Stats(count)});
    for (auto& item : responses.back().items) item = {text(randomSize()), text(randomSize())};
  }
  void addSome() {
    for (std::size_t i = oneIn(300) ? pick(100, 300) : pick(0, 5); i > 0; --i) {
      const std::int64_t rc = oneIn(5) ? static_cast<std::int32_t>(random_()) : oneIn(2) * 7;
      if (isStats)
        add(text(randomSize()), rc, oneIn(1000) ? pick(1000, 4000) : pick(0, oneIn(4) ? 40 : 6));
      else
        addIds(pick(6, oneIn(4) ? 5000 : 200));
    }
  }
  // A response whose block data have this size. The smallest are refused ones.
  void addIds(std::size_t size) {
    if (size < 10) return add(text(size - 6), -1, 0);
    const std::size_t query = std::min(size - 10, oneIn(10) ? pick(0, 2000) : pick(0, 20));
    const std::size_t longest = oneIn(4) ? 3000 : 40;
    Stats items;
    std::size_t left = size - 10 - query;
    for (; left >= 2; left -= 2 + items.back().id.size())
      items.push_back({text(std::min(left - 2, pick(0, longest))), ""});
    responses.push_back({text(query + left), oneIn(4) ? 7 : 0, items});  // an id needs two bytes
  }
  // Responses with long texts until the content has this size.
  void fill(std::size_t size) {
    const std::size_t integers = isStats ? 20 : 16;  // of a response, besides the last text
    for (std::size_t left = size - 12; left > 0;) {
      const std::size_t length = left > 0x7FFF + integers ? 30000 : left - integers;
      responses.push_back({"", 0, {isStats ? Stat{"", text(length)} : Stat{text(length), ""}}});
      left -= length + integers;
    }
  }

  void writeFreely(Bytes& out, const Response& response) {
    const auto skipped = [&] { appendText16(out, noise(pick(0, padding_))); };
    out += noise(6);
    skipped();
    out += noise(13);
    skipped();
    out += noise(13);
    out += oneIn(2) ? "w" + noise(1) : oneOf({'z', 'x', '\0'}) + noise(4);
    appendText16(out, response.query);
    appendU32(out, static_cast<std::uint32_t>(response.rc));
    if (response.rc >= 0) appendU32(out, static_cast<std::uint32_t>(response.items.size()));
    if (!isStats || response.rc < 0) {
      for (std::size_t i = 0; response.rc >= 0 && i < response.items.size(); ++i)
        appendText16(out, response.items[i].id);
      out += noise(1);
      return;
    }
    out += "s" + noise(1);  // not the byte that ends an answer without statistics
    skipped();
    out += noise(8);
    for (const auto& item : response.items) writeFreely(out, item);
  }
  void writeFreely(Bytes& out, const Stat& stat) {
    out += noise(5);
    if (oneIn(2)) {
      out += oneOf({'w', 'x', '\0'}) + noise(1);
      appendText16(out, stat.id);
      appendText16(out, stat.value);
    } else {
      const std::size_t most = oneIn(3) ? 0x7FFF : stat.value.size();
      const std::size_t room = oneIn(4) ? most : pick(0, most);
      out += "z" + noise(2);
      appendU16(out, static_cast<std::uint16_t>(stat.id.size() + 4 + room));
      appendText16(out, stat.id);
      appendU16(out, static_cast<std::uint16_t>(stat.value.size()));
      out += stat.value.substr(0, room);
      if (room < stat.value.size()) writePieces(out, stat.value.substr(room));
    }
    out += noise(2);
  }
  // Long pieces, then short ones, of which only the first needs its marker.
  void writePieces(Bytes& out, std::string_view rest) {
    const std::size_t shortSize = oneIn(2) ? 0 : std::min<std::size_t>(rest.size(), pick(1, 600));
    for (char marker = 'w'; !rest.empty();) {
      const bool isLong = rest.size() > shortSize;
      const std::size_t most =
          isLong ? rest.size() - shortSize : std::min<std::size_t>(rest.size(), 255);
      const std::size_t size = pick(oneIn(9) ? 0 : 1, most);
      out += isLong ? "z" + noise(2) : Bytes(1, std::exchange(marker, oneOf({'w', 'z', '\0'})));
      isLong ? appendU16(out, static_cast<std::uint16_t>(size))
             : appendU8(out, static_cast<std::uint8_t>(size));
      out += rest.substr(0, size);
      rest.remove_prefix(size);
    }
  }

  std::mt19937_64 random_;
  std::size_t padding_ = 40;
};

// What the parser does wrong, or null. The slow decoder is asked first; it has to agree if the
// content is known. The answer is a block of its exact size, so that a sanitiser sees every step
// outside.
const char* check(bool isStats, const Bytes& wire, const Bytes* content) {
  static Bytes decoded;
  const auto block = std::make_unique<std::uint8_t[]>(wire.size());
  std::copy(wire.begin(), wire.end(), block.get());
  const std::span answer(block.get(), wire.size());
  const bool isGood = decodeSlowly(isStats, answer, decoded);
  if (content != nullptr &&
      (isGood != (content->size() <= zeb::kContentSize) || decoded != *content))
    return "the slow decoder differs";
  return compareParser(isStats, answer, isGood, decoded);
}

TEST(RandomAnswers, areReadAsTheyWereMadeAndAsTheSlowDecoderReadsThem) {
  const char* const wanted = std::getenv("ZEB_RANDOM_ANSWERS");
  const std::uint64_t count = wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 3000;
  ASSERT_EQ(setAPITraceFile("/dev/null"), 0);
  std::uint64_t refused = 0;
  for (std::uint64_t number = 0; number < count; ++number) {
    SCOPED_TRACE(number);
    RandomAnswer answer(number);
    answer.makeAny(number);
    const Bytes wire = number % 4 < 2    ? answer.writeFreely()
                       : number % 16 < 4 ? answer.encode(HeadBlocks::kOne)
                                         : answer.encode(HeadBlocks::kCut);
    const Bytes content = answer.content();
    refused += content.size() > zeb::kContentSize;
    if (number % 512 == 0) setAPITraceLevel(4);  // the buffer is then written in another way
    ASSERT_STREQ(check(answer.isStats, wire, &content), nullptr);
    setAPITraceLevel(0);
    for (int damages = 0; damages < 8; ++damages) {
      Bytes damaged = wire;
      answer.damage(damaged);
      ASSERT_STREQ(check(answer.isStats, damaged, nullptr), nullptr) << damages;
    }
  }
  EXPECT_EQ(setAPITraceFile(nullptr), 0);
  EXPECT_TRUE(refused > 0 && refused < 20 + count / 50) << refused;
  std::printf("EVIDENCE F8 points=%llu failures=%d\n", static_cast<unsigned long long>(count * 9),
              HasFailure());
}

// Prints the descriptions or, if not, checks the JDK's answers: the library must read them and the
// simulated gateway must write the same.
int exchangeWithJdk(bool describes) {
  unsigned points = 0, cut = 0, failures = 0;
  for (std::uint64_t number = 0;; ++number) {
    RandomAnswer answer(number);
    if (!answer.makeCut(number)) break;
    if (describes) {
      const Bytes text = answer.content(true);
      if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) return 1;
      continue;
    }
    Bytes wire(4, '\0');
    if (std::fread(wire.data(), 1, wire.size(), stdin) != wire.size()) ++failures;
    wire.resize(ByteReader(wire).u32());
    if (std::fread(wire.data(), 1, wire.size(), stdin) != wire.size()) ++failures;
    const Bytes content = answer.content();
    const char* problem = check(answer.isStats, wire, &content);
    if (answer.encode(HeadBlocks::kCut) != wire) problem = "the simulator writes another";
    if (problem != nullptr && ++failures < 20) std::printf("answer %u: %s\n", points, problem);
    cut += answer.encode(HeadBlocks::kOne) != wire;
    ++points;
  }
  if (describes) return 0;
  std::printf("%u answers, %u of them cut\n", points, cut);
  std::printf("EVIDENCE F17 points=%u failures=%u\n", points, failures);
  return failures > 0 || cut < 1000;
}

}  // namespace
}  // namespace zebtest

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc > 1) return zebtest::exchangeWithJdk(std::strcmp(argv[1], "describe") == 0);
  return RUN_ALL_TESTS();
}
