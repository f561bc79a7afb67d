#include "show.h"

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "fleet.h"
#include "output.h"
#include "presenter.h"
#include "process.h"

namespace zebtool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kFirstPause(1);
constexpr std::chrono::seconds kMaxPause(60);
constexpr std::chrono::milliseconds kLookAgain(100);  // while an answer is late

// A steady schedule: rounds that were missed are skipped.
class Schedule {
 public:
  explicit Schedule(double seconds)
      : step_(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))) {
  }
  [[nodiscard]] Clock::time_point next() const { return next_; }
  [[nodiscard]] Clock::duration step() const { return step_; }
  // Returns whether a round is due, and then moves on to the next.
  bool begin(Clock::time_point now) {
    if (now < next_) return false;
    next_ += step_ * ((now - next_) / step_ + 1);
    return true;
  }

 private:
  Clock::duration step_;
  Clock::time_point next_ = Clock::now();
};

// Ctrl-C is the usual way to end a watch, and may come while the main thread waits for a gateway;
// so the process ends at once. No destructor is missed: signals are held while output is written,
// and the kernel closes the connections.
void endOnSignal(int) {
  endNow(kDone);
}

void endOnSignals() {
  struct sigaction action {};
  action.sa_handler = endOnSignal;
  for (int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
}

// Asks gateways again and again. One that fails is asked again after a pause, which grows each
// time, so that the attempts do not burden a gateway that is starting.
class Watch {
 public:
  explicit Watch(const Options& options)
      : options_(options),
        presenter_(options),
        fleet_(options),
        schedule_(options.watchSeconds),
        states_(fleet_.size()) {}

  int run() {
    ExitCode code = kDone;
    for (long rounds = 0; options_.rounds == 0 || rounds < options_.rounds;) {
      if (!waitUntil(nextWake())) return kDone;
      askDue();
      News news = collect();
      if (!hasAnswered_ && haveAllFailed()) return presenter_.worstOf(reports());
      if (!news.isAny) continue;
      code = presenter_.present(reports());
      for (State& state : states_) {
        if (state.report) state.report->isNew = false;
      }
      if (news.hasAnswer) ++rounds;
    }
    return code;
  }

 private:
  struct State {
    std::optional<Report> report;  // the latest
    Clock::duration pause{};       // before the next attempt; 0: it answered, or was not asked yet
    Clock::time_point retryAt;
    [[nodiscard]] bool isDown() const { return pause > Clock::duration::zero(); }
  };
  struct News {
    bool isAny = false;
    bool hasAnswer = false;
  };

  // Returns false if the reader of the answers has gone. A file has none.
  [[nodiscard]] bool waitUntil(Clock::time_point end) const {
    if (options_.outputFile.empty())
      return waitWithReader(std::chrono::duration<double>(end - Clock::now()).count());
    std::this_thread::sleep_until(end);
    return true;
  }

  Clock::time_point nextWake() {
    Clock::time_point wake = schedule_.next();
    for (std::size_t i = 0; i < states_.size(); ++i) {
      if (fleet_.isAsking(i)) {
        wake = std::min(wake, Clock::now() + kLookAgain);
      } else if (states_[i].isDown()) {
        wake = std::min(wake, states_[i].retryAt);
      }
    }
    return wake;
  }

  // Asks the gateways that are due, and waits for those that are expected to answer.
  void askDue() {
    Clock::time_point now = Clock::now();
    bool isRound = schedule_.begin(now);
    for (std::size_t i = 0; i < states_.size(); ++i) {
      const State& state = states_[i];
      bool isDue = state.isDown() ? now >= state.retryAt : isRound;
      if (isDue && !fleet_.isAsking(i)) fleet_.ask(i, !state.isDown());
    }
    fleet_.wait(now + std::max<Clock::duration>(schedule_.step(), kFirstPause));
  }

  // Takes the outcomes that have come. Only the beginning of an outage is news.
  News collect() {
    News news;
    for (std::size_t i = 0; i < states_.size(); ++i) {
      std::optional<Outcome> outcome = fleet_.take(i);
      if (!outcome) continue;
      State& state = states_[i];
      bool wasDown = state.isDown();
      if (outcome->fault) {
        plan(state, *outcome->fault);
        if (wasDown) continue;
      } else {
        if (wasDown) presenter_.interrupt(fleet_.name(i) + ": it answers again");
        state.pause = {};
        news.hasAnswer = hasAnswered_ = true;
      }
      state.report = presenter_.makeReport(fleet_.name(i), std::move(*outcome));
      news.isAny = true;
    }
    return news;
  }

  // Plans the next attempt after a failure. As long as there was no answer the watch may end, so
  // the message promises nothing.
  void plan(State& state, const GatewayFault& fault) {
    state.pause =
        state.isDown() ? std::min<Clock::duration>(state.pause * 2, kMaxPause) : kFirstPause;
    state.retryAt = Clock::now() + state.pause;
    std::string text = fault.what();
    if (hasAnswered_) {
      auto seconds = std::chrono::round<std::chrono::seconds>(state.pause).count();
      text += "; trying again in " + std::to_string(seconds) + " s";
    }
    presenter_.interrupt(text);
  }

  [[nodiscard]] bool haveAllFailed() {
    return !fleet_.isAsking() && std::all_of(states_.begin(), states_.end(),
                                             [](const State& state) { return state.isDown(); });
  }

  [[nodiscard]] Reports reports() const {
    Reports reports;
    for (const State& state : states_) {
      if (state.report) reports.push_back(*state.report);
    }
    return reports;
  }

  const Options& options_;
  Presenter presenter_;
  Fleet fleet_;
  Schedule schedule_;
  std::vector<State> states_;
  bool hasAnswered_ = false;
};

}  // namespace

int showOnce(const Options& options) {
  Presenter presenter(options);
  Fleet fleet(options);
  for (std::size_t i = 0; i < fleet.size(); ++i) fleet.ask(i, true);
  fleet.wait(std::nullopt);
  Reports reports;
  for (std::size_t i = 0; i < fleet.size(); ++i) {
    Report& report = reports.emplace_back(presenter.makeReport(fleet.name(i), *fleet.take(i)));
    if (report.outage) presenter.interrupt(report.outage->what());
  }
  return presenter.present(reports);
}

int showWatched(const Options& options) {
  endOnSignals();
  return Watch(options).run();
}

}  // namespace zebtool
