// ASCII case and C-string ends, whatever the bytes around them.
#include "base/ascii_text.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(AsciiTextTest, CaseIsForAsciiLettersOnly) {
  EXPECT_TRUE(SameText("Content-Type:", "content-TYPE:"));
  EXPECT_FALSE(SameText("Content-Type", "Content-Type:"));
  EXPECT_FALSE(SameText("\xC4", "\xE4"));  // Latin-1 letters are bytes, not letters
  EXPECT_FALSE(SameText("[", "{"));        // 0x5B and 0x7B differ by the case bit only
  EXPECT_TRUE(StartsWithText("Text/HTML; charset=x", "text/"));
  EXPECT_FALSE(StartsWithText("tex", "text/"));

  std::string text = "ABC xyz [Z] @ \xC4\xD6\xDC 09";
  LowerAscii(text);
  EXPECT_EQ(text, "abc xyz [z] @ \xC4\xD6\xDC 09");
  std::string cut("AB\0CD", 5);
  LowerAscii(cut);
  EXPECT_EQ(cut, "ab");
  EXPECT_EQ(UpToNul(std::string_view("a\0b", 3)), "a");
  EXPECT_EQ(UpToNul("no nul"), "no nul");
}

}  // namespace
}  // namespace corvane
