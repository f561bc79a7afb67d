// Feeds any bytes to the library as the reply to one request. The first byte of the input selects
// the request, the second says how the reply arrives.
#include <cerrno>

#include "harness.h"
#include "stapi_zeb_protocol.h"
#include "stapi_zeb_socketcomms.h"

namespace {

reasons failure;

void callAdmin(int kind, const Injection& injection) {
  AdminCallRecord call = {};
  call.header = zeb::makeHeader("Admin", 1, kind == 0 ? 4 : 64);
  call.callKind = kind;
  call.country = call.language = "en";
  call.qualifier = "";
  call.beanName = call.attributeName = call.action = call.argument = call.signature = "b";
  const int rc = flowAdminRequest(1, &call, &failure);
  requireOneOf(rc, {0, kFlowFailed, kAdminFailed, kGatewayRefused, ZEB_NO_MEMORY}, "admin");
  require(rc == 0 || call.callData == nullptr, "call data are handed over only on success");
  if (call.callData != nullptr) {
    const std::string all(reinterpret_cast<const char*>(call.callData), call.header.dataLength);
    require(all.size() <= injection.received, "the call data came from the gateway");
  }
  std::free(call.callData);
}

void authorise(int step) {
  AuthRequestRecord request = {};
  request.header = zeb::makeHeader("Auth", 1, step == 1 ? 20 : 4);
  request.authStep = step;
  const int rc = flowAuthRequest(1, &request, &failure);
  requireOneOf(rc, {0, kFlowFailed, kAuthRefused, kGatewayRefused, ZEB_NO_MEMORY}, "auth");
  require(rc != kAuthRefused || failure.authRc != 0, "a refused authorisation has its code");
}

}  // namespace

int LLVMFuzzerTestOneInput(const char* data, std::size_t size) {
  std::string_view input(data, size);
  const int what = takeByte(input) % 8;
  const std::uint8_t how = takeByte(input);
  runClean([&] {
    const Injection injection({}, {.replies = input,
                                   .piece = how % 16 == 0 ? SIZE_MAX : how % 16u,
                                   .receiveError = how & 0x80 ? ECONNRESET : 0});
    failure = {};
    if (what < 2) {
      requireOneOf(what == 0 ? flowHandshakeRequest(1, &failure) : flowCloseRequest(1, &failure),
                   {0, kFlowFailed, kGatewayRefused, ZEB_NO_MEMORY}, "handshake or close");
    } else if (what < 4) {
      authorise(what - 2);
    } else {
      callAdmin(std::array{0, 1, 5, 2}[static_cast<std::size_t>(what) % 4], injection);
    }
  });
  return 0;
}
