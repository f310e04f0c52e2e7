#include "mail/known_uids.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "mail/cached_message.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using Ids = std::vector<std::string>;

TEST(KnownUidsTest, FileHoldsIdsJoinedByCommasAndEmptyPiecesAreSkipped) {
  test::TempDir dir;
  std::string path = dir / "mail.list";
  EXPECT_TRUE(ReadKnownUids(path).empty());
  test::WriteFile(path, ",a,,b,");
  EXPECT_EQ(ReadKnownUids(path), (Ids{"a", "b"}));

  SaveKnownUids(path, {"x", "y", "z"});
  EXPECT_EQ(test::ReadFile(path), "x,y,z");
  SaveKnownUids(path, {});
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(KnownUidsTest, OnlyTheFirst65534BytesAreRead) {
  test::TempDir dir;
  std::string path = dir / "mail.list";
  // 6553 ids of nine characters and a comma fill 65530 bytes; the next id
  // is cut after four of its characters.
  std::string text;
  for (int i = 0; i < 6554; ++i) text += "id" + std::to_string(1000000 + i) + ",";
  test::WriteFile(path, text);
  Ids ids = ReadKnownUids(path);
  ASSERT_EQ(ids.size(), 6554u);
  EXPECT_EQ(ids[6552], "id1006552");
  EXPECT_EQ(ids.back(), "id10");
}

TEST(KnownUidsTest, PruneDeletesCachedTextsOfIdsThatLeftAndAddKeepsOrder) {
  test::TempDir dir;
  std::string cache = dir.path() + "/";
  test::WriteFile(dir / "gone.txt", "x");
  test::WriteFile(dir / "kept.txt", "x");
  Ids known = {"gone", "kept", "also-gone"};
  EXPECT_EQ(PruneKnownUids(known, {"new", "kept"}, cache), 2);
  EXPECT_EQ(known, (Ids{"kept"}));
  EXPECT_FALSE(std::filesystem::exists(dir / "gone.txt"));
  EXPECT_TRUE(std::filesystem::exists(dir / "kept.txt"));

  EXPECT_EQ(AddKnownUids(known, {"new", "kept", "later", "new"}), 2);
  EXPECT_EQ(known, (Ids{"kept", "new", "later"}));
}

TEST(KnownUidsTest, AnIdNamesAFileInsideTheCacheAndNowhereElse) {
  test::TempDir dir;
  std::filesystem::create_directories(dir / "cache");
  test::WriteFile(dir / "outside.txt", "keep me");
  Ids known = {"../outside"};
  EXPECT_EQ(PruneKnownUids(known, {}, dir / "cache/"), 1);
  EXPECT_EQ(test::ReadFile(dir / "outside.txt"), "keep me");

  // Every id names one file of the directory itself, and no two ids one file.
  const std::vector<std::pair<std::string, std::string>> names = {
      {"../../etc/passwd", "..%2F..%2Fetc%2Fpasswd.txt"},
      {"..", "%2E%2E.txt"},
      {"a\\..\\b", "a%5C..%5Cb.txt"},
      {"%2e%2e", "%252e%252e.txt"},
      {"m\r\n1\x7F", "m%0D%0A1%7F.txt"},
  };
  for (const auto& [id, name] : names) EXPECT_EQ(CachedMessagePath("/c/", id), "/c/" + name) << id;
}

}  // namespace
}  // namespace corvane
