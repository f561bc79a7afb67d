// Network addresses as every option of every program takes them: HOST, HOST:PORT, [IPV6] and
// [IPV6]:PORT. An IPv6 address without a port needs no brackets.
#ifndef ZEBTOOL_ADDRESS_H
#define ZEBTOOL_ADDRESS_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zebtool {

// The port on which gateways usually serve their statistics.
constexpr int kStatisticsPort = 2980;

struct Address {
  std::string host;  // a name or a numeric address, without brackets
  int port = kStatisticsPort;
  bool operator==(const Address&) const = default;
};

// Parses the address of a server to connect to.
std::optional<Address> parseAddress(std::string_view text, int defaultPort = kStatisticsPort);

// Parses an address to listen on: the host may be missing, as in ":9480", which leaves host empty
// and means all addresses; port 0 means any free port.
std::optional<Address> parseListenAddress(std::string_view text, int defaultPort);

// Returns the address that the options --host and --port give. An empty host or port 0 means that
// the option is missing; the default is the usual port of this host. Returns nothing if both name a
// port.
std::optional<Address> joinHostAndPort(const std::string& host, int port);

// Returns HOST:PORT, with an IPv6 address in brackets.
std::string showAddress(const Address& address);

// Removes all but the first of equal addresses, so that no gateway is asked and shown twice.
void removeRepeated(std::vector<Address>& addresses);

}  // namespace zebtool

#endif  // ZEBTOOL_ADDRESS_H
