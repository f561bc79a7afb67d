#include "gateway_session.h"

#include <utility>

namespace zebsim {
namespace {

constexpr std::uint32_t kCloseWord = 0xFFFFFFFF;

// The handshake's language, country and ten zero bytes.
constexpr std::string_view kHandshakeData("\0\2en\0\2GB\0\0\0\0\0\0\0\0\0\0", 18);

}  // namespace

Bytes GatewaySession::answer(const Request& request) {
  const Header& asked = request.header;
  require(asked.tag == 0, "the word at offset 12 of a request is not 0");
  require(asked.flag == 0, "the header flag byte is not 0");
  Bytes data;
  if (asked.name == kBaseName) {
    data = answerBase(request);
  } else if (asked.name == kAuthName) {
    data = answerAuth(request);
  } else {
    require(asked.name == kAdminName, "unknown request name");
    data = answerAdmin(request);
  }
  Header header = asked;
  header.tag = tag_;
  header.tagOrRc = 0;
  header.dataLength = static_cast<std::uint32_t>(data.size());
  return encodeHeader(header) + data;
}

Bytes GatewaySession::answerBase(const Request& request) {
  if (request.header.type == kCloseType) {
    require(request.header.tagOrRc == kCloseWord,
            "the word at offset 16 of a close request is not -1");
    require(request.data.empty(), "a close request has data");
    state_ = State::kClosed;
    return {};
  }
  require(request.header.type == kHandshakeType,
          "a BASE request is neither a handshake nor a close");
  require(request.header.tagOrRc == 0, "the word at offset 16 of a handshake is not 0");
  require(state_ == State::kNew, "a second handshake");
  require(request.data == kHandshakeData, "the handshake's data are not the known 18 bytes");
  state_ = State::kGreeted;
  return {};
}

// Returns three words, different for each client, which the second step must repeat.
Bytes GatewaySession::authFirstAnswer() const {
  return authFirstData(tag_ ^ 0x5EED0001, tag_ * 0x9E3779B9, ~tag_);
}

Bytes GatewaySession::answerAuth(const Request& request) {
  require(request.header.type == kCallType, "an authorisation is not of message type 1");
  if (state_ == State::kGreeted) {
    require(request.header.tagOrRc == 0,
            "the word at offset 16 of a first authorisation step is not 0");
    require(request.data == words({0}), "the first authorisation step is not a single word 0");
    state_ = State::kHalfAuthorised;
    return authFirstAnswer();
  }
  require(state_ == State::kHalfAuthorised, "an authorisation step at a wrong time");
  require(request.header.tagOrRc == tag_,
          "the second authorisation step does not return the reply's tag");
  require(request.data == words({1}) + authFirstAnswer().substr(8) + words({0}),
          "the second authorisation step does not return the words of the first");
  state_ = State::kAuthorised;
  return authSecondData();
}

Bytes GatewaySession::answerAdmin(const Request& request) {
  require(state_ == State::kAuthorised, "an admin request before the authorisation");
  require(request.header.type == kCallType, "an admin request is not of message type 1");
  AdminCall call = readAdminCall(request.data);
  bool isOpening = call.kind == kOpening;
  require(request.header.tagOrRc == (isOpening ? 0 : tag_),
          "the word at offset 16 of an admin request is wrong");
  if (!isOpening) return answerCall(call);
  // It differs from call to call and between clients.
  openAdminId_ = ++lastAdminId_ << 8 | (tag_ & 0xFF);
  return openingData(*openAdminId_);
}

Bytes GatewaySession::answerCall(const AdminCall& call) {
  require(openAdminId_.has_value(), "a call without an opening call before it");
  require(call.adminId == *openAdminId_, "a call does not carry the admin id of its opening call");
  openAdminId_.reset();
  return callData(call.kind, bean_(call));
}

}  // namespace zebsim
