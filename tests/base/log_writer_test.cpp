// The daily log: line format, what outside text can do to it, days and files.
#include "base/log_writer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "support/temp_dir.h"

namespace corvane {
namespace {

// Local time of 2010-01-<day> at hh:mm:ss, so file names do not depend on the zone.
std::time_t At(int day, int hour, int minute, int second) {
  std::tm parts{};
  parts.tm_year = 110, parts.tm_mday = day, parts.tm_hour = hour;
  parts.tm_min = minute, parts.tm_sec = second, parts.tm_isdst = -1;
  return std::mktime(&parts);
}

class LogWriterTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directory(directory_); }
  std::unique_ptr<LogWriter> Make(int minLevel, const std::string& directory = "") {
    return std::make_unique<LogWriter>(directory.empty() ? directory_ : directory, minLevel,
                                       [this] { return now_.load(); });
  }
  std::string Day(int day) {
    return test::ReadFile(directory_ + "2010-01-" + std::to_string(day) + ".log");
  }

  test::TempDir dir_;
  std::string directory_ = dir_.path() + "/log/";
  std::atomic<std::time_t> now_{At(28, 10, 15, 0)};
};

TEST_F(LogWriterTest, LinesCarryTimeAndMarkerAndOutsideTextCannotStartOrHideALine) {
  const std::pair<std::string, std::string> values[] = {
      {"Lst\r\n2010-01-28 10:15:00 forged", "Lst\\x0D\\x0A2010-01-28 10:15:00 forged"},
      {"a\nb\n", "a\\x0Ab\\x0A"},
      {"bell\a del\x7F esc\x1B[2J \x1F ~", "bell\\x07 del\\x7F esc\\x1B[2J \\x1F ~"},
      {"tab\tkept \xD6\xD0", "tab\tkept \xD6\xD0"},
      {std::string(8192 - 17, 'x'),
       std::string(8192 - 17, 'x') + "..."},                       // its line end is one past
      {std::string(8192 - 18, 'y'), std::string(8192 - 18, 'y')},  // the longest whole line
      {std::string(8000, '\x01'),
       [] {  // escapes count: 16 + 2043 * 4 bytes fit
         std::string escaped;
         for (int i = 0; i < 2043; ++i) escaped += "\\x01";
         return escaped + "...";
       }()},
  };
  auto log = Make(kLogInfo);
  std::string expected;
  log->Write(kLogDebug, "dropped\n");
  for (const auto& [value, logged] : values) {
    EXPECT_EQ(log->Write(kLogInfo, "Unknow command: %s\n", value.c_str()), 0);
    expected += "2010-01-28 10:15:00 Unknow command: " + logged + "\n";
  }
  log->Write(kLogError, "[Corvane] %d failures\n", 2);
  log->Write(kLogWarning, "no line end");
  log.reset();
  EXPECT_EQ(Day(28), expected +
                         "2010-01-28 10:15:00 [Error] [Corvane] 2 failures\n"
                         "2010-01-28 10:15:00 no line end");
}

TEST_F(LogWriterTest, OnlyDebugFlushesEachLineAndANewDayGetsANewFile) {
  auto debug = Make(kLogDebug);
  debug->Write(kLogInfo, "at once\n");
  EXPECT_EQ(Day(28), "2010-01-28 10:15:00 at once\n");
  debug.reset();
  auto info = Make(kLogWarning);
  info->Write(kLogWarning, "before midnight\n");
  EXPECT_EQ(Day(28), "2010-01-28 10:15:00 at once\n");
  now_ = At(29, 0, 0, 5);
  info->Write(kLogInfo, "filtered\n");
  EXPECT_FALSE(std::filesystem::exists(directory_ + "2010-01-29.log"));
  info->Write(kLogError, "after midnight\n");  // the old day's file is closed: on disk now
  EXPECT_EQ(Day(28), "2010-01-28 10:15:00 at once\n2010-01-28 10:15:00 before midnight\n");
  info->Close();
  EXPECT_EQ(Day(29), "2010-01-29 00:00:05 [Error] after midnight\n");
}

TEST_F(LogWriterTest, FilesAreAppendedToAndALineWithoutAFileIsDropped) {
  test::WriteFile(directory_ + "2010-01-28.log", "earlier run\n");
  auto first = Make(kLogDebug), second = Make(kLogDebug);  // two programs, one directory
  first->Write(kLogInfo, "one\n");
  second->Write(kLogInfo, "two\n");
  EXPECT_EQ(Day(28), "earlier run\n2010-01-28 10:15:00 one\n2010-01-28 10:15:00 two\n");

  std::filesystem::create_directory(directory_ + "2010-01-29.log");  // the next day's name taken
  now_ = At(29, 8, 0, 0);
  EXPECT_EQ(first->Write(kLogInfo, "lost\n"), 0);
  std::filesystem::remove(directory_ + "2010-01-29.log");
  first->Write(kLogInfo, "kept\n");
  EXPECT_EQ(Day(29), "2010-01-29 08:00:00 kept\n");

  const std::string later = dir_.path() + "/later/";
  testing::internal::CaptureStderr();
  auto missing = Make(kLogDebug, later);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "fopen failed: No such file or directory\n");
  std::filesystem::create_directory(later);
  missing->Write(kLogInfo, "recovered\n");
  EXPECT_EQ(test::ReadFile(later + "2010-01-29.log"), "2010-01-29 08:00:00 recovered\n");
}

}  // namespace
}  // namespace corvane
