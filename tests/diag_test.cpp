// The trace: lines, levels, banner, destination, storage dump; and the first call.

#include "stapi_zeb_diag.h"
#include "stapi_zeb_gwytok.h"
#include "stapi_zeb_lock.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <memory>

#include "trace_capture.h"

using testing::ElementsAre;
using testing::MatchesRegex;
using zebtest::formatText;
using zebtest::splitLines;
using zebtest::TemporaryFile;
using zebtest::TraceCapture;

namespace {

const auto kBanner = MatchesRegex(
    R"(\*\*\* ../../.. KRO Velora ZEBSTATS DLL trace V8\.0\.0\.1 API V1_1_0_1 Build Level b800-20101014 \*\*\*)");
const std::string kRule(80, '-');

template <typename Work>
std::string standardErrorOf(Work work) {
  testing::internal::CaptureStderr();
  work();
  return testing::internal::GetCapturedStderr();
}

TEST(FirstCall, SwitchesTheTraceOff) {
  int level = -1;
  const auto errors = standardErrorOf([&] {
    statAPITrace = 5;
    EXPECT_EQ(getAPITraceLevel(&level), 0);
  });
  EXPECT_EQ(level, 0);
  EXPECT_EQ(errors, "");
  EXPECT_STREQ(statAPITraceFilename, "stderr");
}

TEST(TraceLine, ShowsTimeProcessThreadPointAndWord) {
  const TraceCapture trace(3);
  EXPECT_EQ(getAPITraceLevel(nullptr), -109);
  for (const std::string& line : splitLines(trace.text())) {
    EXPECT_TRUE(zebtest::hasShape(line, "99/99/99 99:99:99:999 [0xFFFFFFFF,0xFFFFFFFF] [1999] "))
        << line;
    EXPECT_EQ(line.substr(22, 23), formatText("[0x%8.8X,0x%8.8X]", tracePid, traceTid));
  }
  EXPECT_EQ(tracePid, static_cast<unsigned>(getpid()));
  EXPECT_EQ(traceTid, static_cast<unsigned>(pthread_self()));
}

TEST(TraceLine, AppearsFromTheLevelOfItsWordOn) {
  const int from[] = {1, 2, 3, 3, 4, 4};
  const char* const probes[] = {"[0007] *EXC*  ", "[0042] EVENT  ",  "[0999] ENTRY  ",
                                "[1234] EXIT   ", "[31000] DEBUG  ", "[9999] DATA   "};
  for (int level = 0; level <= 5; ++level) {
    const TraceCapture trace(level);
    TRACE_EXC(7, "probe\n");
    TRACE_EVENT(42, "probe\n");
    TRACE_ENTRY(999, "probe\n");
    TRACE_EXIT(1234, "probe\n");
    TRACE_DEBUG(31000, "probe\n");
    TRACE_DATA(9999, "probe", (zeb::TracedStorage{nullptr, 1, 0, 1}), 14);
    const auto seen = trace.lines();
    for (std::size_t i = 0; i < std::size(probes); ++i) {
      const std::string line = std::string("TIME [PID,TID] ") + probes[i] + "probe" +
                               (i == 5 ? " data=(nil) len=1 stopword=0000000E" : "");
      EXPECT_EQ(std::count(seen.begin(), seen.end(), line), level >= from[i] ? 1 : 0)
          << line << level;
    }
    EXPECT_EQ(trace.text().find("stapi_zeb_lock.requestLock(") != std::string::npos, level == 5);
  }
}

TEST(TraceLine, TellsLocalTime) {
  setenv("TZ", "ABC-05:30", 1);
  char stamp[24], date[10];
  time_t now;
  do {  // again if the second has changed meanwhile
    now = time(nullptr);
    getTimestamp(stamp);
    getTraceDate(date);
  } while (now != time(nullptr));
  std::ostringstream expected;
  expected << std::put_time(localtime(&now), "%d/%m/%y %H:%M:%S:");
  EXPECT_THAT(stamp, MatchesRegex(expected.str() + "[0-9]{3}"));
  EXPECT_EQ(date, expected.str().substr(0, 8));
}

// A trace destination so slow that no two lines have the same time.
ssize_t writeSlowly(void* written, const char* bytes, std::size_t size) {
  usleep(2000);
  static_cast<std::string*>(written)->append(bytes, size);
  return static_cast<ssize_t>(size);
}

TEST(TraceLine, RepeatsTheTimeOfTheLineBeforeAtTheEndOfDumpStateAndTheStartOfTheList) {
  ASSERT_EQ(setAPITraceLevel(0), 0);
  std::string written;
  statAPITraceHandle = fopencookie(&written, "w", {nullptr, writeSlowly, nullptr, nullptr});
  setAPITraceLevel(5);
  EXPECT_EQ(dumpState(), 0);
  EXPECT_EQ(initGTL(), 1);
  setAPITraceLevel(0);
  fclose(std::exchange(statAPITraceHandle, stderr));
  std::vector<std::string> repeated;
  std::string before;
  for (const std::string& line : splitLines(written)) {
    // The line before is one of a lock, which prints its time itself.
    if (line.substr(0, 21) == before.substr(0, 21) && before.find("_lock.") != before.npos)
      repeated.push_back(line.substr(line.rfind("] ") + 2));
    before = line;
  }
  EXPECT_THAT(repeated, ElementsAre("EXIT   API.dumpState()", "ENTRY  stapi_zeb_gwytok.initGTL()"));
}

TEST(TraceLine, LeavesErrnoAlone) {
  ASSERT_EQ(setAPITraceFile("/dev/full"), 0);
  ASSERT_EQ(setAPITraceLevel(5), 0);
  const auto keepsErrno = [](auto trace) {
    errno = 4711;
    trace();
    return errno == 4711;
  };
  EXPECT_TRUE(keepsErrno([] { TRACE_DEBUG(9999, "a line for which there is no room\n"); }));
  EXPECT_TRUE(keepsErrno([] {
    TRACE_DATA(9999, "probe", (zeb::TracedStorage{&kRule, 7, 0, 7}), kTerminator);
  }));
  EXPECT_TRUE(keepsErrno([] { requestLock(&traceLock), releaseLock(&traceLock); }));
}

TEST(ControlCalls, AcceptLevelsZeroToFiveAndNoNullPointers) {
  for (const int good : {5, 1, 2, 4, 0, 3}) {
    int level = -1;
    EXPECT_EQ(setAPITraceLevel(good), 0);
    EXPECT_EQ(getAPITraceLevel(&level), 0);
    EXPECT_EQ(level, good);
  }
  for (const int bad : {-1, 6, INT_MIN, INT_MAX}) EXPECT_EQ(setAPITraceLevel(bad), -104) << bad;
}

TEST(Banner, PrecedesEachRiseOnStandardErrorAndIsOncePerFile) {
  const TemporaryFile file;
  const auto errors = standardErrorOf([&] {
    for (const int level : {1, 2, 0, 0, 1}) setAPITraceLevel(level);  // twice
    EXPECT_EQ(setAPITraceFile(file.path().c_str()), 0);
    for (const int level : {0, 1, 0, 2}) setAPITraceLevel(level);
    EXPECT_EQ(setAPITraceFile(nullptr), 0);  // and once more
    for (const int level : {0, 1}) setAPITraceLevel(level);
  });
  EXPECT_THAT(splitLines(file.text()), ElementsAre(kBanner));
  EXPECT_THAT(splitLines(errors), ElementsAre(kBanner, kBanner, kBanner));
}

TEST(TraceFile, SwitchesToAFileAndBack) {
  const TemporaryFile second;
  const std::string name = second.path();
  const TraceCapture first(4);
  const auto before = zebtest::countDescriptors();
  EXPECT_EQ(setAPITraceFile(name.c_str()), 0);
  EXPECT_EQ(zebtest::countDescriptors(), before) << "the first file is closed";
  const auto errors = standardErrorOf([] {
    EXPECT_EQ(setAPITraceFile(nullptr), 0);
    EXPECT_EQ(setAPITraceFile(nullptr), 0);
  });
  EXPECT_EQ(zebtest::countDescriptors(), before - 1) << "the second, too";
  EXPECT_THAT(splitLines(second.text())[0], kBanner);
  EXPECT_THAT(splitLines(errors)[0], kBanner);
  const auto points = [](const std::string& text) {
    std::string found;
    for (const std::string& line : splitLines(text))
      if (line.find("] [") == 44) found += line.substr(46, 6);
    return found;
  };
  EXPECT_EQ(points(first.text()), "[1010]");
  EXPECT_EQ(points(second.text()), "[1012][1014][1010]");
  EXPECT_EQ(points(errors), "[1012][1014][1010][1013][1014]");
}

TEST(TraceFile, StaysWhenTheNewOneCannotBeOpened) {
  const TemporaryFile file;
  const TraceCapture trace(1);
  const std::string tooLong = std::string(1024 - file.path().size(), '/') + file.path();
  EXPECT_EQ(setAPITraceFile("/no/such/folder"), -130);
  EXPECT_EQ(setAPITraceFile(tooLong.c_str()), -130);
  EXPECT_THAT(trace.lines().front(), kBanner) << "a failed open writes it, too";
  const std::string unchanged =
      ". Trace file destination is unchanged. Filename=" + trace.path() + "\n";
  EXPECT_EQ(trace.story(),
            "*EXC*  API.setAPITraceFile(/no/such/folder) file append failed with errno=2" +
                unchanged + "*EXC*  API.setAPITraceFile(" + tooLong +
                ") file append failed with errno=" + std::to_string(ENAMETOOLONG) + unchanged);
  EXPECT_EQ(setAPITraceFile(tooLong.c_str() + 1), 0);
  EXPECT_EQ(statAPITraceFilename, tooLong.substr(1));
}

TEST(DumpState, TellsOfAnEmptyListAtLevelZero) {
  const TraceCapture trace(0);
  EXPECT_EQ(dumpState(), 0);
  EXPECT_EQ(trace.text(),
            "zebstats state dump: API Version=1_1_0_1 Trace Level=0 statAPITraceFile=" +
                trace.path() + "\nGateway Token List dump\n" + kRule +
                "\nThe Gateway Token List is EMPTY\n" + kRule + "\n");
}

const std::string kText = "0123456789abcdefghijklmnopqrstuvwxyz\n\x7F\xFF ~ and a tail";
const std::string kFullLine = "30313233 34353637 38396162 63646566 : 0123456789abcdef \n";

// The count and the text of a dump; the address columns are checked and left out.
template <typename Dump>
std::string dumped(const char* address, Dump dump) {
  const TraceCapture trace(0);
  std::string result = std::to_string(dump()) + ": ";
  for (const std::string& line : splitLines(trace.text())) {
    EXPECT_EQ(
        line.substr(0, 12),
        formatText("0x%8.8X: ", static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(address))));
    result += line.substr(12) + "\n";
    address += 16;
  }
  return result;
}

TEST(StorageDump, WritesTheLengthAskedFor) {
  const auto dump = [](int length, int width = 16) {
    return dumped(kText.data(), [=] { return traceOutStorage(kText.data(), length, 0, width, 0); });
  };
  EXPECT_EQ(dump(16), "16: " + kFullLine);
  EXPECT_EQ(dump(20), "20: " + kFullLine + "6768696A                            : ghij\n");
  EXPECT_EQ(dump(1), "1: 30                                  : 0\n");
  EXPECT_EQ(dump(41), "41: " + kFullLine +
                          "6768696A 6B6C6D6E 6F707172 73747576 : ghijklmnopqrstuv \n" +
                          "7778797A 0A7FFF20 7E                : wxyz... ~\n");
  EXPECT_EQ(dump(32, 32),
            "32: 30313233 34353637 38396162 63646566  6768696A 6B6C6D6E 6F707172 73747576 : "
            "0123456789abcdef ghijklmnopqrstuv \n");
}

TEST(StorageDump, EndsAtTheStopWordWhereverItStands) {
  const auto dump = [](std::vector<std::size_t> stops) {
    std::string storage = kText;
    for (const std::size_t at : stops) memcpy(&storage[at], &kTerminator, 4);
    return dumped(storage.data(),
                  [&] { return traceOutStorage(storage.data(), 0, kTerminator, 16, 0); });
  };
  const std::string stopWord = formatText("%8.8X", htonl(kTerminator));
  EXPECT_EQ(dump({21}), "21: " + kFullLine + "6768696A 6B                         : ghijk\n");
  EXPECT_EQ(dump({14}), "14: 30313233 34353637 38396162 6364     : 0123456789abcd\n");
  EXPECT_EQ(dump({0}), "0: " + stopWord + " 34353637 38396162 63646566 : \n")
      << "the whole line is shown";
  EXPECT_EQ(dump({16}), "16: " + kFullLine + stopWord + " 6B6C6D6E 6F707172 73747576 : \n");
  EXPECT_EQ(dump({3, 9}), "9: 303132                              : 012....78\n")
      << "the later one moves the end";
}

TEST(StorageDump, StaysInsideTheStorageThatItWasGiven) {
  const std::unique_ptr<char[]> storage(new char[20]);
  memcpy(storage.get(), kText.data(), 20);
  EXPECT_EQ(dumped(storage.get(),
                   [&] {
                     return zeb::dumpStorage({storage.get(), 0, kTerminator, 20});
                   }),
            "20: " + kFullLine + "6768696A                            : ghij\n");
}

}  // namespace
