// Calls of the gateway's statistics bean, and the parsing of its answers into result set buffers.
//
// Every call is an exchange of two requests on one record: the opening call, whose reply gives an admin id,
// and the attribute or invoke call that sends the id back. One thread works on a connection at a time.
//
// The answers are Java Object Serialization streams. They are not decoded but stepped over by their fixed
// layout; the only tags looked at are those of block data, 'w' (1-byte length) and 'z' (4-byte length).

#include "stapi_zeb_statcomms.h"

#include <stdlib.h>

#include <algorithm>
#include <cstring>

#include "stapi_zeb_diag.h"
#include "stapi_zeb_memory.h"
#include "stapi_zeb_protocol.h"
#include "stapi_zeb_resultsetbuffer.h"
#include "stapi_zeb_socketcomms.h"
#include "stapi_zeb_version.h"
#include "stapi_zeb_wire.h"

extern "C" {
extern const char stapi_zeb_statcomms_notice[] ZEB_INTERNAL_DATA;
const char stapi_zeb_statcomms_notice[] = ZEB_NOTICE("stapi_zeb_statcomms");
}

namespace zeb {
namespace {

constexpr char ADMIN_REQUEST_NAME[] = "Admin";
constexpr char ADMIN_CLIENT_COUNTRY[] = "US";
constexpr char ADMIN_CLIENT_LANGUAGE[] = "en";
constexpr char kNoQualifier[] = "";
constexpr char STATS_MBEAN_NAME[] = "DefaultDomain:ProdId=com.kro.zeb,Activity=Control,type=Stats";
constexpr char STATS_MBEAN_SIG[] = "java.lang.String";
constexpr char STATS_MBEAN_PROTOCOL_VERSION[] = "protocol";
constexpr char STATS_MBEAN_ACTION_GET_STATS[] = "GET_STATS";

constexpr std::uint32_t kCallWords = 12;  // call kind, admin id and call length, ahead of the strings
constexpr std::uint8_t kListForm = 1;     // an answer that begins with a number of responses
constexpr std::uint8_t kShortBlock = 'w';
constexpr std::uint8_t kLongBlock = 'z';
constexpr std::uint8_t kEndBlockData = 0x78;
constexpr std::uint8_t kStreamHeader[] = {0xAC, 0xED, 0x00, 0x05};
constexpr int kMalformed = -1;

int stringLength(const char* text) noexcept {
  return static_cast<int>(strlen(text));
}

void prepareCall(AdminCallRecord& record, std::int32_t kind) noexcept {
  free(record.callData);  // of an opening call that was answered like another
  record.header.requestName = ADMIN_REQUEST_NAME;
  record.header.messageType = kCallMessage;
  record.header.headerWord4 = 0;
  record.callKind = kind;
  record.replyRc = 0;
  record.country = ADMIN_CLIENT_COUNTRY;
  record.language = ADMIN_CLIENT_LANGUAGE;
  record.qualifier = kNoQualifier;
  record.beanName = STATS_MBEAN_NAME;
  record.callData = nullptr;
}

void setCallLength(AdminCallRecord& record, int length) noexcept {
  record.callLength = length;
  record.header.dataLength = static_cast<std::uint32_t>(length) + kCallWords;
}

// Empty where a call was answered like an opening call.
std::span<const std::uint8_t> callDataOf(const AdminCallRecord& record) noexcept {
  return {record.callData, record.callData != nullptr ? record.header.dataLength : 0};
}

int storeProtocolVersion(GatewayToken& token, std::span<const std::uint8_t> callData) noexcept {
  ByteReader in(callData);
  in.skip(6);
  const std::int16_t length = in.i16();
  const std::string_view version = in.text(length);
  if (!in.ok()) {
    TRACE_EXC(4007, "stapi_zeb_statcomms.statProtocolVer Malformed answer of %d bytes\n",
              static_cast<int>(callData.size()));
    return kAdminFailed;
  }
  TRACE_DEBUG(4008, "stapi_zeb_statcomms.statProtocolVer Called malloc for %d bytes. rc=%p\n", length + 1,
              token.protocolVersion);
  if (token.protocolVersion == nullptr) {
    TRACE_EXC(4009, "stapi_zeb_statcomms.statProtocolVerFailed to allocate %d bytes.\n", length + 1);
    return ZEB_NO_MEMORY;
  }
  const std::size_t kept = std::min(version.size(), kProtocolVersionSize - 1);
  memcpy(token.protocolVersion, version.data(), kept);
  token.protocolVersion[kept] = '\0';
  return 0;
}

int askProtocolVersion(GatewayToken& token, reasons* reasons) noexcept {
  AdminCallRecord record = {};
  int rc = getInitAdminRequest(token.socket, &record, reasons);
  if (rc != 0) return rc;
  TRACE_DEBUG(4005, "stapi_zeb_statcomms.statProtocolVer Successfully init'd admin request\n");
  prepareCall(record, kGetAttribute);
  record.attributeName = STATS_MBEAN_PROTOCOL_VERSION;
  setCallLength(record, calculateGetAttrCallLength(&record));
  rc = flowAdminRequest(token.socket, &record, reasons);
  if (rc != 0) return rc;
  const Block<std::uint8_t> callData(record.callData);
  TRACE_DEBUG(4006,
              "stapi_zeb_statcomms.statProtocolVer Successfully got the protocol version from the Gateway\n");
  return storeProtocolVersion(token, callDataOf(record));
}

void parseAnswer(const AdminCallRecord& record, char* buffer) noexcept {
  if (strcmp(record.action, STATS_MBEAN_ACTION_GET_STATS) == 0) {
    TRACE_DEBUG(4024, "stapi_zeb_statcomms.statCommsString Successfully called the Gateway for Stats\n");
    parseStats(callDataOf(record), buffer);
  } else {
    TRACE_DEBUG(4025, "stapi_zeb_statcomms.statCommsString Successfully called the Gateway for IDs\n");
    parseIds(callDataOf(record), buffer);
  }
}

int invoke(int socketDesc, const char* operation, const char* argument, char* buffer,
           reasons* reasons) noexcept {
  AdminCallRecord record = {};
  int rc = getInitAdminRequest(socketDesc, &record, reasons);
  if (rc == 0) {
    TRACE_DEBUG(4022, "stapi_zeb_statcomms.statCommsString Successfully init'd the Admin Request\n");
    prepareCall(record, kInvoke);
    record.action = operation;
    record.argument = argument;
    record.signature = STATS_MBEAN_SIG;
    setCallLength(record, calculateCallLength(&record));
    rc = flowAdminRequest(socketDesc, &record, reasons);
  }
  if (rc == 0) {
    TRACE_DATA(4023, "stapi_zeb_statcomms.statCommsString",
               (TracedStorage{record.callData, static_cast<int>(record.header.dataLength), 0,
                              record.header.dataLength}),
               rc);
    parseAnswer(record, buffer);
  }
  if (record.callData != nullptr) {
    TRACE_DEBUG(4026, "stapi_zeb_statcomms.statCommsString Free request callData %p\n", record.callData);
    free(record.callData);
  }
  return rc;
}

// ---- Parsing -------------------------------------------------------------------------------------------------

struct QueryHead {
  std::string_view element;
  std::int32_t rc;
};

std::int32_t readResponseCount(ByteReader& in) noexcept {
  return in.u8() == kListForm ? in.i32() : 1;
}

// The head that both kinds of response begin with: the answer object's class descriptions, stepped over, and
// the head of its block data.
QueryHead readHead(ByteReader& in) noexcept {
  in.skip(6);
  in.text16();
  in.skip(13);
  in.text16();
  in.skip(13);
  in.skip(in.u8() == kShortBlock ? 1 : 4);
  QueryHead head;
  head.element = in.text16();
  head.rc = in.i32();
  return head;
}

void beginResultSet(ResultSetWriter& out, const char* marker, std::int32_t responses) noexcept {
  out.marker(marker);
  out.integer(responses);
}

struct Parser {
  const char* name;
  int outgrowsPoint;
  int malformedPoint;
};
constexpr Parser kIdsParser = {"parseIdsData", 4031, 4032};
constexpr Parser kStatsParser = {"parseStatsData", 4065, 4066};

int endResultSet(const Parser& parser, const ByteReader& in, ResultSetWriter& out) noexcept {
  if (out.isNull()) return kMalformed;
  if (in.ok() && out.ok()) {
    out.finish();
    return 0;
  }
  out.discard();
  if (in.ok()) {
    TRACE_EXC(parser.outgrowsPoint,
              "stapi_zeb_statcomms.%s Answer outgrows the result set buffer, which is left empty\n",
              parser.name);
  } else {
    TRACE_EXC(parser.malformedPoint,
              "stapi_zeb_statcomms.%s Answer is malformed, the result set buffer is left empty\n",
              parser.name);
  }
  return kMalformed;
}

// The two-argument forms do not know how long an answer is: they end where memory does.
std::span<const std::uint8_t> trustedAnswer(const unsigned char* rawData) noexcept {
  const std::size_t toTheEnd = UINTPTR_MAX - reinterpret_cast<std::uintptr_t>(rawData);
  return {rawData, std::min<std::size_t>(toTheEnd, PTRDIFF_MAX)};
}

// A text of that length on the wire. What is not there is not written.
void copyText(ByteReader& in, ResultSetWriter& out, std::int32_t length) noexcept {
  const std::string_view text = in.text(length);
  if (in.ok()) out.counted(text);
}

void copyIds(ByteReader& in, ResultSetWriter& out, int response, bool detailed) noexcept {
  const std::int32_t count = in.i32();
  ZEB_TRACE_IF(detailed, "DEBUG", 4044, "stapi_zeb_statcomms.parseIdsData reading %d IDs for result %d\n",
               count, response);
  out.integer(count);
  for (std::int32_t i = 0; i < count && in.ok() && out.ok(); ++i) copyText(in, out, in.i16());
  in.skipClosing(1);
}

void copyIdsResponse(ByteReader& in, ResultSetWriter& out, int response, bool detailed) noexcept {
  const QueryHead head = readHead(in);
  if (!in.ok()) return;
  out.counted(head.element);
  out.integer(head.rc);
  ZEB_TRACE_IF(detailed, "DEBUG", 4042, "stapi_zeb_statcomms.parseIdsData Query rc=%d or (hex=%8.8X)\n",
               head.rc, static_cast<std::uint32_t>(head.rc));
  if (head.rc >= 0) {
    copyIds(in, out, response, detailed);
    return;
  }
  ZEB_TRACE_IF(detailed, "DEBUG", 4043,
               "stapi_zeb_statcomms.parseIdsData Bad query id element(%d), move on to next one\n", response);
  in.skipClosing(1);
}

// The total counts lengths with their width on the wire; it is only traced, and right only then.
struct StatsParse {
  ByteReader in;
  ResultSetWriter out;
  bool detailed;
  int total;
};

// The blocks of a value that does not fit into the first one.
void copyContinuation(StatsParse& parse, int remaining) noexcept {
  ByteReader& in = parse.in;
  const auto copyPiece = [&](std::int32_t length) {
    if (length > remaining) in.fail();
    remaining -= length;
    parse.out.chars(in.text(length));
    parse.total += length;
    ZEB_TRACE_IF(parse.detailed, "DEBUG", 4061,
                 "stapi_zeb_statcomms.parseStatsData written %d bytes. Remaining data = %d bytes \n", length,
                 remaining);
  };
  std::uint8_t marker = in.peek();
  while (marker == kLongBlock && remaining > 0 && in.ok() && parse.out.ok()) {
    in.skip(3);  // the marker and the high half of the block's length
    copyPiece(in.i16());
    marker = in.peek();
    ZEB_TRACE_IF(parse.detailed, "DEBUG", 4060, "stapi_zeb_statcomms.parseStatsData block type=%2.8X \n",
                 marker);
  }
  // kept: behind the first short block every piece is taken as one, whatever its marker
  while (marker == kShortBlock && remaining > 0 && in.ok() && parse.out.ok()) {
    in.skip(1);
    copyPiece(in.u8());
  }
  if (remaining != 0) in.fail();
}

void copyLongValue(StatsParse& parse, std::int32_t length, int room) noexcept {
  if (room < 0) parse.in.fail();
  if (length <= room) {
    copyText(parse.in, parse.out, length);
    ZEB_TRACE_IF(parse.detailed, "DEBUG", 4058, "stapi_zeb_statcomms.parseStatsData written %d bytes.  \n",
                 length);
    parse.total += length + 2;
    return;
  }
  parse.out.integer(length);
  parse.out.chars(parse.in.text(room));
  ZEB_TRACE_IF(parse.detailed, "DEBUG", 4059,
               "stapi_zeb_statcomms.parseStatsData written %d of %d bytes. Remaining data = %d bytes \n",
               room, length, length - room);
  parse.total += room + 2;
  copyContinuation(parse, length - room);
}

void copyStat(StatsParse& parse) noexcept {
  ByteReader& in = parse.in;
  in.skip(5);
  const std::uint8_t marker = in.u8();
  ZEB_TRACE_IF(parse.detailed, "DEBUG", 4054, "stapi_zeb_statcomms.parseStatsData block type=%2.8X \n",
               marker);
  std::int32_t chunkLength = 0;
  if (marker == kLongBlock) {
    in.skip(2);
    chunkLength = in.i16();
    ZEB_TRACE_IF(parse.detailed, "DEBUG", 4055, "stapi_zeb_statcomms.parseStatsData chunklength=%d \n",
                 chunkLength);
  } else {
    in.skip(1);
  }
  const std::int32_t idLength = in.i16();
  ZEB_TRACE_IF(parse.detailed, "DEBUG", 4056, "stapi_zeb_statcomms.parseStatsData statistic ID length=%d \n",
               idLength);
  copyText(in, parse.out, idLength);
  parse.total += idLength + 2;
  const std::int32_t length = in.i16();
  if (marker == kLongBlock) {
    copyLongValue(parse, length, static_cast<std::int16_t>(chunkLength - idLength - 4));
  } else {
    ZEB_TRACE_IF(parse.detailed, "DEBUG", 4057,
                 "stapi_zeb_statcomms.parseStatsData statistic data length=%d \n", length);
    copyText(in, parse.out, length);
    parse.total += length + 2;
  }
  in.skipClosing(2);
}

// Copies statistics of the common kind, in a short block and with short texts, while one follows the other.
// Returns how many. What is read and written beyond a text stays inside the answer and is written over: behind
// the last of them are kFollowing others, longer than that even without a text.
std::int32_t copyShortStats(StatsParse& parse, std::int32_t count) noexcept {
  constexpr std::int32_t kFollowing = 4;
  constexpr std::size_t kFrame = 13;  // a statistic on the wire without its texts
  static_assert(kFollowing * (2 * sizeof(std::int32_t)) >= kShortText && kFollowing * kFrame >= kShortText);
  constexpr std::size_t kMost = kFrame + 2 * kShortText;
  if (parse.detailed || parse.out.isTraced()) return 0;
  ByteReader in = parse.in;  // copies, which stay in registers
  ResultSetWriter out = parse.out;
  std::int32_t copied = 0;
  while (copied < count - kFollowing && in.left() >= kMost && out.room() >= kMost) {
    const std::uint8_t* const at = in.position();
    const std::size_t idLength = loadLength(at + 7);
    if (at[5] != kShortBlock || idLength > kShortText) break;
    const std::size_t valueLength = loadLength(at + 9 + idLength);
    if (valueLength > kShortText) break;
    out.countedShort(at + 9, idLength);
    out.countedShort(at + 11 + idLength, valueLength);
    in.skip(kFrame + idLength + valueLength);
    ++copied;
  }
  parse.in = in;
  parse.out = out;
  return copied;
}

// The serialiser writes no class description where there is nothing to describe: the object just ends.
bool endsWithoutStats(const ByteReader& in) noexcept {
  const auto rest = in.rest();
  if (rest.empty() || rest[0] != kEndBlockData) return false;
  return rest.size() == 1 ||
         (rest.size() > sizeof kStreamHeader && memcmp(&rest[1], kStreamHeader, sizeof kStreamHeader) == 0);
}

void copyStats(StatsParse& parse, int response) noexcept {
  ByteReader& in = parse.in;
  const std::int32_t count = in.i32();
  ZEB_TRACE_IF(parse.detailed, "DEBUG", 4053,
               "stapi_zeb_statcomms.parseStatsData reading %d stats for result %d\n", count, response);
  parse.out.integer(count);
  parse.total += 4;
  if (count == 0 && endsWithoutStats(in)) {
    in.skip(1);
  } else {
    in.skip(2);
    in.text16();
    in.skipClosing(8);
  }
  for (std::int32_t i = 0; i < count && in.ok() && parse.out.ok(); ++i) {
    i += copyShortStats(parse, count - i);
    copyStat(parse);
  }
  ZEB_TRACE_IF(parse.detailed, "DEBUG", 4062,
               "stapi_zeb_statcomms.parseStatsData running total of parsed data = %d bytes \n", parse.total);
}

void copyStatsResponse(StatsParse& parse, int response) noexcept {
  const QueryHead head = readHead(parse.in);
  if (!parse.in.ok()) return;
  parse.out.counted(head.element);
  parse.out.integer(head.rc);
  parse.total += static_cast<int>(head.element.size()) + 6;
  if (head.rc < 0) {
    parse.in.skipClosing(1);
  } else {
    copyStats(parse, response);
  }
}

}  // namespace

int parseIds(std::span<const std::uint8_t> callData, char* buffer) noexcept {
  TRACE_ENTRY(4040, "stapi_zeb_statcomms.parseIdsData(rawData=%p, buffer=%p)\n", callData.data(), buffer);
  const bool detailed = traceLevel() >= kLevelDetail;
  ByteReader in(callData);
  const std::int32_t responses = readResponseCount(in);
  ZEB_TRACE_IF(detailed, "DEBUG", 4041,
               "stapi_zeb_statcomms.parseIdsData received %d responses from the Gateway\n", responses);
  ResultSetWriter out(buffer);
  beginResultSet(out, kIdsMarker, responses);
  for (int i = 0; i < responses && in.ok() && out.ok(); ++i) copyIdsResponse(in, out, i, detailed);
  const int rc = endResultSet(kIdsParser, in, out);
  TRACE_EXIT(4045, "stapi_zeb_statcomms.parseIdsData(rawData=%p, buffer=%p) rc=%d\n", callData.data(), buffer,
             rc);
  return rc;
}

int parseStats(std::span<const std::uint8_t> callData, char* buffer) noexcept {
  TRACE_ENTRY(4050, "stapi_zeb_statcomms.parseStatsData(rawData=%p, buffer=%p)\n", callData.data(), buffer);
  const bool detailed = traceLevel() >= kLevelDetail;
  ByteReader in(callData);
  const std::int32_t responses = readResponseCount(in);
  ZEB_TRACE_IF(detailed, "DEBUG", 4051,
               "stapi_zeb_statcomms.parseStatsData received %d responses from the Gateway\n", responses);
  StatsParse parse = {in, ResultSetWriter(buffer), detailed, 12};
  beginResultSet(parse.out, kStatsMarker, responses);
  for (int i = 0; i < responses && parse.in.ok() && parse.out.ok(); ++i) copyStatsResponse(parse, i);
  const int rc = endResultSet(kStatsParser, parse.in, parse.out);
  ZEB_TRACE_IF(parse.detailed, "DEBUG", 4063,
               "stapi_zeb_statcomms.parseStatsData parsed data total = %d bytes \n", parse.total);
  TRACE_EXIT(4064, "stapi_zeb_statcomms.parseStatsData(rawData=%p, buffer=%p) rc=%d\n", callData.data(),
             buffer, rc);
  return rc;
}

}  // namespace zeb

using namespace zeb;

int calculateGetAttrCallLength(const AdminCallRecord* record) noexcept {
  TRACE_ENTRY(4000, "stapi_zeb_statcomms.calculateGetAttrCallLength\n");
  int size = 0;
  for (const char* text :
       {record->country, record->language, record->qualifier, record->beanName, record->attributeName})
    size += stringLength(text) + 2;
  TRACE_EXIT(4001, "stapi_zeb_statcomms.calculateGetAttrCallLengthsize=%d\n", size);
  return size;
}

int calculateCallLength(const AdminCallRecord* record) noexcept {
  TRACE_ENTRY(4002, "stapi_zeb_statcomms.calculateCallLength\n");
  int size = stringLength(record->signature) + 6;  // its count and its length
  for (const char* text :
       {record->action, record->beanName, record->qualifier, record->language, record->country})
    size += stringLength(text) + 2;
  size += stringLength(record->argument) + 11;  // its count, OBJ_ARRAY_HEADER and its length
  TRACE_EXIT(4003, "stapi_zeb_statcomms.calculateCallLengthsize=%d\n", size);
  return size;
}

int getInitAdminRequest(int socketDesc, AdminCallRecord* record, reasons* reasons) noexcept {
  TRACE_ENTRY(4015, "stapi_zeb_statcomms.getInitAdminRequest(socketDesc=%d, admin=%p, reasons=%p)\n",
              socketDesc, record, reasons);
  record->header = makeHeader(ADMIN_REQUEST_NAME, kCallMessage, 4);
  record->callKind = kOpeningCall;
  record->callData = nullptr;
  const int rc = flowAdminRequest(socketDesc, record, reasons);
  TRACE_EXIT(4016, "stapi_zeb_statcomms.getInitAdminRequest(socketDesc=%d, admin=%p, reasons=%p) rc=%d\n",
             socketDesc, record, reasons, rc);
  return rc;
}

int statProtocolVer(GatewayToken* gwTokPtr, reasons* reasons) noexcept {
  TRACE_ENTRY(4004, "stapi_zeb_statcomms.statProtocolVer(gwTokPtr=%p)\n", gwTokPtr);
  const int rc = askProtocolVersion(*gwTokPtr, reasons);
  TRACE_EXIT(4010, "stapi_zeb_statcomms.statProtocolVer(gwTokPtr=%p) rc=%d\n", gwTokPtr, rc);
  return rc;
}

int statCommsString(int socketDesc, const char* queryType, const char* queryString, char* buffer,
                    reasons* reasons) noexcept {
  char shownType[25] = {};
  strncpy(shownType, queryType, sizeof shownType - 1);
  TRACE_ENTRY(4020,
              "stapi_zeb_statcomms.statCommsString(socketDesc=%d, queryType=%s, queryString=%p, buffer=%p, "
              "reasons=%p)\n",
              socketDesc, shownType, queryString, buffer, reasons);
  const int rc = invoke(socketDesc, queryType, queryString, buffer, reasons);
  TRACE_EXIT(4027,
             "stapi_zeb_statcomms.statCommsString(socketDesc=%d, queryType=%s, queryString=%p, buffer=%p, "
             "reasons=%p) rc=%d\n",
             socketDesc, shownType, queryString, buffer, reasons, rc);
  return rc;
}

int statComms(int socketDesc, const char* queryType, char* buffer, reasons* reasons) noexcept {
  TRACE_ENTRY(4028, "stapi_zeb_statcomms.statComms(socketDesc=%d, queryType=%s, buffer=%p, reasons=%p)\n",
              socketDesc, queryType, buffer, reasons);
  const int rc = statCommsString(socketDesc, queryType, "", buffer, reasons);
  TRACE_EXIT(4029,
             "stapi_zeb_statcomms.statComms(socketDesc=%d, queryType=%s, buffer=%p, reasons=%p) rc=%d\n",
             socketDesc, queryType, buffer, reasons, rc);
  return rc;
}

int parseIdsData(const unsigned char* rawData, char* buffer) noexcept {
  return parseIds(trustedAnswer(rawData), buffer);
}

int parseStatsData(const unsigned char* rawData, char* buffer) noexcept {
  return parseStats(trustedAnswer(rawData), buffer);
}
