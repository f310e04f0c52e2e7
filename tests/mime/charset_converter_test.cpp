#include "mime/charset_converter.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace corvane {
namespace {

// "中文" in each encoding.
const std::string kGbChinese = "\xD6\xD0\xCE\xC4";
const std::string kUtf8Chinese = "\xE4\xB8\xAD\xE6\x96\x87";
const std::string kBig5Chinese = "\xA4\xA4\xA4\xE5";

TEST(ConvertCharsetTest, ConvertsBetweenUtf8AndGbBothWays) {
  EXPECT_EQ(ConvertCharset("utf-8", "gb2312", kUtf8Chinese), kGbChinese);
  EXPECT_EQ(ConvertCharset("gb2312", "utf-8", kGbChinese), kUtf8Chinese);
  EXPECT_EQ(ConvertCharset("gb2312", "utf-8", "Re: " + kGbChinese + " 2010"),
            "Re: " + kUtf8Chinese + " 2010");
}

TEST(ConvertCharsetTest, ComparesNamesWithoutRegardToCase) {
  EXPECT_EQ(ConvertCharset("Utf-8", "GB2312", kUtf8Chinese), kGbChinese);
  EXPECT_EQ(ConvertCharset("GB2312", "UTF-8", kGbChinese), kUtf8Chinese);
  EXPECT_EQ(ConvertCharset("BIG5", "Gb2312", kBig5Chinese), kGbChinese);
}

TEST(ConvertCharsetTest, TurnsBig5TraditionalIntoGbSimplified) {
  EXPECT_EQ(ConvertCharset("big5", "gb2312", kBig5Chinese), kGbChinese);
  // 國語 becomes 国语, 中華民國 becomes 中华民国.
  EXPECT_EQ(ConvertCharset("big5", "gb2312", "\xB0\xEA\xBB\x79"), "\xB9\xFA\xD3\xEF");
  EXPECT_EQ(ConvertCharset("big5", "gb2312", "A \xA4\xA4\xB5\xD8\xA5\xC1\xB0\xEA!"),
            "A \xD6\xD0\xBB\xAA\xC3\xF1\xB9\xFA!");
}

TEST(ConvertCharsetTest, DecodesHzAndUtf7IntoGb) {
  // HZ carries GB code points as 7-bit pairs between "~{" and "~}"; "~~" is a tilde.
  EXPECT_EQ(ConvertCharset("hz-gb-2312", "gb2312", "~{<:Ky~}"), "\xBC\xBA\xCB\xF9");
  EXPECT_EQ(ConvertCharset("HZ-GB-2312", "gb2312", "ab~{<:Ky~}c~~d"),
            "ab\xBC\xBA\xCB\xF9"
            "c~d");
  EXPECT_EQ(ConvertCharset("utf-7", "gb2312", "+Ti1lhw-"), kGbChinese);
  EXPECT_EQ(ConvertCharset("UTF-7", "gb2312", "Hi +Ti1lhw- 1+-1"), "Hi " + kGbChinese + " 1+1");
}

TEST(ConvertCharsetTest, GivesNoneForEqualNamesAndUnlistedPairs) {
  EXPECT_EQ(ConvertCharset("gb2312", "GB2312", kGbChinese), std::nullopt);
  EXPECT_EQ(ConvertCharset("utf-8", "UTF-8", kUtf8Chinese), std::nullopt);
  EXPECT_EQ(ConvertCharset("ISO-8859-1", "gb2312", "caf\xE9"), std::nullopt);
  EXPECT_EQ(ConvertCharset("gb2312", "big5", kGbChinese), std::nullopt);
  EXPECT_EQ(ConvertCharset("big5", "utf-8", kBig5Chinese), std::nullopt);
  EXPECT_EQ(ConvertCharset("utf-8", "utf-7", "x"), std::nullopt);
  EXPECT_EQ(ConvertCharset("gbk", "utf-8", kGbChinese), std::nullopt);
  EXPECT_EQ(ConvertCharset("x-unknown", "gb2312", "text"), std::nullopt);
  EXPECT_EQ(ConvertCharset("", "", ""), std::nullopt);
  EXPECT_EQ(ConvertCharset("utf-8 ", "gb2312", kUtf8Chinese), std::nullopt);
}

TEST(ConvertCharsetTest, ConvertsEmptyTextToEmptyText) {
  for (const char* from : {"utf-8", "gb2312", "big5", "hz-gb-2312", "utf-7"}) {
    const char* to = std::string_view(from) == "gb2312" ? "utf-8" : "gb2312";
    const std::optional<std::string> converted = ConvertCharset(from, to, "");
    ASSERT_TRUE(converted.has_value()) << from;
    EXPECT_EQ(*converted, "") << from;
  }
}

TEST(ConvertCharsetTest, ReadsTextUpToItsFirstZeroByte) {
  const std::string text = kUtf8Chinese.substr(0, 3) + std::string(1, '\0') + "tail";
  EXPECT_EQ(ConvertCharset("utf-8", "gb2312", text), "\xD6\xD0");
}

TEST(ConvertCharsetTest, SubstitutesInvalidBytesInsteadOfFailing) {
  // A stray byte and a cut-off sequence each become the GB default character.
  EXPECT_EQ(ConvertCharset("utf-8", "gb2312",
                           "a\xFF"
                           "b\xE4\xB8"),
            "a?b?");
  // A lone GB lead byte at the end becomes U+FFFD, three bytes in UTF-8.
  EXPECT_EQ(ConvertCharset("gb2312", "utf-8", "ok\xD6"), "ok\xEF\xBF\xBD");
  // Characters GB cannot hold (an emoji, a Hangul syllable) become '?'.
  EXPECT_EQ(ConvertCharset("utf-8", "gb2312", "\xF0\x9F\x98\x80|\xEA\xB0\x80"), "?|?");
  const std::optional<std::string> broken = ConvertCharset("hz-gb-2312", "gb2312", "~{<:K");
  ASSERT_TRUE(broken.has_value());
  EXPECT_EQ(broken->substr(0, 2), "\xBC\xBA");
}

TEST(ConvertToGbTest, ConvertsTheOtherCodePagesWithoutSimplifying) {
  // 國語 stays traditional: GBK holds the traditional characters too.
  EXPECT_EQ(ConvertToGb("\xB0\xEA\xBB\x79", 950), "\x87\xF8\xD5\x5A");
  EXPECT_EQ(ConvertToGb(kUtf8Chinese, 65001), kGbChinese);
  EXPECT_EQ(ConvertToGb("~{<:Ky~}", 52936), "\xBC\xBA\xCB\xF9");
  EXPECT_EQ(ConvertToGb("+Ti1lhw-", 65000), kGbChinese);
}

TEST(ConvertToGbTest, GivesNoneForGbItselfAndUnknownCodePages) {
  EXPECT_EQ(ConvertToGb(kGbChinese, 936), std::nullopt);
  EXPECT_EQ(ConvertToGb("caf\xE9", 1252), std::nullopt);
  EXPECT_EQ(ConvertToGb("x", 0), std::nullopt);
}

TEST(TraditionalToSimplifiedTest, MapsOnlyTraditionalCharacters) {
  EXPECT_EQ(TraditionalToSimplified("\x87\xF8\xD5\x5A"), "\xB9\xFA\xD3\xEF");
  EXPECT_EQ(TraditionalToSimplified(kGbChinese), kGbChinese);
  EXPECT_EQ(TraditionalToSimplified("plain ASCII, 123"), "plain ASCII, 123");
  EXPECT_EQ(TraditionalToSimplified(""), "");
}

TEST(TraditionalToSimplifiedTest, GivesTheSameResultsOnManyThreadsAtOnce) {
  std::vector<std::string> results(8);
  std::vector<std::thread> threads;
  for (std::string& result : results) {
    threads.emplace_back([&result] {
      for (int i = 0; i < 50; ++i) {
        result = ConvertCharset("big5", "gb2312", "\xB0\xEA\xBB\x79").value_or("none");
        if (result != "\xB9\xFA\xD3\xEF") return;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& result : results) EXPECT_EQ(result, "\xB9\xFA\xD3\xEF");
}

}  // namespace
}  // namespace corvane
