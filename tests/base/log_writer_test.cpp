#include "base/log_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <sstream>
#include <thread>
#include <vector>

#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::ReadFile;
using test::TempDir;

// Local time of a calendar moment, so file names do not depend on the zone.
std::time_t At(int year, int month, int day, int hour, int minute, int second) {
  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  parts.tm_isdst = -1;
  return std::mktime(&parts);
}

class LogWriterTest : public ::testing::Test {
 protected:
  std::unique_ptr<LogWriter> Make(int minLevel) {
    return std::make_unique<LogWriter>(directory_, minLevel, [this] { return now_.load(); });
  }
  std::string FileOf(const char* date) { return ReadFile(directory_ + date + ".log"); }

  TempDir dir_;
  std::string directory_ = dir_.path() + "/log/";
  std::atomic<std::time_t> now_{At(2010, 1, 28, 10, 15, 0)};

  void SetUp() override { std::filesystem::create_directory(directory_); }
};

TEST_F(LogWriterTest, LinesCarryTheTimeAndErrorMarker) {
  auto log = Make(kLogDebug);
  log->Write(kLogInfo, "Read account: %s\n", "joe");
  log->Write(kLogError, "[Corvane] %d failures\n", 2);
  log->Write(kLogWarning, "no line end");
  log.reset();
  EXPECT_EQ(FileOf("2010-01-28"),
            "2010-01-28 10:15:00 Read account: joe\n"
            "2010-01-28 10:15:00 [Error] [Corvane] 2 failures\n"
            "2010-01-28 10:15:00 no line end");
}

TEST_F(LogWriterTest, TextFromOutsideCannotStartOrHideALine) {
  struct Case {
    std::string value;
    std::string logged;
  };
  const std::vector<Case> cases = {
      {"Lst\r\n2010-01-28 10:15:00 forged", "Lst\\x0D\\x0A2010-01-28 10:15:00 forged"},
      {"a\rb", "a\\x0Db"},
      {"a\nb\n", "a\\x0Ab\\x0A"},
      {"bell\a del\x7F esc\x1B[2J", "bell\\x07 del\\x7F esc\\x1B[2J"},
      {"tab\tkept", "tab\tkept"},
      {std::string(20000, 'x'), std::string(8192 - 1 - 16, 'x') + "..."},
  };
  auto log = Make(kLogDebug);
  std::string expected;
  for (const Case& c : cases) {
    log->Write(kLogInfo, "Unknow command: %s\n", c.value.c_str());
    expected += "2010-01-28 10:15:00 Unknow command: " + c.logged + "\n";
  }
  log.reset();
  EXPECT_EQ(FileOf("2010-01-28"), expected);
}

TEST_F(LogWriterTest, LinesBelowTheMinimumLevelAreDropped) {
  auto log = Make(kLogWarning);
  log->Write(kLogDebug, "debug\n");
  log->Write(kLogInfo, "info\n");
  log->Write(kLogWarning, "warning\n");
  log->Write(kLogError, "error\n");
  log.reset();
  EXPECT_EQ(FileOf("2010-01-28"),
            "2010-01-28 10:15:00 warning\n2010-01-28 10:15:00 [Error] error\n");
}

TEST_F(LogWriterTest, FilteredLineOnANewDayMakesNoFile) {
  auto log = Make(kLogWarning);
  now_ = At(2010, 1, 29, 0, 0, 1);
  log->Write(kLogInfo, "quiet\n");
  EXPECT_FALSE(std::filesystem::exists(directory_ + "2010-01-29.log"));
}

TEST_F(LogWriterTest, OnlyDebugLevelFlushesEveryLine) {
  auto debug = Make(kLogDebug);
  debug->Write(kLogInfo, "at once\n");
  EXPECT_EQ(FileOf("2010-01-28"), "2010-01-28 10:15:00 at once\n");
  debug.reset();

  auto info = Make(kLogInfo);
  info->Write(kLogInfo, "later\n");
  EXPECT_EQ(FileOf("2010-01-28"), "2010-01-28 10:15:00 at once\n");
  info->Close();
  EXPECT_EQ(FileOf("2010-01-28"), "2010-01-28 10:15:00 at once\n2010-01-28 10:15:00 later\n");
}

TEST_F(LogWriterTest, FirstLineOfANewDayGoesToANewFile) {
  auto log = Make(kLogInfo);
  log->Write(kLogInfo, "before midnight\n");
  now_ = At(2010, 1, 29, 0, 0, 5);
  log->Write(kLogInfo, "after midnight\n");
  // The old day's file was closed, so its buffered line is on disk now.
  EXPECT_EQ(FileOf("2010-01-28"), "2010-01-28 10:15:00 before midnight\n");
  log.reset();
  EXPECT_EQ(FileOf("2010-01-29"), "2010-01-29 00:00:05 after midnight\n");
}

TEST_F(LogWriterTest, ExistingFileIsAppendedTo) {
  test::WriteFile(directory_ + "2010-01-28.log", "earlier run\n");
  auto first = Make(kLogDebug);
  auto second = Make(kLogDebug);  // a second program sharing the directory
  first->Write(kLogInfo, "one\n");
  second->Write(kLogInfo, "two\n");
  EXPECT_EQ(FileOf("2010-01-28"),
            "earlier run\n2010-01-28 10:15:00 one\n2010-01-28 10:15:00 two\n");
}

TEST_F(LogWriterTest, LineIsDroppedWhenTheNewFileCannotBeOpened) {
  auto log = Make(kLogDebug);
  // Block the next day's file name with a directory, so the reopen fails.
  std::filesystem::create_directory(directory_ + "2010-01-29.log");
  now_ = At(2010, 1, 29, 8, 0, 0);
  EXPECT_EQ(log->Write(kLogInfo, "lost\n"), 0);
  std::filesystem::remove(directory_ + "2010-01-29.log");
  log->Write(kLogInfo, "kept\n");
  EXPECT_EQ(FileOf("2010-01-29"), "2010-01-29 08:00:00 kept\n");
}

TEST_F(LogWriterTest, MissingDirectoryIsReportedAndRetriedAtTheNextWrite) {
  std::string missing = dir_.path() + "/later/";
  testing::internal::CaptureStderr();
  LogWriter log(missing, kLogDebug, [this] { return now_.load(); });
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "fopen failed: No such file or directory\n");
  std::filesystem::create_directory(missing);
  log.Write(kLogInfo, "recovered\n");
  EXPECT_EQ(ReadFile(missing + "2010-01-28.log"), "2010-01-28 10:15:00 recovered\n");
}

TEST_F(LogWriterTest, ConcurrentLinesNeverInterleave) {
  auto log = Make(kLogInfo);
  constexpr int kThreads = 4, kLines = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < kLines; ++i) log->Write(kLogInfo, "thread %d line %d end\n", t, i);
    });
  }
  for (auto& thread : threads) thread.join();
  log.reset();
  std::istringstream lines(FileOf("2010-01-28"));
  std::string line;
  int count = 0;
  while (std::getline(lines, line)) {
    int t = -1, i = -1;
    char tail[8] = {};
    ASSERT_EQ(std::sscanf(line.c_str(), "2010-01-28 10:15:00 thread %d line %d %3s", &t, &i, tail),
              3)
        << line;
    EXPECT_STREQ(tail, "end");
    ++count;
  }
  EXPECT_EQ(count, kThreads * kLines);
}

}  // namespace
}  // namespace corvane
