// zebstat as a process against the smallest C program that does the same.

#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "peer.h"
#include "rounds.h"

namespace {

using namespace zebbench;

constexpr std::size_t kStatistics = 60;

void runProgram(std::vector<std::string> words) {
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child;
  int status = -1;
  require(posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ) == 0 &&
              waitpid(child, &status, 0) == child && status == 0,
          arguments[0]);
  posix_spawn_file_actions_destroy(&actions);
}

std::size_t countLines(const std::string& command) {
  FILE* output = popen(command.c_str(), "r");
  require(output != nullptr, "cannot start a program");
  std::size_t lines = 0;
  for (int c; (c = fgetc(output)) != EOF;) lines += c == '\n' ? 1 : 0;
  pclose(output);
  return lines;
}

void compareProcesses(benchmark::State& state, Goal goal) {
  const Peer peer(statsAnswer(kStatistics));
  const std::string port = std::to_string(peer.port());
  require(countLines(BARE_PROGRAM " " + port) == kStatistics,
          "the bare program does not print them all");
  require(countLines(ZEBSTAT_PROGRAM " stats --port " + port) >= kStatistics,
          "zebstat does not print them all");
  measure(state, goal, 1,
          {{"bare",
            [&] {
              runProgram({BARE_PROGRAM, port});
            }},
           {"zebstat", [&] {
              runProgram({ZEBSTAT_PROGRAM, "--port", port, "stats"});
            }}});
}

}  // namespace

int main(int argc, char** argv) {
  pinToOneCore();
  addRow("P15 zebstat stats as a process / bare C program", {1.6, 1.3}, compareProcesses);
  return runRows(argc, argv);
}
