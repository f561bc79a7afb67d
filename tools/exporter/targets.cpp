#include "targets.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

#include "threads.h"

namespace zebtool {

namespace {

// The library permits 256 connections; the rest is for probes that open and close one. If there are
// more gateways than workers to keep, fewer are kept: otherwise the few connections that are left
// would be those of silent gateways, for which all others wait.
constexpr std::size_t kMaxStanding = 250;
constexpr std::size_t kMaxStandingIfCrowded = 150;
constexpr std::chrono::minutes kUnusedTime{5};

}  // namespace

// The caller holds the mutex.
WorkerPtr Targets::makeWorker(const Address& address, bool isQuiet) {
  auto worker = std::make_shared<ScrapeWorker>(address, plan_, isQuiet);
  worker->start();
  std::erase_if(workers_, [](const auto& each) { return each.expired(); });
  workers_.push_back(worker);
  if (isEnding()) worker->stop();
  return worker;
}

void Targets::checkCount(const AddressMap& wanted) {
  if (wanted.size() <= kMaxStanding) return;
  throw Fault(kUsage, std::to_string(wanted.size()) + " gateways are more than the " +
                          std::to_string(kMaxStanding) +
                          " that one exporter can ask; share them among several");
}

void Targets::configure(const AddressMap& wanted) {
  std::lock_guard lock(mutex_);
  std::map<std::string, Target> added = startMissing(wanted);
  std::erase_if(targets_, [&](const auto& entry) {
    const auto& [name, target] = entry;
    bool isGone = target.isConfigured && !wanted.contains(name);
    if (isGone) target.worker->retire();
    return isGone;
  });
  for (auto& [name, target] : targets_) target.isConfigured = wanted.contains(name);
  targets_.merge(added);
  dropOldest(kMaxStanding);
}

// Starts a worker for each gateway that has none. The caller holds the mutex.
std::map<std::string, Targets::Target> Targets::startMissing(const AddressMap& wanted) {
  std::map<std::string, Target> added;
  try {
    for (const auto& [name, address] : wanted) {
      if (!targets_.contains(name)) added[name] = {makeWorker(address, false), true, {}};
    }
  } catch (const Fault&) {
    for (auto& [name, target] : added) target.worker->stop();
    throw;
  }
  return added;
}

std::deque<Targets::Probe> Targets::probeConfigured() const {
  std::lock_guard lock(mutex_);
  std::deque<Probe> probes;
  for (const auto& [name, target] : targets_) {
    if (target.isConfigured) probes.emplace_back(target.worker, true);
  }
  return probes;
}

Targets::Probe Targets::probe(const Address& address) {
  std::string name = showAddress(address);
  std::lock_guard lock(mutex_);
  auto found = targets_.find(name);
  if (found != targets_.end()) {
    found->second.used = Clock::now();
    return {found->second.worker, true};
  }
  if (targets_.size() >= kMaxStanding) crowded_ = Clock::now();
  if (crowded_) dropOldest(kMaxStandingIfCrowded);
  if (targets_.size() >= (crowded_ ? kMaxStandingIfCrowded : kMaxStanding)) {
    crowded_ = Clock::now();
    return {makeWorker(address, true), false};
  }
  Target& target = targets_[name] = {makeWorker(address, false), false, Clock::now()};
  return {target.worker, true};
}

// Drops idle workers of probed gateways, first those that have been unused for the longest time,
// until there are no more workers than the limit. The caller holds the mutex.
void Targets::dropOldest(std::size_t limit) {
  while (targets_.size() > limit) {
    auto oldest = targets_.end();
    for (auto each = targets_.begin(); each != targets_.end(); ++each) {
      const Target& target = each->second;
      bool isOlder = oldest == targets_.end() || target.used < oldest->second.used;
      if (!target.isConfigured && isOlder && target.worker->isIdle()) oldest = each;
    }
    if (oldest == targets_.end()) return;
    oldest->second.worker->retire();
    targets_.erase(oldest);
  }
}

void Targets::dropUnused() {
  std::lock_guard lock(mutex_);
  std::erase_if(targets_, [](const auto& entry) {
    const Target& target = entry.second;
    bool isUnused = !target.isConfigured && Clock::now() - target.used > kUnusedTime;
    if (isUnused) target.worker->retire();
    return isUnused;
  });
  if (crowded_ && Clock::now() - *crowded_ > kUnusedTime) crowded_.reset();
}

void Targets::stopAll() {
  std::lock_guard lock(mutex_);
  for (const auto& each : workers_) {
    if (WorkerPtr worker = each.lock()) worker->stop();
  }
}

// ---- The targets file ---------------------------------------------------------------------------

std::vector<Address> readTargets(const std::string& path) {
  std::ifstream file(path);
  std::vector<Address> addresses;
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    line.erase(std::min(line.find('#'), line.size()));
    line.erase(line.find_last_not_of(" \t\r") + 1);
    line.erase(0, line.find_first_not_of(" \t"));
    if (line.empty()) continue;
    std::optional<Address> address = parseAddress(line);
    if (!address) {
      throw Fault(kUsage, "--targets: " + path + ": line " + std::to_string(number) + ": '" + line +
                              "' is not a HOST or HOST:PORT");
    }
    addresses.push_back(std::move(*address));
  }
  if (!file.eof())
    throw Fault(kUsage, "--targets: cannot read " + path + ": " + std::strerror(errno) +
                            "; name a file with one HOST:PORT a line");
  return addresses;
}

bool FileWatch::State::operator==(const State& other) const {
  return inode == other.inode && size == other.size && modified.tv_sec == other.modified.tv_sec &&
         modified.tv_nsec == other.modified.tv_nsec;
}

FileWatch::State FileWatch::look() const {
  struct stat found {};
  if (stat(path_.c_str(), &found) != 0) return {};
  return {found.st_ino, found.st_size, found.st_mtim};
}

bool FileWatch::hasChanged() {
  State now = look();
  bool isSettled = now == std::exchange(last_, now);
  if (!isSettled || now == known_) return false;
  known_ = now;
  return true;
}

}  // namespace zebtool
