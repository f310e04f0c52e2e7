#include "base/program_paths.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/temp_dir.h"

namespace corvane {
namespace {

TEST(ProgramDirectoryTest, CutAtTheLastSeparatorOfEitherKind) {
  EXPECT_EQ(ProgramDirectoryFromPath("/opt/corvane/corvane"), "/opt/corvane");
  EXPECT_EQ(ProgramDirectoryFromPath("C:\\Gateway\\bin\\corvane.exe"), "C:\\Gateway\\bin");
  EXPECT_EQ(ProgramDirectoryFromPath("/opt/dir\\corvane"), "/opt/dir");
  EXPECT_EQ(ProgramDirectoryFromPath("C:\\dir/corvane"), "C:\\dir");
  EXPECT_EQ(ProgramDirectoryFromPath("/corvane"), "");
  EXPECT_EQ(ProgramDirectoryFromPath("corvane"), "");
}

TEST(ProgramPathsTest, FilesAndDirectoriesLiveUnderTheProgramDirectory) {
  ProgramPaths paths = ProgramPaths::ForDirectory("/srv/gw");
  EXPECT_EQ(paths.configFile, "/srv/gw/config.ini");
  EXPECT_EQ(paths.accountFile, "/srv/gw/account.dat");
  EXPECT_EQ(paths.tempDirectory, "/srv/gw/temp/");
  EXPECT_EQ(paths.logDirectory, "/srv/gw/log/");
  EXPECT_EQ(paths.cacheDirectory, "/srv/gw/cache/");
}

TEST(EnsureDirectoryTest, MakesEveryMissingComponent) {
  test::TempDir dir;
  std::string deep = dir.path() + "/a/b\\c//d/";
  EnsureDirectory(deep);
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/a/b/c/d"));
  EnsureDirectory(deep);  // existing: nothing to do, nothing fails
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/a/b/c/d"));
}

TEST(EnsureDirectoryTest, LeavesExistingContentAndTheWorkingDirectoryAlone) {
  test::TempDir dir;
  test::WriteFile(dir / "keep.txt", "x");
  auto before = std::filesystem::current_path();
  EnsureDirectory(dir.path() + "/new/inner");
  EXPECT_EQ(std::filesystem::current_path(), before);
  EXPECT_EQ(test::ReadFile(dir / "keep.txt"), "x");
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/new/inner"));
}

TEST(EnsureDirectoryTest, AFileInTheWayIsNotReplaced) {
  test::TempDir dir;
  test::WriteFile(dir / "blocker", "data");
  EnsureDirectory(dir.path() + "/blocker/sub/");
  EXPECT_EQ(test::ReadFile(dir / "blocker"), "data");
  EXPECT_FALSE(std::filesystem::exists(dir.path() + "/blocker/sub"));
}

}  // namespace
}  // namespace corvane
