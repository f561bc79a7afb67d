// A client's session with a small gateway, as the tests of faults run it over and over.
#ifndef ZEBTEST_CLIENT_SESSION_H
#define ZEBTEST_CLIENT_SESSION_H

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "fault_injector.h"
#include "gateway_server.h"
#include "trace_capture.h"
#include "walk_answer.h"

namespace zebtest {

#if defined(__SANITIZE_THREAD__)
constexpr bool kHasThreadSanitizer = true;
#else
constexpr bool kHasThreadSanitizer = false;
#endif
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = kHasThreadSanitizer;
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
    zebsim::ServerOptions options;
    options.log = [](const std::string&) {};
    zebsim::GatewayServer server(options);
    for (const char* target : {"GET_STATS", "STAT_IDS", "RESOURCE_GROUPS"})
      server.setAnswer(target, answerOf(target));
    const int port = server.port();
    if (write(portEnd, &port, sizeof port) != sizeof port) _exit(1);
    for (;;) pause();
  }

  pid_t pid_ = -1;
  int port_ = 0;
};

// All of an answer, and the code at its end.
inline std::string tellAnswer(ResultSetToken* answer) {
  std::string told;
  const int rc = walkAnswer(answer, [&](const Entry& entry) {
    told += std::string(entry.element) + " " + std::to_string(entry.rc) + " ";
    if (entry.rc == 0) told += std::string(entry.id).append("=").append(entry.value) + " ";
  });
  return told + std::to_string(rc) + ";";
}

// What a caller holds of the library.
struct Session {
  int port = 0;
  GatewayToken* token = nullptr;
  char* version = nullptr;
  ResultSetToken* answer = nullptr;
  ResultSetToken* copy = nullptr;
  char* text = nullptr;
  std::string walked = {};

  int open() { return openGatewayConnection(port, &token, &version); }
  int release() {
    if (copy != nullptr) freeResultSet(&copy);
    const int rc = token != nullptr ? closeGatewayConnection(&token) : 0;
    std::free(version);
    *this = {.port = port};
    return rc;
  }
  [[nodiscard]] std::string tell() const {
    return walked + (answer != nullptr ? tellAnswer(answer) : "") +
           (copy != nullptr ? tellAnswer(copy) : "") + (text != nullptr ? text : "") +
           (version != nullptr ? version : "");
  }
};

struct Query {
  const char* name;
  bool hasText;
  int (*ask)(Session& s);
};
inline constexpr std::array<Query, 6> kQueries = {{
    {"getStats", false, [](Session& s) { return getStats(s.token, &s.answer); }},
    {"getStatIds", false, [](Session& s) { return getStatIds(s.token, &s.answer); }},
    {"getResourceGroupIds", false,
     [](Session& s) { return getResourceGroupIds(s.token, &s.answer); }},
    {"getStatsByStatId", true,
     [](Session& s) { return getStatsByStatId(s.token, "A", &s.answer); }},
    {"getStatsByStatGroupId", true,
     [](Session& s) { return getStatsByStatGroupId(s.token, "A", &s.answer); }},
    {"getStatIdsByStatGroupId", true,
     [](Session& s) { return getStatIdsByStatGroupId(s.token, "A", &s.answer); }},
}};

// A whole session: its codes and answers, up to the first call that fails.
inline std::string tellSession(int port) {
  Session s = {.port = port};
  int rc = s.open();
  std::string told = formatText("open %d;", rc);
  for (const Query& query : kQueries) {
    if (rc != 0) break;
    rc = query.ask(s);
    told += formatText("\n%s %d;", query.name, rc);
    if (rc != 0) {
      s.token = nullptr;  // the failure has removed it
      break;
    }
    for (const int code : {copyResultSet(s.answer, &s.copy), getIdQuery(s.copy, &s.text),
                           dumpResultSet(s.answer), dumpState()})
      told += formatText(" %d", code);
    told += " " + s.tell();
    s.text = nullptr;
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
  std::string text;
  std::array<char, 512> part{};
  for (ssize_t got; (got = read(ends[0], part.data(), part.size())) > 0;)
    text.append(part.data(), static_cast<std::size_t>(got));
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return status == 0 ? text : text + formatText(" the child ends with status %d", status);
}

// A row of the evidence: counts its points, and prints the count at the end.
class Row {
 public:
  explicit Row(const char* name) : name_(name) {}
  ~Row() {
    EXPECT_GT(points_, 0);
    printf("EVIDENCE %s points=%d failures=%d\n", name_, points_, failures_);
  }
  Row(const Row&) = delete;
  Row& operator=(const Row&) = delete;

  void add(const std::string& point, const std::string& complaint) {
    ++points_;
    if (!complaint.empty() && ++failures_ <= 20) ADD_FAILURE() << point << ":" << complaint;
  }

 private:
  const char* name_;
  int points_ = 0;
  int failures_ = 0;
};

}  // namespace zebtest

#endif
