// The gateways that the exporter knows: those of the options, those of the targets file, and those
// that are probed.
#ifndef ZEBSTATS_EXPORTER_TARGETS_H
#define ZEBSTATS_EXPORTER_TARGETS_H

#include <sys/stat.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "scrape_worker.h"

namespace zebtool {

using WorkerPtr = std::shared_ptr<ScrapeWorker>;

// Addresses by HOST:PORT, so that one that is given twice is there once.
using AddressMap = std::map<std::string, Address>;

// Keeps a worker, and so a connection, for up to 250 gateways. Safe for several threads.
class Targets {
 public:
  explicit Targets(ScrapePlan plan) : plan_(std::move(plan)) {}
  ~Targets() { stopAll(); }
  Targets(const Targets&) = delete;
  Targets& operator=(const Targets&) = delete;

  // Throws a Fault (kUsage) if these are more than /metrics can ask.
  static void checkCount(const AddressMap& wanted);

  // Makes these, whose number has been checked, the gateways of /metrics. Workers of gateways that
  // are among the old and the new ones stay. Throws a Fault, and changes nothing, if a thread
  // cannot be started.
  void configure(const AddressMap& wanted);

  // The question of one scrape to one gateway.
  class Probe {
   public:
    Probe(WorkerPtr worker, bool isStanding)
        : worker_(std::move(worker)), isStanding_(isStanding), question_(worker_->ask()) {}
    ~Probe() {
      if (!isStanding_) worker_->stop();
    }
    Probe(const Probe&) = delete;
    Probe& operator=(const Probe&) = delete;
    [[nodiscard]] const std::string& gateway() const { return worker_->name(); }
    Scrape await(Clock::time_point deadline) { return worker_->await(question_, deadline); }

   private:
    WorkerPtr worker_;
    bool isStanding_;
    ScrapeWorker::Question question_;
  };
  // Asks the gateways of /metrics.
  [[nodiscard]] std::deque<Probe> probeConfigured() const;

  // Asks the worker that the gateway has. A gateway without one gets one, which is kept as long as
  // there are not too many, and otherwise serves this probe only. Throws a Fault.
  Probe probe(const Address& address);

  // Drops the workers of gateways that are only probed, and have not been for five minutes.
  void dropUnused();

  // Stops all workers, and those that are made after beginEnding().
  void stopAll();

 private:
  struct Target {
    WorkerPtr worker;
    bool isConfigured = false;
    Clock::time_point used;
  };
  WorkerPtr makeWorker(const Address& address, bool isQuiet);
  std::map<std::string, Target> startMissing(const AddressMap& wanted);
  void dropOldest(std::size_t limit);

  const ScrapePlan plan_;
  mutable std::mutex mutex_;
  std::map<std::string, Target> targets_;             // by HOST:PORT
  std::vector<std::weak_ptr<ScrapeWorker>> workers_;  // also those that serve one probe only
  std::optional<Clock::time_point> crowded_;          // when a gateway last got no worker to keep
};

// Reads a targets file: a HOST or HOST:PORT in each line, and comments after '#'. Throws a Fault
// (kUsage) that names the file and the line.
std::vector<Address> readTargets(const std::string& path);

// Notices that a file has changed.
class FileWatch {
 public:
  explicit FileWatch(std::string path) : path_(std::move(path)), known_(look()), last_(known_) {}

  // Returns true once after each change, not before a call finds the file as the call before did:
  // so no half-written file is read.
  bool hasChanged();

 private:
  struct State {
    ino_t inode = 0;
    off_t size = -1;
    timespec modified{};
    bool operator==(const State& other) const;
  };
  [[nodiscard]] State look() const;

  std::string path_;
  State known_;
  State last_;
};

}  // namespace zebtool

#endif  // ZEBSTATS_EXPORTER_TARGETS_H
