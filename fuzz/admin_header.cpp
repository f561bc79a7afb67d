// Feeds any bytes to the library as the reply to one request. The first byte of the input selects
// the request, the second says how the reply arrives.
#include <string>

#include "harness.h"
#include "memory_gateway.h"
#include "stapi_zeb_protocol.h"
#include "stapi_zeb_socketcomms.h"

using namespace zebfuzz;

namespace {

void callAdmin(int kind, const MemoryGateway& gateway) {
  AdminCallRecord call = {};
  call.header = zeb::makeHeader("Admin", 1, kind == 0 ? 4 : 64);
  call.callKind = kind;
  call.country = call.language = "en";
  call.qualifier = "";
  call.beanName = call.attributeName = call.action = call.argument = call.signature = "b";
  reasons failure = {};
  const int rc = flowAdminRequest(1, &call, &failure);
  requireOneOf(rc, {0, kFlowFailed, kAdminFailed, kGatewayRefused, ZEB_NO_MEMORY},
               "flowAdminRequest");
  require(rc == 0 || call.callData == nullptr, "call data are handed over only on success");
  if (call.callData != nullptr) {
    const std::string all(reinterpret_cast<const char*>(call.callData), call.header.dataLength);
    require(all.size() <= gateway.received, "the call data came from the gateway");
  }
  std::free(call.callData);
}

void authorise(int step) {
  AuthRequestRecord request = {};
  request.header = zeb::makeHeader("Auth", 1, step == 1 ? 20 : 4);
  request.authStep = step;
  reasons failure = {};
  const int rc = flowAuthRequest(1, &request, &failure);
  requireOneOf(rc, {0, kFlowFailed, kAuthRefused, kGatewayRefused, ZEB_NO_MEMORY},
               "flowAuthRequest");
  require(rc != kAuthRefused || failure.authRc != 0, "a refused authorisation has its code");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  startLibrary();
  Input input(data, size);
  const std::uint8_t what = takeByte(input);
  const std::uint8_t how = takeByte(input);
  MemoryGateway gateway = {.replies = input,
                           .piece = how % 16 == 0 ? SIZE_MAX : how % 16u,
                           .endError = how & 0x80 ? 104 : 0};
  const MemoryGatewayScope scope(gateway);
  reasons failure = {};
  switch (what % 8) {
    case 0:
      requireOneOf(flowHandshakeRequest(1, &failure),
                   {0, kFlowFailed, kGatewayRefused, ZEB_NO_MEMORY}, "flowHandshakeRequest");
      break;
    case 1:
      requireOneOf(flowCloseRequest(1, &failure), {0, kFlowFailed, kGatewayRefused, ZEB_NO_MEMORY},
                   "flowCloseRequest");
      break;
    case 2:
    case 3:
      authorise(what % 8 - 2);
      break;
    default:
      constexpr int kinds[] = {0, 1, 5, 2};
      callAdmin(kinds[what % 4], gateway);
  }
  require(gateway.blocks == 0, "no block is left allocated");
  return 0;
}
