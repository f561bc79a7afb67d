// The simulated gateway: its encoder against answers that the JDK's serialiser wrote, its server against a
// client that knows nothing but sockets, its model against itself.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "gateway_server.h"
#include "gateway_session.h"

namespace zebsim {
namespace {

// Blanks between pairs of digits are for the reader.
Bytes fromHex(const std::string& hex) {
  Bytes out;
  std::istringstream in(hex);
  while (in >> std::ws && !in.eof()) {
    char pair[3] = {};
    in.read(pair, 2);
    out.push_back(static_cast<char>(std::strtoul(pair, nullptr, 16)));
  }
  return out;
}

Bytes text16(const std::string& text) {
  Bytes out;
  appendText16(out, text);
  return out;
}

Bytes readReply(const std::string& name) {
  std::ifstream file(std::filesystem::path(ZEB_REPLIES_DIR) / name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// ---- the encoder

ClassDesc readClass(ByteReader& in) {
  in.take(1);  // the description's tag
  ClassDesc desc;
  desc.name = in.text16();
  desc.version = in.u64();
  desc.flags = in.u8();
  in.take(3);  // no fields, end of annotations
  return desc;
}

ResponseClasses readClasses(ByteReader in) {
  ResponseClasses classes;
  in.take(5);  // stream header, object
  classes.reply = readClass(in);
  classes.base = readClass(in);
  in.take(1);
  std::size_t headSize = in.u8() == 'w' ? in.u8() : in.u32();
  in.take(headSize);
  if (in.u8() == 's') classes.stat = readClass(in);
  return classes;
}

Bytes textOf(const nlohmann::json& text) {
  return fromHex(text.at("hex"));
}

Response readResponse(const nlohmann::json& told, bool isStats) {
  Ids ids;
  Stats stats;
  for (const auto& id : told.value("ids", nlohmann::json::array())) ids.push_back(textOf(id));
  for (const auto& stat : told.value("stats", nlohmann::json::array())) {
    stats.push_back({textOf(stat.at("id")), textOf(stat.at("value"))});
  }
  Response response{textOf(told.at("query")), told.at("rc"), std::move(ids)};
  if (isStats) response.items = std::move(stats);
  return response;
}

class RecordedReply : public testing::TestWithParam<std::string> {};

TEST_P(RecordedReply, is_reproduced_byte_for_byte) {
  Bytes recorded = readReply(GetParam() + ".bin");
  auto told = nlohmann::json::parse(readReply(GetParam() + ".json"));
  if (told.at("kind") == "protocol") {
    EXPECT_EQ(encodeProtocol(textOf(told.at("version"))), recorded);
    return;
  }
  Answer answer{told.at("form") == 1, {}};
  std::size_t at = answer.isList ? 5 : 1;
  for (const auto& one : told.at("responses")) {
    Response response = readResponse(one, told.at("kind") == "stats");
    response.classes = readClasses(ByteReader(std::string_view(recorded).substr(at)));
    at += encodeResponse(response).size();
    answer.responses.push_back(std::move(response));
  }
  EXPECT_EQ(at, recorded.size());
  EXPECT_TRUE(encodeAnswer(answer) == recorded) << "differs from " << GetParam() << ".bin";
}

std::vector<std::string> listRecordedReplies() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(ZEB_REPLIES_DIR)) {
    if (entry.path().extension() == ".bin") names.push_back(entry.path().stem());
  }
  std::sort(names.begin(), names.end());
  return names;
}

INSTANTIATE_TEST_SUITE_P(all, RecordedReply, testing::ValuesIn(listRecordedReplies()),
                         [](const auto& test) { return test.param; });

TEST(SimulatedEncoder, writes_ids_past_1024_bytes_as_one_block) {
  Ids ids(200, "LINK_SESSIONS");
  Bytes written = encodeResponse({"LINK", 0, ids});
  std::size_t size = 6 + 4 + 4 + 200 * 15;
  Bytes tail = fromHex("7a") + words({static_cast<std::uint32_t>(size)}) + text16("LINK") + words({0, 200});
  EXPECT_NE(written.find(tail), Bytes::npos);
  EXPECT_EQ(written.size() - written.find(tail), 5 + size + 1);
}

// ---- the server

const Bytes kHandshake = fromHex(
    "47617465 00700000 00000005 00000000 00000000 00000004 42415345 00 00000012"
    "0002656e 00024742 00000000000000000000");
const Bytes kClose = fromHex("47617465 00700000 0000000a 00000000 ffffffff 00000004 42415345 00 00000000");
const Bytes kOpeningCall =
    fromHex("47617465 00700000 00000001 00000000 00000000 00000005 41646d696e 00 00000004 00000000");
const Bytes kAuthHeader = fromHex("47617465 00700000 00000001 00000000");
const Bytes kAuthFirst = kAuthHeader + fromHex("00000000 00000004 41757468 00 00000004 00000000");

// `tag` is what the last reply had at offset 12, `authWords` the three words that it handed out.
Bytes authSecond(const Bytes& tag, const Bytes& authWords) {
  return kAuthHeader + tag + fromHex("00000004 41757468 00 00000014 00000001") + authWords + words({0});
}

Bytes call(std::uint32_t kind, const Bytes& tag, const Bytes& adminId, const Bytes& rest) {
  Bytes texts = text16("US") + text16("en") + text16("") + text16(std::string(kStatsBean)) + rest;
  auto size = static_cast<std::uint32_t>(texts.size());
  return kAuthHeader + tag + fromHex("00000005 41646d696e 00") + words({size + 12, kind}) + adminId +
         words({size}) + texts;
}

Bytes invokeRest(const std::string& action, const std::string& query) {
  return text16(action) + words({1}) + fromHex("aced000574") + text16(query) + words({1}) +
         text16("java.lang.String");
}

class RawClient {
 public:
  explicit RawClient(const GatewayServer& server) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
    timeval patience{10, 0};  // a silent server fails the test and does not hang it
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(server.port());
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(socket_.get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
  }

  void send(const Bytes& bytes) { ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }

  Bytes receive(std::size_t size) {
    Bytes got(size, '\0');
    if (size == 0) return got;  // receiving nothing would wait for something
    ssize_t n = recv(socket_.get(), got.data(), size, MSG_WAITALL);
    got.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return got;
  }

  // Sends a request and reads the reply: its data, and in `tag` what stands at offset 12.
  Bytes exchange(const Bytes& request) {
    send(request);
    std::size_t nameSize = ByteReader(std::string_view(request).substr(20)).u32();
    Bytes header = receive(29 + nameSize);
    if (header.size() < 29 + nameSize) return "no reply";
    EXPECT_EQ(header.substr(0, 12), request.substr(0, 12));
    tag = header.substr(12, 4);
    EXPECT_EQ(header.substr(16, 4), words({0}));  // the gateway's return code
    EXPECT_EQ(header.substr(20, 5 + nameSize), request.substr(20, 5 + nameSize));
    return receive(ByteReader(std::string_view(header).substr(25 + nameSize)).u32());
  }

  void openSession() {
    EXPECT_EQ(exchange(kHandshake), "");
    Bytes first = exchange(kAuthFirst);
    ASSERT_EQ(first.size(), 20U);
    EXPECT_EQ(first.substr(0, 8), words({0, 0}));
    EXPECT_NE(exchange(authSecond(tag, first.substr(8))).substr(0, 4), words({0}));
  }

  // An opening call and a call; the call data, with the admin reply's first nine bytes checked.
  Bytes ask(std::uint32_t kind, const Bytes& rest) {
    Bytes opened = exchange(kOpeningCall);
    EXPECT_EQ(opened.substr(0, 8), words({0, 0}));
    Bytes answered = exchange(call(kind, tag, opened.substr(8), rest));
    EXPECT_EQ(answered.substr(0, 9), words({kind, 0}) + Bytes(1, '\0'));
    return answered.size() < 9 ? "no answer" : answered.substr(9);
  }

  Bytes tag;

 private:
  Descriptor socket_;
};

TEST(SimulatedServer, runs_a_whole_session_in_pieces_and_serves_recorded_answers) {
  ServerOptions options;
  options.segment = 7;
  options.clock = [] { return 1000; };
  GatewayServer server(options);
  GatewayModel model(options.model);
  RawClient client(server);
  client.openSession();
  EXPECT_EQ(client.ask(kGetAttribute, text16("protocol")), readReply("protocol.bin"));
  EXPECT_EQ(client.ask(kInvoke, invokeRest("GET_STATS", "")), encodeAnswer(model.stats("", 1000)));
  EXPECT_EQ(client.ask(kInvoke, invokeRest("GET_STATS", "VM:REQ_COUNT:NO")),
            encodeAnswer(model.stats("VM:REQ_COUNT:NO", 1000)));
  EXPECT_EQ(client.ask(kInvoke, invokeRest("STAT_IDS", "LINK")), encodeAnswer(model.statIds("LINK")));
  EXPECT_EQ(client.ask(kInvoke, invokeRest("RESOURCE_GROUPS", "")), encodeAnswer(model.groups()));
  Bytes recorded = readReply("stats_value_over_1024_long_end.bin");
  server.setAnswer("GET_STATS", recorded);
  EXPECT_EQ(client.ask(kInvoke, invokeRest("GET_STATS", "")), recorded);
  EXPECT_EQ(client.exchange(kClose), "");
  EXPECT_EQ(client.receive(1), "") << "the server closes after the close reply";
}

TEST(SimulatedServer, closes_the_connection_of_a_client_that_sends_garbage_and_no_other) {
  std::mutex lock;
  std::vector<std::string> lines;
  ServerOptions options;
  options.log = [&](const std::string& line) {
    std::lock_guard<std::mutex> guard(lock);
    lines.push_back(line);
  };
  GatewayServer server(options);
  RawClient good(server);
  RawClient bad(server);
  good.openSession();
  bad.send("GET / HTTP/1.0\r\n\r\n");
  EXPECT_EQ(bad.receive(1), "");
  EXPECT_EQ(good.ask(kGetAttribute, text16("protocol")), readReply("protocol.bin"));
  server.stop();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_NE(lines[0].find("no eyecatcher"), std::string::npos);
  EXPECT_THROW(GatewayServer({.address = "not an address"}), std::runtime_error);
}

// What is said of a request that comes after `steps`; empty when it is answered.
std::string refusal(const std::vector<Bytes>& steps, const Bytes& request) {
  GatewaySession session(1, [](const AdminCall&) { return Bytes(); });
  Request taken;
  auto take = [&](Bytes in) { return takeRequest(in, taken) ? session.answer(taken) : Bytes(); };
  for (const Bytes& step : steps) take(step);
  try {
    take(request);
  } catch (const BadRequest& fault) {
    return fault.what();
  }
  return {};
}

Bytes patched(Bytes bytes, std::size_t at, char value) {
  bytes.at(at) = value;
  return bytes;
}

TEST(SimulatedSession, refuses_what_a_client_must_not_send) {
  Bytes tag = words({1});
  Request taken;
  GatewaySession twin(1, nullptr);  // tells the words and the admin id that a session with this tag gives
  auto tell = [&](Bytes in) { return takeRequest(in, taken) ? twin.answer(taken) : Bytes(); };
  tell(kHandshake);
  Bytes second = authSecond(tag, tell(kAuthFirst).substr(33 + 8));
  tell(second);
  Bytes adminId = tell(kOpeningCall).substr(34 + 8);
  std::vector<Bytes> fresh;
  std::vector<Bytes> greeted{kHandshake, kAuthFirst};
  std::vector<Bytes> ready{kHandshake, kAuthFirst, second};
  std::vector<Bytes> opened{kHandshake, kAuthFirst, second, kOpeningCall};
  Bytes good = call(kInvoke, tag, adminId, invokeRest("GET_STATS", "ABC"));
  std::vector<Bytes> answered{kHandshake, kAuthFirst, second, kOpeningCall, good};

  struct Case {
    const char* fault;
    const std::vector<Bytes>& steps;
    Bytes request;
  };
  Bytes query = invokeRest("GET_STATS", "ABC");
  const Case cases[] = {
      {"name of that length", fresh, patched(kHandshake, 23, 6)},
      {"beyond any request", fresh, patched(kHandshake, 29, 0x7F)},
      {"known 18 bytes", fresh, patched(kHandshake, 36, 'x')},
      {"at a wrong time", fresh, kAuthFirst},
      {"second handshake", greeted, kHandshake},
      {"words of the first", greeted, patched(second, 40, 99)},
      {"reply's tag", greeted, patched(second, 19, 0)},
      {"before the authorisation", greeted, kOpeningCall},
      {"without an opening call", ready, good},
      {"offset 16 of a close", ready, patched(kClose, 16, 0)},
      {"admin id", opened, call(kInvoke, tag, words({77}), query)},
      {"call kind", opened, call(3, tag, adminId, query)},
      {"call length", opened, patched(good, 45, static_cast<char>(good[45] + 1))},
      {"statistics bean", opened, patched(good, 60, 'x')},
      {"no string object", opened, patched(good, good.find(fromHex("aced")), 'x')},
      {"signature", opened, patched(good, good.size() - 1, 'G')},
      {"left behind", opened, call(kInvoke, tag, adminId, query + "x")},
      {"inside a field", opened, call(kInvoke, tag, adminId, query.substr(0, 20))},
      {"without an opening call", answered, good},
  };
  EXPECT_EQ(refusal(opened, good), "");
  for (const Case& one : cases) {
    EXPECT_NE(refusal(one.steps, one.request).find(one.fault), std::string::npos) << one.fault;
  }
}

// ---- the model

TEST(SimulatedModel, repeats_for_a_seed_and_never_counts_backward) {
  GatewayModel model({.seed = 7});
  EXPECT_EQ(encodeAnswer(model.stats("", 500)), encodeAnswer(GatewayModel({.seed = 7}).stats("", 500)));
  EXPECT_NE(encodeAnswer(model.stats("", 500)), encodeAnswer(GatewayModel({.seed = 8}).stats("", 500)));
  auto value = [&](const char* id, std::uint64_t seconds) {
    return std::stoul(std::get<Stats>(model.stats(id, seconds).responses[0].items)[0].value);
  };
  EXPECT_GT(value("REQ_COUNT", 600), value("REQ_COUNT", 0));
  for (std::uint64_t second = 0; second < 600; ++second) {
    EXPECT_LE(value("REQ_COUNT", second), value("REQ_COUNT", second + 1));
    EXPECT_LE(value("LISTEN_OPEN", second), value("LISTEN_OPEN_PEAK", second));
  }
}

TEST(SimulatedModel, answers_each_element_of_a_query) {
  GatewayModel model({.scale = 3});
  Answer all = model.stats("", 0);
  EXPECT_FALSE(all.isList);
  EXPECT_EQ(std::get<Stats>(all.responses[0].items).size(), 180U);
  Answer several = model.stats("REQ:VM_UPTIME_3:REQ_NONE:NONE_REQ:", 60);
  ASSERT_TRUE(several.isList);
  std::vector<std::int32_t> codes;
  for (const Response& response : several.responses) codes.push_back(response.rc);
  EXPECT_EQ(codes, (std::vector<std::int32_t>{0, 0, kUnknownElement, kUnknownElement, kEmptyElement}));
  EXPECT_EQ(several.responses[1].query, "VM_UPTIME_3");
  EXPECT_EQ(std::get<Stats>(several.responses[1].items)[0].value, "60");
  EXPECT_EQ(model.statIds("VM_UPTIME").responses[0].rc, kUnknownElement) << "ids are asked for by group only";
  EXPECT_EQ(std::get<Ids>(model.groups().responses[0].items).size(), 6U);
}

}  // namespace
}  // namespace zebsim
