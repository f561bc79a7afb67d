// A client's session with a small gateway in another process, as the tests of faults run it over
// and over, and child processes that do hostile things.
#ifndef ZEBTEST_CLIENT_SESSION_H
#define ZEBTEST_CLIENT_SESSION_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

#include <gtest/gtest.h>

#include "client_calls.h"
#include "fault_injector.h"
#include "gateway_server.h"
#include "trace_capture.h"

namespace zebtest {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

// In a process of its own: its descriptors, limits and signals are not the client's.
class GatewayProcess {
 public:
  GatewayProcess() {
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0 || (pid_ = fork()) < 0) throw std::runtime_error("no gateway");
    if (pid_ == 0) serve(ends[1]);
    close(ends[1]);
    if (read(ends[0], &port_, sizeof port_) != sizeof port_) throw std::runtime_error("no gateway");
    close(ends[0]);
  }
  ~GatewayProcess() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  GatewayProcess(const GatewayProcess&) = delete;
  GatewayProcess& operator=(const GatewayProcess&) = delete;
  [[nodiscard]] int port() const { return port_; }

 private:
  [[noreturn]] static void serve(int portEnd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    zebsim::GatewayServer server({.log = [](const std::string&) {}});
    for (const char* target : {"GET_STATS", "STAT_IDS", "RESOURCE_GROUPS"})
      server.setAnswer(target, answerOf(target));
    const int port = server.port();
    if (write(portEnd, &port, sizeof port) != sizeof port) _exit(1);
    for (;;) pause();
  }

  pid_t pid_ = -1;
  int port_ = 0;
};

// A whole session: its codes and answers, up to the first call that fails.
inline std::string tellSession(int port) {
  Session s(port);
  int rc = s.open();
  std::string told = formatText("open %d;", rc);
  for (const PublicCall& query : kQueries) {
    if (rc == 0) rc = s.make(query);
    told += formatText("\n%s %d;", query.name, rc);
    if (rc != 0) continue;
    for (const int code : {copyResultSet(s.answer, &s.copy), getIdQuery(s.copy, &s.text),
                           dumpResultSet(s.answer), dumpState()})
      told += formatText(" %d", code);
    told += " " + s.tell() + s.text;
    told += formatText(" %d", freeResultSet(&s.copy));
  }
  return told + formatText("\nclose %d", s.release());
}

// Does the work in a child process that writes its standard error to nowhere, and returns its text.
template <typename Work>
std::string inChild(Work work, pid_t (*spawn)() = fork) {
  std::array<int, 2> ends{};
  fflush(stdout);
  if (pipe(ends.data()) != 0) throw std::runtime_error("no pipe");
  const pid_t child = spawn();
  if (child == 0) {
    const int out = fcntl(ends[1], F_DUPFD, 1500);  // above those that tests play with
    dup2(memfd_create("stderr", MFD_CLOEXEC), 2);
    const std::string text = work();
    _exit(write(out, text.data(), text.size()) < 0 ? 1 : 0);
  }
  close(ends[1]);
  const std::string text = readFile(formatText("/proc/self/fd/%d", ends[0]));
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return status == 0 ? text : text + formatText(" the child ends with status %d", status);
}

// A row of the evidence: counts its points, and prints the count at the end.
class Row {
 public:
  explicit Row(std::string name) : name_(std::move(name)) {}
  ~Row() {
    EXPECT_GT(points_, 0);
    printf("EVIDENCE %s points=%d failures=%d\n", name_.c_str(), points_, failures_);
  }

  void add(const std::string& point, const std::string& complaint) {
    ++points_;
    if (!complaint.empty() && ++failures_ <= 20) ADD_FAILURE() << point << ":" << complaint;
  }

 private:
  std::string name_;
  int points_ = 0;
  int failures_ = 0;
};

}  // namespace zebtest

#endif
