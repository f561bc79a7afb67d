#include "gateway.h"

#include <string_view>
#include <utility>

#include "text.h"

namespace zebtool {

namespace {

// Returns the library's code, its meaning, and what to try.
std::string explain(int code) {
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
    case ZEB_CONNECT_REFUSED:
      advice = "; is it running?";
      break;
    case ZEB_CONNECT_FAILED:
    case ZEB_COMMUNICATION_FAILED:
      advice = "; is this its statistics port?";
      break;
    default:
      break;
  }
  return "(" + std::to_string(code) + "): " + meaning + advice;
}

// The result of a question: the library's code, the step that failed with it, or the answer.
struct Outcome {
  int code = ZEB_OK;
  const char* step = "";
  Answer answer;
};

void takeEntry(Answer& answer, const zebstats::Id& id, std::string_view value) {
  if (id.ok()) {
    answer.entries.push_back({std::string(id.element), std::string(id.id), std::string(value)});
  } else {
    answer.refusals.push_back({std::string(id.element), id.elementCode});
  }
}

std::string_view valueOf(const zebstats::Stat& stat) {
  return stat.value;
}
std::string_view valueOf(const zebstats::Id&) {
  return {};
}

template <typename Set>
Outcome readAnswer(Set set) {
  Outcome outcome;
  outcome.code = set.error().code();
  outcome.step = "ask";
  if (outcome.code != ZEB_OK) return outcome;
  for (const auto& entry : set) takeEntry(outcome.answer, entry, valueOf(entry));
  outcome.code = set.error().code();
  outcome.step = "read the answer";
  return outcome;
}

Outcome askNow(zebstats::Connection& connection, const std::string& host, int port,
               const Question& question) {
  using Kind = Question::Kind;
  if (!connection.isOpen()) {
    zebstats::Error failed = connection.open(host.c_str(), port);
    if (failed) return {failed.code(), "connect", {}};
  }
  const char* elements = question.elements.c_str();
  switch (question.kind) {
    case Kind::kStats:
      return readAnswer(connection.stats());
    case Kind::kStatsById:
      return readAnswer(connection.statsByIds(elements));
    case Kind::kStatsByGroup:
      return readAnswer(connection.statsByGroups(elements));
    case Kind::kIds:
      return readAnswer(connection.ids());
    case Kind::kIdsByGroup:
      return readAnswer(connection.idsByGroups(elements));
    case Kind::kGroups:
      return readAnswer(connection.groups());
  }
  return {};
}

}  // namespace

std::string Gateway::name() const {
  bool isIpv6 = host_.find(':') != std::string::npos;
  return (isIpv6 ? "[" + host_ + "]" : host_) + ":" + std::to_string(port_);
}

Answer Gateway::ask(const Question& question) {
  Outcome outcome = askNow(connection_, host_, port_, question);
  if (outcome.code == ZEB_OK) return std::move(outcome.answer);
  if (isTimeout(outcome.code)) {
    throw Fault(kTimedOut, name() + ": no answer within " + showNumber(timeoutSeconds_, 3) + " s");
  }
  throw Fault(kNotConnected, name() + ": cannot " + outcome.step + " " + explain(outcome.code));
}

}  // namespace zebtool
