// Whatever fails under a public call, and whatever happens to the gateway's replies, the call
// returns a code documented for that, nothing is lost, the locks are free, and the next query and
// the next session succeed.
//
// Each sweep tries all its points and prints how many there were: "EVIDENCE F1 points=N
// failures=M".

#include <errno.h>
#include <netdb.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "client_session.h"
#include "stapi_zeb_diag.h"
#include "stapi_zeb_protocol.h"
#include "stapi_zeb_socketcomms.h"

namespace {

using namespace zebtest;
using Codes = std::vector<int>;

const std::string tracePath = formatText("/proc/self/fd/%d", memfd_create("trace", 0));
constexpr int kPort = 2980;

// ---- The public calls, and what a fault may make of them ----------------------------------------

enum Family { kLocal, kOpen, kQuery, kTextQuery, kClosing };
enum Needs { kNothing, kStats, kIds };  // a connection, its answer and a copy of that

struct Target {
  const char* name;
  Family family;
  Needs needs;
  int (*run)(Session& s);
  std::vector<Fault> before = {};
  [[nodiscard]] bool isQuery() const { return family == kQuery || family == kTextQuery; }
};

struct Mode {
  int level;
  int timeout;
};
void PrintTo(const Mode& mode, std::ostream* out) {
  *out << "level " << mode.level << ", timeout " << mode.timeout;
}

constexpr int kNoVersion = 1;  // of an open call that returned 0

int openSession(Session& s) {
  const int rc = s.open();
  return rc == 0 && s.version == nullptr ? kNoVersion : rc;
}
int walkAll(Session& s) {
  s.walked = s.tell();
  return 0;
}
int switchTraceFile(Session&) {
  const int there = setAPITraceFile("/dev/null");
  const int back = setAPITraceFile(tracePath.c_str());
  return there != 0 ? there : back;
}
int switchTraceLevel(Session&) {
  int level = 0;
  const int rc = getAPITraceLevel(&level);
  return rc != 0 ? rc : setAPITraceLevel(level);
}
int copyAgain(Session& s) {
  freeResultSet(&s.copy);
  return copyResultSet(s.answer, &s.copy);
}
int closeOne(Session& s) {
  s.answer = nullptr;  // it goes with the connection
  return closeGatewayConnection(&s.token);
}
int closeAll(Session& s) {
  s.answer = nullptr;
  s.token = nullptr;
  return closeAllGatewayConnections();
}

std::vector<Target> listTargets() {
  std::vector<Target> all = {
      {"open", kOpen, kNothing, openSession},
      {"open in progress", kOpen, kNothing, openSession, {{"connect", 1, false, EINPROGRESS}}},
      {"walk of statistics", kLocal, kStats, walkAll},
      {"walk of ids", kLocal, kIds, walkAll},
      {"copy", kLocal, kStats, copyAgain},
      {"free", kLocal, kStats, [](Session& s) { return freeResultSet(&s.copy); }},
      {"dump", kLocal, kStats, [](Session& s) { return dumpResultSet(s.answer); }},
      {"id query", kLocal, kIds, [](Session& s) { return getIdQuery(s.answer, &s.text); }},
      {"dump of the state", kLocal, kStats, [](Session&) { return dumpState(); }},
      {"trace file", kLocal, kNothing, switchTraceFile},
      {"trace level", kLocal, kNothing, switchTraceLevel},
      {"version", kLocal, kNothing, [](Session& s) { return getStatsAPIVersion(&s.text); }},
      {"close", kClosing, kStats, closeOne},
      {"close all", kClosing, kStats, closeAll}};
  for (const Query& query : kQueries)
    all.push_back({query.name, query.hasText ? kTextQuery : kQuery, kStats, query.ask});
  return all;
}
const std::vector<Target> kTargets = listTargets();

// How each call fails. The last one of poll, send and recv only occurs with a timeout.
Codes errorsOf(std::string_view call, const Mode& mode) {
  static const std::map<std::string_view, Codes> errors = {
      {"malloc", {ENOMEM}},
      {"getaddrinfo", {EAI_NONAME, EAI_AGAIN, EAI_MEMORY, EAI_SYSTEM, EAI_ADDRFAMILY}},
      {"socket", {EMFILE, ENFILE, ENOBUFS, EINTR}},
      {"setsockopt", {EINVAL, ENOMEM, EINTR}},
      {"ioctl", {EBADF, EINTR}},
      {"connect", {ECONNREFUSED, ENETUNREACH, EHOSTUNREACH, ETIMEDOUT, EINTR}},
      {"poll", {EINTR, ENOMEM, EINVAL, kEnd}},
      {"getsockopt", {EINTR, ECONNREFUSED, kPending + ECONNREFUSED, kPending + ENETUNREACH}},
      {"send", {EINTR, EPIPE, ECONNRESET, kShort, kCut, kEnd, EAGAIN}},
      {"recv", {EINTR, ECONNRESET, ETIMEDOUT, kShort, kEnd, EAGAIN}},
      {"close", {EINTR, EIO}},
      {"open", {EMFILE, EACCES, EINTR}},
      {"fdopen", {ENOMEM}},
      {"fflush", {ENOSPC, EINTR}},
      {"fclose", {EIO, EINTR}},
      {"pthread_mutex_lock", {EINVAL}},
      {"pthread_mutex_unlock", {EPERM}},
      {"pthread_mutex_init", {ENOMEM}}};
  Codes listed = errors.at(call);
  if (mode.timeout == 0 && (call == "poll" || call == "send" || call == "recv")) listed.pop_back();
  return listed;
}

// What a call may return if this fails under it.
Codes codesUnder(const Target& target, const Mode& mode, const Fault& fault) {
  const auto& [call, at, onwards, error] = fault;
  const bool isOpen = target.family == kOpen;
  if (call == "open" || call == "fdopen") return {ZEB_TRACE_FILE_FAILED};
  if (call == "malloc") {
    if (isOpen) return {ZEB_NO_MEMORY, ZEB_CONNECT_FAILED, ZEB_COMMUNICATION_FAILED, kNoVersion};
    if (target.isQuery())  // the first block of a query with text is its copy
      return {target.family == kTextQuery && at == 1 ? ZEB_NO_MEMORY : ZEB_COMMUNICATION_FAILED};
    return {target.family == kLocal ? ZEB_NO_MEMORY : 0};
  }
  const bool isSend = call == "send", isPoll = call == "poll", isReceive = call == "recv";
  if ((isSend || isPoll || isReceive) && (isOpen || target.isQuery())) {
    if (error == kShort || error == EAGAIN) return {0};
    if (mode.timeout > 0 && error == EINTR && !isReceive) return {0};  // it ends no call
    if (isPoll && error == kEnd) return {isOpen ? ZEB_CONNECT_TIMED_OUT : ZEB_TIMED_OUT};
    if (!isOpen) return {ZEB_CONNECTION_LOST};
    const bool isConnectWait = isPoll && !target.before.empty() && at == 1;
    if (isConnectWait && error == EINTR && !onwards) return {0};  // it ends no wait for a connect
    return {ZEB_CONNECT_FAILED, ZEB_CONNECTION_LOST};
  }
  if (!isOpen) return {0};
  if (call == "getaddrinfo")  // a numeric address that is refused once is taken as it is
    return {onwards ? ZEB_HOST_UNKNOWN : 0};
  if (call == "socket" || call == "setsockopt") return {ZEB_CONNECT_FAILED};
  if (call != "connect" && call != "getsockopt") return {0};
  if (error % kPending == ECONNREFUSED) return {ZEB_CONNECT_REFUSED};
  return {error % kPending == ENETUNREACH ? ZEB_NETWORK_UNREACHABLE : ZEB_CONNECT_FAILED};
}

// ---- One point ----------------------------------------------------------------------------------

struct Outcome {
  int rc = 0;
  bool hasStruck = true;
  std::map<std::string_view, int> counts = {};
  std::string replies = {};    // of the gateway, during the call
  std::string seen = {};       // what a call that went well handed out
  std::string complaint = {};  // empty: all is well
};

// What must hold of the caller's arguments, and of the connection: it is gone after a query that
// failed on the way, and otherwise good for another query.
std::string checkSession(const Target& target, int rc, Session& s) {
  std::string complaint;
  if (rc < 0 && target.family == kOpen && (s.token != nullptr || s.version != nullptr))
    complaint += " a failed open writes to its arguments;";
  if (rc < 0 && target.isQuery() && s.answer != nullptr)
    complaint += " a failed query writes to its argument;";
  if (s.token == nullptr) return complaint;
  const bool isLost = target.isQuery() && rc < 0 && rc != ZEB_NO_MEMORY;
  const int next = getStats(s.token, &s.answer);
  if (isLost) s.token = nullptr;
  if (next != (isLost ? ZEB_TOKEN_UNKNOWN : 0))
    complaint += formatText(" the next query gets %d;", next);
  return complaint;
}

std::string checkNextSession() {
  Session s = {.port = kPort};
  const int opened = s.open(), asked = opened == 0 ? getStats(s.token, &s.answer) : opened;
  const std::string seen = s.tell();
  const bool isGood =
      s.release() == 0 && asked == 0 && seen.starts_with("GD 0 GD_A=1 GD 0 GD_B=two XX -11 -113;");
  return isGood ? "" : formatText(" the next session gets %d, %d, ", opened, asked) + seen + ";";
}

// Makes the target's call with the faults under it, and then what must succeed.
Outcome tryPoint(const Target& target, const Mode& mode, const std::vector<Fault>& faults,
                 const Wire& wire = {}) {
  const auto before = countHoldings();
  Outcome outcome;
  Session s = {.port = kPort};
  {
    const Injection quiet;
    if (target.needs != kNothing) {
      s.open();
      target.needs == kIds ? getStatIds(s.token, &s.answer) : getStats(s.token, &s.answer);
      copyResultSet(s.answer, &s.copy);
    }
    if (target.isQuery()) s.answer = nullptr;
    setAPITraceLevel(mode.level);
    setAPITimeout(mode.timeout);
  }
  {
    std::vector<Fault> plan = target.before;
    plan.insert(plan.end(), faults.begin(), faults.end());
    const Injection injection(plan, wire);
    errno = 0;  // no earlier error hides that a call has none
    outcome.rc = target.run(s);
    outcome.hasStruck = injection.hasStruck();
    outcome.counts = injection.counts;
    outcome.replies = injection.replies;
  }
  outcome.complaint = takeComplaint();
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
  const auto after = countHoldings();
  if (after != before)
    outcome.complaint += formatText(" the library holds %zu, was %zu;", after, before);
  return outcome;
}

// What a call with faults under it did wrong, judged by what it does without any.
std::string judge(const Outcome& outcome, const Outcome& clean, const Codes& allowed) {
  std::string complaint = outcome.complaint;
  if (!outcome.hasStruck) complaint += " the fault was never reached;";
  if (std::find(allowed.begin(), allowed.end(), outcome.rc) == allowed.end())
    complaint += formatText(" returns %d;", outcome.rc);
  if (outcome.rc == 0 && outcome.seen != clean.seen)
    complaint += " hands out " + outcome.seen + ";";
  return complaint;
}

std::string show(const Target& target, const Mode& mode) {
  return formatText("%s at level %d, timeout %d", target.name, mode.level, mode.timeout);
}
std::string show(const Fault& fault) {
  return ", " + std::string(fault.call) +
         formatText(" fails at %d%s with %d", fault.at, fault.onwards ? " and on" : "",
                    fault.error);
}

// ---- First calls --------------------------------------------------------------------------------

// In a process that has not called the library yet: the first call and, while the fault lasts, the
// second.
std::string tryFirstCall(const Fault& fault, int expected) {
  char* version = nullptr;
  const auto before = countHoldings();
  std::string complaint;
  {
    const Injection injection({fault});
    const int first = getStatsAPIVersion(&version), second = closeAllGatewayConnections();
    if (first != expected || second != (fault.onwards ? expected : 0) || !injection.hasStruck())
      complaint = formatText(" the first calls return %d and %d;", first, second);
  }
  const Injection quiet;
  complaint += takeComplaint() + checkNextSession() + takeComplaint();
  if (countHoldings() != before + 1) complaint += " more than the trace file's name stays;";
  return complaint;
}

TEST(FirstCall, thatFailsHasItsCodeAndTheNextOneStartsTheLibrary) {
  ASSERT_EQ(statAPITraceHandle, nullptr) << "this process has called the library already";
  const std::vector<std::pair<std::string_view, Codes>> failing = {
      {"malloc", {ZEB_NO_MEMORY}},
      {"pthread_mutex_init", {ZEB_TRACE_LOCK_FAILED, -2}},
      {"pthread_mutex_lock", {0, 0}},
      {"pthread_mutex_unlock", {0, 0}}};
  for (const auto& [call, codes] : failing) {
    Row row(call == "malloc" ? "F1" : "F2");
    for (int i = 0; i < 2 * std::ssize(codes); ++i) {
      const Fault fault = {call, i / 2 + 1, i % 2 == 1, errorsOf(call, {})[0]};
      const int code = codes[static_cast<std::size_t>(i / 2)];
      row.add("first call" + show(fault), inChild([&] { return tryFirstCall(fault, code); }));
    }
  }
}

// ---- Sweeps -------------------------------------------------------------------------------------

class Faults : public testing::Test {
 protected:
  void SetUp() override {
    const Injection quiet;
    ASSERT_EQ(setAPITraceFile(tracePath.c_str()), 0);
    ASSERT_EQ(checkNextSession(), "");
  }
  void TearDown() override {
    const Injection quiet;
    setAPITraceFile(nullptr);
  }
};

// The target's call without any fault.
const Outcome& tryClean(const Target& target, const Mode& mode) {
  static std::map<std::string, Outcome> known;
  const auto [clean, isNew] = known.try_emplace(show(target, mode));
  if (isNew) clean->second = tryPoint(target, mode, {});
  EXPECT_EQ(clean->second.rc, 0) << clean->first;
  EXPECT_EQ(clean->second.complaint, "") << clean->first;
  return clean->second;
}

constexpr Mode kPlain = {0, 0}, kTraced = {5, 0}, kTimed = {0, 60000};

class FaultsWith : public Faults, public testing::WithParamInterface<Mode> {};

// Each line of the trace flushes and locks, and no code depends on it: one error at the first 24
// and then at every eighth, all from there on at every eighth, and one query for all.
TEST_P(FaultsWith, aFailingCallGivesADocumentedCode) {
  Row allocations("F1"), systemCalls("F2");
  const Mode mode = GetParam();
  const auto isSkipped = [&](const Target& target, const Fault& fault) {
    const bool isOfTrace = fault.call == "fflush" || fault.call.starts_with("pthread");
    if (mode.level == 0 || !isOfTrace) return false;
    return fault.error == EINTR || ((fault.at > 24 || fault.onwards) && fault.at % 8 != 1) ||
           (target.isQuery() && target.name != std::string_view("getStatsByStatId"));
  };
  for (const Target& target : kTargets) {
    const Outcome& clean = tryClean(target, mode);
    for (const auto& [call, count] : clean.counts) {
      for (int at = 1; at <= count; ++at) {
        for (const int error : errorsOf(call, mode)) {
          for (const bool onwards : {false, true}) {
            const Fault fault = {call, at, onwards, error};
            if (isSkipped(target, fault)) continue;
            (call == "malloc" ? allocations : systemCalls)
                .add(show(target, mode) + show(fault), judge(tryPoint(target, mode, {fault}), clean,
                                                             codesUnder(target, mode, fault)));
          }
        }
      }
    }
  }
}
INSTANTIATE_TEST_SUITE_P(Modes, FaultsWith, testing::Values(kPlain, kTraced, kTimed));

TEST_F(Faults, aSecondFaultInTheCleanUpOfTheFirstLosesNothing) {
  Row row("F3");
  std::mt19937 random(2000);
  const auto pick = [&](auto count) { return random() % static_cast<std::size_t>(count); };
  for (int pairs = 0; pairs < 2050;) {
    const Target& target = kTargets[pick(kTargets.size())];
    const Mode mode = pick(8) == 0 ? kTraced : pick(2) == 0 ? kTimed : kPlain;
    const Outcome& clean = tryClean(target, mode);
    if (clean.counts.empty()) continue;
    ++pairs;
    const auto pickFault = [&](bool onwards) {
      const auto& [call, count] =
          *std::next(clean.counts.begin(), static_cast<long>(pick(clean.counts.size())));
      const Codes errors = errorsOf(call, mode);
      return Fault{call, 1 + static_cast<int>(pick(count)), onwards, errors[pick(errors.size())]};
    };
    const Fault first = pickFault(false);
    Fault second = pickFault(pick(3) == 0);
    second.at = 1 + static_cast<int>(pick(3));
    if (pick(2) == 0) second = {first.call, second.at, second.onwards, first.error};
    Outcome outcome = tryPoint(target, mode, {first, second});
    outcome.hasStruck = true;  // the second need not
    Codes allowed = codesUnder(target, mode, first);
    for (const int at : {1, 2}) {
      for (const bool onwards : {false, true}) {
        for (const int code : codesUnder(target, mode, {second.call, at, onwards, second.error}))
          allowed.push_back(code);
      }
    }
    row.add(show(target, mode) + show(first) + show(second), judge(outcome, clean, allowed));
  }
}

// ---- Replies ------------------------------------------------------------------------------------

// Tries what is done to the replies of each call that gets any.
template <typename Try>
void sweepReplies(Mode mode, Try tryReplies) {
  for (const Target& target : kTargets) {
    if (target.family == kLocal) continue;
    const Outcome& clean = tryClean(target, mode);
    ASSERT_GT(clean.replies.size(), 0u) << target.name;
    tryReplies(target, clean);
  }
}

class RepliesWith : public FaultsWith {};

// The connection ends after any byte, or the reply comes in single bytes or two parts.
TEST_P(RepliesWith, aCutReplyIsACodeAndOneInPiecesIsTheSame) {
  Row ends("F4"), pieces("F5");
  const std::size_t connected =
      (zebsim::reply("BASE", "") + zebsim::reply("Auth", zebsim::authFirstData(1, 2, 3)) +
       zebsim::reply("Auth", zebsim::authSecondData()))
          .size();
  sweepReplies(GetParam(), [&](const Target& target, const Outcome& clean) {
    const auto tryWire = [&](Row& row, const Wire& wire, int code) {
      row.add(formatText("%s, end at %zu, %d, split at %zu", target.name, wire.endsAt,
                         wire.sendError, wire.splitAt),
              judge(tryPoint(target, GetParam(), {}, wire), clean, {code}));
    };
    for (std::size_t at = 0; at < clean.replies.size(); ++at) {
      int code = target.family == kClosing ? 0 : ZEB_CONNECTION_LOST;
      if (target.family == kOpen && at < connected) code = ZEB_CONNECT_FAILED;
      tryWire(ends, {.endsAt = at}, code);
      tryWire(ends, {.endsAt = at, .sendError = EPIPE}, code);
      tryWire(ends, {.endsAt = at, .receiveError = ECONNRESET, .sendError = ECONNRESET}, code);
      tryWire(pieces, {.piece = at == 0 ? 1 : SIZE_MAX, .splitAt = at}, 0);
    }
  });
}
INSTANTIATE_TEST_SUITE_P(Modes, RepliesWith, testing::Values(kPlain, kTimed));

// Every bit, and at every byte the extremes of a field: all fields begin at some byte.
TEST_F(Faults, aChangedReplyIsACodeOrAnotherAnswer) {
  Row row("F6");
  const auto change = [&](const Target& target, const Outcome& clean, std::size_t at,
                          const std::string& value) {
    if (clean.replies.compare(at, value.size(), value) == 0) return;
    const Wire wire = {.changedAt = at, .change = value};
    Outcome outcome = tryPoint(target, kPlain, {}, wire);
    outcome.seen = clean.seen;
    Codes allowed = {0, ZEB_CONNECTION_LOST, ZEB_COMMUNICATION_FAILED};
    if (target.family == kOpen) allowed.push_back(ZEB_CONNECT_FAILED);
    if (target.family == kClosing) allowed.resize(1);
    row.add(formatText("%s, %zu bytes changed at %zu", target.name, value.size(), at),
            judge(outcome, clean, allowed));
  };
  sweepReplies(kPlain, [&](const Target& target, const Outcome& clean) {
    if (!target.before.empty() || target.family == kTextQuery) return;
    for (std::size_t at = 0; at < clean.replies.size(); ++at) {
      for (int bit = 0; bit < 8; ++bit)
        change(target, clean, at, {static_cast<char>(clean.replies[at] ^ 1 << bit)});
      for (const unsigned extreme : {0u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0xF004u}) {
        for (const std::size_t width : {1u, 2u, 4u}) {
          const std::string value = zebsim::words({extreme});
          if (at + width <= clean.replies.size())
            change(target, clean, at, value.substr(extreme == 0xF004 ? 4 - width : 0, width));
        }
      }
    }
  });
}

// ---- What no session reaches --------------------------------------------------------------------

// Records of other sizes than the library's own.
TEST_F(Faults, aRequestIsSentWithoutWhatTheMemoryHeldOrNotAtAll) {
  const auto request = [](const char* argument, std::uint32_t dataLength) {
    AdminCallRecord call = {};
    call.header = zeb::makeHeader("Admin", zeb::kCallMessage, dataLength);
    call.callKind = zeb::kInvoke;
    call.country = call.language = call.qualifier = call.beanName = call.action = call.signature =
        "";
    call.argument = argument;
    reasons failure = {};
    const Injection injection({}, {.replies = ""});
    const int rc = flowAdminRequest(1, &call, &failure);
    return rc == ZEB_NO_MEMORY ? "not sent" : injection.sent;
  };
  EXPECT_TRUE(request("x", 40 + 60).ends_with("\1" + std::string(2 + 60, '\0')));
  EXPECT_EQ(request("x", 39), "not sent");
  EXPECT_EQ(request(std::string(65536, 'x').c_str(), 70000), "not sent");
}

}  // namespace
