// The simulated gateway as a program.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <CLI/CLI.hpp>

#include "address.h"
#include "gateway_server.h"
#include "standard_streams.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr unsigned kMaxPorts = 1000;

std::string checkListen(const std::string& text) {
  if (zebtool::parseListenAddress(text, zebtool::kStatisticsPort)) return {};
  return "'" + text + "' is not an ADDRESS:PORT; write it like 127.0.0.1:2980 or [::1]:0";
}

// CLI11 alone takes "-1" for a very large number, "010" for 8, and more than 64 bits for fewer.
std::string checkNumber(const std::string& text) {
  constexpr std::size_t kMaxDigits = 18;
  bool isNumber = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos &&
                  (text.size() == 1 || text.front() != '0') && text.size() <= kMaxDigits;
  return isNumber ? "" : "'" + text + "' is not a number of 1 to 18 digits";
}

std::string checkSeconds(const std::string& text) {
  bool isDecimal = text.find_first_not_of("0123456789.") == std::string::npos;
  if (isDecimal && CLI::Range(0.001, 3600.0)(text).empty()) return {};
  return "'" + text + "' is not a number of seconds from 0.001 to 3600";
}

// CLI11 gives "true" to a flag without a value.
std::string checkMute(const std::string& text) {
  if (text == "true" || text == "handshake" || text == "query") return {};
  return "'" + text + "' is neither handshake nor query";
}

struct Arguments {
  zebsim::ServerOptions server;
  std::string listen = "127.0.0.1:" + std::to_string(zebtool::kStatisticsPort);
  unsigned ports = 1;
  double slow = 0;
  std::string mute;
};

// Each connection needs a descriptor. If the limit cannot be raised, silent clients are dropped
// earlier.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

using Servers = std::vector<std::unique_ptr<zebsim::GatewayServer>>;

bool isPortRefused(const std::exception& fault) {
  const auto* refusal = dynamic_cast<const std::system_error*>(&fault);
  return refusal != nullptr && (refusal->code() == std::errc::address_in_use ||
                                refusal->code() == std::errc::permission_denied);
}

// Starts a gateway on each port, or returns none, after a message, if one of them cannot listen.
Servers startServers(const zebsim::ServerOptions& options, unsigned count) {
  Servers servers;
  for (unsigned i = 0; i < count; ++i) {
    zebsim::ServerOptions one = options;
    one.model.seed += i;
    if (one.port != 0) one.port = static_cast<std::uint16_t>(one.port + i);
    try {
      servers.push_back(std::make_unique<zebsim::GatewayServer>(one));
    } catch (const std::exception& fault) {
      std::fprintf(stderr, "zebgatewaysim: cannot listen on %s: %s%s\n",
                   zebtool::showAddress({one.address, one.port}).c_str(), fault.what(),
                   isPortRefused(fault) ? "; choose another port with --listen ADDRESS:PORT, or "
                                          "port 0 for any free one"
                                        : "");
      return {};
    }
  }
  return servers;
}

bool areRunning(const Servers& servers) {
  return std::all_of(servers.begin(), servers.end(),
                     [](const auto& server) { return server->isRunning(); });
}

// Serves until one of the signals arrives. They are blocked in every thread, so that they interrupt
// no call. Looks once a second whether a server has failed.
int run(const Arguments& arguments) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  zebtool::fillStandardStreams(O_RDWR);  // nobody needs to read the messages
  raiseDescriptorLimit();
  const Servers servers = startServers(arguments.server, arguments.ports);
  if (servers.empty()) return kExitFailed;
  for (const auto& server : servers) {
    std::printf("listening on %s\n", server->listenAddress().c_str());
  }
  std::fflush(stdout);
  const timespec second{1, 0};
  while (areRunning(servers)) {
    if (sigtimedwait(&signals, nullptr, &second) > 0) return 0;
  }
  return kExitFailed;
}

void addGatewayOptions(CLI::App& app, Arguments& arguments) {
  zebsim::ServerOptions& server = arguments.server;
  app.add_option("--listen", arguments.listen,
                 "where to listen; port 0 is any free port\n(127.0.0.1:2980)")
      ->type_name("ADDRESS:PORT")
      ->check(checkListen);
  app.add_option("--ports", arguments.ports,
                 "N gateways, on that port and those after it, each with\n"
                 "values of its own; 1 to 1000 (1)")
      ->type_name("N")
      ->check(checkNumber)
      ->check(CLI::Range(1U, kMaxPorts).description(""));
  app.add_option("--seed", server.model.seed,
                 "the same seed gives the same values, second for second (1)")
      ->type_name("N")
      ->check(checkNumber);
  app.add_option("--scale", server.model.scale,
                 "N copies of each statistic, for big answers; 1 to 1000 (1)")
      ->type_name("N")
      ->check(checkNumber)
      ->check(CLI::Range(1U, zebsim::kMaxScale).description(""));
  app.add_option("--segment", server.segment,
                 "send replies in pieces of N bytes; 0 sends them whole (0)")
      ->type_name("N")
      ->check(checkNumber);
  app.add_flag_callback(
      "--one-block", [&] { server.blocks = zebsim::HeadBlocks::kOne; },
      "write all ids of a response as one block; otherwise\n"
      "more than 1,024 bytes are cut as Java cuts them");
}

void addTroubleOptions(CLI::App& app, Arguments& arguments) {
  zebsim::Troubles& troubles = arguments.server.troubles;
  app.add_flag("--mute", arguments.mute,
               "accept and read, but answer nothing, or nothing\n"
               "from the first query on")
      ->option_text("[=handshake|query]")
      ->check(checkMute)
      ->group("Troubles");
  app.add_option("--slow", arguments.slow,
                 "drip the answer to each query over that time, 0.001 to 3600")
      ->type_name("SECONDS")
      ->check(checkSeconds)
      ->group("Troubles");
  app.add_flag("--reset", troubles.resetsAnswers,
               "reset the connection in the middle of each such answer")
      ->group("Troubles");
  app.add_flag_callback(
         "--no-close-answer", [&] { troubles.hasCloseAnswer = false; },
         "leave close requests unanswered")
      ->group("Troubles");
  app.add_flag("--odd-names", arguments.server.model.hasOddNames,
               "add statistics with escapes, control and invisible\n"
               "characters, many scripts, quotes, formulas, long names")
      ->group("Troubles");
}

// Combines the options that depend on each other. Returns a message if they contradict.
std::string finish(Arguments& arguments) {
  zebsim::ServerOptions& server = arguments.server;
  auto address = *zebtool::parseListenAddress(arguments.listen, zebtool::kStatisticsPort);
  if (address.port != 0 && address.port + static_cast<int>(arguments.ports) - 1 > 0xFFFF)
    return "the last of the --ports would be above 65535";
  server.address = address.host;
  server.port = static_cast<std::uint16_t>(address.port);
  server.troubles.slow = std::chrono::milliseconds(std::lround(arguments.slow * 1000));
  using Mute = zebsim::Troubles::Mute;
  if (!arguments.mute.empty())
    server.troubles.mute = arguments.mute == "query" ? Mute::kQuery : Mute::kHandshake;
  return {};
}

int failUsage(const char* fault) {
  std::fprintf(stderr, "zebgatewaysim: %s; see zebgatewaysim --help\n", fault);
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "A simulated gateway: answers statistics clients as a real one does, with values that move.\n"
      "It serves until SIGINT or SIGTERM. The first line of its output has the address on which\n"
      "it listens. A client that sends an invalid request is disconnected, with a message on\n"
      "standard error.",
      "zebgatewaysim");
  Arguments arguments;
  addGatewayOptions(app, arguments);
  addTroubleOptions(app, arguments);
  app.set_version_flag("--version", "zebgatewaysim " ZEBSTATS_VERSION,
                       "print the version and exit");
  app.set_help_flag("--help,-h", "print this help and exit");
  app.footer(
      "Examples:\n"
      "  zebgatewaysim\n"
      "  zebgatewaysim --listen 127.0.0.1:0 --ports 20\n"
      "  zebgatewaysim --slow 3 --odd-names");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& done) {
    return app.exit(done);
  } catch (const CLI::ParseError& fault) {
    return failUsage(fault.what());
  }
  std::string fault = finish(arguments);
  return fault.empty() ? run(arguments) : failUsage(fault.c_str());
}
