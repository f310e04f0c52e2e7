#include "mime/charset_table.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "base/ascii_text.h"

namespace corvane {
namespace {

TEST(CharsetTableTest, NamesAreDistinctAndFoundWithoutCaseOnly) {
  const auto table = CharsetTable();
  ASSERT_EQ(table.size(), 48u);
  std::set<std::string> lowered;
  for (const CharsetInfo& row : table) {
    std::string name(row.name);
    LowerAscii(name);
    lowered.insert(name);
  }
  EXPECT_EQ(lowered.size(), table.size()) << "a name that appears twice could never be found";

  // The rows the gateway converts with, and those whose values differ from
  // the usual code page on purpose, found by names in any case.
  struct Row {
    const char* name;
    unsigned codePage;
    int charSet;
  };
  const Row rows[] = {{"utf-8", 65001, 1},        {"Gb2312", 936, 134},       {"big5", 950, 136},
                      {"hz-gb-2312", 52936, 134}, {"US-ASCII", 1252, 0},      {"iso-8859-1", 0, 1},
                      {"windows-1250", 0, 1},     {"iso-8859-10", 1254, 162}, {"KOREAN", 1361, 130},
                      {"x-euc-tw", 874, 222},     {"KOI8-U", 21866, 238}};
  for (const Row& row : rows) {
    const CharsetInfo* found = LookupCharset(row.name);
    ASSERT_NE(found, nullptr) << row.name;
    EXPECT_EQ(found->codePage, row.codePage) << row.name;
    EXPECT_EQ(found->charSet, row.charSet) << row.name;
  }
  EXPECT_EQ(LookupCharset("UTF-8"), &table.front());
  EXPECT_EQ(LookupCharset("GB2312") - table.data(), 41);
  EXPECT_EQ(LookupCharset("X-EUC-TW"), &table.back());
  const std::string unknown[] = {"iso-8859-16", "",    "utf8",
                                 "gb2312 ",     "GBK", std::string("gb2312\0x", 8)};
  for (const std::string& name : unknown) EXPECT_EQ(LookupCharset(name), nullptr) << name;
}

}  // namespace
}  // namespace corvane
