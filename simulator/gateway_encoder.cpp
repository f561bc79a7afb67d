#include "gateway_encoder.h"

#include <algorithm>

namespace zebsim {
namespace {

// The serialiser's type codes, named as in java.io.ObjectStreamConstants.
constexpr std::uint8_t kTcNull = 0x70;
constexpr std::uint8_t kTcReference = 0x71;
constexpr std::uint8_t kTcClassDesc = 0x72;
constexpr std::uint8_t kTcObject = 0x73;
constexpr std::uint8_t kTcString = 0x74;
constexpr std::uint8_t kTcBlockData = 0x77;
constexpr std::uint8_t kTcEndBlockData = 0x78;
constexpr std::uint8_t kTcBlockDataLong = 0x7A;
constexpr std::uint32_t kStreamHeader = 0xACED0005;

// The serialiser numbers classes and objects from 0x7E0000 on, in order of appearance: the
// response's class, its superclass, the response itself, the class of the statistics.
constexpr std::uint32_t kStatClassHandle = 0x007E0003;

constexpr std::size_t kMaxBlock = 1024;
constexpr std::uint8_t kExternalizable = 0x0C;  // SC_EXTERNALIZABLE | SC_BLOCK_DATA
constexpr std::uint64_t kOwnVersion = 0x1122334455667788;

const ResponseClasses& ownClasses(bool isStats) {
  static const ClassDesc base{"com.kro.zeb.sim.Reply", kOwnVersion, kExternalizable};
  static const ClassDesc stat{"com.kro.zeb.sim.Stat", kOwnVersion, kExternalizable};
  static const ClassDesc idsReply{"com.kro.zeb.sim.IdsReply", kOwnVersion, kExternalizable};
  static const ClassDesc statsReply{"com.kro.zeb.sim.StatsReply", kOwnVersion, kExternalizable};
  static const ResponseClasses ids{idsReply, base, stat};
  static const ResponseClasses stats{statsReply, base, stat};
  return isStats ? stats : ids;
}

// Writes the description without its end: the caller writes the superclass's description or
// TC_NULL.
void appendClassDesc(Bytes& out, const ClassDesc& desc) {
  appendU8(out, kTcClassDesc);
  appendText16(out, desc.name);
  appendU64(out, desc.version);
  appendU8(out, desc.flags);
  appendU16(out, 0);  // no fields
  appendU8(out, kTcEndBlockData);
}

void appendBlock(Bytes& out, std::string_view data) {
  if (data.size() <= 0xFF) {
    appendU8(out, kTcBlockData);
    appendU8(out, static_cast<std::uint8_t>(data.size()));
  } else {
    appendU8(out, kTcBlockDataLong);
    appendU32(out, static_cast<std::uint32_t>(data.size()));
  }
  out.append(data);
}

// Writes blocks as the serialiser does when its buffer is full: full blocks, then the rest.
void appendBlocks(Bytes& out, std::string_view data) {
  while (!data.empty()) {
    std::size_t size = std::min(data.size(), kMaxBlock);
    appendBlock(out, data.substr(0, size));
    data.remove_prefix(size);
  }
}

void appendStat(Bytes& out, const Stat& stat, const ClassDesc& statClass, bool isFirst) {
  appendU8(out, kTcObject);
  if (isFirst) {
    appendClassDesc(out, statClass);
    appendU8(out, kTcNull);
  } else {
    appendU8(out, kTcReference);
    appendU32(out, kStatClassHandle);
  }
  Bytes data;
  appendText16(data, stat.id);
  appendText16(data, stat.value);
  appendBlocks(out, data);
  appendU8(out, kTcEndBlockData);
}

// Returns the block data that follow the response's class: the query element, its return code, the
// number of items and, in an ids response, the ids.
Bytes encodeHead(const Response& response) {
  Bytes head;
  appendText16(head, response.query);
  appendU32(head, static_cast<std::uint32_t>(response.rc));
  if (response.rc < 0) return head;
  auto count = std::visit([](const auto& items) { return items.size(); }, response.items);
  appendU32(head, static_cast<std::uint32_t>(count));
  if (const Ids* ids = std::get_if<Ids>(&response.items)) {
    for (const std::string& id : *ids) appendText16(head, id);
  }
  return head;
}

}  // namespace

Bytes encodeResponse(const Response& response, HeadBlocks blocks) {
  const Stats* stats = std::get_if<Stats>(&response.items);
  const ResponseClasses& classes =
      response.classes ? *response.classes : ownClasses(stats != nullptr);
  Bytes out;
  appendU32(out, kStreamHeader);
  appendU8(out, kTcObject);
  appendClassDesc(out, classes.reply);
  appendClassDesc(out, classes.base);
  appendU8(out, kTcNull);
  (blocks == HeadBlocks::kOne ? appendBlock : appendBlocks)(out, encodeHead(response));
  if (stats != nullptr && response.rc >= 0) {
    for (const Stat& stat : *stats) appendStat(out, stat, classes.stat, &stat == stats->data());
  }
  appendU8(out, kTcEndBlockData);
  return out;
}

Bytes encodeAnswer(const Answer& answer, HeadBlocks blocks) {
  if (!answer.isList && answer.responses.size() != 1) {
    throw std::invalid_argument("an answer that is not a list has exactly one response");
  }
  Bytes out;
  appendU8(out, answer.isList ? 1 : 0);
  if (answer.isList) appendU32(out, static_cast<std::uint32_t>(answer.responses.size()));
  for (const Response& response : answer.responses) out += encodeResponse(response, blocks);
  return out;
}

Bytes encodeProtocol(std::string_view version) {
  Bytes out;
  appendU8(out, 0);
  appendU32(out, kStreamHeader);
  appendU8(out, kTcString);
  appendText16(out, version);
  return out;
}

}  // namespace zebsim
