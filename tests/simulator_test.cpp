// The simulated gateway: its encoder against answers that the JDK's serialiser wrote, its sessions
// against bytes, its model against itself.

#include <filesystem>

#include <nlohmann/json.hpp>

#include "gateway_session.h"
#include "scripted_gateway.h"
#include "trace_capture.h"

namespace zebsim {
namespace {

using zebtest::wire;

// ---- The encoder --------------------------------------------------------------------------------

Bytes textOf(const nlohmann::json& text) {
  return wire(text.at("hex").get<std::string>());
}

// One recorded response has other classes than the simulator's.
const ResponseClasses kOtherClasses = {{"com.kro.zeb.sim.Alt$Values", 0x0102030405060708, 3},
                                       {"com.kro.zeb.sim.Alt$Head", 0x7172737475767778, 2},
                                       {"com.kro.zeb.sim.Alt$Value", 0x7A77787172737475, 3}};

Response readResponse(const nlohmann::json& described, bool isStats) {
  const auto none = nlohmann::json::array();
  Response response{textOf(described.at("query")), described.at("rc"), Ids()};
  if (response.query == "REQ_FAILED") response.classes = kOtherClasses;
  for (const auto& id : described.value("ids", none))
    std::get<Ids>(response.items).push_back(textOf(id));
  if (!isStats) return response;
  auto& stats = response.items.emplace<Stats>();
  for (const auto& stat : described.value("stats", none))
    stats.push_back({textOf(stat.at("id")), textOf(stat.at("value"))});
  return response;
}

TEST(SimulatedEncoder, reproduces_each_recorded_reply_byte_for_byte) {
  int replies = 0;
  for (const auto& entry : std::filesystem::directory_iterator(ZEB_REPLIES_DIR)) {
    std::filesystem::path file = entry.path();
    if (file.extension() != ".json") continue;
    SCOPED_TRACE(file);
    ++replies;
    const auto described = nlohmann::json::parse(zebtest::readFile(file));
    const Bytes recorded = zebtest::readFile(file.replace_extension(".bin"));
    if (described.at("kind") == "protocol") {
      EXPECT_EQ(encodeProtocol(textOf(described.at("version"))), recorded);
      continue;
    }
    Answer answer{described.at("form") == 1, {}};
    for (const auto& response : described.at("responses"))
      answer.responses.push_back(readResponse(response, described.at("kind") == "stats"));
    EXPECT_TRUE(encodeAnswer(answer) == recorded);
  }
  EXPECT_GT(replies, 12);
}

TEST(SimulatedEncoder, writes_one_block_of_any_size_if_it_is_to) {
  const Bytes data = wire("0000 00000000 00000001 0BB8") + Bytes(3000, 'v');
  EXPECT_TRUE(encodeResponse({"", 0, Ids{Bytes(3000, 'v')}}, HeadBlocks::kOne)
                  .ends_with("xpz" + words({3012}) + data + "x"));
}

// ---- Sessions -----------------------------------------------------------------------------------

const Bytes kHandshake = wire(
    "'Gate' 00700000 00000005 00000000 00000000 00000004 'BASE' 00 00000012"
    "0002 'en' 0002 'GB' 00000000000000000000");
const Bytes kClose = wire("'Gate' 00700000 0000000A 00000000 FFFFFFFF 00000004 'BASE' 00 00000000");
const Bytes kCallHeader = wire("'Gate' 00700000 00000001 00000000");
const Bytes kOpening = kCallHeader + wire("00000000 00000005 'Admin' 00 00000004 00000000");
const Bytes kAuthFirst = kCallHeader + wire("00000000 00000004 'Auth' 00 00000004 00000000");
// What the first client gets: its tag, and three words to repeat.
const Bytes kTag = words({1});
const Bytes kAuthWords = wire("5EED0000 9E3779B9 FFFFFFFE");
const Bytes kAuthSecond =
    kCallHeader + kTag + wire("00000004 'Auth' 00 00000014 00000001") + kAuthWords + words({0});

Bytes call(std::uint32_t kind, std::uint32_t adminId, const Bytes& rest) {
  const Bytes texts = wire("0002 'US' 0002 'en' 0000 003C") + Bytes(kStatsBean) + rest;
  const auto size = static_cast<std::uint32_t>(texts.size());
  return kCallHeader + kTag + wire("00000005 'Admin' 00") +
         words({size + 12, kind, adminId, size}) + texts;
}

const Bytes kQuery =
    wire("0008 'STAT_IDS' 00000001 ACED000574 0003 'A:B' 00000001 0010 'java.lang.String'");
const Bytes kInvocation = call(kInvoke, 0x101, kQuery);

// The replies to the requests, one after the other, of a bean that answers with what it is asked;
// or, if one is refused, the reason.
Bytes repliesTo(const std::vector<Bytes>& requests) {
  GatewaySession session(
      1, [](const AdminCall& asked) { return asked.target + "/" + asked.argument; });
  Request taken;
  Bytes replies;
  try {
    for (Bytes request : requests)
      if (takeRequest(request, taken)) replies += session.answer(taken);
  } catch (const BadRequest& fault) {
    return fault.what();
  }
  return replies;
}

TEST(SimulatedSession, answers_each_request) {
  const Bytes head = wire("'Gate' 00700000 00000001 00000001 00000000");
  const Bytes opened = head + wire("00000005 'Admin' 00 0000000C 00000000 00000000");
  EXPECT_EQ(repliesTo({kHandshake, kAuthFirst, kAuthSecond, kOpening,
                       call(kGetAttribute, 0x101, wire("0008 'protocol'")), kOpening,
                       call(kInvoke, 0x201, kQuery), kClose}),
            wire("'Gate' 00700000 00000005 00000001 00000000 00000004 'BASE' 00 00000000") + head +
                wire("00000004 'Auth' 00 00000014 00000000 00000000") + kAuthWords + head +
                wire("00000004 'Auth' 00 00000010 00000001 00000000 00000000 00000000") + opened +
                words({0x101}) + head +
                wire("00000005 'Admin' 00 00000012 00000001 00000000 00 'protocol/'") + opened +
                words({0x201}) + head +
                wire("00000005 'Admin' 00 00000015 00000005 00000000 00 'STAT_IDS/A:B'") +
                wire("'Gate' 00700000 0000000A 00000001 00000000 00000004 'BASE' 00 00000000"));
}

TEST(SimulatedSession, refuses_what_a_client_must_not_send) {
  const std::vector<Bytes> session = {kHandshake, kAuthFirst, kAuthSecond, kOpening, kInvocation};
  const auto patched = [](Bytes bytes, std::size_t at, int value) {
    bytes.at(at) = static_cast<char>(value);
    return bytes;
  };
  const struct {
    const char* fault;
    std::ptrdiff_t after;  // the requests of the session that come first
    Bytes request;
  } rows[] = {
      {"name of that length", 0, patched(kHandshake, 23, 6)},
      {"known 18 bytes", 0, patched(kHandshake, 36, 'x')},
      {"at a wrong time", 0, kAuthFirst},
      {"words of the first", 2, patched(kAuthSecond, 40, 99)},
      {"reply's tag", 2, patched(kAuthSecond, 19, 0)},
      {"without an opening call", 3, kInvocation},
      {"admin id", 4, call(kInvoke, 77, kQuery)},
      {"call length", 4, patched(kInvocation, 45, kInvocation[45] + 1)},
      {"statistics bean", 4, patched(kInvocation, 60, 'x')},
      {"no string object", 4, patched(kInvocation, kInvocation.find(wire("ACED")), 'x')},
      {"are left", 4, call(kInvoke, 0x101, kQuery + "x")},
      {"inside a field", 4, call(kInvoke, 0x101, kQuery.substr(0, 20))},
      {"without an opening call", 5, kInvocation},
  };
  for (const auto& row : rows) {
    std::vector<Bytes> requests(session.begin(), session.begin() + row.after);
    requests.push_back(row.request);
    EXPECT_NE(repliesTo(requests).find(row.fault), Bytes::npos) << row.fault;
  }
}

// ---- The model ----------------------------------------------------------------------------------

TEST(SimulatedModel, repeats_for_a_seed_and_never_counts_backward) {
  const auto encoded = [](std::uint64_t seed) {
    return encodeAnswer(GatewayModel({.seed = seed}).stats("", 500));
  };
  EXPECT_EQ(encoded(7), encoded(7));
  EXPECT_NE(encoded(7), encoded(8));
  const GatewayModel model({.seed = 7});
  const auto value = [&](const char* id, std::uint64_t seconds) {
    return std::stoul(std::get<Stats>(model.stats(id, seconds).responses[0].items)[0].value);
  };
  EXPECT_GT(value("REQ_COUNT", 600), value("REQ_COUNT", 0));
  for (std::uint64_t second = 0; second < 600; ++second) {
    EXPECT_LE(value("REQ_COUNT", second), value("REQ_COUNT", second + 1));
    EXPECT_LE(value("LISTEN_OPEN", second), value("LISTEN_OPEN_PEAK", second));
  }
}

TEST(SimulatedModel, answers_each_element_of_a_query) {
  const GatewayModel model({.scale = 3});
  const Answer several = model.stats("REQ:VM_UPTIME_3:REQ_NONE:NONE_REQ:", 60);
  std::vector<std::int32_t> codes = {model.statIds("VM_UPTIME").responses.at(0).rc};
  for (const Response& response : several.responses) codes.push_back(response.rc);
  EXPECT_EQ(codes, (std::vector<std::int32_t>{kUnknownElement, 0, 0, kUnknownElement,
                                              kUnknownElement, kEmptyElement}));
  EXPECT_EQ(std::get<Stats>(several.responses.at(1).items).at(0).value, "60");
  Bytes tooMuch = "REQ";
  while (tooMuch.size() < 40000) tooMuch += ":REQ";
  EXPECT_THROW((void)model.stats(tooMuch, 0), BadRequest);
}

}  // namespace
}  // namespace zebsim
