// Decoding without the query. The program is linked with the static library, because the shared one
// does not export the parser that takes the answer's length.

#include <stdio.h>

#include <fstream>
#include <string>

#include "connection.h"
#include "floors.h"
#include "stapi_zeb_statcomms.h"
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
  explicit Decoder(std::size_t count) : answer_(count), buffer_(kResultSetBufferSize) {}
  [[nodiscard]] const WireAnswer& answer() const { return answer_; }
  void operator()() {
    require(zeb::parseStats(answer_.callData(), buffer_.data()) == 0, "parseStats failed");
  }

 private:
  WireAnswer answer_;
  std::vector<char> buffer_;
};

void largeQuery(State& state, Goal goal) {
  Decoder decode(kMany);
  const Peer peer(decode.answer().bytes);
  Connection library(peer.port());
  const BareQuery bare(peer.port(), decode.answer().bytes);
  state.counters["answer bytes"] = static_cast<double>(peer.replySize());
  measure(state, goal, 5,
          {{"bare", [&] { bare(); }},
           {"decoding", [&] { decode(); }},
           {"call", [&] { library.query(); }}},
          [](auto times) { return (times[2] - times[1]) / times[0]; });
}

void decodeMany(State& state, Goal goal) {
  Decoder decode(kMany);
  measure(state, goal, 10,
          {{"bare", [&] { decode.answer().step(); }}, {"call", [&] { decode(); }}});
}

void decodingGrowth(State& state, Goal goal) {
  std::vector<Step> steps;
  for (const std::size_t size : kGrowthSizes) {
    steps.push_back({std::to_string(size), [decode = Decoder(size), size]() mutable {
                       for (std::size_t done = 0; done < kGrowthTotal; done += size) decode();
                     }});
  }
  measureFlatness(state, goal, steps);
}

// The alternatives that a user has: a general-purpose reader decodes the same pairs from memory.
#ifdef ZEB_HAVE_HIREDIS
void compareHiredis(State& state, Goal goal) {
  Bytes reply("*");
  reply.append(std::to_string(2 * kMany)).append("\r\n");
  for (const auto& stat : makeStats(kMany)) {
    for (const Bytes& text : {stat.id, stat.value})
      reply.append("$")
          .append(std::to_string(text.size()))
          .append("\r\n")
          .append(text)
          .append("\r\n");
  }
  redisReader* reader = redisReaderCreate();
  Decoder decode(kMany);
  measure(state, goal, 5,
          {{"library", [&] { decode(); }},
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

// Returns the median in nanoseconds that the Java program measures after warming up, or 0 if there
// is no JDK.
double runJava() {
  char path[] = "/tmp/zebbench.XXXXXX";
  close(mkstemp(path));
  std::ofstream pairs(path);
  for (const auto& stat : makeStats(kMany)) pairs << stat.id << '\t' << stat.value << '\n';
  pairs.close();
  double nanoseconds = 0;
  const std::string command =
      std::string("java -Xshare:auto " JAVA_SOURCE " ") + path + " 2>/dev/null";
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
  Decoder decode(kMany);
  measure(state, goal, 5, {{"library", [&] { decode(); }}},
          [java](auto times) { return java / times[0]; });
  state.counters["ObjectInputStream ns"] = java;
}

}  // namespace

int main(int argc, char** argv) {
  pinToOneCore();
  addRow("P2 getStats, 43 kB answer, decoding not counted / bare", {1.16, 1.10}, largeQuery);
  addRow("P3 decoding 1,000 statistics / stepping over their lengths", {1.40, 1.15}, decodeMany);
  addRow("P16 time per statistic of decoding, 100 to 3,000: growth", {1.10, 0}, decodingGrowth);
  addRow("X1 hiredis' reader / decoding the same 1,000 pairs", {18, 0, true}, compareHiredis);
  addRow("X2 ObjectInputStream / decoding the same 1,000 pairs", {40, 0, true}, compareJava);
  return runRows(argc, argv);
}
