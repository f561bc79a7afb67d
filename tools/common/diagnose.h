// Finds out why no connection to a gateway could be opened. The library's codes do not tell a
// machine that is down from a gateway that hangs, nor a web server from a gateway that is stopping.
#ifndef ZEBTOOL_DIAGNOSE_H
#define ZEBTOOL_DIAGNOSE_H

#include <string>
#include <vector>

namespace zebtool {

// Returns whether a connection to the numeric address can be opened within that time. It is closed
// at once.
bool canConnect(const std::string& address, int port, double seconds);

// Connects to the first of the numeric addresses that lets it, sends what a client sends first, and
// waits for an answer. Takes up to a second for each of these two steps. Returns the cause and what
// to do about it; an empty text if there are no addresses.
std::string diagnose(const std::vector<std::string>& addresses, int port);

}  // namespace zebtool

#endif  // ZEBTOOL_DIAGNOSE_H
