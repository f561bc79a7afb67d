#include "show.h"

#include <signal.h>

#include <algorithm>
#include <chrono>

#include "output.h"
#include "presenter.h"
#include "text.h"

namespace zebtool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kFirstPause = 1;
constexpr double kMaxPause = 60;

// A steady schedule: rounds that were missed are skipped.
class Schedule {
 public:
  explicit Schedule(double seconds)
      : step_(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))) {
  }
  void waitForNext() {
    Clock::time_point now = Clock::now();
    next_ += step_;
    if (next_ < now) next_ += step_ * ((now - next_) / step_ + 1);
    waitForReader(std::chrono::duration<double>(next_ - now).count());
  }

 private:
  Clock::duration step_;
  Clock::time_point next_ = Clock::now();
};

// Ctrl-C is the usual way to end a watch. There is nothing to clean up: the signal is blocked
// during writing.
void endOnSignal(int) {
  endNow(kDone);
}

void endOnSignals() {
  struct sigaction action {};
  action.sa_handler = endOnSignal;
  for (int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
}

// Asks until there is an answer. The pauses between attempts grow, so that the attempts do not
// burden a gateway that is starting.
Answer askUntilAnswered(Gateway& gateway, const Question& question, Presenter& presenter) {
  for (double pause = kFirstPause;; pause = std::min(pause * 2, kMaxPause)) {
    try {
      Answer answer = gateway.ask(question);
      if (pause > kFirstPause) presenter.interrupt(gateway.name() + ": it answers again");
      return answer;
    } catch (const Fault& fault) {
      presenter.forget();
      presenter.interrupt(fault.what() + std::string("; trying again in ") + showNumber(pause, 0) +
                          " s");
    }
    waitForReader(pause);
  }
}

}  // namespace

int showOnce(const Options& options, Gateway& gateway) {
  Presenter presenter(options, gateway.name());
  return presenter.present(gateway.ask(options.question()));
}

// The first failure ends the watch: it is probably the user's mistake.
int showWatched(const Options& options, Gateway& gateway) {
  Presenter presenter(options, gateway.name());
  Question question = options.question();
  endOnSignals();
  Schedule schedule(options.watchSeconds);
  ExitCode code = presenter.present(gateway.ask(question));
  for (long round = 1; options.rounds == 0 || round < options.rounds; ++round) {
    schedule.waitForNext();
    code = presenter.present(askUntilAnswered(gateway, question, presenter));
  }
  return code;
}

}  // namespace zebtool
