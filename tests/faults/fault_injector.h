// Makes chosen calls of the C library fail when the library under test makes them.
//
// The linker sends these calls to the injector, whoever makes them; it looks only at those of a
// thread that holds an Injection, and books there what is allocated and locked.
#ifndef ZEBTEST_FAULT_INJECTOR_H
#define ZEBTEST_FAULT_INJECTOR_H

#include <array>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace zebtest {

enum Call {
  kAllocate,
  kGetaddrinfo,
  kSocket,
  kSetsockopt,
  kIoctl,
  kConnect,
  kPoll,
  kGetsockopt,
  kSend,
  kRecv,
  kClose,
  kOpen,
  kFdopen,
  kFflush,
  kFclose,
  kLock,
  kUnlock,
  kInitLock,
  kCalls
};

// How a call fails: an errno, of getaddrinfo its own code, or one of these.
constexpr int kShort = 0x10001;  // send reports fewer bytes than it sent, recv delivers one
constexpr int kCut = 0x10002;    // send sends half, and the connection takes no more
constexpr int kEnd = 0x10003;    // send and recv return 0
constexpr int kPending =
    0x20000;  // getsockopt delivers the errno added to this as the socket's error

struct Fault {
  Call call;
  int at;        // the call of this kind that fails, from 1
  bool onwards;  // and all of this kind behind it
  int error;
};

// Watches this thread's calls while it lives. Each fault waits for the one ahead of it to strike.
class Injection {
 public:
  explicit Injection(std::vector<Fault> faults = {});
  ~Injection();
  Injection(const Injection&) = delete;
  Injection& operator=(const Injection&) = delete;

  [[nodiscard]] bool hasStruck() const { return index_ == faults_.size() || strikes_ > 0; }
  // How many calls of each kind were made since the last fault that strikes once.
  [[nodiscard]] const std::array<int, kCalls>& counts() const { return counts_; }
  int next(Call call);  // 0, or how the call fails
  [[nodiscard]] int strikes() const { return strikes_; }

 private:
  std::vector<Fault> faults_;
  std::size_t index_ = 0;  // the fault that waits or, onwards, strikes
  int strikes_ = 0;        // of that fault
  std::array<int, kCalls> counts_{};
};

// The blocks of memory and lists of addresses that the library holds, and the descriptors of the
// process.
std::pair<std::size_t, std::size_t> countHoldings();

// The misuse of locks since the last call, and the locks still held. Empty is well.
std::string takeLockComplaint();

}  // namespace zebtest

#endif
