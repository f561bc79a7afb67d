// zebstat: asks a gateway for its statistics and shows the answer as a table.
//
// The table goes to standard output, words to standard error, one line a fault.
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "zebstats.h"

namespace {

constexpr int kExitDone = 0;
constexpr int kExitElementFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNotAsked = 3;

struct Options {
  std::string host = "127.0.0.1";
  int port = 2980;
  std::vector<std::string> ids;
  std::vector<std::string> groups;

  std::string gateway() const {
    bool isIpv6 = host.find(':') != std::string::npos;
    return (isIpv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
  }
};

// What a user can meet; the rest would be a fault of this program.
const char* describeCode(int code) {
  static constexpr struct {
    int code;
    const char* meaning;
  } kMeanings[] = {
      {ZEB_HOST_UNKNOWN, "the host name could not be resolved"},
      {ZEB_CONNECT_REFUSED, "connection refused; is the gateway running?"},
      {ZEB_CONNECT_TIMED_OUT, "connecting timed out"},
      {ZEB_NETWORK_UNREACHABLE, "the network is unreachable"},
      {ZEB_CONNECT_FAILED, "connecting or authorising failed; is this the gateway's statistics port?"},
      {ZEB_COMMUNICATION_FAILED, "the gateway did not answer as agreed"},
      {ZEB_CONNECTION_LOST, "the connection was lost"},
      {ZEB_WRONG_CONTENT, "the answer is too big or damaged; ask for less at once"},
      {ZEB_QUERY_TOO_LONG, "the ids have more than 32,765 characters together; ask for less at once"},
      {ZEB_NO_MEMORY, "out of memory"},
  };
  for (const auto& row : kMeanings) {
    if (row.code == code) return row.meaning;
  }
  return "unexpected code of the library";
}

// The gateway could not be asked, or its answer not be shown.
struct NotAsked : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void requireOk(int rc, const char* task) {
  if (rc == ZEB_OK) return;
  throw NotAsked(std::string("cannot ") + task + ": " + describeCode(rc) + " (" + std::to_string(rc) + ")");
}

class Connection {
 public:
  Connection(const std::string& host, int port) {
    char* version = nullptr;
    requireOk(openRemoteGatewayConnection(host.c_str(), port, &token_, &version), "connect");
    std::free(version);
  }
  ~Connection() { closeGatewayConnection(&token_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  GatewayToken* token() const { return token_; }

 private:
  GatewayToken* token_ = nullptr;
};

// One entry a line and nothing that moves the cursor: control characters, those beyond ASCII too, are told
// as \n or \x1B.
std::string showText(const char* text, int length) {
  std::string_view bytes(text, static_cast<std::size_t>(std::max(length, 0)));
  std::string shown;
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    auto byte = static_cast<unsigned char>(bytes[at]);
    bool isLateControl = byte == 0xC2 && at + 1 < bytes.size() &&
                         static_cast<unsigned char>(bytes[at + 1]) >= 0x80 &&
                         static_cast<unsigned char>(bytes[at + 1]) < 0xA0;
    if (byte == '\n') {
      shown += "\\n";
    } else if (byte < 0x20 || byte == 0x7F || isLateControl) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02X", byte);
      shown += escape;
    } else {
      shown += bytes[at];
    }
  }
  return shown;
}

bool startsCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

std::size_t widthOf(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), startsCharacter));
}

using Cells = std::vector<std::string>;

// Rows of equally many cells under a heading.
class Table {
 public:
  explicit Table(Cells heading) { add(std::move(heading)); }
  void add(Cells row) {
    widths_.resize(row.size());
    for (std::size_t i = 0; i < row.size(); ++i) widths_[i] = std::max(widths_[i], widthOf(row[i]));
    rows_.push_back(std::move(row));
  }
  // A terminal gets lines cut to its width; anything else gets them whole.
  void print() const {
    winsize terminal{};
    bool isTerminal = isatty(STDOUT_FILENO) != 0 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &terminal) == 0;
    for (const auto& row : rows_) printRow(row, isTerminal ? terminal.ws_col : 0U);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
      throw NotAsked(std::string("cannot write to standard output: ") + std::strerror(errno));
    }
  }

 private:
  void printRow(const Cells& row, std::size_t room) const {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths_[i] - widthOf(row[i]) + 2, ' ');
    }
    if (room > 3 && widthOf(line) > room) line = cutLine(line, room - 3) + "...";
    std::fprintf(stdout, "%s\n", line.c_str());
  }
  static std::string cutLine(const std::string& line, std::size_t room) {
    std::size_t end = 0;
    for (std::size_t width = 0; end < line.size(); ++end) {
      if (startsCharacter(line[end]) && width++ == room) break;
    }
    return line.substr(0, end);
  }

  std::vector<Cells> rows_;
  std::vector<std::size_t> widths_;
};

std::string joinElements(const std::vector<std::string>& elements) {
  std::string query;
  for (const std::string& element : elements) query += (query.empty() ? "" : ":") + element;
  return query;
}

// Walks an answer and hands each good entry to take. Returns how many elements the gateway refused, each of
// which has got a line on standard error.
template <typename Entry, typename Take>
int walkAnswer(const Options& options, ResultSetToken* answer, int (*getFirst)(ResultSetToken*, Entry*),
               int (*getNext)(ResultSetToken*, Entry*), Take take) {
  Entry entry{};
  int refused = 0;
  int rc = getFirst(answer, &entry);
  for (; rc == ZEB_OK; rc = getNext(answer, &entry)) {
    std::string element = showText(entry.queryElementPtr, entry.queryElementLen);
    if (entry.queryElementRC >= 0) {
      take(element, entry);
      continue;
    }
    ++refused;
    std::string what = element.empty() ? "the query" : "'" + element + "'";
    std::fprintf(stderr,
                 "zebstat: %s: cannot get %s: the gateway refused it (its code %d); is it known there?\n",
                 options.gateway().c_str(), what.c_str(), entry.queryElementRC);
  }
  if (rc != ZEB_END_OF_RESULTS) requireOk(rc, "read the answer");
  return refused;
}

// Under two headings an id stands behind the element of the query that it answers.
int printIds(const Options& options, ResultSetToken* answer, const Cells& heading) {
  Table table(heading);
  int refused = walkAnswer<IdData>(options, answer, getFirstId, getNextId,
                                   [&](const std::string& element, const IdData& id) {
                                     std::string text = showText(id.idPtr, id.idLen);
                                     table.add(heading.size() == 2 ? Cells{element, text} : Cells{text});
                                   });
  table.print();
  return refused;
}

// What was asked by group is shown with its group.
int showStats(const Options& options, const Connection& gateway) {
  ResultSetToken* answer = nullptr;
  bool isByGroup = !options.groups.empty();
  std::string query = joinElements(isByGroup ? options.groups : options.ids);
  int rc = isByGroup       ? getStatsByStatGroupId(gateway.token(), query.c_str(), &answer)
           : query.empty() ? getStats(gateway.token(), &answer)
                           : getStatsByStatId(gateway.token(), query.c_str(), &answer);
  requireOk(rc, "get the statistics");
  Table table(isByGroup ? Cells{"GROUP", "STATISTIC", "VALUE"} : Cells{"STATISTIC", "VALUE"});
  int refused = walkAnswer<StatData>(options, answer, getFirstStat, getNextStat,
                                     [&](const std::string& element, const StatData& stat) {
                                       std::string id = showText(stat.statIdPtr, stat.statIdLen);
                                       std::string value = showText(stat.statValuePtr, stat.statValueLen);
                                       table.add(isByGroup ? Cells{element, id, value} : Cells{id, value});
                                     });
  table.print();
  return refused;
}

int showIds(const Options& options, const Connection& gateway) {
  ResultSetToken* answer = nullptr;
  bool isByGroup = !options.groups.empty();
  std::string query = joinElements(options.groups);
  requireOk(isByGroup ? getStatIdsByStatGroupId(gateway.token(), query.c_str(), &answer)
                      : getStatIds(gateway.token(), &answer),
            "get the ids");
  return printIds(options, answer, isByGroup ? Cells{"GROUP", "STATISTIC"} : Cells{"STATISTIC"});
}

int showGroups(const Options& options, const Connection& gateway) {
  ResultSetToken* answer = nullptr;
  requireOk(getResourceGroupIds(gateway.token(), &answer), "get the groups");
  return printIds(options, answer, {"GROUP"});
}

int fetch(const Options& options, int (*show)(const Options&, const Connection&)) {
  try {
    Connection gateway(options.host, options.port);
    return show(options, gateway) == 0 ? kExitDone : kExitElementFailed;
  } catch (const NotAsked& fault) {
    std::fprintf(stderr, "zebstat: %s: %s\n", options.gateway().c_str(), fault.what());
    return kExitNotAsked;
  }
}

int failUsage(const std::string& fault) {
  std::fprintf(stderr, "zebstat: %s; see zebstat --help\n", fault.c_str());
  return kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app("Shows the statistics of a transaction gateway.", "zebstat");
  app.require_subcommand(0, 1)->fallthrough();
  app.set_version_flag("--version", "zebstat " ZEBSTATS_VERSION);
  app.add_option("--host", options.host, "the gateway's host name or address")
      ->type_name("HOST")
      ->capture_default_str();
  app.add_option("--port", options.port, "the gateway's statistics port")
      ->check(CLI::Range(1, 65535))
      ->type_name("PORT")
      ->capture_default_str();
  auto isNotEmpty = [](const std::string& text) {
    return text.empty() ? "an empty text is no id; the commands ids and groups list them" : std::string();
  };
  CLI::App* stats = app.add_subcommand("stats", "statistics and their values, all of them or those named");
  CLI::Option* ids = stats->add_option("ID", options.ids, "statistics to show")->check(isNotEmpty);
  stats->add_option("--group", options.groups, "show the statistics of these groups")
      ->type_name("GROUP")
      ->check(isNotEmpty)
      ->excludes(ids);
  CLI::App* statIds = app.add_subcommand("ids", "the ids of the statistics, of all groups or of those named");
  statIds->add_option("GROUP", options.groups, "groups whose ids to show")->check(isNotEmpty);
  CLI::App* groups = app.add_subcommand("groups", "the resource groups that the gateway has");
  app.footer(
      "Exit codes: 0 done, 1 the gateway refused a named id or group, 2 usage, 3 the gateway could not be\n"
      "asked.\n\n"
      "Examples:\n"
      "  zebstat --host gateway-1 --port 2980 stats WORK_BUSY WORK_QUEUED\n"
      "  zebstat ids LISTEN");
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& done) {
    return app.exit(done);
  } catch (const CLI::ParseError& fault) {
    return failUsage(fault.what());
  }
  if (stats->parsed()) return fetch(options, showStats);
  if (statIds->parsed()) return fetch(options, showIds);
  if (groups->parsed()) return fetch(options, showGroups);
  return failUsage("say what to show: stats, ids or groups");
}
