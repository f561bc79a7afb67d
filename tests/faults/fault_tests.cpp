// Whatever fails under a public call, the call returns a code documented for it, nothing is lost,
// the locks are free and the next open and query succeed.
//
// Each sweep tries every point it names and prints how many there were: "EVIDENCE F1 points=N
// failures=M".

#include <errno.h>
#include <netdb.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "client_session.h"
#include "fault_injector.h"
#include "stapi_zeb_diag.h"
#include "zebstats_private.h"

namespace {

using namespace zebtest;
using Codes = std::vector<int>;

std::string tracePath;
std::string otherTracePath;

// ---- The public calls, and what a fault may make of them ----------------------------------------

enum class Family { local, open, query, textQuery, closing };
enum class Needs { nothing, connection, stats, ids, copy };

struct Target {
  const char* name;
  Family family;
  Needs needs;
  std::function<int(Session&)> run;
  std::vector<Fault> ahead = {};
  [[nodiscard]] bool isQuery() const {
    return family == Family::query || family == Family::textQuery;
  }
};

constexpr int kNoVersion = 1;  // of an open call that returned 0

std::vector<Target> listTargets() {
  const auto open = [](Session& s) {
    const int rc = s.open();
    return rc == 0 && s.version == nullptr ? kNoVersion : rc;
  };
  std::vector<Target> all = {{"open", Family::open, Needs::nothing, open},
                             {"open in progress",
                              Family::open,
                              Needs::nothing,
                              open,
                              {{kConnect, 1, false, EINPROGRESS}}}};
  for (const Query& query : kQueries)
    all.push_back({query.name, query.hasText ? Family::textQuery : Family::query, Needs::connection,
                   query.ask});
  const auto add = [&all](const char* name, Family family, Needs needs, auto run) {
    all.push_back({name, family, needs, run});
  };
  const auto walk = [](Session& s) {
    s.walked = s.tell();
    return 0;
  };
  add("walk of statistics", Family::local, Needs::stats, walk);
  add("walk of ids", Family::local, Needs::ids, walk);
  add("copyResultSet", Family::local, Needs::stats,
      [](Session& s) { return copyResultSet(s.answer, &s.copy); });
  add("freeResultSet", Family::local, Needs::copy,
      [](Session& s) { return freeResultSet(&s.copy); });
  add("dumpResultSet", Family::local, Needs::stats,
      [](Session& s) { return dumpResultSet(s.answer); });
  add("getIdQuery", Family::local, Needs::ids,
      [](Session& s) { return getIdQuery(s.answer, &s.text); });
  add("dumpState", Family::local, Needs::connection, [](Session&) { return dumpState(); });
  add("setAPITraceFile", Family::local, Needs::nothing, [](Session&) {
    const int there = setAPITraceFile(otherTracePath.c_str());
    const int back = setAPITraceFile(tracePath.c_str());
    return there != 0 ? there : back;
  });
  add("trace level", Family::local, Needs::nothing, [](Session&) {
    int level = 0;
    const int rc = getAPITraceLevel(&level);
    return rc != 0 ? rc : setAPITraceLevel(level);
  });
  add("getStatsAPIVersion", Family::local, Needs::nothing, [](Session&) {
    char* version = nullptr;
    return getStatsAPIVersion(&version);
  });
  add("close", Family::closing, Needs::copy, [](Session& s) {
    s.answer = nullptr;  // which the connection takes with it
    return closeGatewayConnection(&s.token);
  });
  add("close all", Family::closing, Needs::stats, [](Session& s) {
    s.answer = nullptr;
    s.token = nullptr;
    return closeAllGatewayConnections();
  });
  return all;
}
const std::vector<Target> kTargets = listTargets();

int connectCode(int error) {
  if (error == ECONNREFUSED) return ZEB_CONNECT_REFUSED;
  return error == ENETUNREACH ? ZEB_NETWORK_UNREACHABLE : ZEB_CONNECT_FAILED;
}

Codes openCodes(Call call, int error, bool isInProgress) {
  switch (call) {
    case kAllocate:
      return {ZEB_NO_MEMORY, ZEB_CONNECT_FAILED, ZEB_COMMUNICATION_FAILED, kNoVersion};
    case kGetaddrinfo:
      return {ZEB_HOST_UNKNOWN, 0};  // a numeric address that is refused once is taken as it is
    case kSocket:
    case kSetsockopt:
      return {ZEB_CONNECT_FAILED};
    case kConnect:
    case kGetsockopt:
      return {connectCode(error >= kPending ? error - kPending : error)};
    case kSend:
    case kPoll:
    case kRecv:
      if (error == kShort) return {0};
      if (call == kPoll && error == EINTR &&
          isInProgress)  // a signal does not end the wait for a connect
        return {0, ZEB_CONNECT_FAILED, ZEB_CONNECTION_LOST};
      return {ZEB_CONNECT_FAILED, ZEB_CONNECTION_LOST};
    default:
      return {0};
  }
}

Codes queryCodes(Call call, int error, bool hasText) {
  if (call == kAllocate)
    return hasText ? Codes{ZEB_NO_MEMORY, ZEB_COMMUNICATION_FAILED}
                   : Codes{ZEB_COMMUNICATION_FAILED};
  const bool isExchange = call == kSend || call == kPoll || call == kRecv;
  return {isExchange && error != kShort ? ZEB_CONNECTION_LOST : 0};
}

// What a call may return when this fails under it.
Codes codesUnder(const Target& target, Call call, int error) {
  if (target.family == Family::open) return openCodes(call, error, !target.ahead.empty());
  if (target.isQuery()) return queryCodes(call, error, target.family == Family::textQuery);
  if (target.family == Family::local && call == kAllocate) return {ZEB_NO_MEMORY};
  return {call == kOpen || call == kFdopen ? ZEB_TRACE_FILE_FAILED : 0};
}

const Codes& errorsOf(Call call) {
  static const std::array<Codes, kCalls> errors = {{
      /* allocate */ {ENOMEM},
      /* getaddrinfo */ {EAI_NONAME, EAI_AGAIN, EAI_MEMORY, EAI_SYSTEM},
      /* socket */ {EMFILE, ENFILE, ENOBUFS, EINTR},
      /* setsockopt */ {EINVAL, ENOMEM, EINTR},
      /* ioctl */ {EBADF, EINTR},
      /* connect */ {ECONNREFUSED, ENETUNREACH, EHOSTUNREACH, ETIMEDOUT, EINTR},
      /* poll */ {EINTR, ENOMEM, EINVAL},
      /* getsockopt */
      {EINTR, ECONNREFUSED, kPending + ECONNREFUSED, kPending + ENETUNREACH, kPending + EINTR},
      /* send */ {EINTR, EPIPE, ECONNRESET, kShort, kCut, kEnd},
      /* recv */ {EINTR, ECONNRESET, ETIMEDOUT, kShort, kEnd},
      /* close */ {EINTR, EIO},
      /* open */ {EMFILE, EACCES, EINTR},
      /* fdopen */ {ENOMEM},
      /* fflush */ {ENOSPC, EINTR},
      /* fclose */ {EIO, EINTR},
      /* lock */ {EINVAL},
      /* unlock */ {EPERM},
      /* initLock */ {ENOMEM},
  }};
  return errors[call];
}

// ---- One point ----------------------------------------------------------------------------------

struct Outcome {
  int rc;
  bool hasStruck;
  std::array<int, kCalls> counts;
  std::string seen;       // what a call that went well handed out
  std::string complaint;  // empty: all is well
};

void prepare(const Target& target, Session& s) {
  if (target.needs == Needs::nothing) return;
  s.open();
  if (target.needs == Needs::ids) getStatIds(s.token, &s.answer);
  if (target.needs == Needs::stats || target.needs == Needs::copy) getStats(s.token, &s.answer);
  if (target.needs == Needs::copy) copyResultSet(s.answer, &s.copy);
}

// What must hold of the caller's arguments and of the connection, which is gone after -102 and -122
// and good for another query else.
std::string checkSession(const Target& target, int rc, Session& s) {
  std::string complaint;
  if (rc < 0 && target.family == Family::open && (s.token != nullptr || s.version != nullptr))
    complaint += " a failed open writes to its arguments;";
  if (rc < 0 && target.isQuery() && s.answer != nullptr)
    complaint += " a failed query writes to its argument;";
  if (s.token == nullptr) return complaint;
  const bool isLost =
      target.isQuery() && (rc == ZEB_CONNECTION_LOST || rc == ZEB_COMMUNICATION_FAILED);
  const int next = getStats(s.token, &s.answer);
  if (isLost) s.token = nullptr;
  if (next != (isLost ? ZEB_TOKEN_UNKNOWN : 0))
    complaint += formatText(" the next query gets %d;", next);
  return complaint;
}

std::string checkNextSession(int port) {
  Session s = {.port = port};
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
Outcome tryPoint(const Target& target, int port, int level, const std::vector<Fault>& faults) {
  const auto before = countHoldings();
  Outcome outcome = {};
  Session s = {.port = port};
  {
    const Injection quiet;
    prepare(target, s);
    if (target.isQuery()) s.answer = nullptr;
    setAPITraceLevel(level);
  }
  {
    std::vector<Fault> plan = target.ahead;
    plan.insert(plan.end(), faults.begin(), faults.end());
    const Injection injection(plan);
    outcome.rc = target.run(s);
    outcome.hasStruck = injection.hasStruck();
    outcome.counts = injection.counts();
  }
  outcome.complaint = takeLockComplaint();
  {
    const Injection quiet;
    setAPITraceLevel(0);
    if (outcome.rc == 0) outcome.seen = s.tell();
    outcome.complaint += checkSession(target, outcome.rc, s);
    if (s.release() != 0) outcome.complaint += " the connection can not be closed;";
    outcome.complaint += checkNextSession(port);
    if (setAPITraceFile(tracePath.c_str()) != 0 || truncate(tracePath.c_str(), 0) != 0)
      outcome.complaint += " no trace file;";
  }
  outcome.complaint += takeLockComplaint();
  const auto after = countHoldings();
  if (after != before) {
    outcome.complaint += formatText(" holds %zu blocks and %zu descriptors, was %zu and %zu;",
                                    after.first, after.second, before.first, before.second);
  }
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

std::string show(const Fault& fault) {
  return formatText(", call %d fails at %d%s with %d", fault.call, fault.at,
                    fault.onwards ? " and on" : "", fault.error);
}

// ---- First calls --------------------------------------------------------------------------------

// In a process that has not called the library yet: the first call and, while the fault lasts, the
// second.
std::string tryFirstCall(int port, const Fault& fault, int expected) {
  Session s = {.port = port};
  const auto before = countHoldings();
  std::string complaint;
  {
    const Injection injection({fault});
    const int first = getStatsAPIVersion(&s.text);
    if (first != expected) complaint += formatText(" the first call returns %d;", first);
    if (!injection.hasStruck()) complaint += " the fault was never reached;";
    s.text = nullptr;
    const int second = closeAllGatewayConnections();
    if (second != (fault.onwards ? expected : 0))
      complaint += formatText(" the second returns %d;", second);
    complaint += takeLockComplaint();
  }
  {
    const Injection quiet;
    if (s.release() != 0) complaint += " the connection can not be closed;";
    complaint += checkNextSession(port) + takeLockComplaint();
  }
  const auto after = countHoldings();  // the name of the trace file stays
  if (after.first != before.first + 1 || after.second != before.second)
    complaint += formatText(" holds %zu blocks more;", after.first - before.first);
  return complaint;
}

TEST(FirstCall, ThatFailsHasItsCodeAndTheNextOneStartsTheLibrary) {
  ASSERT_EQ(statAPITraceHandle, nullptr) << "this process has called the library already";
  const GatewayProcess gateway;
  const auto sweep = [&](const char* name, Call call, const Codes& expected) {
    Row row(name);
    for (std::size_t at = 0; at < expected.size(); ++at) {
      for (const bool onwards : {false, true}) {
        const Fault fault = {call, static_cast<int>(at) + 1, onwards, errorsOf(call)[0]};
        row.add("first call" + show(fault),
                inChild([&] { return tryFirstCall(gateway.port(), fault, expected[at]); }));
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
    tracePath = formatText("/proc/self/fd/%d", memfd_create("trace", 0));
    otherTracePath = formatText("/proc/self/fd/%d", memfd_create("other", 0));
    ASSERT_EQ(setAPITraceFile(tracePath.c_str()), 0);
    ASSERT_EQ(checkNextSession(gateway_.port()), "");
  }
  void TearDown() override { setAPITraceFile(nullptr); }

  Outcome tryClean(const Target& target, int level) {
    Outcome clean = tryPoint(target, gateway_.port(), level, {});
    EXPECT_EQ(clean.rc, 0) << target.name;
    EXPECT_EQ(clean.complaint, "") << target.name;
    return clean;
  }
  void tryFault(Row& row, const Target& target, int level, const Outcome& clean,
                const Fault& fault) {
    row.add(formatText("%s at level %d", target.name, level) + show(fault),
            judge(tryPoint(target, gateway_.port(), level, {fault}), clean,
                  codesUnder(target, fault.call, fault.error)));
  }
  void sweepCall(Row& row, const Target& target, int level, const Outcome& clean, Call call) {
    for (int at = 1; at <= clean.counts[call]; ++at) {
      for (const int error : errorsOf(call)) {
        for (const bool onwards : {false, true})
          tryFault(row, target, level, clean, {call, at, onwards, error});
      }
    }
  }
  // Of the calls that each line of the trace makes, on which nothing hangs: with one error, and all
  // from the Nth on at every eighth, where a sanitizer does not slow it down. One query stands for
  // all.
  void sweepTrace(std::initializer_list<Call> calls) {
    Row row("F2");
    for (const Target& target : kTargets) {
      if (!target.ahead.empty() ||
          (target.isQuery() && target.name != std::string_view("getStatsByStatId")))
        continue;
      const Outcome clean = tryClean(target, 5);
      for (const Call call : calls) {
        for (int at = 1; at <= clean.counts[call]; ++at) {
          const int error = errorsOf(call)[0];
          if (at % 8 == 1) tryFault(row, target, 5, clean, {call, at, true, error});
          if (at % 8 == 1 || !kIsSanitized)
            tryFault(row, target, 5, clean, {call, at, false, error});
        }
      }
    }
  }
  GatewayProcess gateway_;
};

TEST_F(Faults, AnAllocationThatFailsGivesADocumentedCode) {
  Row row("F1");
  for (const Target& target : kTargets) {
    for (const int level : {0, 5})
      sweepCall(row, target, level, tryClean(target, level), kAllocate);
  }
}

TEST_F(Faults, ASystemCallThatFailsGivesItsMappedCode) {
  Row row("F2");
  for (const Target& target : kTargets) {
    for (const int level : {0, 5}) {
      const Outcome clean = tryClean(target, level);
      for (int call = kAllocate + 1; call < kCalls; ++call) {
        const bool isOfTrace = call == kFflush || call == kLock || call == kUnlock;
        if (level == 0 || !isOfTrace) sweepCall(row, target, level, clean, static_cast<Call>(call));
      }
    }
  }
}

// As it does on a host that has only addresses of the other family.
TEST(Resolver, ThatRefusesANumericAddressIsNotNeededForIt) {
  const GatewayProcess gateway;
  Session s = {.port = gateway.port()};
  int rc;
  {
    const Injection refusal({{kGetaddrinfo, 1, false, EAI_ADDRFAMILY}});
    rc = s.open();
    EXPECT_TRUE(refusal.hasStruck());
  }
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(getStats(s.token, &s.answer), rc == 0 ? 0 : ZEB_TOKEN_NULL);
  EXPECT_EQ(s.release(), 0);
  const Injection refusals({{kGetaddrinfo, 1, true, EAI_ADDRFAMILY}});
  EXPECT_EQ(openRemoteGatewayConnection("localhost", gateway.port(), &s.token, &s.version),
            ZEB_HOST_UNKNOWN);
}

TEST_F(Faults, AFlushOfTheTraceThatFailsChangesNoCode) {
  sweepTrace({kFflush});
}

TEST_F(Faults, ALockOfTheTraceThatFailsChangesNoCode) {
  sweepTrace({kLock, kUnlock});
}

TEST_F(Faults, AReplyThatEndsBehindItsFirstByteIsALostConnection) {
  Row row("F3");
  for (const Target& target : kTargets) {
    const Outcome clean = tryClean(target, 0);
    for (int at = 1; at <= clean.counts[kRecv]; ++at) {
      const std::vector<Fault> pair = {{kRecv, at, false, kShort}, {kRecv, 1, false, kEnd}};
      row.add(formatText("%s, reply part %d", target.name, at),
              judge(tryPoint(target, gateway_.port(), 0, pair), clean,
                    codesUnder(target, kRecv, kEnd)));
    }
  }
}

TEST_F(Faults, ASecondFaultInTheCleanUpOfTheFirstLosesNothing) {
  Row row("F3");
  std::mt19937 random(2000);
  const auto pick = [&](std::size_t count) { return random() % count; };
  const auto pickFault = [&](Call call, int count) {
    const Codes& errors = errorsOf(call);
    const int at = 1 + static_cast<int>(pick(static_cast<std::size_t>(count)));
    return Fault{call, at, false, errors[pick(errors.size())]};
  };
  std::map<std::pair<std::string, int>, Outcome> cleanOutcomes;
  for (int pairs = 0; pairs < 2000;) {
    const Target& target = kTargets[pick(kTargets.size())];
    const int level = pick(8) == 0 ? 5 : 0;
    const auto [known, isNew] = cleanOutcomes.try_emplace({target.name, level});
    if (isNew) known->second = tryClean(target, level);
    const Outcome& clean = known->second;
    const std::size_t call = pick(kCalls);
    if (clean.counts[call] == 0) continue;
    ++pairs;
    const Fault first = pickFault(static_cast<Call>(call), clean.counts[call]);
    Fault second = pickFault(pick(2) == 0 ? first.call : static_cast<Call>(pick(kCalls)), 3);
    second.onwards = pick(3) == 0;
    Outcome outcome = tryPoint(target, gateway_.port(), level, {first, second});
    outcome.hasStruck = true;  // the second need not
    Codes allowed = codesUnder(target, first.call, first.error);
    for (const int code : codesUnder(target, second.call, second.error)) allowed.push_back(code);
    row.add(formatText("%s at level %d", target.name, level) + show(first) + show(second),
            judge(outcome, clean, allowed));
  }
}

}  // namespace
