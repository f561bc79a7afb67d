// Whatever fails under a public call, and whatever happens to the gateway's replies, the call
// returns a code documented for that, nothing is lost, the locks are free, and the next query and
// the next session succeed.
//
// Each sweep tries all its points and prints how many there were: "EVIDENCE F1 points=N
// failures=M".

#include <errno.h>
#include <netdb.h>

#include <algorithm>
#include <map>
#include <random>

#include "client_session.h"
#include "stapi_zeb_diag.h"

namespace {

using namespace zebtest;
using Codes = std::vector<int>;

const std::string tracePath = formatText("/proc/self/fd/%d", memfd_create("trace", 0));
constexpr int kPort = 2980;

struct Mode {
  const char* name;
  int level;
  int timeout;
};
constexpr std::array<Mode, 3> kModes = {{{"", 0, 0}, {" at level 5", 5, 0}, {" timed", 0, 60000}}};

// Those that have right arguments after a query for statistics.
const std::vector<PublicCall> kTargets = [] {
  std::vector<PublicCall> targets;
  for (const PublicCall& call : kPublicCalls)
    if (call.kind != Kind::kWalk && call.kind != Kind::kFree) targets.push_back(call);
  return targets;
}();

bool isIn(const PublicCall& call, std::initializer_list<Kind> kinds) {
  return std::find(kinds.begin(), kinds.end(), call.kind) != kinds.end();
}
bool hasText(const PublicCall& call) {
  return call.kind == Kind::kQuery && strstr(call.name, "a.query") != nullptr;
}

// ---- One point ----------------------------------------------------------------------------------

struct Outcome {
  int rc = 0;
  std::map<std::string_view, int> counts = {};  // of the calls that it made
  std::string replies = {};                     // of the gateway
  std::string seen = {};                        // what a call that went well handed out
  std::string complaint = {};                   // empty: all is well
};

// What must hold of the caller's arguments, and of the connection: it is gone after a query that
// failed on the way, and otherwise good for another query.
std::string checkSession(const PublicCall& target, int rc, Session& s) {
  std::string complaint;
  if (rc < 0 && target.kind == Kind::kOpen && (s.token != nullptr || s.version != nullptr))
    complaint += " a failed open writes to its arguments;";
  if (rc < 0 && target.kind == Kind::kQuery && s.answer != nullptr)
    complaint += " a failed query writes to its argument;";
  if (s.token == nullptr) return complaint;
  const bool isLost = target.kind == Kind::kQuery && rc < 0 && rc != ZEB_NO_MEMORY;
  const int next = getStats(s.token, &s.answer);
  if (isLost) s.token = nullptr;
  if (next != (isLost ? ZEB_TOKEN_UNKNOWN : 0))
    complaint += formatText(" the next query gets %d;", next);
  return complaint;
}

std::string checkNextSession() {
  Session s(kPort);
  s.open();
  getStats(s.token, &s.answer);
  const std::string seen = s.tell();
  const bool isGood = s.release() == 0 && seen == "GD 0 GD_A 1 GD 0 GD_B two XX -11 -113";
  return isGood ? "" : " the next session gets " + seen + ";";
}

// Makes the target's call with the faults under it, and then what must succeed.
Outcome tryPoint(const PublicCall& target, const Mode& mode, const std::vector<Fault>& faults,
                 const Wire& wire = {}) {
  const auto before = countHoldings();
  Outcome outcome;
  Session s(kPort);
  {
    const Injection quiet;
    if (target.kind != Kind::kOpen) {
      s.open();
      getStatsByStatId(s.token, "former", &s.answer);  // whose copy a second query replaces
    }
    if (isIn(target, {Kind::kClose, Kind::kCloseAll, Kind::kQuery})) s.answer = nullptr;
    setAPITraceLevel(mode.level);
    setAPITimeout(mode.timeout);
  }
  {
    std::vector<Fault> plan = faults;
    if (target.kind == Kind::kOpen && mode.timeout > 0)
      plan.insert(plan.begin(), {"connect", 1, false, EINPROGRESS});
    const Injection injection(plan, wire);
    errno = 0;  // no earlier error hides that a call has none
    outcome.rc = s.make(target, mode.level);
    if (target.kind == Kind::kCloseAll) s.token = nullptr;
    outcome.counts = injection.counts;
    outcome.replies = injection.replies;
    if (faults.size() == 1 && !injection.hasStruck())
      outcome.complaint = " the fault was never reached;";
  }
  outcome.complaint += takeComplaint();
  {
    const Injection quiet;
    setAPITraceLevel(0);
    setAPITimeout(0);
    if (outcome.rc == 0) outcome.seen = s.tell();
    outcome.complaint += checkSession(target, outcome.rc, s);
    if (s.release() != 0) outcome.complaint += " the connection cannot be closed;";
    outcome.complaint += checkNextSession();
    if (setAPITraceFile(tracePath.c_str()) != 0 || truncate(tracePath.c_str(), 0) != 0)
      outcome.complaint += " no trace file;";
  }
  outcome.complaint += takeComplaint();
  if (const auto after = countHoldings(); after != before)
    outcome.complaint += formatText(" the library holds %zu, was %zu;", after, before);
  return outcome;
}

// The target's call without any fault.
const Outcome& tryClean(const PublicCall& target, const Mode& mode) {
  static std::map<std::pair<const PublicCall*, int>, Outcome> known;
  const auto [clean, isNew] = known.try_emplace({&target, mode.level + mode.timeout});
  if (isNew) {
    if (known.size() == 1) tryPoint(target, mode, {});  // sets the trace file
    clean->second = tryPoint(target, mode, {});
    EXPECT_EQ(clean->second.rc, 0) << target.name << mode.name;
    EXPECT_EQ(clean->second.complaint, "") << target.name << mode.name;
  }
  return clean->second;
}

// What a call with faults under it did wrong, judged by what it does without any.
std::string judge(const Outcome& outcome, const Outcome& clean, const Codes& allowed) {
  std::string complaint = outcome.complaint;
  if (std::find(allowed.begin(), allowed.end(), outcome.rc) == allowed.end())
    complaint += formatText(" returns %d;", outcome.rc);
  if (outcome.rc == 0 && outcome.seen != clean.seen)
    complaint += " hands out " + outcome.seen + ";";
  return complaint;
}

// ---- The first call -----------------------------------------------------------------------------

TEST(FirstCall, thatFailsHasItsCodeAndALaterOneStartsTheLibrary) {
  ASSERT_EQ(statAPITraceHandle, nullptr) << "this process has called the library already";
  Row row("F2");
  const auto before = countHoldings();
  const std::pair<Fault, int> rows[] = {
      {{"pthread_mutex_init", 1, true, ENOMEM}, ZEB_TRACE_LOCK_FAILED},
      {{"malloc", 1, true, ENOMEM}, ZEB_NO_MEMORY},
      {{"pthread_mutex_init", 1, true, ENOMEM}, -2}};
  for (const auto& [fault, rc] : rows) {
    const Injection injection({fault});
    char* version = nullptr;
    const bool isRefused = getStatsAPIVersion(&version) == rc && closeAllGatewayConnections() == rc;
    row.add(formatText("code %d", rc), isRefused ? takeComplaint() : " another code");
  }
  const Injection quiet;
  EXPECT_EQ(checkNextSession() + takeComplaint(), "");
  EXPECT_EQ(countHoldings(), before + 1) << "more than the trace file's name stays";
}

// ---- Failing calls ------------------------------------------------------------------------------

enum When { kAlways, kWithTimeout, kWithoutTimeout };

// How a call fails, and what a public call under which it does may return: an open call, a query,
// one that needs no gateway. A close succeeds.
struct Failure {
  std::string_view call;
  Codes errors;
  Codes open = {0};
  Codes query = {0};
  Codes local = {0};
  When when = kAlways;
};
const Codes kLost = {ZEB_CONNECTION_LOST};
const Codes kNotConnected = {ZEB_CONNECT_FAILED, ZEB_CONNECTION_LOST};
const Codes kNotOpened = {0, ZEB_NO_MEMORY, ZEB_CONNECT_FAILED, ZEB_COMMUNICATION_FAILED};
const std::vector<Failure> kFailures = {
    {"malloc", {ENOMEM}, kNotOpened, {ZEB_COMMUNICATION_FAILED}, {ZEB_NO_MEMORY}},
    {"getaddrinfo", {EAI_NONAME, EAI_AGAIN, EAI_MEMORY, EAI_SYSTEM}, {ZEB_HOST_UNKNOWN}},
    {"socket", {EMFILE, ENFILE, ENOBUFS, EINTR}, {ZEB_CONNECT_FAILED}},
    {"setsockopt", {EINVAL, ENOMEM, EINTR}, {ZEB_CONNECT_FAILED}},
    {"connect", {EHOSTUNREACH, ETIMEDOUT, EINTR}, {ZEB_CONNECT_FAILED}},
    {"connect", {ECONNREFUSED}, {ZEB_CONNECT_REFUSED}},
    {"connect", {ENETUNREACH}, {ZEB_NETWORK_UNREACHABLE}},
    {"getsockopt", {EINTR}, {ZEB_CONNECT_FAILED}},
    {"getsockopt", {ECONNREFUSED, kPending + ECONNREFUSED}, {ZEB_CONNECT_REFUSED}},
    {"getsockopt", {kPending + ENETUNREACH}, {ZEB_NETWORK_UNREACHABLE}},
    {"poll", {ENOMEM, EINVAL}, kNotConnected, kLost},
    {"poll", {EINTR}, kNotConnected, kLost, {0}, kWithoutTimeout},
    {"poll", {EINTR}, {0}, {0}, {0}, kWithTimeout},
    {"poll", {kEnd}, {ZEB_CONNECT_TIMED_OUT}, {ZEB_TIMED_OUT}, {0}, kWithTimeout},
    {"send", {EPIPE, ECONNRESET, kCut, kEnd}, kNotConnected, kLost},
    {"send", {EINTR}, kNotConnected, kLost, {0}, kWithoutTimeout},
    {"send", {EINTR, EAGAIN}, {0}, {0}, {0}, kWithTimeout},
    {"send", {kShort}},
    {"recv", {EINTR, ECONNRESET, ETIMEDOUT, kEnd}, kNotConnected, kLost},
    {"recv", {EAGAIN}, {0}, {0}, {0}, kWithTimeout},
    {"recv", {kShort}},
    {"close", {EINTR, EIO}},
    {"open", {EMFILE, EACCES, EINTR}, {0}, {0}, {ZEB_TRACE_FILE_FAILED}},
    {"fdopen", {ENOMEM}, {0}, {0}, {ZEB_TRACE_FILE_FAILED}},
    {"fflush", {ENOSPC, EINTR}},
    {"fclose", {EIO, EINTR}},
    {"pthread_mutex_lock", {EINVAL}},
    {"pthread_mutex_unlock", {EPERM}}};

Codes codesUnder(const PublicCall& target, const Failure& failure, const Fault& fault) {
  // A numeric address that is refused once is taken as it is; the first block of a query with text
  // is its copy.
  if (fault.call == "getaddrinfo" && !fault.onwards) return {0};
  if (fault.call == "malloc" && fault.at == 1 && hasText(target)) return {ZEB_NO_MEMORY};
  if (isIn(target, {Kind::kClose, Kind::kCloseAll})) return {0};
  if (target.kind == Kind::kOpen) return failure.open;
  return target.kind == Kind::kQuery ? failure.query : failure.local;
}

// Each line of the trace flushes and locks, and no code depends on it: every power of two for all.
std::vector<std::pair<Fault, Codes>> listPoints(const PublicCall& target, const Mode& mode) {
  std::vector<std::pair<Fault, Codes>> points;
  std::map counts = tryClean(target, mode).counts;
  for (const Failure& failure : kFailures) {
    if (failure.when == (mode.timeout > 0 ? kWithoutTimeout : kWithTimeout)) continue;
    const bool isOfTrace = failure.call == "fflush" || failure.call.starts_with("pthread");
    const bool isSparse = isOfTrace && mode.level > 0;
    for (int at = 1; at <= counts[failure.call]; at += isSparse ? at : 1) {
      for (const int error : failure.errors) {
        for (const bool onwards : {false, true}) {
          const Fault fault = {failure.call, at, onwards, error};
          points.emplace_back(fault, codesUnder(target, failure, fault));
        }
      }
    }
  }
  return points;
}

void tryFaults(Row& row, const PublicCall& target, const Mode& mode,
               const std::vector<Fault>& faults, const Codes& allowed) {
  std::string name = std::string(target.name) + mode.name;
  for (const auto& [call, at, onwards, error] : faults)
    name +=
        formatText(", %s fails at %d%s with %d", call.data(), at, onwards ? " and on" : "", error);
  row.add(name, judge(tryPoint(target, mode, faults), tryClean(target, mode), allowed));
}

TEST(Faults, giveADocumentedCode) {
  Row allocations("F1"), systemCalls("F2");
  for (const Mode& mode : kModes) {
    for (const PublicCall& target : kTargets) {
      for (const auto& [fault, allowed] : listPoints(target, mode))
        tryFaults(fault.call == "malloc" ? allocations : systemCalls, target, mode, {fault},
                  allowed);
    }
  }
}

TEST(Faults, inTheCleanUpOfAnotherLoseNothing) {
  Row row("F3");
  std::mt19937 random(2000);
  const auto pick = [&](const auto& list) { return list[random() % list.size()]; };
  for (int pairs = 0; pairs < 2050;) {
    const PublicCall& target = kTargets[random() % kTargets.size()];
    const Mode& mode = kModes[random() % kModes.size()];
    const auto points = listPoints(target, mode);
    if (points.empty()) continue;
    ++pairs;
    auto first = pick(points), second = random() % 2 == 0 ? first : pick(points);
    first.first.onwards = false;
    second.first.at = 1 + static_cast<int>(random() % 3);
    Codes allowed = {0, ZEB_NO_MEMORY, ZEB_COMMUNICATION_FAILED, ZEB_HOST_UNKNOWN};
    for (const Codes& codes : {first.second, second.second})
      allowed.insert(allowed.end(), codes.begin(), codes.end());
    tryFaults(row, target, mode, {first.first, second.first}, allowed);
  }
}

// ---- Replies ------------------------------------------------------------------------------------

// Tries what is done at each byte of the replies of each call that gets any.
template <typename Try>
void sweepReplies(const Mode& mode, Try tryReplies) {
  for (const PublicCall& target : kTargets) {
    for (std::size_t at = 0; at < tryClean(target, mode).replies.size(); ++at)
      tryReplies(target, at);
  }
}

// The connection ends after any byte, or the reply comes in single bytes or two parts.
TEST(Replies, thatAreCutAreACodeAndPiecesAreTheSame) {
  Row ends("F4"), pieces("F5");
  for (const Mode& mode : {kModes[0], kModes[2]}) {
    sweepReplies(mode, [&](const PublicCall& target, std::size_t at) {
      const auto tryWire = [&](Row& row, const Wire& wire, const Codes& codes) {
        row.add(formatText("%s%s, cut at %zu, %d", target.name, mode.name, at, wire.error),
                judge(tryPoint(target, mode, {}, wire), tryClean(target, mode), codes));
      };
      Codes cut = isIn(target, {Kind::kOpen}) ? kNotConnected : kLost;
      if (isIn(target, {Kind::kClose, Kind::kCloseAll})) cut = {0};
      for (const int error : {0, EPIPE}) tryWire(ends, {.endsAt = at, .error = error}, cut);
      tryWire(pieces, {.piece = at == 0 ? 1 : SIZE_MAX, .splitAt = at}, {0});
    });
  }
}

// Every bit, and at every byte the extremes of a field: all fields begin at some byte.
TEST(Replies, thatAreChangedAreACodeOrAnotherAnswer) {
  Row row("F6");
  sweepReplies(kModes[0], [&](const PublicCall& target, std::size_t at) {
    if (hasText(target)) return;
    const Outcome& clean = tryClean(target, kModes[0]);
    std::vector<std::string> values;
    for (int bit = 0; bit < 8; ++bit)
      values.emplace_back(1, static_cast<char>(clean.replies[at] ^ 1 << bit));
    for (const unsigned extreme : {0u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0xF004F004u}) {
      for (const std::size_t width : {1u, 2u, 4u})
        values.push_back(zebsim::words({extreme}).substr(0, width));
    }
    Codes allowed = {0};
    if (isIn(target, {Kind::kOpen, Kind::kQuery})) allowed = {0, -102, -118, -122};
    for (const std::string& value : values) {
      Outcome outcome = tryPoint(target, kModes[0], {}, {.changedAt = at, .change = value});
      outcome.seen = clean.seen;
      row.add(formatText("%s, %zu bytes changed at %zu", target.name, value.size(), at),
              judge(outcome, clean, allowed));
    }
  });
}

}  // namespace
