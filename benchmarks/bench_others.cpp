// What a user would pick instead: the same id-value pairs decoded from memory by a general-purpose reader.

#include <stdio.h>

#include <fstream>
#include <string>

#include "peer.h"
#include "rounds.h"
#include "zebstats_private.h"

#ifdef ZEB_HAVE_HIREDIS
#include <hiredis/hiredis.h>
#endif

namespace {

using namespace zebbench;
using benchmark::State;

constexpr std::size_t kMany = 1000;

class Decoder {
 public:
  void operator()() {
    const auto* bytes = reinterpret_cast<const unsigned char*>(answer_.data());
    require(parseStatsData(bytes, buffer_.data()) == 0, "parseStatsData failed");
  }

 private:
  Bytes answer_ = statsAnswer(kMany);
  std::vector<char> buffer_ = std::vector<char>(kResultSetBufferSize);
};

#ifdef ZEB_HAVE_HIREDIS
void compareHiredis(State& state, Goal goal) {
  Bytes reply("*");
  reply.append(std::to_string(2 * kMany)).append("\r\n");
  for (const auto& stat : makeStats(kMany)) {
    for (const Bytes& text : {stat.id, stat.value})
      reply.append("$").append(std::to_string(text.size())).append("\r\n").append(text).append("\r\n");
  }
  redisReader* reader = redisReaderCreate();
  Decoder decode;
  measure(state, goal, 5,
          {{"library", decode},
           {"hiredis", [&] {
              void* decoded = nullptr;
              redisReaderFeed(reader, reply.data(), reply.size());
              require(redisReaderGetReply(reader, &decoded) == REDIS_OK &&
                          static_cast<redisReply*>(decoded)->elements == 2 * kMany,
                      "hiredis failed");
              freeReplyObject(decoded);
            }}});
  redisReaderFree(reader);
}
#else
void compareHiredis(State& state, Goal) {
  state.SkipWithError("built without libhiredis-dev");
}
#endif

// The JDK measures itself, warmed up, and tells the median in nanoseconds.
double runJava() {
  char path[] = "/tmp/zebbench.XXXXXX";
  close(mkstemp(path));
  std::ofstream pairs(path);
  for (const auto& stat : makeStats(kMany)) pairs << stat.id << '\t' << stat.value << '\n';
  pairs.close();
  double nanoseconds = 0;
  const std::string command = std::string("java -Xshare:auto " JAVA_SOURCE " ") + path + " 2>/dev/null";
  if (FILE* output = popen(command.c_str(), "r")) {
    if (fscanf(output, "%lf", &nanoseconds) != 1) nanoseconds = 0;
    pclose(output);
  }
  unlink(path);
  return nanoseconds;
}

void compareJava(State& state, Goal goal) {
  const double java = runJava();
  if (java == 0) {
    state.SkipWithError("no JDK that runs a source file");
    return;
  }
  Decoder decode;
  const Rounds rounds = runRounds(5, {{"library", decode}});
  const auto value = [java](auto times) { return java / times[0]; };
  report(state, goal, value(rounds.medians()));
  state.counters["library ns"] = rounds.medians()[0];
  state.counters["ObjectInputStream ns"] = java;
  state.counters["spread"] = rounds.spread(value);
}

}  // namespace

int main(int argc, char** argv) {
  addRow("X1 hiredis' reader / decoding the same 1,000 pairs", {18, 0, true}, compareHiredis);
  addRow("X2 ObjectInputStream / decoding the same 1,000 pairs", {40, 0, true}, compareJava);
  return runRows(argc, argv);
}
