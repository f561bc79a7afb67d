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

enum class Family { local, open, query, textQuery, closing };
enum class Needs { nothing, connection, stats, ids, copy };

struct Target {
  const char* name;
  Family family;
  Needs needs;
  std::function<int(Session&)> run;
  std::vector<Fault> before = {};
  [[nodiscard]] bool isQuery() const {
    return family == Family::query || family == Family::textQuery;
  }
};

struct Mode {
  int level;
  int timeout;
};

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
      {"open", Family::open, Needs::nothing, openSession},
      {"open in progress",
       Family::open,
       Needs::nothing,
       openSession,
       {{kConnect, 1, false, EINPROGRESS}}},
      {"walk of statistics", Family::local, Needs::stats, walkAll},
      {"walk of ids", Family::local, Needs::ids, walkAll},
      {"copyResultSet", Family::local, Needs::stats,
       [](Session& s) { return copyResultSet(s.answer, &s.copy); }},
      {"freeResultSet", Family::local, Needs::copy,
       [](Session& s) { return freeResultSet(&s.copy); }},
      {"dumpResultSet", Family::local, Needs::stats,
       [](Session& s) { return dumpResultSet(s.answer); }},
      {"getIdQuery", Family::local, Needs::ids,
       [](Session& s) { return getIdQuery(s.answer, &s.text); }},
      {"dumpState", Family::local, Needs::connection, [](Session&) { return dumpState(); }},
      {"setAPITraceFile", Family::local, Needs::nothing, switchTraceFile},
      {"trace level", Family::local, Needs::nothing, switchTraceLevel},
      {"getStatsAPIVersion", Family::local, Needs::nothing,
       [](Session& s) { return getStatsAPIVersion(&s.text); }},
      {"close", Family::closing, Needs::copy, closeOne},
      {"close all", Family::closing, Needs::stats, closeAll}};
  for (const Query& query : kQueries)
    all.push_back({query.name, query.hasText ? Family::textQuery : Family::query, Needs::connection,
                   query.ask});
  return all;
}
const std::vector<Target> kTargets = listTargets();

// The errors of a call. The last of those of poll, send and recv can only occur with a timeout.
Codes errorsOf(Call call, const Mode& mode) {
  static const std::array<Codes, kCalls> errors = {{
      /* allocate */ {ENOMEM},
      /* getaddrinfo */ {EAI_NONAME, EAI_AGAIN, EAI_MEMORY, EAI_SYSTEM},
      /* socket */ {EMFILE, ENFILE, ENOBUFS, EINTR},
      /* setsockopt */ {EINVAL, ENOMEM, EINTR},
      /* ioctl */ {EBADF, EINTR},
      /* connect */ {ECONNREFUSED, ENETUNREACH, EHOSTUNREACH, ETIMEDOUT, EINTR},
      /* poll */ {EINTR, ENOMEM, EINVAL, kEnd},
      /* getsockopt */
      {EINTR, ECONNREFUSED, kPending + ECONNREFUSED, kPending + ENETUNREACH, kPending + EINTR},
      /* send */ {EINTR, EPIPE, ECONNRESET, kShort, kCut, kEnd, EAGAIN},
      /* recv */ {EINTR, ECONNRESET, ETIMEDOUT, kShort, kEnd, EAGAIN},
      /* close */ {EINTR, EIO},
      /* open */ {EMFILE, EACCES, EINTR},
      /* fdopen */ {ENOMEM},
      /* fflush */ {ENOSPC, EINTR},
      /* fclose */ {EIO, EINTR},
      /* lock */ {EINVAL},
      /* unlock */ {EPERM},
      /* initLock */ {ENOMEM},
  }};
  Codes listed = errors[call];
  if (mode.timeout == 0 && (call == kPoll || call == kSend || call == kRecv)) listed.pop_back();
  return listed;
}

int connectCode(int error) {
  if (error == ECONNREFUSED) return ZEB_CONNECT_REFUSED;
  return error == ENETUNREACH ? ZEB_NETWORK_UNREACHABLE : ZEB_CONNECT_FAILED;
}

// What a call that waits for the gateway may return if a step of the exchange fails.
Codes exchangeCodes(const Target& target, const Mode& mode, Call call, int error) {
  const bool isOpen = target.family == Family::open;
  if (error == kShort || error == EAGAIN) return {0};
  if (mode.timeout > 0 && error == EINTR && call != kRecv) return {0};  // it ends no call
  if (call == kPoll && error == kEnd) return {isOpen ? ZEB_CONNECT_TIMED_OUT : ZEB_TIMED_OUT};
  if (!isOpen) return {ZEB_CONNECTION_LOST};
  if (call == kPoll && error == EINTR && !target.before.empty())  // the wait for a connect goes on
    return {0, ZEB_CONNECT_FAILED, ZEB_CONNECTION_LOST};
  return {ZEB_CONNECT_FAILED, ZEB_CONNECTION_LOST};
}

// What a call may return when this fails under it.
Codes codesUnder(const Target& target, const Mode& mode, Call call, int error) {
  const bool isOpen = target.family == Family::open;
  if (call == kAllocate) {
    if (isOpen) return {ZEB_NO_MEMORY, ZEB_CONNECT_FAILED, ZEB_COMMUNICATION_FAILED, kNoVersion};
    if (target.family == Family::textQuery) return {ZEB_NO_MEMORY, ZEB_COMMUNICATION_FAILED};
    if (target.isQuery()) return {ZEB_COMMUNICATION_FAILED};
    return {target.family == Family::local ? ZEB_NO_MEMORY : 0};
  }
  const bool isExchange = call == kSend || call == kPoll || call == kRecv;
  if (isExchange && (isOpen || target.isQuery())) return exchangeCodes(target, mode, call, error);
  if (isOpen && call == kGetaddrinfo)  // a numeric address that is refused once is taken as it is
    return {ZEB_HOST_UNKNOWN, 0};
  if (isOpen && (call == kSocket || call == kSetsockopt)) return {ZEB_CONNECT_FAILED};
  if (isOpen && (call == kConnect || call == kGetsockopt)) return {connectCode(error % kPending)};
  return {call == kOpen || call == kFdopen ? ZEB_TRACE_FILE_FAILED : 0};
}

// ---- One point ----------------------------------------------------------------------------------

struct Outcome {
  int rc = 0;
  bool hasStruck = true;
  std::array<int, kCalls> counts = {};
  std::string replies = {};    // of the gateway, during the call
  std::string seen = {};       // what a call that went well handed out
  std::string complaint = {};  // empty: all is well
};

void prepare(const Target& target, Session& s) {
  if (target.needs == Needs::nothing) return;
  s.open();
  if (target.needs == Needs::ids) getStatIds(s.token, &s.answer);
  if (target.needs == Needs::stats || target.needs == Needs::copy) getStats(s.token, &s.answer);
  if (target.needs == Needs::copy) copyResultSet(s.answer, &s.copy);
}

// What must hold of the caller's arguments, and of the connection: it is gone after a query that
// failed on the way, and otherwise good for another query.
std::string checkSession(const Target& target, int rc, Session& s) {
  std::string complaint;
  if (rc < 0 && target.family == Family::open && (s.token != nullptr || s.version != nullptr))
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
  const int opened = s.open();
  const int asked = opened == 0 ? getStats(s.token, &s.answer) : opened;
  const std::string seen = s.tell();
  const int closed = s.release();
  if (asked == 0 && closed == 0 && seen.starts_with("GD 0 GD_A=1 GD 0 GD_B=two XX -11 -113;"))
    return "";
  return formatText(" the next session gets open=%d query=%d close=%d %s;", opened, asked, closed,
                    seen.c_str());
}

// Makes the target's call with the faults under it, and then what must succeed.
Outcome tryPoint(const Target& target, const Mode& mode, const std::vector<Fault>& faults,
                 const Wire& wire = {}) {
  const auto before = countHoldings();
  Outcome outcome;
  Session s = {.port = kPort};
  {
    const Injection quiet;
    prepare(target, s);
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
    outcome.counts = injection.counts();
    outcome.replies = injection.replies();
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
  return formatText(", call %d fails at %d%s with %d", fault.call, fault.at,
                    fault.onwards ? " and on" : "", fault.error);
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
    const int first = getStatsAPIVersion(&version);
    if (first != expected) complaint += formatText(" the first call returns %d;", first);
    if (!injection.hasStruck()) complaint += " the fault was never reached;";
    const int second = closeAllGatewayConnections();
    if (second != (fault.onwards ? expected : 0))
      complaint += formatText(" the second returns %d;", second);
    complaint += takeComplaint();
  }
  {
    const Injection quiet;
    complaint += checkNextSession() + takeComplaint();
  }
  if (countHoldings() != before + 1) complaint += " more than the trace file's name stays;";
  return complaint;
}

TEST(FirstCall, ThatFailsHasItsCodeAndTheNextOneStartsTheLibrary) {
  ASSERT_EQ(statAPITraceHandle, nullptr) << "this process has called the library already";
  const auto sweep = [](const char* name, Call call, const Codes& expected) {
    Row row(name);
    for (std::size_t at = 0; at < expected.size(); ++at) {
      for (const bool onwards : {false, true}) {
        const Fault fault = {call, static_cast<int>(at) + 1, onwards, errorsOf(call, {})[0]};
        row.add("first call" + show(fault),
                inChild([&] { return tryFirstCall(fault, expected[at]); }));
      }
    }
  };
  sweep("F1", kAllocate, {ZEB_NO_MEMORY});
  sweep("F2", kInitLock, {ZEB_TRACE_LOCK_FAILED, -2});
  sweep("F2", kLock, {0, 0});
  sweep("F2", kUnlock, {0, 0});
}

// ---- Sweeps -------------------------------------------------------------------------------------

class Faults : public testing::Test {
 protected:
  void SetUp() override {
    const Injection quiet;
    ASSERT_EQ(setAPITraceFile(tracePath.c_str()), 0);
    ASSERT_EQ(checkNextSession(), "");
  }
  void TearDown() override { setAPITraceFile(nullptr); }
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

// Each line of the trace flushes and locks, and no code depends on it: one error at the first 24 and
// then at every eighth, all from there on at every eighth, and one query for all.
TEST_P(FaultsWith, aFailingCallGivesADocumentedCode) {
  Row allocations("F1"), systemCalls("F2");
  const Mode mode = GetParam();
  for (const Target& target : kTargets) {
    const Outcome& clean = tryClean(target, mode);
    for (int number = 0; number < kCalls; ++number) {
      const auto call = static_cast<Call>(number);
      const bool isOfTrace =
          mode.level > 0 && (call == kFflush || call == kLock || call == kUnlock);
      if (isOfTrace && target.isQuery() && target.name != std::string_view("getStatsByStatId"))
        continue;
      for (int at = 1; at <= clean.counts[call]; ++at) {
        for (const int error : errorsOf(call, mode)) {
          for (const bool onwards : {false, true}) {
            const Fault fault = {call, at, onwards, error};
            if (isOfTrace && (error == EINTR || ((at > 24 || onwards) && at % 8 != 1))) continue;
            (call == kAllocate ? allocations : systemCalls)
                .add(show(target, mode) + show(fault),
                     judge(tryPoint(target, mode, {fault}), clean,
                           codesUnder(target, mode, call, error)));
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
  const auto pick = [&](std::size_t count) { return random() % count; };
  const auto pickFault = [&](Call call, const Mode& mode, int count) {
    const Codes errors = errorsOf(call, mode);
    const int at = 1 + static_cast<int>(pick(static_cast<std::size_t>(count)));
    return Fault{call, at, false, errors[pick(errors.size())]};
  };
  for (int pairs = 0; pairs < 2050;) {
    const Target& target = kTargets[pick(kTargets.size())];
    const Mode mode = pick(8) == 0 ? kTraced : pick(2) == 0 ? kTimed : kPlain;
    const Outcome& clean = tryClean(target, mode);
    const auto call = static_cast<Call>(pick(kCalls));
    if (clean.counts[call] == 0) continue;
    ++pairs;
    const Fault first = pickFault(call, mode, clean.counts[call]);
    const Call next = pick(2) == 0 ? call : static_cast<Call>(pick(kCalls));
    Fault second = pickFault(next, mode, 3);
    second.onwards = pick(3) == 0;
    Outcome outcome = tryPoint(target, mode, {first, second});
    outcome.hasStruck = true;  // the second need not
    Codes allowed = codesUnder(target, mode, call, first.error);
    for (const int code : codesUnder(target, mode, next, second.error)) allowed.push_back(code);
    row.add(show(target, mode) + show(first) + show(second), judge(outcome, clean, allowed));
  }
}

// ---- Replies ------------------------------------------------------------------------------------

// Tries what is done to the replies of each call that gets any.
template <typename Try>
void sweepReplies(Mode mode, Try tryReplies) {
  for (const Target& target : kTargets) {
    if (target.family == Family::local) continue;
    const Outcome& clean = tryClean(target, mode);
    ASSERT_GT(clean.replies.size(), 0u) << target.name;
    tryReplies(target, clean);
  }
}

class RepliesWith : public FaultsWith {};

TEST_P(RepliesWith, theEndOfTheConnectionAfterAnyByteIsACode) {
  Row row("F4");
  const std::size_t connected =
      (zebsim::reply("BASE", "") + zebsim::reply("Auth", zebsim::authFirstData(1, 2, 3)) +
       zebsim::reply("Auth", zebsim::authSecondData()))
          .size();
  sweepReplies(GetParam(), [&](const Target& target, const Outcome& clean) {
    for (std::size_t at = 0; at < clean.replies.size(); ++at) {
      int code = target.family == Family::closing ? 0 : ZEB_CONNECTION_LOST;
      if (target.family == Family::open && at < connected) code = ZEB_CONNECT_FAILED;
      for (const auto& [receive, send] : {std::pair{0, 0}, {0, EPIPE}, {ECONNRESET, ECONNRESET}}) {
        const Wire wire = {.endsAt = at, .receiveError = receive, .sendError = send};
        row.add(formatText("%s, end at %zu, %d", target.name, at, send),
                judge(tryPoint(target, GetParam(), {}, wire), clean, {code}));
      }
    }
  });
}

TEST_P(RepliesWith, singleBytesAndAnyTwoPartsAreTheSameReply) {
  Row row("F5");
  sweepReplies(GetParam(), [&](const Target& target, const Outcome& clean) {
    for (std::size_t at = 0; at < clean.replies.size(); ++at) {
      const Wire wire = {.piece = at == 0 ? 1 : SIZE_MAX, .splitAt = at};
      row.add(formatText("%s, split at %zu", target.name, at),
              judge(tryPoint(target, GetParam(), {}, wire), clean, {0}));
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
    if (target.family == Family::open) allowed.push_back(ZEB_CONNECT_FAILED);
    if (target.family == Family::closing) allowed.resize(1);
    row.add(formatText("%s, %zu bytes changed at %zu", target.name, value.size(), at),
            judge(outcome, clean, allowed));
  };
  sweepReplies(kPlain, [&](const Target& target, const Outcome& clean) {
    if (!target.before.empty() || target.family == Family::textQuery) return;
    for (std::size_t at = 0; at < clean.replies.size(); ++at) {
      for (int bit = 0; bit < 8; ++bit)
        change(target, clean, at, {static_cast<char>(clean.replies[at] ^ 1 << bit)});
      for (const unsigned extreme : {0u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu, 0xF004u}) {
        for (const std::size_t width : {1, 2, 4}) {
          const std::string value = zebsim::words({extreme});
          if (at + width <= clean.replies.size())
            change(target, clean, at, value.substr(extreme == 0xF004 ? 4 - width : 0, width));
        }
      }
    }
  });
}

// ---- What no session reaches --------------------------------------------------------------------

// As the resolver does on a host that has only addresses of the other family.
TEST_F(Faults, aResolverThatRefusesANumericAddressIsNotNeededForIt) {
  Session s = {.port = kPort};
  {
    const Injection refusal({{kGetaddrinfo, 1, false, EAI_ADDRFAMILY}});
    EXPECT_EQ(s.open(), 0);
    EXPECT_TRUE(refusal.hasStruck());
  }
  const Injection refusals({{kGetaddrinfo, 1, true, EAI_ADDRFAMILY}});
  EXPECT_EQ(s.release(), 0);
  EXPECT_EQ(openRemoteGatewayConnection("localhost", kPort, &s.token, &s.version),
            ZEB_HOST_UNKNOWN);
}

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
    return rc == ZEB_NO_MEMORY ? "not sent" : injection.sent();
  };
  EXPECT_TRUE(request("x", 40 + 60).ends_with("\1" + std::string(2 + 60, '\0')));
  EXPECT_EQ(request("x", 39), "not sent");
  EXPECT_EQ(request(std::string(65536, 'x').c_str(), 70000), "not sent");
}

}  // namespace
