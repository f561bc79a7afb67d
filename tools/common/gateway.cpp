#include "gateway.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <set>
#include <span>
#include <string_view>
#include <utility>

#include "glob.h"
#include "text.h"
#include "threads.h"

namespace zebtool {

namespace {

using Kind = Question::Kind;

// Returns the library's code, its meaning, and what to try.
std::string explain(int code, const std::string& cause) {
  const std::string number = "(" + std::to_string(code) + "): ";
  if (!cause.empty()) return number + cause;
  const char* meaning = zebstats::describe(code);
  const char* advice = "";
  switch (code) {
    case ZEB_WRONG_CONTENT:
      meaning = "the answer is too big or damaged";
      advice = "; ask for less at once";
      break;
    case ZEB_QUERY_TOO_LONG:
      advice = "; ask for less at once";
      break;
    case ZEB_HOST_UNKNOWN:
      advice = "; check its spelling, or give its address";
      break;
    case ZEB_COMMUNICATION_FAILED:
      advice = "; is this its statistics port?";
      break;
    default:
      break;
  }
  return number + meaning + advice;
}

// Returns the reason for a code of the library. ZEB_CONNECT_FAILED may be any, which the diagnosis
// has found.
FaultReason reasonFor(int code, const Diagnosis& cause) {
  switch (code) {
    case ZEB_CONNECT_FAILED:
      return cause.reason;
    case ZEB_CONNECT_REFUSED:
    case ZEB_NETWORK_UNREACHABLE:
      return FaultReason::kRefused;
    case ZEB_HOST_UNKNOWN:
      return FaultReason::kUnresolved;
    case ZEB_CONNECT_TIMED_OUT:
    case ZEB_TIMED_OUT:
      return FaultReason::kTimedOut;
    case ZEB_COMMUNICATION_FAILED:
    case ZEB_WRONG_CONTENT:
    case ZEB_QUERY_TOO_LONG:
      return FaultReason::kMalformed;
    default:
      return FaultReason::kLost;
  }
}

// ---- Connecting ---------------------------------------------------------------------------------

// Returns whether a connection failed for a reason in this process: it ends, or has no memory, or
// too many connections.
bool isOwnFailure(int code) {
  return code == ZEB_TOKEN_UNKNOWN || code == ZEB_NO_MEMORY || code == ZEB_TOKEN_LIST_CORRUPT;
}

bool isNumeric(const std::string& host) {
  in_addr ignored;
  return host.find(':') != std::string::npos || inet_pton(AF_INET, host.c_str(), &ignored) == 1;
}

// Returns the numeric addresses of a host in the order of the resolver; none if it is unknown.
std::vector<std::string> resolve(const std::string& host) {
  if (isNumeric(host)) return {host};
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return {};
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  std::vector<std::string> addresses;
  for (; found != nullptr; found = found->ai_next) {
    char text[NI_MAXHOST];
    int failed = getnameinfo(found->ai_addr, found->ai_addrlen, text, sizeof text, nullptr, 0,
                             NI_NUMERICHOST);
    if (failed == 0 && std::find(addresses.begin(), addresses.end(), text) == addresses.end())
      addresses.emplace_back(text);
  }
  return addresses;
}

// ---- Asking -------------------------------------------------------------------------------------

using Elements = std::span<const std::string>;

// Joins the elements to a query, which a NUL would end: it is written as the wire has it.
std::string join(Elements elements) {
  std::string joined;
  for (const std::string& element : elements) {
    if (!joined.empty()) joined += ':';
    for (char c : element) joined += c != '\0' ? std::string(1, c) : "\xC0\x80";
  }
  return joined;
}

std::string_view valueOf(const zebstats::Stat& stat) {
  return stat.value;
}
std::string_view valueOf(const zebstats::Id&) {
  return {};
}

// Collects the answer to one question, which takes several queries if it is too large for one.
class Asker {
 public:
  explicit Asker(zebstats::Connection& connection) : connection_(connection) {}

  // Returns the library's code. After a failure, failedStep() says what failed.
  int ask(const Question& question) {
    switch (question.kind) {
      case Kind::kStats:
      case Kind::kIds:
        return askAll(question.kind);
      case Kind::kStatsById:
      case Kind::kStatsByGroup:
      case Kind::kIdsByGroup:
        return askFor(question.kind, question.elements);
      case Kind::kStatsByGlob:
        return askByGlob(question.elements);
      case Kind::kGroups:
        break;
    }
    return take(connection_.groups());
  }

  [[nodiscard]] const char* failedStep() const { return failedStep_; }
  Answer takeAnswer() { return std::move(answer_); }

 private:
  static bool isTooLarge(int code) {
    return code == ZEB_WRONG_CONTENT || code == ZEB_QUERY_TOO_LONG;
  }

  // If the answer is too large, asks for the statistics or ids of each group. Entries then have no
  // element, as in an undivided answer.
  int askAll(Kind kind) {
    int code = kind == Kind::kStats ? take(connection_.stats()) : take(connection_.ids());
    if (!isTooLarge(code)) return code;
    Asker groups(connection_);
    if (int failed = groups.ask({Kind::kGroups, {}}); failed != ZEB_OK) return code;
    code = askFor(kind == Kind::kStats ? Kind::kStatsByGroup : Kind::kIdsByGroup, groups.ids());
    for (Entry& entry : answer_.entries) entry.element.clear();
    return code;
  }

  // Asks for the ids and those that a glob matches, each once.
  int askByGlob(Elements globs) {
    Asker all(connection_);
    if (int code = all.askAll(Kind::kIds); code != ZEB_OK) return code;
    std::vector<std::string> wanted;
    std::set<std::string> known;
    auto add = [&](const std::string& id) {
      if (known.insert(id).second) wanted.push_back(id);
    };
    for (const std::string& glob : globs) {
      if (!isGlob(glob)) {
        add(glob);
        continue;
      }
      bool hasMatched = false;
      for (const Entry& entry : all.answer_.entries) {
        if (!matchesGlob(glob, entry.id)) continue;
        hasMatched = true;
        add(entry.id);
      }
      if (!hasMatched) answer_.unmatched.push_back(glob);
    }
    return wanted.empty() ? ZEB_OK : askFor(Kind::kStatsById, wanted);
  }

  // If the answer is too large, asks for each half of the elements, and for the statistics of a
  // single group by their ids.
  int askFor(Kind kind, Elements elements) {
    int code = query(kind, join(elements));
    if (!isTooLarge(code)) return code;
    if (elements.size() > 1) {
      std::size_t half = elements.size() / 2;
      int first = askFor(kind, elements.first(half));
      return first != ZEB_OK ? first : askFor(kind, elements.subspan(half));
    }
    if (kind != Kind::kStatsByGroup || elements.empty()) return code;
    return askById(elements.front(), code);
  }

  // Asks for the statistics of a group whose answer is too large, which ended with that code.
  int askById(const std::string& group, int code) {
    Asker members(connection_);
    if (members.query(Kind::kIdsByGroup, group) != ZEB_OK) return code;
    std::size_t had = answer_.entries.size();
    code = askFor(Kind::kStatsById, members.ids());
    for (std::size_t i = had; i < answer_.entries.size(); ++i) answer_.entries[i].element = group;
    return code;
  }

  int query(Kind kind, const std::string& elements) {
    if (kind == Kind::kStatsById) return take(connection_.statsByIds(elements.c_str()));
    if (kind == Kind::kStatsByGroup) return take(connection_.statsByGroups(elements.c_str()));
    return take(connection_.idsByGroups(elements.c_str()));
  }

  // Adds an answer, or nothing if it cannot be read to its end.
  template <typename Set>
  int take(Set set) {
    failedStep_ = "ask";
    int code = set.error().code();
    if (code != ZEB_OK) return code;
    Answer read;
    {
      auto held = holdAnswers();
      for (const auto& entry : set) add(read, entry, valueOf(entry));
    }
    code = set.error().code();
    failedStep_ = "read the answer";
    if (code != ZEB_OK) return code;
    std::move(read.entries.begin(), read.entries.end(), std::back_inserter(answer_.entries));
    std::move(read.refusals.begin(), read.refusals.end(), std::back_inserter(answer_.refusals));
    return ZEB_OK;
  }

  static void add(Answer& answer, const zebstats::Id& id, std::string_view value) {
    if (id.ok()) {
      answer.entries.push_back({std::string(id.element), std::string(id.id), std::string(value)});
    } else {
      answer.refusals.push_back({std::string(id.element), id.elementCode});
    }
  }

  [[nodiscard]] std::vector<std::string> ids() const {
    std::vector<std::string> ids;
    for (const Entry& entry : answer_.entries) ids.push_back(entry.id);
    return ids;
  }

  zebstats::Connection& connection_;
  Answer answer_;
  const char* failedStep_ = "";
};

}  // namespace

std::string describe(const Refusal& refusal) {
  std::string what = refusal.element.empty() ? "the query" : "'" + refusal.element + "'";
  return "cannot get " + what + ": the gateway refused it (its code " +
         std::to_string(refusal.code) + "); is it known there?";
}

// An address that drops everything would use up the library's timeout, so each but the last is
// first tried with a share of it.
void Gateway::connect() {
  using Clock = std::chrono::steady_clock;
  auto end = Clock::now() + std::chrono::duration<double>(timeoutSeconds_);
  int code = ZEB_HOST_UNKNOWN;
  std::vector<std::string> addresses = resolve(address_.host);
  for (std::size_t left = addresses.size(); left > 0; --left) {
    const std::string& host = addresses[addresses.size() - left];
    double share =
        std::chrono::duration<double>(end - Clock::now()).count() / static_cast<double>(left);
    if (left > 1 && !canConnect(host, address_.port, share)) continue;
    code = isEnding() ? ZEB_TOKEN_UNKNOWN : connection_.open(host.c_str(), address_.port).code();
    if (code == ZEB_OK || Clock::now() >= end) break;
  }
  int before = std::exchange(failure_, code);
  if (code == ZEB_OK) return;
  if (isOwnFailure(code)) {
    cause_ = {};
  } else if (diagnosing_ == Diagnosing::kAlways || code != before) {
    cause_ = diagnose(addresses, address_.port);
  }
  fail("connect", code, cause_);
}

void Gateway::fail(const char* step, int code, const Diagnosis& diagnosis) const {
  const std::string cause = toShown(diagnosis.text);
  const FaultReason reason = reasonFor(code, diagnosis);
  if (isTimeout(code)) {
    throw GatewayFault(kTimedOut,
                       name() + ": no answer within " + showNumber(timeoutSeconds_, 3) + " s" +
                           (cause.empty() ? "" : ": " + cause),
                       code, reason);
  }
  throw GatewayFault(kNotConnected, name() + ": cannot " + step + " " + explain(code, cause), code,
                     reason);
}

Answer Gateway::ask(const Question& question) {
  if (!connection_.isOpen()) connect();
  Asker asker(connection_);
  int code = asker.ask(question);
  if (code != ZEB_OK) fail(asker.failedStep(), code, {});
  return asker.takeAnswer();
}

}  // namespace zebtool
