// Each gateway has one thread and one connection, because a connection belongs to its thread. A
// scrape asks all gateways at once and waits for those that answer in time.
//
// The library's timeout bounds every call, so no gateway blocks its thread for longer than that. To
// stop, the main thread closes all connections, which ends the calls that wait.
#include "exporter.h"

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include "fault.h"
#include "gateway.h"
#include "output.h"
#include "prometheus_names.h"
#include "zebstats.hpp"

namespace zebtool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxGateways = 250;  // the library permits 256 connections
// The part of the timeout for which a scrape waits: the Prometheus server often has the same
// timeout, and must receive the complete answer before that.
constexpr double kScrapeShare = 0.9;
constexpr char kSilent[] = "does not answer in time";

// A close from another thread ends a call that waits, but also frees an answer that is being read.
// So the mutex is held shared while an answer is read, and exclusively while all connections are
// closed.
std::shared_mutex answersMutex;

// ---- Asking a gateway ---------------------------------------------------------------------------

struct Report {
  bool up = false;
  Clock::time_point finished;
  std::string note;  // why the gateway is not up, or what is missing; empty if all is well
  std::vector<PrometheusStat> stats;
};

// Reads all statistics of a gateway. It asks by group, because only the answer to such a query
// names the group of each statistic.
class StatsReader {
 public:
  StatsReader(zebstats::Connection& gateway, Report& report) : gateway_(gateway), report_(report) {}

  zebstats::Error read() {
    std::vector<std::string> groups;
    if (zebstats::Error failed = readIds(gateway_.groups(), groups)) return failed;
    return askFor(groups.data(), groups.size(), std::string());
  }

 private:
  using Error = zebstats::Error;

  Error readIds(zebstats::IdSet answer, std::vector<std::string>& ids) {
    std::shared_lock lock(answersMutex);
    for (const zebstats::Id& id : answer) {
      if (id.ok()) ids.emplace_back(id.id);
      if (!id.ok()) noteRefusal(id);
    }
    return answer.error();
  }

  void noteRefusal(const zebstats::Id& refused) {
    report_.note =
        "refuses a part of its statistics (its code " + std::to_string(refused.elementCode) + ")";
  }

  // Reads the statistics of the groups in elements or, if group is given, the statistics in
  // elements, which are of that group. An answer has a maximum size: if one query would exceed it,
  // each half of the elements is asked for on its own, and a single group by the ids of its
  // statistics.
  Error askFor(const std::string* elements, std::size_t count, const std::string& group) {
    if (count == 0) return Error();
    std::string query = elements[0];
    for (std::size_t i = 1; i < count; ++i) query += ':' + elements[i];
    const std::size_t had = report_.stats.size();
    Error failed = take(
        group.empty() ? gateway_.statsByGroups(query.c_str()) : gateway_.statsByIds(query.c_str()),
        group);
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
    std::shared_lock lock(answersMutex);
    for (const zebstats::Stat& stat : answer) {
      if (!stat.ok()) {
        noteRefusal(stat);
        continue;
      }
      report_.stats.push_back({std::string(stat.id),
                               group.empty() ? std::string(stat.element) : group,
                               std::string(stat.value)});
    }
    return answer.error();
  }

  zebstats::Connection& gateway_;
  Report& report_;
};

// ---- Gateways and their threads -----------------------------------------------------------------

// One gateway: scrapes ask, its thread answers.
class GatewayWorker {
 public:
  GatewayWorker(std::string name, Address endpoint)
      : name_(std::move(name)), endpoint_(std::move(endpoint)) {}
  ~GatewayWorker() {
    stop();
    if (thread_.joinable()) thread_.join();
  }
  GatewayWorker(const GatewayWorker&) = delete;
  GatewayWorker& operator=(const GatewayWorker&) = delete;

  void start() {
    thread_ = std::thread([this] { serve(); });
  }

  const std::string& name() const { return name_; }

  // Returns the number of the question, for awaitReport().
  std::uint64_t ask() {
    std::lock_guard lock(mutex_);
    changed_.notify_all();
    return ++asked_;
  }

  // Returns the report on the question, or one without an answer if there is none at the deadline.
  Report awaitReport(std::uint64_t question, Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [&] { return answered_ >= question || stopping_; });
    bool isAnswered = answered_ >= question;
    Report report = isAnswered ? report_ : Report{false, Clock::now(), kSilent, {}};
    if (!stopping_ && report.note != printedNote_) {
      printedNote_ = report.note;
      printMessage(name_ + ": " + (printedNote_.empty() ? "answers" : printedNote_));
    }
    return report;
  }

  // Lets the thread end after its current call, and ends the scrapes that wait for it.
  void stop() {
    std::lock_guard lock(mutex_);
    stopping_ = true;
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
    for (;;) {
      changed_.wait(lock, [this] { return stopping_ || asked_ > answered_; });
      if (stopping_) break;
      const std::uint64_t question = asked_;
      lock.unlock();
      Report report = answer(gateway);
      report.finished = Clock::now();
      lock.lock();
      report_ = std::move(report);
      answered_ = question;
      changed_.notify_all();
    }
    lock.unlock();
    gateway.close();
    lock.lock();
    ended_ = true;
  }

  // A connection that was open after the last scrape may have been lost since, as when the gateway
  // was restarted; so a failure on it is followed by one attempt on a new connection.
  Report answer(zebstats::Connection& gateway) {
    const bool wasOpen = gateway.isOpen();
    Report report;
    zebstats::Error failed = attempt(gateway, report);
    if (failed && wasOpen && !gateway.isOpen() && !isTimeout(failed.code()) && !stopping_) {
      failed = attempt(gateway, report);
    }
    if (!failed) return report;
    std::string code = " (" + std::to_string(failed.code()) + ")";
    return {false, {}, isTimeout(failed.code()) ? kSilent : failed.text() + code, {}};
  }

  zebstats::Error attempt(zebstats::Connection& gateway, Report& report) {
    report = Report();
    zebstats::Error failed;
    if (!gateway.isOpen()) failed = gateway.open(endpoint_.host.c_str(), endpoint_.port);
    if (!failed) failed = StatsReader(gateway, report).read();
    report.up = !failed;
    return failed;
  }

  const std::string name_;
  const Address endpoint_;
  std::thread thread_;
  std::mutex mutex_;  // guards all below; never held while the library is called
  std::condition_variable changed_;
  std::uint64_t asked_ = 0;
  std::uint64_t answered_ = 0;
  Report report_;            // to the question answered_
  std::string printedNote_;  // the last note on standard error
  std::atomic<bool> stopping_ = false;
  bool ended_ = false;
};

using Workers = std::vector<std::unique_ptr<GatewayWorker>>;

// Ends the threads. Closing all connections ends the calls that wait for a gateway. It is repeated
// until all threads have ended, because a call may start just after the connections were closed.
void stopWorkers(const Workers& workers) {
  for (const auto& worker : workers) worker->stop();
  auto hasEnded = [](const auto& worker) { return worker->hasEnded(); };
  while (!std::all_of(workers.begin(), workers.end(), hasEnded)) {
    {
      std::unique_lock lock(answersMutex);
      closeAllGatewayConnections();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// Asks all gateways at each scrape.
class GatewayCollector : public prometheus::Collectable {
 public:
  GatewayCollector(const Workers& workers, Clock::duration wait) : workers_(workers), wait_(wait) {}

  std::vector<prometheus::MetricFamily> Collect() const override {
    const Clock::time_point start = Clock::now();
    std::vector<std::uint64_t> questions;
    for (const auto& worker : workers_) questions.push_back(worker->ask());
    prometheus::MetricFamily up{
        "zebstats_up", "Whether the gateway has answered.", prometheus::MetricType::Gauge, {}};
    prometheus::MetricFamily duration{"zebstats_scrape_duration_seconds",
                                      "How long the gateway was asked and waited for.",
                                      prometheus::MetricType::Gauge,
                                      {}};
    std::vector<PrometheusAnswer> answers;
    for (std::size_t i = 0; i < workers_.size(); ++i) {
      Report report = workers_[i]->awaitReport(questions[i], start + wait_);
      addGauge(up, workers_[i]->name(), report.up ? 1 : 0);
      addGauge(duration, workers_[i]->name(),
               std::chrono::duration<double>(report.finished - start).count());
      answers.push_back({workers_[i]->name(), std::move(report.stats)});
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

  const Workers& workers_;
  const Clock::duration wait_;
};

// ---- The exporter -------------------------------------------------------------------------------

Workers makeWorkers(const ExporterOptions& options) {
  if (!parseListenAddress(options.listen, 9480)) {
    throw Fault(kUsage, "--listen '" + options.listen +
                            "' is not an ADDRESS:PORT; write it like 127.0.0.1:9100 or [::1]:9100");
  }
  if (options.gateways.size() > kMaxGateways) {
    throw Fault(kUsage, "--gateway is given more than " + std::to_string(kMaxGateways) +
                            " times; start a second exporter");
  }
  Workers workers;
  std::set<std::string> known;
  for (const std::string& name : options.gateways) {
    std::optional<Address> endpoint = parseAddress(name);
    if (!endpoint) {
      throw Fault(kUsage, "--gateway '" + name +
                              "' is not a HOST:PORT; write it like gateway-1:2980 or [::1]:2980");
    }
    if (!known.insert(name).second) {
      throw Fault(kUsage, "--gateway '" + name + "' is given twice; name it once");
    }
    workers.push_back(std::make_unique<GatewayWorker>(name, std::move(*endpoint)));
  }
  return workers;
}

// Serves until one of the signals arrives, which are blocked in every thread and waited for here.
void serve(const ExporterOptions& options, const Workers& workers, const sigset_t& signals) {
  const std::chrono::duration<double> wait(options.timeoutSeconds * kScrapeShare);
  auto collector = std::make_shared<GatewayCollector>(
      workers, std::chrono::duration_cast<Clock::duration>(wait));
  prometheus::Exposer exposer(options.listen);
  exposer.RegisterCollectable(collector);
  for (const auto& worker : workers) worker->start();
  const std::string address = options.listen.substr(0, options.listen.rfind(':'));
  std::printf("listening on %s:%d\n", address.c_str(), exposer.GetListeningPorts().at(0));
  std::fflush(stdout);
  int received = 0;
  sigwait(&signals, &received);
  stopWorkers(workers);
}

}  // namespace

void runExporter(const ExporterOptions& options) {
  Workers workers = makeWorkers(options);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  try {
    serve(options, workers, signals);
  } catch (const std::system_error& error) {
    throw Fault(kNotConnected,
                std::string("cannot start a thread for each gateway: ") + error.what());
  } catch (const std::exception&) {
    const char* cause =
        options.listen.front() == '['
            ? "not of this machine or not permitted, or the HTTP library has no IPv6"
            : "not of this machine or not permitted";
    throw Fault(kNotConnected, "cannot listen on " + options.listen + ": the address is in use, " +
                                   cause + "; choose another with --listen ADDRESS:PORT");
  }
}

}  // namespace zebtool
