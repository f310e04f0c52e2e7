#include "mail/text_shortening.h"

#include <gtest/gtest.h>

#include <string>

namespace corvane {
namespace {

struct Shortened {
  std::string text;
  int length;
};

Shortened Shorten(std::string text, int limit) {
  const int length = ShortenText(text, limit);
  return {text, length};
}

TEST(ShortenTextTest, LeavesTextsWithinThreeBytesOfTheLimit) {
  const Shortened seven = Shorten("0123456789", 7);
  EXPECT_EQ(seven.text, "0123456789");
  EXPECT_EQ(seven.length, 10);
  EXPECT_EQ(Shorten("0123456789", 10).text, "0123456789");
  EXPECT_EQ(Shorten("abc", 0).text, "abc");
  EXPECT_EQ(Shorten("", 5).length, 0);
}

TEST(ShortenTextTest, CutsAtTheLimitAndAddsDots) {
  const Shortened six = Shorten("0123456789", 6);
  EXPECT_EQ(six.text, "012345...");
  EXPECT_EQ(six.length, 9);
  EXPECT_EQ(Shorten("0123456789", 2).text, "01...");
}

TEST(ShortenTextTest, LeavesTextsAloneForALimitBelowTwo) {
  EXPECT_EQ(Shorten("0123456789", 1).text, "0123456789");
  EXPECT_EQ(Shorten("0123456789", 0).text, "0123456789");
  EXPECT_EQ(Shorten("0123456789", -4).length, 10);
}

TEST(ShortenTextTest, NeverSplitsATwoByteCharacter) {
  // The fifth byte starts a character: the cut moves back to four.
  const Shortened split = Shorten("abcd\xD6\xD0wxyz", 5);
  EXPECT_EQ(split.text, "abcd...");
  EXPECT_EQ(split.length, 7);
  EXPECT_EQ(Shorten("abcd\xD6\xD0wxyz", 6).text, "abcd\xD6\xD0...");

  // 中文 three times: every cut lands between characters.
  const std::string chinese = "\xD6\xD0\xCE\xC4\xD6\xD0\xCE\xC4\xD6\xD0\xCE\xC4";
  for (int limit = 2; limit < 9; ++limit) {
    const Shortened result = Shorten(chinese, limit);
    const int cut = limit - limit % 2;
    EXPECT_EQ(result.text, chinese.substr(0, static_cast<size_t>(cut)) + "...") << limit;
    EXPECT_EQ(result.length, cut + 3) << limit;
  }
}

TEST(ShortenTextTest, CountsEightBitBytesInPairsWhateverLiesBetween) {
  // A lone 8-bit byte pairs with the next one, even across ASCII.
  EXPECT_EQ(Shorten("\xA1"
                    "bcd\xB0\xA1xyzw",
                    5)
                .text,
            "\xA1"
            "bcd\xB0...");
  EXPECT_EQ(Shorten("\xA1"
                    "bcdefghij",
                    6)
                .text,
            "\xA1"
            "bcde...");
}

}  // namespace
}  // namespace corvane
