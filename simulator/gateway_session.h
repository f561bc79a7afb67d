// One client's session without its socket: checks that the requests come in the right order, and
// answers them.
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
  // Returns the answer to a get attribute or invoke call, as call data. It may throw BadRequest.
  using Bean = std::function<Bytes(const AdminCall&)>;

  // The tag, not 0, is in every reply header; a request that continues a reply repeats it.
  GatewaySession(std::uint32_t tag, Bean bean) : tag_(tag), bean_(std::move(bean)) {}

  // Returns the whole reply, header included. Throws BadRequest if the request is invalid or out of
  // order.
  Bytes answer(const Request& request);

  // Returns whether the client has sent a close request. The connection is to be closed once its
  // reply has been sent.
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
  std::optional<std::uint32_t> openAdminId_;  // from an opening call; valid for one call
};

}  // namespace zebsim

#endif  // ZEBSIM_GATEWAY_SESSION_H
