#include "poller.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <utility>

#include "threads.h"

namespace zebtool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kShortestRetry = 1;       // seconds, to spare a gateway that is starting
constexpr std::size_t kMaxResults = 1000;  // while a terminal that is stopped delays the caller

PollResult ask(Gateway& gateway, const Question& question, Filter& filter) {
  PollResult result;
  try {
    result.answer = gateway.ask(question);
    filter.apply(result.answer);
  } catch (const GatewayFault& fault) {
    result.trouble = fault.what();
  } catch (const std::exception& fault) {
    result.trouble = gateway.name() + ": " + fault.what();
  }
  return result;
}

}  // namespace

struct Poller::Shared {
  explicit Shared(PollOptions given)
      : options(std::move(given)), intervalSeconds(options.intervalSeconds) {}
  ~Shared() { close(event); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;

  const PollOptions options;
  const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::mutex mutex;  // guards all below
  std::condition_variable changed;
  std::deque<PollResult> results;
  double intervalSeconds;
};

Poller::Poller(PollOptions options) : shared_(std::make_shared<Shared>(std::move(options))) {
  for (std::size_t i = 0; i < shared_->options.gateways.size(); ++i)
    startThread([shared = shared_, i] { serve(*shared, i); });
}

Poller::~Poller() {
  beginEnding();
  std::lock_guard lock(shared_->mutex);
  shared_->changed.notify_all();
}

int Poller::descriptor() const {
  return shared_->event;
}

std::deque<PollResult> Poller::takeResults() {
  eventfd_t count = 0;
  eventfd_read(shared_->event, &count);
  std::lock_guard lock(shared_->mutex);
  return std::exchange(shared_->results, {});
}

void Poller::setInterval(double seconds) {
  std::lock_guard lock(shared_->mutex);
  shared_->intervalSeconds = seconds;
}

void Poller::serve(Shared& shared, std::size_t index) {
  const PollOptions& options = shared.options;
  Gateway gateway(options.gateways[index], options.timeoutSeconds);
  Filter filter = options.filter;
  std::unique_lock lock(shared.mutex);
  while (!isEnding()) {
    lock.unlock();
    Clock::time_point start = Clock::now();
    PollResult result = ask(gateway, options.question, filter);
    result.gateway = index;
    result.at = Clock::now();
    lock.lock();
    double pause = shared.intervalSeconds;
    if (!result.trouble.empty()) pause = std::max(pause, kShortestRetry);
    shared.results.push_back(std::move(result));
    if (shared.results.size() > kMaxResults) shared.results.pop_front();
    eventfd_write(shared.event, 1);
    auto next =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(pause));
    shared.changed.wait_until(lock, next, isEnding);
  }
}

}  // namespace zebtool
