// Calls of the gateway's statistics bean, and the parsing of its answers into result set buffers.
//
// Every call takes two requests, made with one record: the opening call, whose reply gives an admin
// id, and the attribute or invoke call, which sends the id back. One thread works on a connection
// at a time.
//
// The answers are Java Object Serialization streams. Their objects are not decoded: the parsers
// step over them by their fixed layout, and look only at the tags of that protocol that decide what
// follows: TC_BLOCKDATA ('w', before a length of 1 byte), TC_BLOCKDATALONG ('z', before a length of
// 4 bytes), TC_ENDBLOCKDATA, TC_OBJECT and the header of a stream.
//
// Programs parse the texts of the trace points, so they stay as they are, missing blanks included.

#include "stapi_zeb_statcomms.h"

#include <errno.h>
#include <stdlib.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "stapi_zeb_blocks.h"
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

constexpr std::uint32_t kOpeningLength = 4;  // the data of an opening call: its call kind
constexpr std::uint32_t kCallWords = 12;  // call kind, admin id and call length, before the strings
constexpr int kLengthSize = 2;            // of the length before a string
constexpr int kCountSize = 4;             // of the number of arguments, and that of signatures

constexpr std::size_t kVersionOffset = 6;  // of the protocol version, with its length, in call data
constexpr std::uint8_t kListForm = 1;      // an answer that begins with a number of responses
constexpr std::uint8_t kObject = 0x73;     // TC_OBJECT
constexpr std::uint8_t kEndBlockData = 0x78;  // TC_ENDBLOCKDATA
constexpr std::uint8_t kStreamHeader[] = {0xAC, 0xED, 0x00, 0x05};
constexpr std::size_t kObjectHead = 6;  // stream header (4), TC_OBJECT, TC_CLASSDESC
// After the name of a class: its version (8), flags (1), number of fields (2), TC_ENDBLOCKDATA, and
// a tag: the TC_CLASSDESC of its superclass, or TC_NULL.
constexpr std::size_t kClassVersion = 8;
constexpr std::size_t kClassRest = 5;
constexpr std::size_t kClassTail = kClassVersion + kClassRest;

// A statistic begins kClassRest bytes before its block. For the first one these are the rest of its
// class description; for a later one, TC_REFERENCE and the handle (4) of that class. The block
// holds the length of the id, the id, the length of the value, and the value. Offsets from the
// beginning:
constexpr std::size_t kStatMarker = kClassRest;         // tag of the block
constexpr std::size_t kStatIdLength = kStatMarker + 2;  // after tag and length of a short block
constexpr std::size_t kStatId = kStatIdLength + kLengthSize;
constexpr std::size_t kStatEnd = 2;  // TC_ENDBLOCKDATA, and the TC_OBJECT of the next statistic
// A statistic in a short block without the bytes of its id and value.
constexpr std::size_t kStatFrame = kStatId + kLengthSize + kStatEnd;
// With a longer id, the length of the value does not lie in the first full block as a whole.
constexpr std::int32_t kLongestUncutId = kFullBlock - kLengthSize - kLengthSize;

// The total of parsed bytes that the trace shows counts a length as the kLengthSize bytes it has in
// the answer, not as the 4 it takes in the buffer.
constexpr int kMarkerAndCount = 12;  // content marker (8), number of responses (4)
constexpr int kElementAndCode = kLengthSize + 4;
constexpr int kEntryCountSize = 4;

constexpr int kMalformed = -1;

int stringLength(const char* text) noexcept {
  return static_cast<int>(strlen(text));
}

// Turns the record of an opening call into an attribute or invoke call. The other fields of the
// header go out as the reply to the opening call has left them.
void prepareCall(AdminCallRecord& record, std::int32_t kind) noexcept {
  free(record.callData);  // not null if the gateway answered the opening call as if to another call
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

// Returns the call data of the answer: none if the gateway answered as if to an opening call.
std::span<const std::uint8_t> callDataOf(const AdminCallRecord& record) noexcept {
  return {record.callData, record.callData != nullptr ? record.header.dataLength : 0};
}

int storeProtocolVersion(GatewayToken& token, std::span<const std::uint8_t> callData) noexcept {
  ByteReader in(callData);
  in.skip(kVersionOffset);
  const std::int16_t length = in.i16();
  const std::string_view version = in.text(length);
  if (!in.ok()) {
    TRACE_EXC(4007, "stapi_zeb_statcomms.statProtocolVer Malformed answer of %d bytes\n",
              static_cast<int>(callData.size()));
    return kAdminFailed;
  }
  // quirk: the lines speak of an allocation, but the buffer came with the token
  TRACE_DEBUG(4008, "stapi_zeb_statcomms.statProtocolVer Called malloc for %d bytes. rc=%p\n",
              length + 1, token.protocolVersion);
  if (token.protocolVersion == nullptr) {
    TRACE_EXC(4009, "stapi_zeb_statcomms.statProtocolVerFailed to allocate %d bytes.\n",
              length + 1);
    return ZEB_NO_MEMORY;
  }
  const std::size_t kept = std::min(version.size(), kProtocolVersionSize - 1);
  memcpy(token.protocolVersion, version.data(), kept);
  token.protocolVersion[kept] = '\0';
  return 0;
}

int askProtocolVersion(GatewayToken& token, reasons* failure) noexcept {
  AdminCallRecord record = {};
  int rc = getInitAdminRequest(token.socket, &record, failure);
  if (rc != 0) return rc;
  TRACE_DEBUG(4005, "stapi_zeb_statcomms.statProtocolVer Successfully init'd admin request\n");
  prepareCall(record, kGetAttribute);
  record.attributeName = STATS_MBEAN_PROTOCOL_VERSION;
  setCallLength(record, calculateGetAttrCallLength(&record));
  rc = flowAdminRequest(token.socket, &record, failure);
  if (rc != 0) return rc;
  const Block<std::uint8_t> callData(record.callData);
  TRACE_DEBUG(
      4006,
      "stapi_zeb_statcomms.statProtocolVer Successfully got the protocol version from the Gateway\n");
  return storeProtocolVersion(token, callDataOf(record));
}

void parseAnswer(const AdminCallRecord& record, char* buffer) noexcept {
  if (strcmp(record.action, STATS_MBEAN_ACTION_GET_STATS) == 0) {
    TRACE_DEBUG(4024,
                "stapi_zeb_statcomms.statCommsString Successfully called the Gateway for Stats\n");
    parseStats(callDataOf(record), buffer);
  } else {
    TRACE_DEBUG(4025,
                "stapi_zeb_statcomms.statCommsString Successfully called the Gateway for IDs\n");
    parseIds(callDataOf(record), buffer);
  }
}

// Returns rc, or kFlowFailed if rc is 0 and the reply is not of the kind that the request wants.
// Such a reply is a second copy of that to an earlier request, and came too late for checkInStep to
// see.
int checkReplyKind(int rc, bool isOfWantedKind, reasons& failure) noexcept {
  if (rc != 0 || isOfWantedKind) return rc;
  failure.sockErrno = EPROTO;
  TRACE_EXC(4021, "stapi_zeb_statcomms.statCommsString Reply is that to another request\n");
  return kFlowFailed;
}

int invoke(int socketDesc, const char* operation, const char* argument, char* buffer,
           reasons* failure) noexcept {
  AdminCallRecord record = {};
  int rc = getInitAdminRequest(socketDesc, &record, failure);
  rc = checkReplyKind(rc, record.callKind == kOpeningCall, *failure);
  if (rc == 0) {
    TRACE_DEBUG(4022,
                "stapi_zeb_statcomms.statCommsString Successfully init'd the Admin Request\n");
    prepareCall(record, kInvoke);
    record.action = operation;
    record.argument = argument;
    record.signature = STATS_MBEAN_SIG;
    setCallLength(record, calculateCallLength(&record));
    rc = flowAdminRequest(socketDesc, &record, failure);
    rc = checkReplyKind(rc, record.callKind != kOpeningCall, *failure);
  }
  if (rc == 0) {
    TRACE_DATA(4023, "stapi_zeb_statcomms.statCommsString",
               (TracedStorage{.address = record.callData,
                              .length = static_cast<int>(record.header.dataLength),
                              .stopWord = 0,
                              .size = record.header.dataLength}),
               rc);
    parseAnswer(record, buffer);
  }
  if (record.callData != nullptr) {
    TRACE_DEBUG(4026, "stapi_zeb_statcomms.statCommsString Free request callData %p\n",
                record.callData);
    free(record.callData);
  }
  return rc;
}

// ---- Parsing ------------------------------------------------------------------------------------

struct AnswerParse {
  ByteReader in;
  ResultSetWriter out;
  int total;  // parsed bytes of statistics, for the trace; copyShortStats does not count them
  int headsLeft = kMaxHeads;
};

// What the block data of a response begin with. Text is what text16() of the reader returns.
template <typename Text>
struct QueryHead {
  Text element;
  std::int32_t rc;
};

std::int32_t readResponseCount(ByteReader& in) noexcept {
  return in.u8() == kListForm ? in.i32() : 1;
}

// Steps over the class descriptions that a response of either kind begins with, and over tag and
// length of its first block. Returns true if that is a long block of kFullBlock bytes, at which the
// serialiser cuts block data into several blocks.
bool skipToBlockData(ByteReader& in) noexcept {
  in.skip(kObjectHead);
  in.text16();  // class name
  in.skip(kClassTail);
  in.text16();  // name of the superclass
  in.skip(kClassTail);
  const std::uint8_t marker = in.u8();
  if (marker == kShortBlock) {
    in.skip(1);  // the block's length
    return false;
  }
  const std::int32_t size = in.i32();
  return marker == kLongBlock && size == static_cast<std::int32_t>(kFullBlock);
}

// Handles block data that the serialiser has cut: calls copy(BlockReader&), then steps over all
// their blocks. parse.in is after the head of a full block. Returns false, without having called
// copy, unless further blocks follow as the serialiser writes them. It is not inlined because that
// would make the usual case, a single block, slower.
template <typename Copy>
[[gnu::noinline]] bool copyCutBlockData(AnswerParse& parse, Copy& copy) noexcept {
  BlockReader blocks(parse.in.rest(), parse.headsLeft);
  if (parse.headsLeft <= 0) parse.in.fail();  // too many heads: see kMaxHeads
  if (blocks.next() != kEndBlockData && blocks.next() != kObject) return false;
  copy(blocks);
  parse.in.skip(blocks.wireSize());
  if (!blocks.ok()) parse.in.fail();
  return true;
}

// Steps over the descriptions at the start of a response and calls copy with a reader of its block
// data: a BlockReader if they are cut, otherwise parse.in. The length of an uncut block is ignored,
// and bounds nothing: some gateways write all ids as one long block.
template <typename Copy>
void copyBlockData(AnswerParse& parse, Copy copy) noexcept {
  if (skipToBlockData(parse.in) && copyCutBlockData(parse, copy)) return;
  copy(parse.in);
}

// Braces evaluate in order: the element is read first.
template <typename Reader>
auto readHead(Reader& data) noexcept {
  using Text = decltype(data.text16());
  return QueryHead<Text>{.element = data.text16(), .rc = data.i32()};
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
constexpr Parser kIdsParser = {
    .name = "parseIdsData", .outgrowsPoint = 4031, .malformedPoint = 4032};
constexpr Parser kStatsParser = {
    .name = "parseStatsData", .outgrowsPoint = 4065, .malformedPoint = 4066};

// Makes the buffer readable if all went well, otherwise empty. Returns 0 or kMalformed.
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

// What the exported parsers read: everything from rawData on, as they are not told where it ends.
std::span<const std::uint8_t> trustedAnswer(const unsigned char* rawData) noexcept {
  const std::size_t toTheEnd = UINTPTR_MAX - reinterpret_cast<std::uintptr_t>(rawData);
  return {rawData, std::min<std::size_t>(toTheEnd, PTRDIFF_MAX)};
}

// Each copies a text of that length, with its length, if all of it is there; otherwise in fails.
void copyText(ByteReader& in, ResultSetWriter& out, std::int32_t length) noexcept {
  const std::string_view text = in.text(length);
  if (in.ok()) out.counted(text);
}
void copyText(BlockReader& in, ResultSetWriter& out, std::int32_t length) noexcept {
  if (!in.holds(length)) return;
  out.integer(length);
  auto left = static_cast<std::size_t>(length);
  do {  // once even for an empty text, which is traced
    const std::string_view piece = in.piece(left);
    out.chars(piece);
    left -= piece.size();
  } while (left > 0 && in.ok() && out.ok());
}

void writeText(ResultSetWriter& out, std::string_view text) noexcept {
  out.counted(text);
}
void writeText(ResultSetWriter& out, CutText text) noexcept {
  copyText(text.from, out, text.length);
}

// Copies the ids of a response. response is its index, for the trace.
template <typename Reader>
void copyIds(Reader& data, AnswerParse& parse, int response) noexcept {
  const std::int32_t count = data.i32();
  TRACE_DEBUG(4044, "stapi_zeb_statcomms.parseIdsData reading %d IDs for result %d\n", count,
              response);
  Reader in = data;  // local copies, which the compiler can keep in registers
  ResultSetWriter out = parse.out;
  out.integer(count);
  for (std::int32_t i = 0; i < count && in.ok() && out.ok(); ++i) copyText(in, out, in.i16());
  data = in;
  parse.out = out;
}

template <typename Reader>
void copyIdsData(Reader& data, AnswerParse& parse, int response) noexcept {
  const auto head = readHead(data);
  if (!data.ok()) return;
  writeText(parse.out, head.element);
  parse.out.integer(head.rc);
  TRACE_DEBUG(4042, "stapi_zeb_statcomms.parseIdsData Query rc=%d or (hex=%8.8X)\n", head.rc,
              static_cast<std::uint32_t>(head.rc));
  if (head.rc >= 0) {
    copyIds(data, parse, response);
    return;
  }
  TRACE_DEBUG(4043,
              "stapi_zeb_statcomms.parseIdsData Bad query id element(%d), move on to next one\n",
              response);
}

void copyIdsResponse(AnswerParse& parse, int response) noexcept {
  copyBlockData(parse, [&](auto& data) { copyIdsData(data, parse, response); });
  parse.in.skipClosing(1);  // TC_ENDBLOCKDATA
}

// Copies the last `remaining` bytes of a value, which further blocks hold; in is after the first
// block. Fails unless the blocks add up to that.
void copyContinuation(AnswerParse& parse, int remaining) noexcept {
  ByteReader& in = parse.in;
  const auto copyPiece = [&](std::int32_t length) {
    if (length > remaining) in.fail();
    remaining -= length;
    parse.out.chars(in.text(length));
    parse.total += length;
    TRACE_DEBUG(4061,
                "stapi_zeb_statcomms.parseStatsData written %d bytes. Remaining data = %d bytes \n",
                length, remaining);
  };
  std::uint8_t marker = in.peek();
  while (marker == kLongBlock && remaining > 0 && in.ok() && parse.out.ok()) {
    in.skip(3);  // the tag and the high half of the length, which is ignored
    copyPiece(in.i16());
    marker = in.peek();
    TRACE_DEBUG(4060, "stapi_zeb_statcomms.parseStatsData block type=%2.8X \n", marker);
  }
  // quirk: the tag is not read again here, so after a short block each block is taken as short
  while (marker == kShortBlock && remaining > 0 && in.ok() && parse.out.ok()) {
    in.skip(1);  // TC_BLOCKDATA
    copyPiece(in.u8());
  }
  // If the writer has failed, the answer is too long, not malformed.
  if (remaining != 0 && parse.out.ok()) in.fail();
}

void showWholeValue(std::int32_t length) noexcept {
  TRACE_DEBUG(4058, "stapi_zeb_statcomms.parseStatsData written %d bytes.  \n", length);
}

// Copies the value of a statistic in a long block; room is what the block has left for it. If that
// is less than length, the rest of the value is in further blocks.
void copyLongValue(AnswerParse& parse, std::int32_t length, int room) noexcept {
  if (room < 0) parse.in.fail();
  if (length <= room) {
    copyText(parse.in, parse.out, length);
    showWholeValue(length);
    parse.total += length + kLengthSize;
    return;
  }
  parse.out.integer(length);
  parse.out.chars(parse.in.text(room));
  TRACE_DEBUG(
      4059,
      "stapi_zeb_statcomms.parseStatsData written %d of %d bytes. Remaining data = %d bytes \n",
      room, length, length - room);
  parse.total += room + kLengthSize;
  copyContinuation(parse, length - room);
}

// Copies a statistic whose id, or whose value's length, the serialiser has cut. stat begins with
// the length of the id, after the head of a full block. Returns false, having changed nothing
// but headsLeft, if the blocks are not as the serialiser writes them.
bool copyCutStat(AnswerParse& parse, std::span<const std::uint8_t> stat) noexcept {
  BlockReader blocks(stat, parse.headsLeft);
  if (blocks.next() != kEndBlockData) return false;
  const std::int32_t idLength = blocks.i16();
  copyText(blocks, parse.out, idLength);
  if (!parse.out.ok()) return true;  // the id was copied only in part
  const std::int32_t length = blocks.i16();
  copyText(blocks, parse.out, length);
  showWholeValue(length);
  parse.total += idLength + kLengthSize + length + kLengthSize;
  parse.in = ByteReader(stat.subspan(blocks.wireSize()));
  if (!blocks.ok()) parse.in.fail();
  return true;
}

// Copies one statistic of any kind. It is not inlined because it seldom runs, and its code would
// stand between that of the fast path.
[[gnu::noinline]] void copyStat(AnswerParse& parse) noexcept {
  ByteReader& in = parse.in;
  in.skip(kClassRest);
  const std::uint8_t marker = in.u8();
  TRACE_DEBUG(4054, "stapi_zeb_statcomms.parseStatsData block type=%2.8X \n", marker);
  std::int32_t chunkLength = 0;
  if (marker == kLongBlock) {
    in.skip(2);  // the high half of the block's length, which is ignored
    chunkLength = in.i16();
    TRACE_DEBUG(4055, "stapi_zeb_statcomms.parseStatsData chunklength=%d \n", chunkLength);
  } else {
    in.skip(1);  // the block's length
  }
  const std::span<const std::uint8_t> stat = in.rest();
  const std::int32_t idLength = in.i16();
  TRACE_DEBUG(4056, "stapi_zeb_statcomms.parseStatsData statistic ID length=%d \n", idLength);
  if (chunkLength == kFullBlock && idLength > kLongestUncutId && copyCutStat(parse, stat)) {
    in.skipClosing(kStatEnd);
    return;
  }
  copyText(in, parse.out, idLength);
  parse.total += idLength + kLengthSize;
  const std::int32_t length = in.i16();
  if (marker == kLongBlock) {
    const int room = chunkLength - idLength - 2 * kLengthSize;
    copyLongValue(parse, length, static_cast<std::int16_t>(room));  // quirk: cut to 16 bits
  } else {
    TRACE_DEBUG(4057, "stapi_zeb_statcomms.parseStatsData statistic data length=%d \n", length);
    copyText(in, parse.out, length);
    parse.total += length + kLengthSize;
  }
  in.skipClosing(kStatEnd);
}

// Fast path for up to count consecutive statistics in short blocks: few tests of what is left of
// the answer, one of the buffer, and cursors that stay in registers take a third of copyStat's
// time. Stops before a statistic in another kind of block or one that does not fit, which copyStat
// then handles; does nothing at trace levels of 3 and more. Returns the number of copied
// statistics.
std::int32_t copyShortStats(AnswerParse& parse, std::int32_t count) noexcept {
  if (traceLevel() >= kLevelFunction) return 0;
  ByteReader in = parse.in;
  ResultSetWriter out = parse.out;
  std::int32_t copied = 0;
  for (; copied < count && in.left() >= kStatFrame; ++copied) {
    const std::uint8_t* const at = in.position();
    const std::size_t idLength = loadLength(at + kStatIdLength);
    if (at[kStatMarker] != kShortBlock || in.left() < kStatFrame + idLength) break;
    const std::size_t valueLength = loadLength(at + kStatId + idLength);
    const std::size_t size = kStatFrame + idLength + valueLength;
    // A length over INT16_MAX is negative on the wire: copyStat refuses it. In the buffer the
    // statistic is shorter than size.
    if (idLength > INT16_MAX || valueLength > INT16_MAX || in.left() < size || out.room() < size)
      break;
    out.countedUnchecked(at + kStatId, idLength);
    out.countedUnchecked(at + kStatId + idLength + kLengthSize, valueLength);
    in.skip(size);
  }
  parse.in = in;
  parse.out = out;
  return copied;
}

// Whether a response has no class description, as some gateways write it if there are no
// statistics: then TC_ENDBLOCKDATA is followed by nothing or by the stream of the next response.
bool endsWithoutStats(const ByteReader& in) noexcept {
  const auto rest = in.rest();
  if (rest.empty() || rest[0] != kEndBlockData) return false;
  return rest.size() == 1 || (rest.size() > sizeof kStreamHeader &&
                              memcmp(&rest[1], kStreamHeader, sizeof kStreamHeader) == 0);
}

// Copies the query header from the block data of a response. Returns the number of statistics that
// follow them; or nothing if the response's code is negative, or the data are malformed.
template <typename Reader>
std::optional<std::int32_t> copyStatsData(Reader& data, AnswerParse& parse, int response) noexcept {
  const auto head = readHead(data);
  if (!data.ok()) return std::nullopt;
  writeText(parse.out, head.element);
  parse.out.integer(head.rc);
  parse.total += static_cast<int>(head.element.size()) + kElementAndCode;
  if (head.rc < 0) return std::nullopt;
  const std::int32_t count = data.i32();
  TRACE_DEBUG(4053, "stapi_zeb_statcomms.parseStatsData reading %d stats for result %d\n", count,
              response);
  parse.out.integer(count);
  parse.total += kEntryCountSize;
  return count;
}

void copyStats(AnswerParse& parse, std::int32_t count) noexcept {
  ByteReader& in = parse.in;
  if (count == 0 && endsWithoutStats(in)) {
    in.skip(1);  // TC_ENDBLOCKDATA
  } else {
    in.skip(2);                     // TC_OBJECT, TC_CLASSDESC
    in.text16();                    // class name of a statistic
    in.skipClosing(kClassVersion);  // with a count of 0 the answer may end here
  }
  std::int32_t left = count;
  while (left > 0 && in.ok() && parse.out.ok()) {
    left -= copyShortStats(parse, left);
    if (left == 0) break;
    copyStat(parse);
    --left;
  }
  TRACE_DEBUG(4062, "stapi_zeb_statcomms.parseStatsData running total of parsed data = %d bytes \n",
              parse.total);
}

void copyStatsResponse(AnswerParse& parse, int response) noexcept {
  std::optional<std::int32_t> count;
  copyBlockData(parse, [&](auto& data) { count = copyStatsData(data, parse, response); });
  if (count.has_value()) {
    copyStats(parse, *count);
  } else {
    parse.in.skipClosing(1);  // TC_ENDBLOCKDATA
  }
}

}  // namespace

int parseIds(std::span<const std::uint8_t> callData, char* buffer) noexcept {
  TRACE_ENTRY(4040, "stapi_zeb_statcomms.parseIdsData(rawData=%p, buffer=%p)\n", callData.data(),
              buffer);
  ByteReader in(callData);
  const std::int32_t responses = readResponseCount(in);
  TRACE_DEBUG(4041, "stapi_zeb_statcomms.parseIdsData received %d responses from the Gateway\n",
              responses);
  AnswerParse parse = {.in = in, .out = ResultSetWriter(buffer), .total = 0};
  beginResultSet(parse.out, kIdsMarker, responses);
  for (int i = 0; i < responses && parse.in.ok() && parse.out.ok(); ++i) copyIdsResponse(parse, i);
  const int rc = endResultSet(kIdsParser, parse.in, parse.out);
  TRACE_EXIT(4045, "stapi_zeb_statcomms.parseIdsData(rawData=%p, buffer=%p) rc=%d\n",
             callData.data(), buffer, rc);
  return rc;
}

int parseStats(std::span<const std::uint8_t> callData, char* buffer) noexcept {
  TRACE_ENTRY(4050, "stapi_zeb_statcomms.parseStatsData(rawData=%p, buffer=%p)\n", callData.data(),
              buffer);
  ByteReader in(callData);
  const std::int32_t responses = readResponseCount(in);
  TRACE_DEBUG(4051, "stapi_zeb_statcomms.parseStatsData received %d responses from the Gateway\n",
              responses);
  AnswerParse parse = {.in = in, .out = ResultSetWriter(buffer), .total = kMarkerAndCount};
  beginResultSet(parse.out, kStatsMarker, responses);
  for (int i = 0; i < responses && parse.in.ok() && parse.out.ok(); ++i)
    copyStatsResponse(parse, i);
  const int rc = endResultSet(kStatsParser, parse.in, parse.out);
  TRACE_DEBUG(4063, "stapi_zeb_statcomms.parseStatsData parsed data total = %d bytes \n",
              parse.total);
  TRACE_EXIT(4064, "stapi_zeb_statcomms.parseStatsData(rawData=%p, buffer=%p) rc=%d\n",
             callData.data(), buffer, rc);
  return rc;
}

}  // namespace zeb

using namespace zeb;

int calculateGetAttrCallLength(const AdminCallRecord* record) noexcept {
  TRACE_ENTRY(4000, "stapi_zeb_statcomms.calculateGetAttrCallLength\n");
  int size = 0;
  for (const char* text : {record->country, record->language, record->qualifier, record->beanName,
                           record->attributeName})
    size += kLengthSize + stringLength(text);
  TRACE_EXIT(4001, "stapi_zeb_statcomms.calculateGetAttrCallLengthsize=%d\n", size);
  return size;
}

int calculateCallLength(const AdminCallRecord* record) noexcept {
  TRACE_ENTRY(4002, "stapi_zeb_statcomms.calculateCallLength\n");
  constexpr int kArgumentHead = sizeof OBJ_ARRAY_HEADER;
  int size = kCountSize + kLengthSize + stringLength(record->signature);
  for (const char* text :
       {record->action, record->beanName, record->qualifier, record->language, record->country})
    size += kLengthSize + stringLength(text);
  size += kCountSize + kArgumentHead + kLengthSize + stringLength(record->argument);
  TRACE_EXIT(4003, "stapi_zeb_statcomms.calculateCallLengthsize=%d\n", size);
  return size;
}

int getInitAdminRequest(int socketDesc, AdminCallRecord* record, reasons* failure) noexcept {
  TRACE_ENTRY(4015,
              "stapi_zeb_statcomms.getInitAdminRequest(socketDesc=%d, admin=%p, reasons=%p)\n",
              socketDesc, record, failure);
  record->header = makeHeader(ADMIN_REQUEST_NAME, kCallMessage, kOpeningLength);
  record->callKind = kOpeningCall;
  record->callData = nullptr;
  const int rc = flowAdminRequest(socketDesc, record, failure);
  TRACE_EXIT(4016,
             "stapi_zeb_statcomms.getInitAdminRequest(socketDesc=%d, admin=%p, reasons=%p) rc=%d\n",
             socketDesc, record, failure, rc);
  return rc;
}

int statProtocolVer(GatewayToken* gwTokPtr, reasons* failure) noexcept {
  TRACE_ENTRY(4004, "stapi_zeb_statcomms.statProtocolVer(gwTokPtr=%p)\n", gwTokPtr);
  const int rc = askProtocolVersion(*gwTokPtr, failure);
  TRACE_EXIT(4010, "stapi_zeb_statcomms.statProtocolVer(gwTokPtr=%p) rc=%d\n", gwTokPtr, rc);
  return rc;
}

int statCommsString(int socketDesc, const char* queryType, const char* queryString, char* buffer,
                    reasons* failure) noexcept {
  TRACE_ENTRY(
      4020,
      "stapi_zeb_statcomms.statCommsString(socketDesc=%d, queryType=%s, queryString=%p, buffer=%p, "
      "reasons=%p)\n",
      socketDesc, ShownText(queryType).chars, queryString, buffer, failure);
  const int rc = invoke(socketDesc, queryType, queryString, buffer, failure);
  TRACE_EXIT(
      4027,
      "stapi_zeb_statcomms.statCommsString(socketDesc=%d, queryType=%s, queryString=%p, buffer=%p, "
      "reasons=%p) rc=%d\n",
      socketDesc, ShownText(queryType).chars, queryString, buffer, failure, rc);
  return rc;
}

int statComms(int socketDesc, const char* queryType, char* buffer, reasons* failure) noexcept {
  TRACE_ENTRY(4028,
              "stapi_zeb_statcomms.statComms(socketDesc=%d, queryType=%s, buffer=%p, reasons=%p)\n",
              socketDesc, queryType, buffer, failure);
  const int rc = statCommsString(socketDesc, queryType, "", buffer, failure);
  TRACE_EXIT(
      4029,
      "stapi_zeb_statcomms.statComms(socketDesc=%d, queryType=%s, buffer=%p, reasons=%p) rc=%d\n",
      socketDesc, queryType, buffer, failure, rc);
  return rc;
}

int parseIdsData(const unsigned char* rawData, char* buffer) noexcept {
  return parseIds(trustedAnswer(rawData), buffer);
}

int parseStatsData(const unsigned char* rawData, char* buffer) noexcept {
  return parseStats(trustedAnswer(rawData), buffer);
}
