// The cost of the trace points while the trace is off: the library against a build without them,
// both loaded into one process.

#include <dlfcn.h>
#include <stdlib.h>

#include "peer.h"
#include "rounds.h"
#include "zebstats.h"

namespace {

using namespace zebbench;
using benchmark::State;

constexpr std::size_t kSmall = 10;
constexpr std::size_t kMany = 1000;

// One of the two builds. RTLD_DEEPBIND keeps it from calling functions of the other.
class Library {
 public:
  explicit Library(const char* path)
      : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND)) {
    require(handle_ != nullptr, path);
    find(open_, "openGatewayConnection");
    find(close_, "closeGatewayConnection");
    find(getStats_, "getStats");
    find(getFirstStat_, "getFirstStat");
    find(getNextStat_, "getNextStat");
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() {
    if (token_ != nullptr) close_(&token_);
    dlclose(handle_);
  }
  void open(const Peer& peer) {
    char* version = nullptr;
    require(open_(peer.port(), &token_, &version) == ZEB_OK, "cannot open a connection");
    free(version);
  }
  void query() { require(getStats_(token_, &answer_) == ZEB_OK, "getStats failed"); }
  void walk() {
    StatData stat;
    for (int rc = getFirstStat_(answer_, &stat); rc == ZEB_OK;) rc = getNextStat_(answer_, &stat);
  }

 private:
  template <typename Function>
  void find(Function& function, const char* name) {
    function = reinterpret_cast<Function>(dlsym(handle_, name));
    require(function != nullptr, name);
  }

  void* handle_;
  decltype(&openGatewayConnection) open_;
  decltype(&closeGatewayConnection) close_;
  decltype(&getStats) getStats_;
  decltype(&getFirstStat) getFirstStat_;
  decltype(&getNextStat) getNextStat_;
  GatewayToken* token_ = nullptr;
  ResultSetToken* answer_ = nullptr;
};

void compareBuilds(State& state, Goal goal, std::size_t count, void (Library::*work)()) {
  Peer peer(statsAnswer(count), 3);
  Library without(ZEBSTATS_NOTRACE_LIBRARY);
  Library with(ZEBSTATS_LIBRARY);
  for (Library* library : {&without, &with}) {
    library->open(peer);
    library->query();
  }
  measure(state, goal, 10,
          {{"compiled out", [&] { (without.*work)(); }}, {"trace off", [&] { (with.*work)(); }}});
}

}  // namespace

int main(int argc, char** argv) {
  pinToOneCore();
  addRow("P7 query, trace off / trace points compiled out", {1.02, 0},
         [](State& state, Goal goal) { compareBuilds(state, goal, kSmall, &Library::query); });
  addRow("P7 walk, trace off / trace points compiled out", {1.20, 1.10},
         [](State& state, Goal goal) { compareBuilds(state, goal, kMany, &Library::walk); });
  return runRows(argc, argv);
}
