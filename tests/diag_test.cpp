// The trace: lines, times, levels, banner, destination, storage dump; and the first call.

#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwytok.h"
#include "stapi_zeb_impl.h"
#include "stapi_zeb_lock.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>

#include "trace_capture.h"

using testing::ElementsAre;
using namespace zebtest;

// The linker sends the library's calls here. A time that a test has set grows with each call.
static timeval fakeTime = {};
static int microsecondsPerCall = 0;
extern "C" int __real_gettimeofday(timeval*, void*);
extern "C" int __wrap_gettimeofday(timeval* now, void* zone) {
  if (fakeTime.tv_sec == 0) return __real_gettimeofday(now, zone);
  *now = fakeTime;
  fakeTime.tv_usec += microsecondsPerCall;
  return 0;
}

namespace {

const auto kBanner = testing::MatchesRegex(
    R"(\*\*\* ../../.. KRO Velora ZEBSTATS DLL trace V8\.0\.0\.1 API V1_1_0_1 Build Level b800-20101014 \*\*\*)");

using testing::internal::CaptureStderr, testing::internal::GetCapturedStderr;

TEST(FirstCall, SwitchesTheTraceOffAndEachRiseOnStandardErrorWritesTheBanner) {
  if (zeb::isStarted()) GTEST_SKIP() << "an earlier test has made the first call of this process";
  const TemporaryFile file;
  int level = -1;
  statAPITrace = 5;
  CaptureStderr();
  EXPECT_EQ(getAPITraceLevel(&level), 0);
  EXPECT_EQ(level, 0);
  EXPECT_STREQ(statAPITraceFilename, "stderr");
  for (const int next : {1, 2, 0, 0, 1}) setAPITraceLevel(next);  // twice
  EXPECT_EQ(setAPITraceFile(file.path().c_str()), 0);
  for (const int next : {0, 1, 0, 2}) setAPITraceLevel(next);
  EXPECT_EQ(setAPITraceFile(nullptr), 0);  // and once more
  for (const int next : {0, 1}) setAPITraceLevel(next);
  EXPECT_THAT(splitLines(file.text()), ElementsAre(kBanner)) << "once per file";
  EXPECT_THAT(splitLines(GetCapturedStderr()), ElementsAre(kBanner, kBanner, kBanner));
}

TEST(TraceLine, AppearsFromTheLevelOfItsWordOnWithProcessAndThread) {
  const std::string ids = formatText(" [0x%8.8X,0x%8.8X] ", static_cast<unsigned>(getpid()),
                                     static_cast<unsigned>(pthread_self()));
  const std::pair<int, const char*> probes[] = {
      {1, "[0007] *EXC*  probe"},  {2, "[0042] EVENT  probe"},
      {3, "[0999] ENTRY  probe"},  {3, "[1234] EXIT   probe"},
      {4, "[31000] DEBUG  probe"}, {4, "[9999] DATA   probe data=(nil) len=1 stopword=0000000E"}};
  for (int level = 0; level <= 5; ++level) {
    const TraceCapture trace(level);
    TRACE_EXC(7, "probe\n");
    TRACE_EVENT(42, "probe\n");
    TRACE_ENTRY(999, "probe\n");
    TRACE_EXIT(1234, "probe\n");
    TRACE_DEBUG(31000, "probe\n");
    TRACE_DATA(9999, "probe", (zeb::TracedStorage{nullptr, 1, 0, 1}), 14);
    std::string seen, expected;
    for (const std::string& line : splitLines(trace.text()))
      if (line.find("probe") != line.npos) seen += line.substr(21) + "\n";
    for (const auto& [from, shown] : probes)
      if (level >= from) expected += ids + shown + "\n";
    EXPECT_EQ(seen, expected);
    EXPECT_EQ(trace.text().find("stapi_zeb_lock.requestLock(") != std::string::npos, level == 5);
  }
}

TEST(TraceLine, ShowsTheLocalTimeOfItsMoment) {
  const TraceCapture trace(1);
  const struct {
    const char* zone;
    timeval moment;
    const char* shown;
  } rows[] = {{"ABC-05:30", {1234567890, 1999}, "14/02/09 05:01:30:001"},
              {"ABC-05:30", {1234567890, 45000}, "14/02/09 05:01:30:045"},
              {"ABC-05:30", {1234567891, 999999}, "14/02/09 05:01:31:999"},
              {"XYZ+01", {1234567891, 999999}, "13/02/09 22:31:31:999"},
              {"XYZ+01", {946688399, 0}, "31/12/99 23:59:59:000"}};
  for (const auto& [zone, moment, shown] : rows) {
    setenv("TZ", zone, 1);
    fakeTime = moment;
    setAPITraceLevel(-1);
    char stamp[24];
    EXPECT_STREQ(getTimestamp(stamp), shown);
    EXPECT_EQ(splitLines(trace.text()).back().substr(0, 21), shown);
  }
  fakeTime = {};
}

TEST(TraceLine, RepeatsTheTimeOfTheLineBeforeAtTheEndOfDumpStateAndTheStartOfTheList) {
  const TraceCapture trace(5);
  microsecondsPerCall = 1000;
  fakeTime = {1, 0};
  EXPECT_EQ(dumpState(), 0);
  EXPECT_EQ(initGTL(), 1);
  fakeTime = {};
  microsecondsPerCall = 0;
  std::string repeated, before;
  for (const std::string& line : splitLines(trace.text())) {
    if (line.substr(0, 21) == before) repeated += line.substr(line.rfind("] ") + 2) + "\n";
    before = line.substr(0, 21);
  }
  EXPECT_EQ(repeated, "EXIT   API.dumpState()\nENTRY  stapi_zeb_gwytok.initGTL()\n");
}

TEST(TraceLine, LeavesErrnoAloneOnAFullDisk) {
  ASSERT_EQ(setAPITraceFile("/dev/full"), 0);
  ASSERT_EQ(setAPITraceLevel(5), 0);
  errno = 4711;
  TRACE_DEBUG(9999, "a line for which there is no room\n");
  TRACE_DATA(9999, "", (zeb::TracedStorage{"0123456", 7, 0, 7}), 0);
  requestLock(&traceLock);
  releaseLock(&traceLock);
  EXPECT_EQ(errno, 4711);
}

TEST(TraceFile, IsAppendedToAndSwitchedAndStaysIfTheNewOneCannotBeOpened) {
  const auto points = [](const std::string& text) {
    std::string found;
    for (const std::string& line : splitLines(text))
      found += line.find("] [") == 44 ? line.substr(46, 6) : line.substr(0, 3);
    return found;
  };
  const TemporaryFile second;
  const TraceCapture first(4);
  const auto descriptors = countDescriptors();
  EXPECT_EQ(setAPITraceFile(second.path().c_str()), 0);
  CaptureStderr();
  EXPECT_EQ(setAPITraceFile(nullptr), 0);
  EXPECT_EQ(setAPITraceFile(nullptr), 0);
  EXPECT_EQ(setAPITraceFile(first.path().c_str()), 0);
  EXPECT_EQ(points(GetCapturedStderr()), "***[1012][1014][1010][1013][1014][1010]");
  EXPECT_EQ(countDescriptors(), descriptors) << "each is closed when another is opened";
  const std::string tooLong = std::string(1024 - first.path().size(), '/') + first.path();
  EXPECT_EQ(setAPITraceFile(tooLong.c_str()), -130);
  EXPECT_EQ(setAPITraceFile(tooLong.c_str() + 1), 0);
  EXPECT_EQ(statAPITraceFilename, tooLong.substr(1));
  EXPECT_EQ(points(first.text()), "[1010]***[1012][1014][1010][1011][1014][1010]***[1012][1014]");
  EXPECT_EQ(points(second.text()), "***[1012][1014][1010]");
}

const std::string kText = "0123456789abcdefghijklmnopqrstuvwxyz\n\x7F\xFF ~ and a tail";
const std::string kFullLine = "30313233 34353637 38396162 63646566 : 0123456789abcdef \n";

// The count and the text of a dump; the address columns are checked and left out.
template <typename Dump>
std::string dumped(const char* address, Dump dump) {
  const TraceCapture trace(0);
  std::string result = std::to_string(dump()) + ": ";
  for (const std::string& line : splitLines(trace.text())) {
    const auto low = static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address));
    EXPECT_EQ(line.substr(0, 12), formatText("0x%8.8X: ", low));
    result += line.substr(12) + "\n";
    address += 16;
  }
  return result;
}

TEST(StorageDump, EndsAtItsLengthOrAtTheStopWordAndStaysInsideTheStorage) {
  const auto dump = [](int length, int width = 16, std::vector<std::size_t> stops = {}) {
    std::string storage = kText;
    for (const std::size_t at : stops) memcpy(&storage[at], &kTerminator, 4);
    return dumped(storage.data(), [&] {
      return traceOutStorage(storage.data(), length, stops.empty() ? 0 : kTerminator, width, 0);
    });
  };
  EXPECT_EQ(dump(41), "41: " + kFullLine +
                          "6768696A 6B6C6D6E 6F707172 73747576 : ghijklmnopqrstuv \n" +
                          "7778797A 0A7FFF20 7E                : wxyz... ~\n");
  EXPECT_EQ(dump(32, 32),
            "32: 30313233 34353637 38396162 63646566  6768696A 6B6C6D6E 6F707172 73747576 : "
            "0123456789abcdef ghijklmnopqrstuv \n");
  EXPECT_EQ(dump(16, 0) + dump(0) + dump(-1), "0: 0: 0: ");
  const std::string stopWord = formatText("%8.8X", htonl(kTerminator));
  EXPECT_EQ(dump(0, 16, {21}),
            "21: " + kFullLine + "6768696A 6B                         : ghijk\n");
  EXPECT_EQ(dump(0, 16, {0}), "0: " + stopWord + " 34353637 38396162 63646566 : \n")
      << "the whole line is shown";
  EXPECT_EQ(dump(0, 16, {16}), "16: " + kFullLine + stopWord + " 6B6C6D6E 6F707172 73747576 : \n");
  EXPECT_EQ(dump(0, 16, {3, 9}), "9: 303132                              : 012....78\n")
      << "the later one moves the end";
  const zeb::TracedStorage unended = {kText.data(), 0, kTerminator, 20};
  EXPECT_EQ(dumped(kText.data(), [&] { return zeb::dumpStorage(unended); }),
            "20: " + kFullLine + "6768696A                            : ghij\n");
  const zeb::TracedStorage tooShort = {kText.data(), 32, 0, 16};
  EXPECT_EQ(dumped(kText.data(), [&] { return zeb::dumpStorage(tooShort); }), "16: " + kFullLine);
}

}  // namespace
