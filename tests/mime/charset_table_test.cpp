#include "mime/charset_table.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace corvane {
namespace {

int RowOf(const CharsetInfo* row) {
  return static_cast<int>(row - CharsetTable().data());
}

TEST(CharsetTableTest, HoldsFortyEightDistinctNamesFromUtf8ToEucTw) {
  const auto table = CharsetTable();
  ASSERT_EQ(table.size(), 48u);
  EXPECT_EQ(table.front().name, "Utf-8");
  EXPECT_EQ(table.back().name, "X-EUC-TW");
  std::set<std::string> lowered;
  for (const CharsetInfo& row : table) {
    std::string name(row.name);
    for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    lowered.insert(name);
  }
  EXPECT_EQ(lowered.size(), table.size()) << "a name that appears twice could never be found";
}

TEST(CharsetTableTest, LooksNamesUpWithoutRegardToCase) {
  const CharsetInfo* gb = LookupCharset("gb2312");
  ASSERT_NE(gb, nullptr);
  EXPECT_EQ(RowOf(gb), 41);
  EXPECT_EQ(gb->codePage, 936u);
  EXPECT_EQ(gb->charSet, 134);
  EXPECT_EQ(LookupCharset("GB2312"), gb);
  EXPECT_EQ(LookupCharset("Gb2312"), gb);

  const CharsetInfo* utf8 = LookupCharset("UTF-8");
  ASSERT_NE(utf8, nullptr);
  EXPECT_EQ(RowOf(utf8), 0);
  EXPECT_EQ(utf8->codePage, 65001u);

  const CharsetInfo* big5 = LookupCharset("big5");
  ASSERT_NE(big5, nullptr);
  EXPECT_EQ(big5->codePage, 950u);
  EXPECT_EQ(big5->charSet, 136);

  const CharsetInfo* hz = LookupCharset("hz-gb-2312");
  ASSERT_NE(hz, nullptr);
  EXPECT_EQ(hz->codePage, 52936u);
}

TEST(CharsetTableTest, KeepsTheValuesThatDifferFromTheUsualCodePage) {
  EXPECT_EQ(LookupCharset("us-ascii")->codePage, 1252u);
  EXPECT_EQ(LookupCharset("ISO-8859-1")->codePage, 0u);
  EXPECT_EQ(LookupCharset("Windows-1250")->codePage, 0u);
  EXPECT_EQ(LookupCharset("ISO-8859-10")->codePage, 1254u);
  EXPECT_EQ(LookupCharset("korean")->codePage, 1361u);
  EXPECT_EQ(LookupCharset("X-EUC-TW")->codePage, 874u);
  EXPECT_EQ(LookupCharset("koi8-u")->charSet, 238);
}

TEST(CharsetTableTest, GivesNoneForUnknownOrNearlyMatchingNames) {
  EXPECT_EQ(LookupCharset("iso-8859-16"), nullptr);
  EXPECT_EQ(LookupCharset(""), nullptr);
  EXPECT_EQ(LookupCharset("utf8"), nullptr);
  EXPECT_EQ(LookupCharset("gb2312 "), nullptr);
  EXPECT_EQ(LookupCharset("GBK"), nullptr);
  EXPECT_EQ(LookupCharset(std::string("gb2312\0x", 8)), nullptr);
}

}  // namespace
}  // namespace corvane
