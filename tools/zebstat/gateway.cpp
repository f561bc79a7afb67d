#include "gateway.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "text.h"

namespace zebtool {

namespace {

// The library has room for 256 connections.
constexpr std::size_t kMaxHung = 100;
constexpr double kCloseSeconds = 1;

// The library's code and words, and what to try.
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

// How the asking ended: the library's code, and the step that failed with it.
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

Answer takeAnswer(Outcome outcome, const std::string& gateway) {
  if (outcome.code == ZEB_OK) return std::move(outcome.answer);
  throw Fault(kNotConnected, gateway + ": cannot " + outcome.step + " " + explain(outcome.code));
}

}  // namespace

std::string nameGateway(const std::string& host, int port) {
  bool isIpv6 = host.find(':') != std::string::npos;
  return (isIpv6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

std::string describeSilence(const std::string& gateway, double seconds) {
  return gateway + ": no answer within " + showNumber(seconds, 3) + " s";
}

Answer GatewayOnce::ask(const Question& question, double timeoutSeconds, const Ending& whenLate) {
  limitTime(timeoutSeconds, whenLate);
  Outcome outcome = askNow(connection_, host_, port_, question);
  liftTimeLimit();
  return takeAnswer(std::move(outcome), nameGateway(host_, port_));
}

void GatewayOnce::close(int exitCode) {
  limitTime(kCloseSeconds, {STDERR_FILENO, "", exitCode});
  connection_.close();
  endNow(exitCode);
}

// Shared by the thread and by whoever asks, so that either may outlive the other.
struct Gateway::Thread {
  std::mutex mutex;
  std::condition_variable changed;
  std::optional<Question> question;
  std::optional<Outcome> outcome;
  bool isAskedToEnd = false;
  bool hasEnded = false;

  void run(const std::string& host, int port) {
    zebstats::Connection connection;
    std::unique_lock lock(mutex);
    for (;;) {
      changed.wait(lock, [&] { return question.has_value() || isAskedToEnd; });
      if (isAskedToEnd) break;
      Question asked = *std::exchange(question, std::nullopt);
      lock.unlock();
      Outcome found = askNow(connection, host, port, asked);
      lock.lock();
      outcome = std::move(found);
      changed.notify_all();
    }
    lock.unlock();
    connection.close();
    lock.lock();
    hasEnded = true;
    changed.notify_all();
  }

  void askToEnd() {
    std::lock_guard lock(mutex);
    isAskedToEnd = true;
    changed.notify_all();
  }
};

Gateway::Gateway(std::string host, int port, double timeoutSeconds)
    : host_(std::move(host)), port_(port), timeoutSeconds_(timeoutSeconds) {}

Gateway::~Gateway() {
  if (thread_) thread_->askToEnd();
}

void Gateway::startThread() {
  thread_ = std::make_shared<Thread>();
  // A signal handled in the middle of a query would end it.
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread([thread = thread_, host = host_, port = port_] { thread->run(host, port); }).detach();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Answer Gateway::ask(const Question& question) {
  if (!thread_) startThread();
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds_);
  std::unique_lock lock(thread_->mutex);
  thread_->question = question;
  thread_->changed.notify_all();
  if (!thread_->changed.wait_until(lock, deadline, [&] { return thread_->outcome.has_value(); })) {
    lock.unlock();
    std::shared_ptr<Thread> hung = std::exchange(thread_, nullptr);
    hung->askToEnd();
    hung_.push_back(hung);
    throw Fault(kTimedOut, describeSilence(name(), timeoutSeconds_));
  }
  return takeAnswer(*std::exchange(thread_->outcome, std::nullopt), name());
}

bool Gateway::mayAskAgain() {
  std::erase_if(hung_, [](const std::weak_ptr<Thread>& thread) { return thread.expired(); });
  return hung_.size() < kMaxHung;
}

void Gateway::close() {
  if (!thread_) return;
  thread_->askToEnd();
  std::unique_lock lock(thread_->mutex);
  thread_->changed.wait_for(lock, std::chrono::duration<double>(kCloseSeconds),
                            [&] { return thread_->hasEnded; });
}

}  // namespace zebtool
