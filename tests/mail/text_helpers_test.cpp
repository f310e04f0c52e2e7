#include "mail/text_helpers.h"

#include <gtest/gtest.h>

#include <string>

namespace corvane {
namespace {

std::string Squeezed(std::string text) {
  SqueezeSpaces(text);
  return text;
}

std::string WithoutBlankLines(std::string text) {
  SqueezeBlankLines(text);
  return text;
}

TEST(SqueezeSpacesTest, CutsRunsOfMoreThanFiveSpacesToFive) {
  EXPECT_EQ(Squeezed("a    b"), "a    b");
  EXPECT_EQ(Squeezed("a     b"), "a     b");
  EXPECT_EQ(Squeezed("a      b"), "a     b");
  EXPECT_EQ(Squeezed(std::string(20, ' ') + "x" + std::string(7, ' ')), "     x     ");
  EXPECT_EQ(Squeezed("x \t\t\t\t\t\t y"), "x \t\t\t\t\t\t y");
  EXPECT_EQ(Squeezed(""), "");
  EXPECT_EQ(Squeezed(std::string("a      \0      ", 14)), "a     ");
}

TEST(SqueezeSpacesTest, HandlesTwentyMegabytesOnOneLine) {
  std::string text;
  std::string expected;
  while (text.size() < 20u << 20) {
    text += "word" + std::string(37, ' ');
    expected += "word     ";
  }
  SqueezeSpaces(text);
  EXPECT_EQ(text, expected);
  std::string spaces(20u << 20, ' ');
  SqueezeSpaces(spaces);
  EXPECT_EQ(spaces, "     ");
}

TEST(SqueezeBlankLinesTest, LeavesAtMostOneBlankLine) {
  EXPECT_EQ(WithoutBlankLines("a\r\n\r\n\r\n\r\nb"), "a\r\n\r\nb");
  EXPECT_EQ(WithoutBlankLines("a\r\n\r\n\n\r\r\n\nb\r\n\r\n\r\n"), "a\r\n\r\nb\r\n\r\n");
  EXPECT_EQ(WithoutBlankLines("a\r\n\r\nb\r\n\r\n\r\nc"), "a\r\n\r\nb\r\n\r\nc");
}

TEST(SqueezeBlankLinesTest, KeepsRunsThatDoNotHoldABlankLine) {
  EXPECT_EQ(WithoutBlankLines("a\r\nb"), "a\r\nb");
  EXPECT_EQ(WithoutBlankLines("a\r\n\rb"), "a\r\n\rb");
  EXPECT_EQ(WithoutBlankLines("a\n\n\n\nb"), "a\n\n\n\nb");
  EXPECT_EQ(WithoutBlankLines("a\r\r\r\rb"), "a\r\r\r\rb");
  // The blank line starts where "\r\n\r\n" first occurs; what is before stays.
  EXPECT_EQ(WithoutBlankLines("a\n\r\r\n\r\n\r\nb"), "a\n\r\r\n\r\nb");
  EXPECT_EQ(WithoutBlankLines(""), "");
}

TEST(HasEightBitBytesTest, LooksForAnyByteFrom0x80) {
  EXPECT_FALSE(HasEightBitBytes(""));
  EXPECT_FALSE(HasEightBitBytes("plain ASCII ~\x7F"));
  EXPECT_TRUE(HasEightBitBytes("\x80"));
  EXPECT_TRUE(HasEightBitBytes("Name \xD6\xD0"));
  EXPECT_TRUE(HasEightBitBytes("ends with \xFF"));
  EXPECT_FALSE(HasEightBitBytes(std::string("a\0\xD6", 3)));
}

TEST(ConcatNewTest, JoinsOrCopies) {
  EXPECT_EQ(ConcatNew("first", std::nullopt), "first");
  EXPECT_EQ(ConcatNew("first", "second"), "firstsecond");
  EXPECT_EQ(ConcatNew("", ""), "");
  EXPECT_EQ(ConcatNew("", "b"), "b");
}

TEST(ExtractCharsetTest, TakesTheQuotedName) {
  EXPECT_EQ(ExtractCharset("text/plain; charset=\"gb2312\""), "gb2312");
  EXPECT_EQ(ExtractCharset("text/html; charset=\"UTF-8\"; format=flowed"), "UTF-8");
  EXPECT_EQ(ExtractCharset("text/plain; charset=\"\""), "");
  EXPECT_EQ(ExtractCharset("text/plain; charset=\"gb2312"), std::nullopt);
}

TEST(ExtractCharsetTest, TakesEverythingAfterAnUnquotedName) {
  EXPECT_EQ(ExtractCharset("text/plain; charset=gb2312; format=flowed"), "gb2312; format=flowed");
  EXPECT_EQ(ExtractCharset("text/plain; charset=big5"), "big5");
  EXPECT_EQ(ExtractCharset("text/plain; charset="), "");
}

TEST(ExtractCharsetTest, FindsOnlyTheLowerCaseParameter) {
  EXPECT_EQ(ExtractCharset("text/plain; Charset=gb2312"), std::nullopt);
  EXPECT_EQ(ExtractCharset("text/plain; CHARSET=\"gb2312\""), std::nullopt);
  EXPECT_EQ(ExtractCharset("text/plain"), std::nullopt);
  EXPECT_EQ(ExtractCharset(""), std::nullopt);
  EXPECT_EQ(ExtractCharset(std::string("text/plain\0; charset=big5", 25)), std::nullopt);
}

}  // namespace
}  // namespace corvane
