// Text helpers, numbers, trace lines and the program's directories.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "base/ascii_text.h"
#include "base/debug_trace.h"
#include "base/decimal_text.h"
#include "base/program_paths.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

TEST(AsciiTextTest, CaseIsForAsciiLettersOnlyAndTextEndsAtNul) {
  EXPECT_TRUE(SameText("Content-Type:", "content-TYPE:"));
  EXPECT_FALSE(SameText("Content-Type", "Content-Type:"));
  EXPECT_FALSE(SameText("\xC4", "\xE4"));  // Latin-1 letters are bytes
  EXPECT_FALSE(SameText("[", "{"));        // these differ by the case bit only
  EXPECT_TRUE(StartsWithText("Text/HTML; charset=x", "text/"));
  EXPECT_FALSE(StartsWithText("tex", "text/"));
  std::string text = "ABC xyz [Z] @ \xC4\xD6 09", cut("AB\0CD", 5);
  LowerAscii(text);
  LowerAscii(cut);
  EXPECT_EQ(text, "abc xyz [z] @ \xC4\xD6 09");
  EXPECT_EQ(cut, "ab");
  EXPECT_EQ(UpToNul(std::string_view("a\0b", 3)), "a");
  EXPECT_EQ(UpToNul("no nul"), "no nul");
}

TEST(DecimalTextTest, LeadingBlanksSignAndDigitsSaturatingAt32Bits) {
  const std::pair<const char*, int32_t> cases[] = {{"42", 42},
                                                   {"  \t-17abc", -17},
                                                   {"+8", 8},
                                                   {"007", 7},
                                                   {"abc", 0},
                                                   {"- 5", 0},
                                                   {"", 0},
                                                   {"2147483647", 2147483647},
                                                   {"2147483648", 2147483647},
                                                   {"-2147483648", -2147483647 - 1},
                                                   {"-99999999999", -2147483647 - 1}};
  for (auto [text, value] : cases) EXPECT_EQ(ReadDecimal(text), value) << text;
}

TEST(DebugTraceTest, LineNamesServiceAndThreadAndIsCutToItsBuffer) {
  char line[1024];
  const int used = FormatDebugTrace(line, "Corvane", 4242, "SetStatus(%lu, %lu)", 7ul, 4ul);
  EXPECT_STREQ(line, "[Corvane](4242): SetStatus(7, 4)\n");
  EXPECT_EQ(used, static_cast<int>(std::strlen(line)));
  FormatDebugTrace(line, "Corvane", 1, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(std::strlen(line), sizeof line - 1);
  EXPECT_EQ(std::string(line).rfind("[Corvane](1): xxx", 0), 0u);
}

TEST(ProgramPathsTest, EverythingLivesUnderTheProgramDirectory) {
  for (auto [path, directory] : {std::pair{"/opt/corvane/corvane", "/opt/corvane"},
                                 {"C:\\Gateway\\bin\\corvane.exe", "C:\\Gateway\\bin"},
                                 {"/opt/dir\\corvane", "/opt/dir"},
                                 {"C:\\dir/corvane", "C:\\dir"},
                                 {"/corvane", ""},
                                 {"corvane", ""}})
    EXPECT_EQ(ProgramDirectoryFromPath(path), directory) << path;
  ProgramPaths paths = ProgramPaths::ForDirectory("/srv/gw");
  EXPECT_EQ(paths.configFile, "/srv/gw/config.ini");
  EXPECT_EQ(paths.accountFile, "/srv/gw/account.dat");
  EXPECT_EQ(paths.tempDirectory, "/srv/gw/temp/");
  EXPECT_EQ(paths.logDirectory, "/srv/gw/log/");
  EXPECT_EQ(paths.cacheDirectory, "/srv/gw/cache/");
}

TEST(ProgramPathsTest, EnsureDirectoryMakesWhatIsMissingAndReplacesNothing) {
  test::TempDir dir;
  test::WriteFile(dir / "blocker", "data");
  const auto workingDirectory = std::filesystem::current_path();
  for (int twice = 0; twice < 2; ++twice) EnsureDirectory(dir.path() + "/a/b\\c//d/");
  EnsureDirectory(dir.path() + "/blocker/sub/");
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/a/b/c/d"));
  EXPECT_EQ(test::ReadFile(dir / "blocker"), "data");
  EXPECT_EQ(std::filesystem::current_path(), workingDirectory);
}

}  // namespace
}  // namespace corvane
