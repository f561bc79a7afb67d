// The simulated gateway: its encoder against answers that the JDK's serialiser wrote, its sessions
// and server against bytes, its model against itself.
#include <sys/time.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "gateway_server.h"
#include "gateway_session.h"
#include "scripted_gateway.h"
#include "zebstats.h"

namespace zebsim {
namespace {

using zebtest::wire;

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
  return wire(text.at("hex").get<std::string>());
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

TEST(SimulatedEncoder, cuts_block_data_after_each_1024_bytes_unless_it_is_to_be_one_block) {
  const auto tailOf = [](std::size_t size, HeadBlocks blocks) {
    Bytes written = encodeResponse({"", 0, Ids{Bytes(size - 12, 'v')}}, blocks);
    return written.substr(written.rfind(wire("7870")) + 2);
  };
  for (const std::size_t size : {1023U, 1024U, 1025U, 1279U, 1280U, 2048U, 2049U, 3072U + 255U}) {
    const Bytes data = wire("0000") + words({0, 1}) + text16(Bytes(size - 12, 'v'));
    Bytes expected;
    for (std::size_t at = 0; at < size; at += 1024) {
      const auto piece = static_cast<std::uint32_t>(std::min<std::size_t>(1024, size - at));
      expected += piece > 255 ? wire("7A") + words({piece}) : wire("77") + words({piece}).substr(3);
      expected += data.substr(at, piece);
    }
    EXPECT_EQ(tailOf(size, HeadBlocks::kCut), expected + wire("78"));
    EXPECT_EQ(tailOf(size, HeadBlocks::kOne),
              wire("7A") + words({static_cast<std::uint32_t>(size)}) + data + wire("78"));
  }
}

// ---- sessions

const Bytes kHandshake = wire(
    "'Gate' 00700000 00000005 00000000 00000000 00000004 'BASE' 00 00000012"
    "0002 'en' 0002 'GB' 00000000000000000000");
const Bytes kClose = wire("'Gate' 00700000 0000000A 00000000 FFFFFFFF 00000004 'BASE' 00 00000000");
const Bytes kOpeningCall =
    wire("'Gate' 00700000 00000001 00000000 00000000 00000005 'Admin' 00 00000004 00000000");
const Bytes kAuthHeader = wire("'Gate' 00700000 00000001 00000000");
const Bytes kAuthFirst = kAuthHeader + wire("00000000 00000004 'Auth' 00 00000004 00000000");

// What the first client gets: the tag at offset 12 of each reply, the words of the authorisation,
// the admin id.
const Bytes kTag = words({1});
const Bytes kAuthWords = wire("5EED0000 9E3779B9 FFFFFFFE");
const Bytes kAdminId = words({0x101});
const Bytes kAuthSecond =
    kAuthHeader + kTag + wire("00000004 'Auth' 00 00000014 00000001") + kAuthWords + words({0});

Bytes call(std::uint32_t kind, const Bytes& adminId, const Bytes& rest) {
  Bytes texts = text16("US") + text16("en") + text16("") + text16(std::string(kStatsBean)) + rest;
  auto size = static_cast<std::uint32_t>(texts.size());
  return kAuthHeader + kTag + wire("00000005 'Admin' 00") + words({size + 12, kind}) + adminId +
         words({size}) + texts;
}

Bytes invokeRest(const std::string& action, const std::string& query) {
  return text16(action) + words({1}) + wire("ACED000574") + text16(query) + words({1}) +
         text16("java.lang.String");
}

// The replies to the requests, one behind the other, of a bean that answers with what it is asked;
// in their place the fault of one that is refused.
Bytes repliesTo(const std::vector<Bytes>& requests) {
  GatewaySession session{
      1, [](const AdminCall& asked) { return asked.target + "/" + asked.argument; }};
  Request taken;
  Bytes replies;
  try {
    for (Bytes request : requests) {
      EXPECT_FALSE(session.isClosed());
      if (takeRequest(request, taken)) replies += session.answer(taken);
    }
  } catch (const BadRequest& fault) {
    return fault.what();
  }
  return replies;
}

TEST(SimulatedSession, answers_each_request) {
  const Bytes head = wire("'Gate' 00700000 00000001 00000001 00000000");
  const Bytes opened = head + wire("00000005 'Admin' 00 0000000C 00000000 00000000");
  EXPECT_EQ(repliesTo({kHandshake, kAuthFirst, kAuthSecond, kOpeningCall,
                       call(kGetAttribute, kAdminId, text16("protocol")), kOpeningCall,
                       call(kInvoke, words({0x201}), invokeRest("STAT_IDS", "A:B")), kClose}),
            wire("'Gate' 00700000 00000005 00000001 00000000 00000004 'BASE' 00 00000000") + head +
                wire("00000004 'Auth' 00 00000014 00000000 00000000") + kAuthWords + head +
                wire("00000004 'Auth' 00 00000010 00000001 00000000 00000000 00000000") + opened +
                kAdminId + head +
                wire("00000005 'Admin' 00 00000012 00000001 00000000 00 'protocol/'") + opened +
                words({0x201}) + head +
                wire("00000005 'Admin' 00 00000015 00000005 00000000 00 'STAT_IDS/A:B'") +
                wire("'Gate' 00700000 0000000A 00000001 00000000 00000004 'BASE' 00 00000000"));
}

Bytes patched(Bytes bytes, std::size_t at, char value) {
  bytes.at(at) = value;
  return bytes;
}

TEST(SimulatedSession, refuses_what_a_client_must_not_send) {
  const std::vector<Bytes> fresh, greeted{kHandshake, kAuthFirst},
      ready{kHandshake, kAuthFirst, kAuthSecond},
      opened{kHandshake, kAuthFirst, kAuthSecond, kOpeningCall};
  const Bytes query = invokeRest("GET_STATS", "ABC");
  const Bytes good = call(kInvoke, kAdminId, query);
  std::vector<Bytes> answered = opened;
  answered.push_back(good);
  struct Case {
    const char* fault;
    const std::vector<Bytes>& steps;
    Bytes request;
  };
  const Case cases[] = {
      {"name of that length", fresh, patched(kHandshake, 23, 6)},
      {"beyond any request", fresh, patched(kHandshake, 29, 0x7F)},
      {"known 18 bytes", fresh, patched(kHandshake, 36, 'x')},
      {"at a wrong time", fresh, kAuthFirst},
      {"second handshake", greeted, kHandshake},
      {"words of the first", greeted, patched(kAuthSecond, 40, 99)},
      {"reply's tag", greeted, patched(kAuthSecond, 19, 0)},
      {"before the authorisation", greeted, kOpeningCall},
      {"without an opening call", ready, good},
      {"offset 16 of a close", ready, patched(kClose, 16, 0)},
      {"admin id", opened, call(kInvoke, words({77}), query)},
      {"call kind", opened, call(3, kAdminId, query)},
      {"call length", opened, patched(good, 45, static_cast<char>(good[45] + 1))},
      {"statistics bean", opened, patched(good, 60, 'x')},
      {"no string object", opened, patched(good, good.find(wire("ACED")), 'x')},
      {"signature", opened, patched(good, good.size() - 1, 'G')},
      {"left behind", opened, call(kInvoke, kAdminId, query + "x")},
      {"inside a field", opened, call(kInvoke, kAdminId, query.substr(0, 20))},
      {"without an opening call", answered, good},
  };
  for (const Case& one : cases) {
    std::vector<Bytes> requests = one.steps;
    requests.push_back(one.request);
    EXPECT_NE(repliesTo(requests).find(one.fault), Bytes::npos) << one.fault;
  }
}

// ---- the server

// All that it sends to a client that is only a socket and sends these bytes, up to its end of the
// connection.
Bytes answersTo(const GatewayServer& server, const Bytes& bytes) {
  const Descriptor client = zebtest::connectTo(server.port());
  const timeval patience{10, 0};  // a silent server fails the test and does not hang it
  setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  Bytes got;
  char byte;
  ssize_t n;
  while ((n = recv(client.get(), &byte, 1, 0)) > 0) got += byte;
  EXPECT_EQ(n, 0) << "the connection was not closed";
  return got;
}

TEST(SimulatedServer,
     closes_the_connection_of_a_client_that_sends_garbage_or_a_goodbye_and_no_other) {
  std::vector<std::string> lines;
  ServerOptions options;
  options.segment = 7;
  options.clock = [] { return 1000; };
  options.log = [&](const std::string& line) {
    lines.push_back(line);
  };  // its thread's own until it has ended
  GatewayServer server(options);
  const zebtest::Connection good(server.port());
  ResultSetToken* answer = nullptr;
  StatData stat;
  EXPECT_EQ(answersTo(server, "GET / HTTP/1.0\r\n\r\n"), "");
  EXPECT_EQ(answersTo(server, kClose).size(), 33U);
  EXPECT_EQ(getStatsByStatId(good.token, "VM_UPTIME", &answer), 0);
  EXPECT_EQ(getFirstStat(answer, &stat), 0);
  EXPECT_EQ(std::string_view(stat.statValuePtr, 4), "1000");
  server.stop();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_NE(lines[0].find("no eyecatcher"), std::string::npos);
  EXPECT_THROW(GatewayServer({.address = "not an address"}), std::runtime_error);
}

// ---- the model

TEST(SimulatedModel, repeats_for_a_seed_and_never_counts_backward) {
  GatewayModel model({.seed = 7});
  EXPECT_EQ(encodeAnswer(model.stats("", 500)),
            encodeAnswer(GatewayModel({.seed = 7}).stats("", 500)));
  EXPECT_NE(encodeAnswer(model.stats("", 500)),
            encodeAnswer(GatewayModel({.seed = 8}).stats("", 500)));
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
  EXPECT_EQ(codes,
            (std::vector<std::int32_t>{0, 0, kUnknownElement, kUnknownElement, kEmptyElement}));
  EXPECT_EQ(several.responses[1].query, "VM_UPTIME_3");
  EXPECT_EQ(std::get<Stats>(several.responses[1].items)[0].value, "60");
  EXPECT_EQ(model.statIds("VM_UPTIME").responses[0].rc, kUnknownElement)
      << "ids are asked for by group only";
  EXPECT_EQ(std::get<Ids>(model.groups().responses[0].items).size(), 6U);
}

}  // namespace
}  // namespace zebsim
