#include "gateway_wire.h"

namespace zebsim {
namespace {

constexpr std::string_view kEyecatcher = "Gate";
constexpr std::uint32_t kHeaderWord1 = 0x00700000;
constexpr std::size_t kFixedHeaderSize = 29;  // the header without its name
constexpr std::size_t kNameOffset = 24;
constexpr std::string_view kSignature = "java.lang.String";

// The start of a string object: the stream header and TC_STRING.
constexpr std::string_view kStringObject("\xAC\xED\x00\x05\x74", 5);

// The longest request has an argument of 65,535 bytes and a few short texts around it.
constexpr std::uint32_t kMaxData = 0x10000 + 1024;

std::size_t readNameLength(std::string_view in) {
  ByteReader fixed(in.substr(0, kNameOffset));
  fixed.take(kEyecatcher.size());
  require(fixed.u32() == kHeaderWord1, "header word 1 is not 0x00700000");
  fixed.take(12);
  std::uint32_t length = fixed.u32();
  require(length >= kBaseName.size() && length <= kAdminName.size(),
          "no request has a name of that length");
  return length;
}

Header readHeader(std::string_view in) {
  ByteReader reader(in);
  Header header;
  reader.take(8);  // the eyecatcher and header word 1, which have been checked
  header.type = reader.u32();
  header.tag = reader.u32();
  header.tagOrRc = reader.u32();
  header.name = reader.take(reader.u32());
  header.flag = reader.u8();
  header.dataLength = reader.u32();
  require(header.dataLength <= kMaxData, "the data length is beyond any request");
  return header;
}

}  // namespace

Bytes encodeHeader(const Header& header) {
  Bytes out(kEyecatcher);
  for (std::uint32_t word : {kHeaderWord1, header.type, header.tag, header.tagOrRc})
    appendU32(out, word);
  appendU32(out, static_cast<std::uint32_t>(header.name.size()));
  out += header.name;
  appendU8(out, header.flag);
  appendU32(out, header.dataLength);
  return out;
}

bool takeRequest(Bytes& in, Request& request) {
  std::string_view start = std::string_view(in).substr(0, kEyecatcher.size());
  require(start == kEyecatcher.substr(0, start.size()),
          "no eyecatcher \"Gate\" at the start of a request");
  if (in.size() < kNameOffset) return false;
  std::size_t headerSize = kFixedHeaderSize + readNameLength(in);
  if (in.size() < headerSize) return false;
  request.header = readHeader(in);
  if (in.size() - headerSize < request.header.dataLength) return false;
  request.data = in.substr(headerSize, request.header.dataLength);
  in.erase(0, headerSize + request.header.dataLength);
  return true;
}

bool isQuery(const Request& request) {
  return request.header.name == kAdminName && request.data.starts_with(words({kInvoke}));
}

AdminCall readAdminCall(std::string_view data) {
  ByteReader reader(data);
  AdminCall call;
  call.kind = reader.u32();
  if (call.kind != kOpening) {
    require(call.kind == kGetAttribute || call.kind == kInvoke, "unknown call kind");
    call.adminId = reader.u32();
    std::uint32_t callLength = reader.u32();
    require(callLength == reader.left(), "the call length is not the length of the call");
    // Country, language and qualifier may have any value.
    for (int text = 0; text < 3; ++text) reader.text16();
    require(reader.text16() == kStatsBean, "the call is not for the statistics bean");
    call.target = reader.text16();
  }
  if (call.kind == kInvoke) {
    require(reader.u32() == 1, "the operation has not exactly one argument");
    require(reader.take(kStringObject.size()) == kStringObject, "the argument is no string object");
    call.argument = reader.text16();
    require(reader.u32() == 1, "the operation has not exactly one signature");
    require(reader.text16() == kSignature, "the signature is not java.lang.String");
  }
  require(reader.left() == 0, "bytes are left after the call");
  return call;
}

Bytes words(std::initializer_list<std::uint32_t> values) {
  Bytes out;
  for (std::uint32_t value : values) appendU32(out, value);
  return out;
}

Bytes replyHeader(std::string_view name, std::uint32_t gatewayRc, std::size_t dataLength) {
  Header header;
  header.tagOrRc = gatewayRc;
  header.name = name;
  header.dataLength = static_cast<std::uint32_t>(dataLength);
  return encodeHeader(header);
}

Bytes reply(std::string_view name, std::string_view data, std::uint32_t gatewayRc) {
  return replyHeader(name, gatewayRc, data.size()).append(data);
}

Bytes authFirstData(std::uint32_t word1, std::uint32_t word2, std::uint32_t word3) {
  return words({0, 0, word1, word2, word3});
}

Bytes authSecondData() {
  return words({1, 0, 0, 0});
}

Bytes openingData(std::uint32_t adminId) {
  return words({kOpening, 0, adminId});
}

Bytes callData(std::uint32_t kind, std::string_view answer) {
  return words({kind, 0}).append(1, '\0').append(answer);
}

Bytes callFailedData(std::uint32_t kind, std::uint32_t replyRc) {
  return words({kind, replyRc}).append(1, '\0');
}

Bytes callExceptionData(std::uint32_t kind) {
  return words({kind, 0}).append(1, '\1');
}

}  // namespace zebsim
