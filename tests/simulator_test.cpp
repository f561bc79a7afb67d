// The simulated gateway: its encoder against answers that the JDK's serialiser wrote, its sessions
// and server against bytes, its model against itself.

#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "gateway_session.h"
#include "scripted_gateway.h"

namespace zebsim {
namespace {

using zebtest::wire;

Bytes text16(const std::string& text) {
  Bytes out;
  appendText16(out, text);
  return out;
}

// ---- The encoder --------------------------------------------------------------------------------

Bytes readReply(const std::string& name) {
  std::ifstream file(std::filesystem::path(ZEB_REPLIES_DIR) / name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

ClassDesc readClass(ByteReader& in) {
  in.take(1);  // the description's tag
  const Bytes name(in.text16());
  const std::uint64_t version = in.u64();
  const std::uint8_t flags = in.u8();
  in.take(3);  // no fields, end of annotations
  return {name, version, flags};
}

ResponseClasses readClasses(ByteReader in) {
  ResponseClasses classes;
  in.take(5);  // stream header, object
  classes.reply = readClass(in);
  classes.base = readClass(in);
  in.take(1);
  const std::size_t headSize = in.u8() == 'w' ? in.u8() : in.u32();
  in.take(headSize);
  if (in.u8() == 's') classes.stat = readClass(in);
  return classes;
}

Bytes textOf(const nlohmann::json& text) {
  return wire(text.at("hex").get<std::string>());
}

Response readResponse(const nlohmann::json& described, bool isStats) {
  const auto none = nlohmann::json::array();
  Ids ids;
  Stats stats;
  for (const auto& id : described.value("ids", none)) ids.push_back(textOf(id));
  for (const auto& stat : described.value("stats", none))
    stats.push_back({textOf(stat.at("id")), textOf(stat.at("value"))});
  Response response{textOf(described.at("query")), described.at("rc"), ids};
  if (isStats) response.items = stats;
  return response;
}

TEST(SimulatedEncoder, reproduces_each_recorded_reply_byte_for_byte) {
  int replies = 0;
  for (const auto& entry : std::filesystem::directory_iterator(ZEB_REPLIES_DIR)) {
    if (entry.path().extension() != ".bin") continue;
    const std::string name = entry.path().stem();
    SCOPED_TRACE(name);
    ++replies;
    const Bytes recorded = readReply(name + ".bin");
    const auto described = nlohmann::json::parse(readReply(name + ".json"));
    if (described.at("kind") == "protocol") {
      EXPECT_EQ(encodeProtocol(textOf(described.at("version"))), recorded);
      continue;
    }
    Answer answer{described.at("form") == 1, {}};
    std::size_t at = answer.isList ? 5 : 1;
    for (const auto& one : described.at("responses")) {
      Response response = readResponse(one, described.at("kind") == "stats");
      response.classes = readClasses(ByteReader(std::string_view(recorded).substr(at)));
      at += encodeResponse(response).size();
      answer.responses.push_back(std::move(response));
    }
    EXPECT_TRUE(encodeAnswer(answer) == recorded);
  }
  EXPECT_GT(replies, 10);
}

TEST(SimulatedEncoder, cuts_block_data_after_each_1024_bytes_unless_it_is_to_be_one_block) {
  for (const std::size_t size : {255U, 256U, 1024U, 1025U, 1279U, 1280U, 2048U, 3072U + 255U}) {
    const Bytes data = wire("0000") + words({0, 1}) + text16(Bytes(size - 12, 'v'));
    const auto block = [&](std::size_t at, std::size_t most) {
      const Bytes piece = data.substr(at, most);
      const Bytes length = words({static_cast<std::uint32_t>(piece.size())});
      return (piece.size() > 255 ? "z" + length : "w" + length.substr(3)) + piece;
    };
    Bytes cut;
    for (std::size_t at = 0; at < size; at += 1024) cut += block(at, 1024);
    const Response response = {"", 0, Ids{Bytes(size - 12, 'v')}};
    EXPECT_TRUE(encodeResponse(response, HeadBlocks::kCut).ends_with("xp" + cut + "x"));
    EXPECT_TRUE(encodeResponse(response, HeadBlocks::kOne).ends_with("xp" + block(0, size) + "x"));
  }
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
  const Bytes texts = text16("US") + text16("en") + text16("") + text16(Bytes(kStatsBean)) + rest;
  const auto size = static_cast<std::uint32_t>(texts.size());
  return kCallHeader + kTag + wire("00000005 'Admin' 00") +
         words({size + 12, kind, adminId, size}) + texts;
}

const Bytes kQuery = text16("STAT_IDS") + words({1}) + wire("ACED000574") + text16("A:B") +
                     words({1}) + text16("java.lang.String");
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
                       call(kGetAttribute, 0x101, text16("protocol")), kOpening,
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
      {"beyond any request", 0, patched(kHandshake, 29, 0x7F)},
      {"known 18 bytes", 0, patched(kHandshake, 36, 'x')},
      {"at a wrong time", 0, kAuthFirst},
      {"second handshake", 2, kHandshake},
      {"words of the first", 2, patched(kAuthSecond, 40, 99)},
      {"reply's tag", 2, patched(kAuthSecond, 19, 0)},
      {"before the authorisation", 2, kOpening},
      {"without an opening call", 3, kInvocation},
      {"offset 16 of a close", 3, patched(kClose, 16, 0)},
      {"admin id", 4, call(kInvoke, 77, kQuery)},
      {"call kind", 4, call(3, 0x101, kQuery)},
      {"call length", 4, patched(kInvocation, 45, kInvocation[45] + 1)},
      {"statistics bean", 4, patched(kInvocation, 60, 'x')},
      {"no string object", 4, patched(kInvocation, kInvocation.find(wire("ACED")), 'x')},
      {"signature", 4, patched(kInvocation, kInvocation.size() - 1, 'G')},
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

// ---- The server ---------------------------------------------------------------------------------

// The number of bytes that it sends to a client that sends these bytes, until it ends the
// connection.
int countAnswer(const GatewayServer& server, const Bytes& bytes) {
  const Descriptor client = zebtest::connectTo(server.port());
  send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  int count = 0;
  char byte;
  while (zebtest::isReady(client, POLLIN, 20000) && recv(client.get(), &byte, 1, 0) > 0) ++count;
  EXPECT_TRUE(zebtest::isReady(client, POLLIN, 0)) << "the connection was not closed";
  return count;
}

TEST(SimulatedServer,
     closes_the_connection_of_a_client_that_sends_garbage_or_goodbye_and_no_other) {
  std::vector<std::string> lines;  // its thread's own until it has ended
  GatewayServer server({.segment = 7,
                        .clock = [] { return 1000; },
                        .log = [&](const std::string& line) { lines.push_back(line); }});
  const zebtest::Connection good(server.port());
  ResultSetToken* answer = nullptr;
  StatData stat;
  EXPECT_EQ(countAnswer(server, "GET / HTTP/1.0\r\n\r\n"), 0);
  EXPECT_EQ(countAnswer(server, kClose), 33);
  EXPECT_EQ(getStatsByStatId(good.token, "VM_UPTIME", &answer), 0);
  EXPECT_EQ(getFirstStat(answer, &stat), 0);
  EXPECT_EQ(std::string_view(stat.statValuePtr, 4), "1000");
  server.stop();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_NE(lines[0].find("no eyecatcher"), std::string::npos);
  EXPECT_THROW(GatewayServer({.address = "not an address"}), std::runtime_error);
}

// ---- The model ----------------------------------------------------------------------------------

TEST(SimulatedModel, repeats_for_a_seed_and_never_counts_backward) {
  const GatewayModel model({.seed = 7});
  const auto encoded = [](std::uint64_t seed) {
    return encodeAnswer(GatewayModel({.seed = seed}).stats("", 500));
  };
  EXPECT_EQ(encoded(7), encoded(7));
  EXPECT_NE(encoded(7), encoded(8));
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
  EXPECT_EQ(std::get<Stats>(model.stats("", 0).responses.at(0).items).size(), 180U);
  const Answer several = model.stats("REQ:VM_UPTIME_3:REQ_NONE:NONE_REQ:", 60);
  EXPECT_TRUE(several.isList);
  std::vector<std::int32_t> codes;
  for (const Response& response : several.responses) codes.push_back(response.rc);
  EXPECT_EQ(codes,
            (std::vector<std::int32_t>{0, 0, kUnknownElement, kUnknownElement, kEmptyElement}));
  EXPECT_EQ(std::get<Stats>(several.responses.at(1).items).at(0).value, "60");
  // Ids are asked for by group only.
  EXPECT_EQ(model.statIds("VM_UPTIME").responses.at(0).rc, kUnknownElement);
  Bytes tooMuch = "REQ";
  while (tooMuch.size() < 40000) tooMuch += ":REQ";
  EXPECT_THROW((void)model.stats(tooMuch, 0), BadRequest);
}

}  // namespace
}  // namespace zebsim
