#include "address.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <utility>

namespace zebtool {

namespace {

bool isNumericIpv6(const std::string& host) {
  in6_addr ignored;
  std::string withoutScope = host.substr(0, host.find('%'));
  return inet_pton(AF_INET6, withoutScope.c_str(), &ignored) == 1;
}

// A number alone is no host, but most probably a port without its colon; the resolver would take it
// for an address such as 0.0.11.164.
bool isHost(const std::string& host) {
  auto isGood = [](char c) {
    return c > ' ' && c < 0x7F && std::string_view("[],/").find(c) == std::string_view::npos;
  };
  if (!std::all_of(host.begin(), host.end(), isGood)) return false;
  if (host.find(':') != std::string::npos) return isNumericIpv6(host);
  return host.find_first_not_of("0123456789") != std::string::npos;
}

std::optional<int> parsePort(std::string_view text, int lowest) {
  int port = -1;
  const char* end = text.data() + text.size();
  bool isNumber =
      !text.empty() && text.front() != '-' && std::from_chars(text.data(), end, port).ptr == end;
  if (!isNumber || port < lowest || port > 65535) return std::nullopt;
  return port;
}

struct Parts {
  std::string host;
  std::optional<std::string_view> port;  // nothing if the text names none
};

std::optional<Parts> split(std::string_view text) {
  if (text.substr(0, 1) == "[") {
    std::size_t close = text.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    Parts parts{std::string(text.substr(1, close - 1)), std::nullopt};
    if (!isNumericIpv6(parts.host)) return std::nullopt;
    std::string_view rest = text.substr(close + 1);
    if (rest.empty()) return parts;
    if (rest.front() != ':') return std::nullopt;
    parts.port = rest.substr(1);
    return parts;
  }
  std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || text.find(':', colon + 1) != std::string_view::npos)
    return Parts{std::string(text), std::nullopt};
  return Parts{std::string(text.substr(0, colon)), text.substr(colon + 1)};
}

std::optional<Address> parse(std::string_view text, int defaultPort, bool isListen) {
  std::optional<Parts> parts = split(text);
  if (!parts) return std::nullopt;
  bool isEveryHost = isListen && parts->host.empty() && parts->port;
  if (!isEveryHost && !isHost(parts->host)) return std::nullopt;
  std::optional<int> port = defaultPort;
  if (parts->port) port = parsePort(*parts->port, isListen ? 0 : 1);
  if (!port) return std::nullopt;
  return Address{std::move(parts->host), *port};
}

}  // namespace

std::optional<Address> parseAddress(std::string_view text, int defaultPort) {
  return parse(text, defaultPort, false);
}

std::optional<Address> parseListenAddress(std::string_view text, int defaultPort) {
  return parse(text, defaultPort, true);
}

std::optional<Address> joinHostAndPort(const std::string& host, int port) {
  std::optional<Address> address = parseAddress(host.empty() ? "127.0.0.1" : host, 0);
  if (!address || (address->port != 0 && port != 0)) return std::nullopt;
  if (address->port == 0) address->port = port != 0 ? port : kStatisticsPort;
  return address;
}

std::string showAddress(const Address& address) {
  bool isIpv6 = address.host.find(':') != std::string::npos;
  return (isIpv6 ? "[" + address.host + "]" : address.host) + ":" + std::to_string(address.port);
}

void removeRepeated(std::vector<Address>& addresses) {
  auto end = addresses.begin();
  for (const Address& address : std::vector<Address>(addresses)) {
    if (std::find(addresses.begin(), end, address) == end) *end++ = address;
  }
  addresses.erase(end, addresses.end());
}

}  // namespace zebtool
