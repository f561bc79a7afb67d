// The simulated gateway as a program.
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "gateway_server.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

struct Listen {
  std::string address;
  std::uint16_t port = 0;
};

// Parses ADDRESS:PORT, with an IPv6 address in brackets.
std::optional<Listen> parseListen(const std::string& text) {
  std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  std::string address = text.substr(0, colon);
  std::string port = text.substr(colon + 1);
  if (address.front() == '[' && address.back() == ']') {
    address = address.substr(1, address.size() - 2);
  } else if (address.find(':') != std::string::npos) {
    return std::nullopt;
  }
  bool isNumber = !port.empty() && port.size() <= 5 &&
                  port.find_first_not_of("0123456789") == std::string::npos;
  if (address.empty() || !isNumber || std::stoul(port) > 0xFFFF) return std::nullopt;
  return Listen{address, static_cast<std::uint16_t>(std::stoul(port))};
}

std::string checkListen(const std::string& text) {
  if (parseListen(text)) return {};
  return "'" + text + "' is not an ADDRESS:PORT; write it like 127.0.0.1:2980 or [::1]:0";
}

// Returns a message unless the text has digits only: CLI11 takes "-1" for a very large number.
std::string checkNumber(const std::string& text) {
  bool isNumber = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
  return isNumber ? "" : "'" + text + "' is not a number from 0 up";
}

// Waits for one of the signals, which are blocked in every thread, so that they interrupt no call.
// Looks once a second whether the server has failed.
void waitForSignal(const sigset_t& signals, const zebsim::GatewayServer& server) {
  const timespec second{1, 0};
  while (server.isRunning() && sigtimedwait(&signals, nullptr, &second) < 0) {
  }
}

int run(zebsim::ServerOptions options, const std::string& listen) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  try {
    zebsim::GatewayServer server(std::move(options));
    std::printf("listening on %s\n", server.listenAddress().c_str());
    std::fflush(stdout);
    waitForSignal(signals, server);
    return server.isRunning() ? 0 : kExitFailed;
  } catch (const std::exception& fault) {
    std::fprintf(
        stderr,
        "zebgatewaysim: cannot listen on %s: %s; choose another with --listen ADDRESS:PORT\n",
        listen.c_str(), fault.what());
    return kExitFailed;
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "A simulated gateway: answers statistics clients as a real one does, with values that move.\n"
      "It serves until SIGINT or SIGTERM. The first line of its output has the address on which\n"
      "it listens. A client that sends an invalid request is disconnected, with a message on\n"
      "standard error.",
      "zebgatewaysim");
  std::string listen = "127.0.0.1:0";
  zebsim::ServerOptions options;
  app.add_option("--listen", listen, "where to listen; port 0 is any free port (127.0.0.1:0)")
      ->type_name("ADDRESS:PORT")
      ->check(checkListen);
  app.add_option("--seed", options.model.seed,
                 "the same seed gives the same values, second for second (1)")
      ->type_name("N")
      ->check(checkNumber);
  app.add_option("--scale", options.model.scale,
                 "N copies of each statistic, for big answers; 1 to 1000 (1)")
      ->type_name("N")
      ->check(CLI::Range(1U, zebsim::kMaxScale).description(""));
  app.add_option("--segment", options.segment,
                 "send replies in pieces of N bytes; 0 sends them whole (0)")
      ->type_name("N")
      ->check(checkNumber);
  app.add_flag_callback(
      "--one-block", [&] { options.blocks = zebsim::HeadBlocks::kOne; },
      "write all ids of a response as one block; otherwise\n"
      "more than 1,024 bytes are cut as Java cuts them");
  app.set_version_flag("--version", "zebgatewaysim " ZEBSTATS_VERSION,
                       "print the version and exit");
  app.set_help_flag("--help,-h", "print this help and exit");
  app.footer(
      "Examples:\n"
      "  zebgatewaysim --listen 127.0.0.1:2980\n"
      "  zebgatewaysim --seed 7 --scale 20 --segment 100");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& done) {
    return app.exit(done);
  } catch (const CLI::ParseError& fault) {
    std::fprintf(stderr, "zebgatewaysim: %s; see zebgatewaysim --help\n", fault.what());
    return kExitUsage;
  }
  Listen endpoint = *parseListen(listen);
  options.address = endpoint.address;
  options.port = endpoint.port;
  return run(std::move(options), listen);
}
