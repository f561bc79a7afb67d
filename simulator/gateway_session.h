// One client's session, without its socket: which request may come when, and what is answered.
#ifndef ZEBSIM_GATEWAY_SESSION_H
#define ZEBSIM_GATEWAY_SESSION_H

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "gateway_wire.h"

namespace zebsim {

class GatewaySession {
 public:
  // The bean: the answer to an attribute or invoke call, as call data. It may throw BadRequest.
  using Bean = std::function<Bytes(const AdminCall&)>;

  // The tag (not 0) stands in every reply header; the client's follow-up requests carry it back.
  GatewaySession(std::uint32_t tag, Bean bean) : tag_(tag), bean_(std::move(bean)) {}

  // The whole reply, header included. Throws BadRequest when the request is wrong or comes at a
  // wrong time.
  Bytes answer(const Request& request);

  // The client has said goodbye: the connection ends once the last reply is out.
  [[nodiscard]] bool isClosed() const { return state_ == State::kClosed; }

 private:
  enum class State { kNew, kGreeted, kHalfAuthorised, kAuthorised, kClosed };

  Bytes answerBase(const Request& request);
  Bytes answerAuth(const Request& request);
  Bytes answerAdmin(const Request& request);
  Bytes answerCall(const AdminCall& call);
  [[nodiscard]] Bytes authFirstAnswer() const;

  State state_ = State::kNew;
  std::uint32_t tag_;
  Bean bean_;
  std::uint32_t lastAdminId_ = 0;
  std::optional<std::uint32_t> openAdminId_;  // from an opening call; good for one call
};

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_SESSION_H
