// One thread and one connection for each gateway, since a connection belongs to its thread; a scrape asks
// them all at once and waits for those that answer in time.
//
// The library has no time-out, and while it closes a connection, which waits for the gateway's answer, those
// of all other threads stand still. So no call may be left hanging: one that takes too long gets a signal,
// which the library takes for the end of the connection, and further ones until it has returned. That frees
// the thread for a new attempt, whatever became of the gateway: no thread is given up, none piles up.
#include "exporter.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include "prometheus_names.h"
#include "zebstats.hpp"

namespace zebtool {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kExitUsage = 2;
constexpr int kExitCannotListen = 3;
constexpr std::size_t kMostGateways = 250;  // the library holds 256 connections
constexpr Clock::duration kShortWait = milliseconds(1000);
constexpr Clock::duration kStopWait = milliseconds(2000);
constexpr milliseconds kLookPause(100);  // between two looks for late calls
constexpr milliseconds kWakePause(10);   // between two signals to a late call

// Nobody sends this one from outside.
int wakeSignal() {
  return SIGRTMIN;
}

// ---- Asking a gateway -------------------------------------------------------------------------------------

struct Endpoint {
  std::string host;
  int port = 0;
};

// HOST:PORT; an IPv6 address stands in brackets.
std::optional<Endpoint> parseEndpoint(const std::string& text, int lowestPort) {
  std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return std::nullopt;
  std::string host = text.substr(0, colon);
  std::string port = text.substr(colon + 1);
  if (host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    return std::nullopt;
  }
  auto isBad = [](char c) {
    return c <= ' ' || c == 0x7F || std::string_view("[],/").find(c) != std::string_view::npos;
  };
  bool isNumber =
      !port.empty() && port.size() <= 5 && port.find_first_not_of("0123456789") == std::string::npos;
  if (host.empty() || std::any_of(host.begin(), host.end(), isBad) || !isNumber) return std::nullopt;
  int number = std::stoi(port);
  if (number < lowestPort || number > 65535) return std::nullopt;
  return Endpoint{std::move(host), number};
}

struct Report {
  bool up = false;
  Clock::time_point finished;
  std::string note;  // why it is not up, or what is missing
  std::vector<PrometheusStat> stats;
};

// Asks for all statistics by group: an answer tells a statistic's group only where it was asked for.
class Question {
 public:
  Question(zebstats::Connection& gateway, Report& report) : gateway_(gateway), report_(report) {}

  zebstats::Error ask() {
    std::vector<std::string> groups;
    if (zebstats::Error failed = readIds(gateway_.groups(), groups)) return failed;
    return askFor(groups.data(), groups.size(), std::string());
  }

 private:
  using Error = zebstats::Error;

  Error readIds(zebstats::IdSet answer, std::vector<std::string>& ids) {
    for (const zebstats::Id& id : answer) {
      if (id.ok()) ids.emplace_back(id.id);
      if (!id.ok()) noteRefusal(id);
    }
    return answer.error();
  }

  void noteRefusal(const zebstats::Id& refused) {
    report_.note = "refuses a part of its statistics (its code " + std::to_string(refused.elementCode) + ")";
  }

  // Of groups, or of statistics where their group is given. An answer has a largest size: what does not fit
  // into one is asked for in halves, and a single group by its statistics.
  Error askFor(const std::string* elements, std::size_t count, const std::string& group) {
    if (count == 0) return Error();
    std::string query = elements[0];
    for (std::size_t i = 1; i < count; ++i) query += ':' + elements[i];
    const std::size_t had = report_.stats.size();
    Error failed = take(
        group.empty() ? gateway_.statsByGroups(query.c_str()) : gateway_.statsByIds(query.c_str()), group);
    if (failed.code() != ZEB_WRONG_CONTENT && failed.code() != ZEB_QUERY_TOO_LONG) return failed;
    report_.stats.resize(had);
    if (count > 1) {
      Error first = askFor(elements, count / 2, group);
      return first ? first : askFor(elements + count / 2, count - count / 2, group);
    }
    if (!group.empty()) return failed;
    std::vector<std::string> ids;
    if (Error without = readIds(gateway_.idsByGroups(elements[0].c_str()), ids)) return without;
    return askFor(ids.data(), ids.size(), elements[0]);
  }

  Error take(zebstats::StatSet answer, const std::string& group) {
    for (const zebstats::Stat& stat : answer) {
      if (!stat.ok()) {
        noteRefusal(stat);
        continue;
      }
      report_.stats.push_back(
          {std::string(stat.id), group.empty() ? std::string(stat.element) : group, std::string(stat.value)});
    }
    return answer.error();
  }

  zebstats::Connection& gateway_;
  Report& report_;
};

// ---- Gateways and their threads ---------------------------------------------------------------------------

// A gateway, for the scrapes that ask and for its own thread that answers. The thread keeps it alive.
class Station {
 public:
  Station(std::string name, Endpoint endpoint, Clock::duration patience)
      : name_(std::move(name)), endpoint_(std::move(endpoint)), patience_(patience) {}

  static void start(const std::shared_ptr<Station>& station) {
    std::thread([station] { station->serve(); }).detach();
  }

  const std::string& name() const { return name_; }

  // The number of the question, for awaitReport().
  std::uint64_t ask() {
    std::lock_guard lock(mutex_);
    changed_.notify_all();
    return ++asked_;
  }

  // A gateway that did not answer the last time is waited for only shortly, so that it does not hold up the
  // others' answers scrape by scrape. Its call goes on; once it has answered it gets the whole time again.
  Report awaitReport(std::uint64_t question, Clock::time_point start) {
    std::unique_lock lock(mutex_);
    Clock::duration wait = late_ ? std::min(patience_ / 4, kShortWait) : patience_;
    bool isAnswered = changed_.wait_until(lock, start + wait, [&] {
      return answered_ >= question || stopping_;
    }) && !stopping_;
    Report report;
    if (isAnswered) report = report_;
    if (!isAnswered) report.finished = Clock::now();
    late_ = late_ || !isAnswered;
    if (late_ && !report.up) report.note = "does not answer in time";
    if (!stopping_ && report.note != told_) {
      told_ = report.note;
      std::fprintf(stderr, "zebstat: %s: %s\n", name_.c_str(), told_.empty() ? "answers" : told_.c_str());
    }
    return report;
  }

  // Wakes the thread where its call takes too long. Returns whether it had to.
  bool wakeLateCall(Clock::time_point now) {
    std::lock_guard lock(mutex_);
    if (!serving_ || now < deadline_) return false;
    woken_ = true;
    pthread_kill(thread_, wakeSignal());
    return true;
  }

  void stop() {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    deadline_ = std::min(deadline_, Clock::now() + milliseconds(200));
    changed_.notify_all();
  }

  bool hasEnded() {
    std::lock_guard lock(mutex_);
    return ended_;
  }

 private:
  void serve() {
    zebstats::Connection gateway;
    std::unique_lock lock(mutex_);
    thread_ = pthread_self();
    serving_ = true;
    for (;;) {
      changed_.wait(lock, [this] { return stopping_ || asked_ > answered_; });
      if (stopping_) break;
      const std::uint64_t question = asked_;
      woken_ = false;
      deadline_ = Clock::now() + (failures_ % 4 == 0 ? patience_ : patience_ / 2);
      lock.unlock();
      Report report = answer(gateway);
      report.finished = Clock::now();
      lock.lock();
      deadline_ = Clock::time_point::max();
      report_ = std::move(report);
      late_ = woken_ && !report_.up;
      failures_ = report_.up ? 0 : failures_ + 1;
      answered_ = question;
      changed_.notify_all();
    }
    deadline_ = Clock::now() + milliseconds(200);
    lock.unlock();
    gateway.close();
    lock.lock();
    serving_ = false;
    ended_ = true;
  }

  // A connection that was good at the last scrape may have ended with the gateway it led to: one new attempt.
  Report answer(zebstats::Connection& gateway) {
    const bool wasOpen = gateway.isOpen();
    Report report = attempt(gateway);
    if (!report.up && wasOpen && !gateway.isOpen() && !woken_) report = attempt(gateway);
    return report;
  }

  Report attempt(zebstats::Connection& gateway) {
    Report report;
    zebstats::Error failed;
    if (!gateway.isOpen()) failed = gateway.open(endpoint_.host.c_str(), endpoint_.port);
    if (!failed) failed = Question(gateway, report).ask();
    if (!failed) {
      report.up = true;
      return report;
    }
    Report fault;
    fault.note = std::string(failed.text()) + " (" + std::to_string(failed.code()) + ")";
    return fault;
  }

  const std::string name_;
  const Endpoint endpoint_;
  const Clock::duration patience_;
  std::mutex mutex_;  // guards all below; never held during a call of the library
  std::condition_variable changed_;
  std::uint64_t asked_ = 0;
  std::uint64_t answered_ = 0;
  Report report_;     // to the question answered_
  std::string told_;  // the last note on standard error
  bool late_ = false;
  // In a row. Most calls that follow one get half the time only: where it is the closing that hangs, the
  // others' calls wait for it, and have the other half left.
  unsigned failures_ = 0;
  bool stopping_ = false;
  bool serving_ = false;  // thread_ may be signalled
  bool ended_ = false;
  std::atomic<bool> woken_ = false;  // during the latest call
  pthread_t thread_{};
  Clock::time_point deadline_ = Clock::time_point::max();  // of the call that runs
};

using Stations = std::vector<std::shared_ptr<Station>>;

bool wakeLateCalls(const Stations& stations) {
  bool woke = false;
  for (const auto& station : stations) woke = station->wakeLateCall(Clock::now()) || woke;
  return woke;
}

// Asks all gateways when scraped.
class GatewayCollector : public prometheus::Collectable {
 public:
  explicit GatewayCollector(const Stations& stations) : stations_(stations) {}

  std::vector<prometheus::MetricFamily> Collect() const override {
    const Clock::time_point start = Clock::now();
    std::vector<std::uint64_t> questions;
    for (const auto& station : stations_) questions.push_back(station->ask());
    prometheus::MetricFamily up{
        "zebstats_up", "Whether the gateway has answered.", prometheus::MetricType::Gauge, {}};
    prometheus::MetricFamily duration{"zebstats_scrape_duration_seconds",
                                      "How long the gateway was asked and waited for.",
                                      prometheus::MetricType::Gauge,
                                      {}};
    std::vector<PrometheusAnswer> answers;
    for (std::size_t i = 0; i < stations_.size(); ++i) {
      Report report = stations_[i]->awaitReport(questions[i], start);
      addGauge(up, stations_[i]->name(), report.up ? 1 : 0);
      addGauge(duration, stations_[i]->name(),
               std::chrono::duration<double>(report.finished - start).count());
      answers.push_back({stations_[i]->name(), std::move(report.stats)});
    }
    std::vector<prometheus::MetricFamily> families = makeMetricFamilies(answers);
    families.push_back(std::move(up));
    families.push_back(std::move(duration));
    return families;
  }

 private:
  static void addGauge(prometheus::MetricFamily& family, const std::string& gateway, double value) {
    prometheus::ClientMetric metric;
    metric.label = {{"gateway", makeLabelValue(gateway)}};
    metric.gauge.value = value;
    family.metric.push_back(std::move(metric));
  }

  const Stations& stations_;
};

// ---- The exporter -----------------------------------------------------------------------------------------

int fail(int exitCode, const std::string& fault) {
  std::fprintf(stderr, "zebstat: %s\n", fault.c_str());
  return exitCode;
}

// Empty where the options are good, and the stations then made.
std::string readOptions(const ExporterOptions& options, Stations& stations) {
  if (!parseEndpoint(options.listen, 0)) {
    return "--listen '" + options.listen +
           "' is no ADDRESS:PORT; write it like 127.0.0.1:9100 or 0.0.0.0:9100";
  }
  if (!(options.timeoutSeconds > 0 && options.timeoutSeconds <= 86400)) {
    return "--timeout is no number of seconds above 0 and up to 86400";
  }
  if (options.gateways.empty()) return "--gateway is missing; name one HOST:PORT or more";
  if (options.gateways.size() > kMostGateways) {
    return "--gateway is given more than " + std::to_string(kMostGateways) +
           " times; start a second exporter";
  }
  // A server gives up after a time of its own, often the same: its answer should be complete by then.
  const auto patience = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(options.timeoutSeconds * 0.9));
  std::set<std::string> known;
  for (const std::string& name : options.gateways) {
    std::optional<Endpoint> endpoint = parseEndpoint(name, 1);
    if (!endpoint)
      return "--gateway '" + name + "' is no HOST:PORT; write it like gateway-1:2980 or [::1]:2980";
    if (!known.insert(name).second) return "--gateway '" + name + "' is given twice; name it once";
    stations.push_back(std::make_shared<Station>(name, std::move(*endpoint), patience));
  }
  return {};
}

// The signals that end the exporter stay blocked in every thread and are fetched here.
void waitForEnd(const sigset_t& signals, const Stations& stations) {
  for (;;) {
    milliseconds pause = wakeLateCalls(stations) ? kWakePause : kLookPause;
    const timespec time{0, static_cast<long>(std::chrono::nanoseconds(pause).count())};
    if (sigtimedwait(&signals, nullptr, &time) > 0) return;
  }
}

// Closes the connections. A thread that no signal frees ends with the process.
void endStations(const Stations& stations) {
  const Clock::time_point end = Clock::now() + kStopWait;
  auto hasEnded = [](const auto& station) { return station->hasEnded(); };
  while (Clock::now() < end && !std::all_of(stations.begin(), stations.end(), hasEnded)) {
    wakeLateCalls(stations);
    std::this_thread::sleep_for(kWakePause);
  }
}

void serve(const ExporterOptions& options, const Stations& stations, const sigset_t& signals) {
  auto collector = std::make_shared<GatewayCollector>(stations);
  prometheus::Exposer exposer(options.listen);
  exposer.RegisterCollectable(collector);
  for (const auto& station : stations) Station::start(station);
  const std::string address = options.listen.substr(0, options.listen.rfind(':'));
  std::printf("listening on %s:%d\n", address.c_str(), exposer.GetListeningPorts().at(0));
  std::fflush(stdout);
  waitForEnd(signals, stations);
  for (const auto& station : stations) station->stop();  // which ends the scrapes that the exposer waits for
}

}  // namespace

int runExporter(const ExporterOptions& options) {
  Stations stations;
  std::string fault = readOptions(options, stations);
  if (!fault.empty()) return fail(kExitUsage, fault);

  struct sigaction wake {};
  wake.sa_handler = [](int) {};  // and no SA_RESTART: the call has to end
  sigaction(wakeSignal(), &wake, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  try {
    serve(options, stations, signals);
  } catch (const std::system_error& error) {
    return fail(kExitCannotListen, std::string("cannot start a thread for each gateway: ") + error.what());
  } catch (const std::exception&) {
    const char* cause = options.listen.front() == '['
                            ? "not of this machine or not permitted, or the HTTP library has no IPv6"
                            : "not of this machine or not permitted";
    return fail(kExitCannotListen, "cannot listen on " + options.listen + ": the address is in use, " +
                                       cause + "; choose another with --listen ADDRESS:PORT");
  }
  endStations(stations);
  return 0;
}

}  // namespace zebtool
