// Random well-formed answers: what their maker put in, what the slow decoder finds and what the
// library's parsers write must be the same.
#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "gateway_encoder.h"
#include "harness.h"
#include "slow_decoder.h"
#include "stapi_zeb_statcomms.h"

namespace zebtest {
namespace {

using Bytes = std::string;

// An answer on the wire and the content of the result set made of it, built side by side. The same
// number makes the same answer.
class RandomAnswer {
 public:
  explicit RandomAnswer(std::uint64_t number) : random_(number) {
    isStats_ = number % 2 == 0;
    if (number < 32 || oneIn(100)) {  // near the buffer's end: at first each size, for both kinds
      addUntil(zeb::kContentSize - 6 + number / 2 % 16);
    } else if (oneIn(500)) {
      addUntil(1 << 20);
    } else {
      const std::size_t responses = oneIn(300) ? pick(100, 300) : pick(0, 5);
      padding_ = oneIn(1000) ? 0x7FFF : 40;  // which can make megabytes of little content
      const bool isSerialised = oneIn(4);
      for (std::size_t i = 0; i < responses; ++i) addResponse(isSerialised, randomItems());
    }
    const bool isList = responses_ != 1 || oneIn(2);
    Bytes start(1, isList ? '\1' : oneOf({'\0', '\2', '\xFF'}));
    if (isList) zebsim::appendU32(start, responses_);
    wire_.insert(0, start);
    content_.insert(0, (isStats_ ? "ZEBSTSET" : "ZEBIDSET") + word(responses_));
  }
  [[nodiscard]] bool isStats() const { return isStats_; }
  [[nodiscard]] const Bytes& wire() const { return wire_; }
  [[nodiscard]] const Bytes& content() const { return content_; }

 private:
  // All sizes by uniform_int_distribution would differ from library to library.
  std::size_t pick(std::size_t least, std::size_t most) {
    return least + random_() % (most - least + 1);
  }
  bool oneIn(std::size_t chance) { return pick(1, chance) == 1; }
  char oneOf(std::initializer_list<char> bytes) { return bytes.begin()[pick(0, bytes.size() - 1)]; }
  Bytes text(std::size_t size) {
    Bytes bytes(size, '\0');
    for (std::size_t i = 0; i < size; i += sizeof(std::uint64_t)) {
      const std::uint64_t value = random_();
      std::memcpy(&bytes[i], &value, std::min(sizeof value, size - i));
    }
    return bytes;
  }
  std::size_t randomSize() {
    if (oneIn(2000)) return 0x7FFF;
    return oneIn(50) ? pick(0, 3000) : pick(0, 40);
  }
  std::vector<zebsim::Stat> randomItems() {
    std::vector<zebsim::Stat> items(oneIn(1000) ? pick(1000, 4000) : pick(0, oneIn(4) ? 40 : 6));
    for (auto& item : items) item = {text(randomSize()), text(randomSize())};
    return items;
  }

  static Bytes word(std::size_t value) {
    const auto cut = static_cast<std::uint32_t>(value);
    return Bytes(reinterpret_cast<const char*>(&cut), sizeof cut);
  }
  void put(const Bytes& bytes) { content_ += word(bytes.size()) + bytes; }

  // Responses with long texts until the content, marker and count included, has this size.
  void addUntil(std::size_t size) {
    const std::size_t ahead = isStats_ ? 20 : 16;  // of the last text: the integers of its response
    const auto addText = [&](std::size_t length) {
      query_ = "";
      rc_ = 0;
      addFreely({isStats_ ? zebsim::Stat{"", text(length)} : zebsim::Stat{text(length), ""}});
    };
    while (size - 12 - content_.size() > 0x7FFF + ahead) addText(30000);
    addText(size - 12 - content_.size() - ahead);
  }

  void addResponse(bool isSerialised, const std::vector<zebsim::Stat>& items) {
    query_ = text(randomSize());
    rc_ = static_cast<std::int32_t>(oneIn(5) ? random_() : pick(0, 1) * pick(0, 9));
    if (isSerialised) {
      addSerialised(items);
    } else {
      addFreely(items);
    }
  }

  void putContent(const std::vector<zebsim::Stat>& items) {
    ++responses_;
    put(query_);
    content_ += word(static_cast<std::uint32_t>(rc_));
    if (rc_ < 0) return;
    content_ += word(items.size());
    for (const auto& [id, value] : items) {
      put(id);
      if (isStats_) put(value);
    }
  }

  // As the serialiser of the simulated gateway writes it.
  void addSerialised(const std::vector<zebsim::Stat>& items) {
    putContent(items);
    zebsim::Response response{query_, rc_, {}};
    if (isStats_) {
      response.items = items;
    } else {
      zebsim::Ids ids;
      for (const auto& item : items) ids.push_back(item.id);
      response.items = ids;
    }
    wire_ += zebsim::encodeResponse(response,
                                    oneIn(2) ? zebsim::HeadBlocks::kOne : zebsim::HeadBlocks::kCut);
  }

  // With everything that is stepped over at random, and values in any pieces that add up.
  void addFreely(const std::vector<zebsim::Stat>& items) {
    putContent(items);
    wire_ += text(6);
    addText16(text(pick(0, padding_)));
    wire_ += text(13);
    addText16(text(pick(0, padding_)));
    wire_ += text(13);
    wire_ += oneIn(2) ? "w" + text(1) : oneOf({'z', 'x', '\0'}) + text(4);
    addText16(query_);
    zebsim::appendU32(wire_, static_cast<std::uint32_t>(rc_));
    if (rc_ >= 0) zebsim::appendU32(wire_, static_cast<std::uint32_t>(items.size()));
    if (rc_ < 0 || !isStats_) {
      if (rc_ >= 0) {
        for (const auto& item : items) addText16(item.id);
      }
      wire_ += text(1);
      return;
    }
    wire_ += "s" + text(1);  // not the byte that ends an answer without statistics
    addText16(text(pick(0, padding_)));
    wire_ += text(8);
    for (const auto& item : items) addRecord(item);
  }

  void addText16(const Bytes& bytes) { zebsim::appendText16(wire_, bytes); }

  void addRecord(const zebsim::Stat& stat) {
    wire_ += text(5);
    if (oneIn(2)) {
      wire_ += oneOf({'w', 'x', '\0'}) + text(1);
      addText16(stat.id);
      addText16(stat.value);
    } else {
      const std::size_t most = oneIn(3) ? 0x7FFF : stat.value.size();
      const std::size_t room = oneIn(4) ? most : pick(0, most);
      wire_ += "z" + text(2);
      zebsim::appendU16(wire_, static_cast<std::uint16_t>(stat.id.size() + 4 + room));
      addText16(stat.id);
      zebsim::appendU16(wire_, static_cast<std::uint16_t>(stat.value.size()));
      wire_ += stat.value.substr(0, room);
      if (room < stat.value.size()) addPieces(stat.value.substr(room));
    }
    wire_ += text(2);
  }

  // Long pieces, then short ones, of which only the first needs its marker.
  void addPieces(std::string_view rest) {
    const std::size_t shortSize = oneIn(2) ? 0 : std::min<std::size_t>(rest.size(), pick(1, 600));
    while (rest.size() > shortSize) {
      const std::size_t size = pick(oneIn(9) ? 0 : 1, rest.size() - shortSize);
      wire_ += "z" + text(2);
      addText16(Bytes(rest.substr(0, size)));
      rest.remove_prefix(size);
    }
    for (char marker = 'w'; !rest.empty(); marker = oneOf({'w', 'z', '\0'})) {
      const std::size_t size = pick(oneIn(9) ? 0 : 1, std::min<std::size_t>(rest.size(), 255));
      wire_ += marker;
      wire_ += static_cast<char>(size);
      wire_ += rest.substr(0, size);
      rest.remove_prefix(size);
    }
  }

  std::mt19937_64 random_;
  bool isStats_ = false;
  std::size_t padding_ = 40;
  Bytes query_;
  std::int32_t rc_ = 0;
  std::uint32_t responses_ = 0;
  Bytes wire_;
  Bytes content_;
};

// The whole buffer up to the end of the content, or nothing where the answer was refused. The
// answer is a block of its exact size, so that a sanitiser sees every step outside.
Bytes parse(const RandomAnswer& answer) {
  char* const buffer = zebfuzz::sealedBuffer();
  const std::size_t size = answer.wire().size();
  const auto block = std::make_unique<std::uint8_t[]>(size);
  std::copy(answer.wire().begin(), answer.wire().end(), block.get());
  const int rc = (answer.isStats() ? zeb::parseStats : zeb::parseIds)({block.get(), size}, buffer);
  EXPECT_TRUE(zeb::isTerminator(buffer + zeb::kContentSize));
  EXPECT_EQ(rc != 0, zeb::isTerminator(buffer));
  if (rc != 0) return "";
  ResultSetToken resultSet = {};
  resultSet.owner = kOwnerUser;
  resultSet.head = buffer;
  EXPECT_EQ(zebfuzz::walkAsContent(&resultSet), ZEB_END_OF_RESULTS);
  const std::size_t end = std::min(answer.content().size(), zeb::kContentSize);
  EXPECT_TRUE(end + sizeof kTerminator > zeb::kContentSize || zeb::isTerminator(buffer + end));
  return {buffer, end};
}

TEST(RandomAnswers, areReadAsTheyWereMadeAndAsTheSlowDecoderReadsThem) {
  const char* const wanted = std::getenv("ZEB_RANDOM_ANSWERS");
  const std::uint64_t count = wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : 3000;
  ASSERT_GT(count, 0u);
  ASSERT_EQ(setAPITraceFile("/dev/null"), 0);
  std::uint64_t refused = 0;
  for (std::uint64_t number = 0; number < count; ++number) {
    SCOPED_TRACE(number);
    const RandomAnswer answer(number);
    const bool fits = answer.content().size() <= zeb::kContentSize;
    refused += !fits;
    Bytes decoded;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(answer.wire().data());
    ASSERT_EQ(decodeSlowly(answer.isStats(), {bytes, answer.wire().size()}, decoded), fits);
    ASSERT_TRUE(decoded == answer.content()) << "the slow decoder differs";
    const bool isTraced = number % 512 == 0;  // under which the buffer is written in another way
    if (isTraced) setAPITraceLevel(4);
    ASSERT_TRUE(parse(answer) == (fits ? answer.content() : "")) << "the parser differs";
    if (isTraced) setAPITraceLevel(0);
  }
  EXPECT_EQ(setAPITraceFile(nullptr), 0);
  EXPECT_TRUE(refused > 0 && refused < 20 + count / 50) << refused;
  std::printf("EVIDENCE F8 points=%llu failures=%d\n", static_cast<unsigned long long>(count),
              HasFailure());
}

}  // namespace
}  // namespace zebtest
