#include "poller.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "text.h"

namespace zebtool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kFarewell{200};
constexpr double kShortestRetry = 1;  // seconds, to spare a gateway that is starting

}  // namespace

struct Poller::Shared {
  explicit Shared(PollOptions given)
      : options(std::move(given)), intervalSeconds(options.intervalSeconds) {}

  const PollOptions options;
  const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::mutex mutex;  // guards all below
  std::condition_variable changed;
  std::vector<PollResult> results;
  std::size_t running = 0;
  double intervalSeconds;
  bool isStopping = false;
};

Poller::Poller(PollOptions options) : shared_(std::make_shared<Shared>(std::move(options))) {
  for (std::size_t i = 0; i < shared_->options.gateways.size(); ++i) {
    std::lock_guard lock(shared_->mutex);
    std::thread([shared = shared_, i] { serve(shared, i); }).detach();
    ++shared_->running;
  }
}

Poller::~Poller() {
  std::unique_lock lock(shared_->mutex);
  shared_->isStopping = true;
  shared_->changed.notify_all();
  shared_->changed.wait_for(lock, kFarewell, [this] { return shared_->running == 0; });
}

int Poller::descriptor() const {
  return shared_->event;
}

std::vector<PollResult> Poller::takeResults() {
  eventfd_t count = 0;
  eventfd_read(shared_->event, &count);
  std::lock_guard lock(shared_->mutex);
  return std::exchange(shared_->results, {});
}

void Poller::setInterval(double seconds) {
  std::lock_guard lock(shared_->mutex);
  shared_->intervalSeconds = seconds;
}

void Poller::serve(const std::shared_ptr<Shared>& shared, std::size_t index) {
  const PollOptions& options = shared->options;
  Gateway gateway(options.gateways[index], options.timeoutSeconds, true);
  Filter filter = options.filter;
  std::unique_lock lock(shared->mutex);
  while (!shared->isStopping) {
    lock.unlock();
    Clock::time_point start = Clock::now();
    PollResult result{index, {}, {}};
    try {
      result.answer = gateway.ask(options.question);
      filter.apply(result.answer);
    } catch (const GatewayFault& fault) {
      result.trouble = fault.what();
    }
    lock.lock();
    double pause = shared->intervalSeconds;
    if (!result.trouble.empty()) pause = std::max(pause, kShortestRetry);
    shared->results.push_back(std::move(result));
    eventfd_write(shared->event, 1);
    auto next =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(pause));
    shared->changed.wait_until(lock, next, [&] { return shared->isStopping; });
  }
  lock.unlock();
  gateway.close();
  lock.lock();
  --shared->running;
  shared->changed.notify_all();
}

}  // namespace zebtool
