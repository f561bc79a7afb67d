// One small session, with its replies cut off at every byte, split at every byte, and changed in
// every bit.
#include <filesystem>
#include <fstream>
#include <iterator>

#include "harness.h"
#include "memory_gateway.h"
#include "scripted_gateway.h"
#include "trace_capture.h"

// Replies that announce gigabytes are refused memory at once rather than given some that takes long
// to watch.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "max_allocation_size_mb=64:allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "max_allocation_size_mb=64:allocator_may_return_null=1";
}

namespace zebtest {
namespace {

Bytes readAnswer(const std::string& name) {
  std::ifstream in(std::filesystem::path(ZEB_REPLIES_DIR) / (name + ".bin"), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// What a session of two queries comes to: a code for each call made, and what the answers held.
struct Outcome {
  int open = 0;
  int stats = 0;
  int ids = 0;
  int close = 0;
  Bytes content = "";
  bool operator==(const Outcome&) const = default;
};

// Walks and keeps an answer.
void take(ResultSetToken* resultSet, Bytes& content) {
  const char* const head = resultSet->head;
  const int walked = zebfuzz::walkAsContent(resultSet);
  EXPECT_EQ(walked, zeb::hasKnownContent(head) ? ZEB_END_OF_RESULTS : ZEB_WRONG_CONTENT);
  for (const char* at = head; !zeb::isTerminator(at); ++at) content += *at;
}

Outcome runSession(int port) {
  Outcome outcome;
  GatewayToken* token = nullptr;
  ResultSetToken* resultSet = nullptr;
  char* version = nullptr;
  outcome.open = openGatewayConnection(port, &token, &version);
  if (outcome.open != 0) return outcome;
  free(version);
  outcome.stats = getStats(token, &resultSet);
  if (outcome.stats == 0) take(resultSet, outcome.content);
  outcome.ids = getResourceGroupIds(token, &resultSet);
  if (outcome.ids == 0) take(resultSet, outcome.content);
  outcome.close = closeGatewayConnection(&token);
  return outcome;
}

// The exchanges of the session, by their numbers.
constexpr std::size_t kFirstOfVersion = 3;
constexpr std::size_t kFirstOfStats = 5;
constexpr std::size_t kFirstOfIds = 7;
constexpr std::size_t kClose = 9;
constexpr std::size_t kExchanges = 10;

class WireFaults : public testing::Test {
 protected:
  void SetUp() override {
    descriptors_ = countDescriptors();
    good_ = runSession(ScriptedGateway(script(replies_)).port());
    ASSERT_EQ(replies_.size(), kExchanges);
    ASSERT_TRUE(good_.content.starts_with("ZEBSTSET") &&
                good_.content.find("ZEBIDSET") != Bytes::npos);
  }
  void TearDown() override {
    EXPECT_EQ(countDescriptors(), descriptors_);
    std::printf("EVIDENCE %s points=%zu failures=%d\n", row_, points_, HasFailure() ? 1 : 0);
  }

  // Whatever went before, a session with the right replies is what it was.
  void expectGoodSession() {
    ASSERT_EQ(runSession(ScriptedGateway(script(replies_)).port()), good_);
  }
  static Script script(const std::vector<Bytes>& replies) {
    Script script;
    for (const Bytes& reply : replies) script.answer(reply);
    return script;
  }
  const std::vector<Bytes> replies_ = Script()
                                          .answerOpen()
                                          .answerQuery(readAnswer("stats_single"))
                                          .answerQuery(readAnswer("groups_single"))
                                          .answer(zebsim::reply("BASE", ""))
                                          .replies();
  Outcome good_;
  std::ptrdiff_t descriptors_ = 0;
  const char* row_ = "F6";  // of the table of faults
  std::size_t points_ = 0;
};

// ---- the connection ends

class EndOfConnection : public WireFaults, public testing::WithParamInterface<Script> {
 protected:
  // The codes where the exchange of this number fails.
  [[nodiscard]] Outcome expected(std::size_t failing) const {
    if (failing < kFirstOfVersion) return {.open = ZEB_CONNECT_FAILED};
    if (failing < kFirstOfStats) return {.open = ZEB_CONNECTION_LOST};
    if (failing < kFirstOfIds)
      return {.stats = ZEB_CONNECTION_LOST, .ids = ZEB_TOKEN_UNKNOWN, .close = ZEB_TOKEN_UNKNOWN};
    Outcome outcome = good_;  // that of the close call is no failure
    if (failing == kClose) return outcome;
    outcome.ids = ZEB_CONNECTION_LOST;
    outcome.close = ZEB_TOKEN_UNKNOWN;
    outcome.content.resize(outcome.content.find("ZEBIDSET"));
    return outcome;
  }
};

TEST_P(EndOfConnection, behindAnyByteOfAnyReplyIsACodeAndTheNextSessionWorks) {
  row_ = "F4";
  for (std::size_t reply = 0; reply < kExchanges; ++reply) {
    const std::size_t whole = replies_[reply].size();
    for (std::size_t size = 0; size <= whole; ++size, ++points_) {
      SCOPED_TRACE("reply " + std::to_string(reply) + " after " + std::to_string(size));
      Script cut = script({replies_.begin(), replies_.begin() + static_cast<long>(reply)});
      cut.answer(replies_[reply].substr(0, size))
          .then(GetParam())
          .tolerate(10000);  // one more request behind a whole reply
      ASSERT_EQ(runSession(ScriptedGateway(cut).port()),
                expected(std::min(kClose, size < whole ? reply : reply + 1)));
      ASSERT_NO_FATAL_FAILURE(expectGoodSession());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Ends, EndOfConnection,
                         testing::Values(Script().hangUp(), Script().reset(),
                                         Script().halfClose()));

// ---- replies in pieces

TEST_F(WireFaults, repliesInSingleBytesAndInAnyTwoPartsAreTheSameSession) {
  row_ = "F5";
  Bytes all;
  for (const Bytes& reply : replies_) all += reply;
  const std::span bytes(reinterpret_cast<const std::uint8_t*>(all.data()), all.size());
  const auto runWith = [&](zebfuzz::MemoryGateway gateway) {
    const zebfuzz::MemoryGatewayScope scope(gateway);
    ++points_;
    const Outcome outcome = runSession(2980);
    EXPECT_EQ(gateway.received, all.size());
    return outcome;
  };
  ASSERT_EQ(runWith({.replies = bytes, .piece = 1}), good_);
  for (std::size_t split = 0; split < all.size(); ++split)
    ASSERT_EQ(runWith({.replies = bytes, .splitAt = split}), good_) << split;
}

// ---- changed replies

class ChangedReply : public WireFaults, public testing::WithParamInterface<std::size_t> {
 protected:
  void expectDocumentedCodes(const Bytes& changed) {
    std::vector<Bytes> replies = replies_;
    replies[GetParam()] = changed;
    ++points_;
    const ScriptedGateway gateway(script(replies).tolerate(5));
    const auto [open, stats, ids, close, content] = runSession(gateway.port());
    const auto isLost = [](int rc) {
      return rc == ZEB_CONNECTION_LOST || rc == ZEB_COMMUNICATION_FAILED;
    };
    const auto isRight = [&](int rc, int before) {
      return before == 0 ? rc == 0 || isLost(rc) : rc == ZEB_TOKEN_UNKNOWN;
    };
    const bool isOpen = open == 0 && isRight(stats, 0) && isRight(ids, stats) &&
                        close == (stats == 0 && ids == 0 ? 0 : ZEB_TOKEN_UNKNOWN);
    ASSERT_TRUE(isOpen || isLost(open) || open == ZEB_CONNECT_FAILED)
        << open << " " << stats << " " << ids << " " << close;
    ASSERT_NO_FATAL_FAILURE(expectGoodSession());
  }
};

TEST_P(ChangedReply, inAnyBitIsACodeAndTheNextSessionWorks) {
  const Bytes reply = replies_[GetParam()];
  for (std::size_t bit = 0; bit < reply.size() * 8; ++bit) {
    Bytes changed = reply;
    changed[bit / 8] = static_cast<char>(changed[bit / 8] ^ 1 << bit % 8);
    ASSERT_NO_FATAL_FAILURE(expectDocumentedCodes(changed)) << "bit " << bit;
  }
}

// Every field stands at some byte, so all are met; what is no field is changed too.
TEST_P(ChangedReply, inAnyFieldToAnExtremeIsACodeAndTheNextSessionWorks) {
  const Bytes reply = replies_[GetParam()];
  for (const char* extreme : {"00", "FF", "0000", "7FFF", "8000", "FFFF", "00000000", "7FFFFFFF",
                              "80000000", "FFFFFFFF", "0000F004"}) {
    const Bytes value = wire(extreme);
    for (std::size_t at = 0; at + value.size() <= reply.size(); ++at) {
      if (reply.compare(at, value.size(), value) == 0) continue;
      ASSERT_NO_FATAL_FAILURE(expectDocumentedCodes(Bytes(reply).replace(at, value.size(), value)))
          << extreme << " at " << at;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Replies, ChangedReply, testing::Range<std::size_t>(0, kExchanges));

}  // namespace
}  // namespace zebtest
