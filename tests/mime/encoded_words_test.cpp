#include "mime/encoded_words.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace corvane {
namespace {

// The words of an EncodeWords result, which separates them by single spaces.
std::vector<std::string> Words(const std::string& encoded) {
  std::vector<std::string> words;
  size_t begin = 0;
  while (begin <= encoded.size()) {
    size_t end = encoded.find(' ', begin);
    if (end == std::string::npos) end = encoded.size();
    words.push_back(encoded.substr(begin, end - begin));
    begin = end + 1;
  }
  return words;
}

// True when `bytes` starts and ends on UTF-8 character boundaries.
bool WholeUtf8(const std::string& bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    auto lead = static_cast<unsigned char>(bytes[i]);
    size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (length == 0 || i + length > bytes.size()) return false;
    for (size_t k = 1; k < length; ++k) {
      if ((static_cast<unsigned char>(bytes[i + k]) & 0xC0) != 0x80) return false;
    }
    i += length;
  }
  return true;
}

TEST(DecodeEncodedWordsTest, GivesRawBytesAndTheCharsetNamed) {
  DecodedText b = DecodeEncodedWords("=?gb2312?B?1tDOxA==?=");
  EXPECT_EQ(b.text, "\xD6\xD0\xCE\xC4");
  EXPECT_EQ(b.charset, "gb2312");

  // Q: underscores are spaces, hex in either case, the encoding letter in
  // either case; the charset is returned as written.
  DecodedText q = DecodeEncodedWords("=?UTF-8?q?caf=C3=a9_au_lait?=");
  EXPECT_EQ(q.text, "caf\xC3\xA9 au lait");
  EXPECT_EQ(q.charset, "UTF-8");

  EXPECT_EQ(DecodeEncodedWords("=?gb2312*zh-cn?B?1tDOxA==?=").charset, "gb2312");
}

TEST(DecodeEncodedWordsTest, JoinsAdjacentWordsButKeepsOtherText) {
  // A character split across two words (as broken encoders do) comes back
  // whole because the whitespace between words goes, folding included.
  EXPECT_EQ(DecodeEncodedWords("=?gb2312?B?1g==?=\r\n\t =?gb2312?B?0M7E?=").text,
            "\xD6\xD0\xCE\xC4");
  EXPECT_EQ(DecodeEncodedWords("Re: =?gb2312?B?1tDOxA==?= (draft) =?gb2312?B?1tA=?=x").text,
            "Re: \xD6\xD0\xCE\xC4 (draft) \xD6\xD0x");
  EXPECT_EQ(DecodeEncodedWords("=?utf-8?Q?a?= b =?utf-8?Q?c?=").text, "a b c");
  EXPECT_EQ(DecodeEncodedWords("\xD5\xC5 =?utf-8?Q?x?= ").text, "\xD5\xC5 x ");
}

TEST(DecodeEncodedWordsTest, NamesTheFirstCharsetWhenWordsMix) {
  DecodedText mixed = DecodeEncodedWords("=?gb2312?B?1tA=?= =?big5?B?sOo=?=");
  EXPECT_EQ(mixed.text, "\xD6\xD0\xB0\xEA");
  EXPECT_EQ(mixed.charset, "gb2312");
}

TEST(DecodeEncodedWordsTest, LeavesMalformedWordsAlone) {
  for (const char* text : {"=?gb2312?X?1tDOxA==?=", "=?gb2312?B?1tD OxA==?=", "=??B?1tDOxA==?=",
                           "=?gb2312?B?1tDOxA==", "=?gb 2312?B?1tA=?=", "plain =? text ?=", ""}) {
    EXPECT_FALSE(HasEncodedWords(text)) << text;
    DecodedText decoded = DecodeEncodedWords(text);
    EXPECT_EQ(decoded.text, text);
    EXPECT_EQ(decoded.charset, "");
  }
}

TEST(DecodeEncodedWordsTest, ReadsBrokenPayloadsAsFarAsTheyGo) {
  EXPECT_EQ(DecodeEncodedWords("=?gb2312?B?1tDOxA?=").text, "\xD6\xD0\xCE\xC4");  // no padding
  EXPECT_EQ(DecodeEncodedWords("=?iso-8859-1?Q?100=_=ZZ=4?=").text, "100= =ZZ=4");
  const char* emptyWord =
      "=?utf-8?B?"
      "?=";  // split so that no trigraph forms
  DecodedText empty = DecodeEncodedWords(emptyWord);
  EXPECT_TRUE(HasEncodedWords(emptyWord));
  EXPECT_EQ(empty.text, "");
  EXPECT_EQ(empty.charset, "utf-8");
}

TEST(DecodeEncodedWordsTest, FindsAWordAfterAFalseStart) {
  EXPECT_TRUE(HasEncodedWords("x =?broken =?gb2312?B?1tA=?="));
  EXPECT_EQ(DecodeEncodedWords("x =?broken =?gb2312?B?1tA=?=").text, "x =?broken \xD6\xD0");
}

TEST(EncodeWordsTest, RefusesBadEncodingsAndCharsets) {
  std::string out = "stale";
  EXPECT_EQ(EncodeWords("x", "gb2312", 'X', out), kEncodeWrongType);
  EXPECT_EQ(out, "");
  EXPECT_EQ(EncodeWords("x", "gb 2312", 'B', out), kEncodeBadCharset);
  EXPECT_EQ(EncodeWords("x", "gb2312?", 'B', out), kEncodeBadCharset);
  EXPECT_EQ(EncodeWords("x", "", 'B', out), kEncodeBadCharset);
  EXPECT_EQ(EncodeWords("x", std::string(kMaxCharsetName + 1, 'a'), 'B', out),
            kEncodeCharsetTooLong);
  EXPECT_EQ(EncodeWords("x", std::string(kMaxCharsetName, 'a'), 'b', out), kEncodeOk);
  EXPECT_EQ(EncodeWords("x", "utf-8", 'q', out), kEncodeOk);
  EXPECT_EQ(out, "=?utf-8?Q?x?=");
}

TEST(EncodeWordsTest, WritesTheExpectedWords) {
  std::string out;
  ASSERT_EQ(EncodeWords("\xD6\xD0\xCE\xC4", "gb2312", 'B', out), kEncodeOk);
  EXPECT_EQ(out, "=?gb2312?B?1tDOxA==?=");
  ASSERT_EQ(EncodeWords("a b_c=d?\xE9", "iso-8859-1", 'Q', out), kEncodeOk);
  EXPECT_EQ(out, "=?iso-8859-1?Q?a_b=5Fc=3Dd=3F=E9?=");
  ASSERT_EQ(EncodeWords("", "gb2312", 'B', out), kEncodeOk);
  EXPECT_EQ(out, "");
}

TEST(EncodeWordsTest, SplitsLongTextsBetweenCharacters) {
  std::string gb;  // 60 two-byte characters
  for (int i = 0; i < 60; ++i) gb += i % 2 ? "\xD6\xD0" : "\xCE\xC4";
  // Mixed 1- to 4-byte UTF-8 characters.
  std::string utf8;
  for (int i = 0; i < 20; ++i) utf8 += "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80";

  struct Case {
    std::string text;
    const char* charset;
  };
  for (const Case& c : {Case{gb, "gb2312"}, Case{utf8, "utf-8"}}) {
    for (char encoding : {'B', 'Q'}) {
      std::string out;
      ASSERT_EQ(EncodeWords(c.text, c.charset, encoding, out), kEncodeOk);
      std::vector<std::string> words = Words(out);
      EXPECT_GT(words.size(), 2u) << c.charset << " " << encoding;
      for (const std::string& word : words) {
        EXPECT_LE(word.size(), 75u) << word;
        DecodedText piece = DecodeEncodedWords(word);
        EXPECT_EQ(piece.charset, c.charset);
        if (c.charset == std::string("gb2312")) {
          EXPECT_EQ(piece.text.size() % 2, 0u) << word;
        } else {
          EXPECT_TRUE(WholeUtf8(piece.text)) << word;
        }
      }
      EXPECT_EQ(DecodeEncodedWords(out).text, c.text) << c.charset << " " << encoding;
    }
  }
}

TEST(EncodeWordsTest, KeepsAnEscapeSwitchedTextInOneWord) {
  std::string hz;
  for (int i = 0; i < 20; ++i) hz += "~{VPND~} ";
  std::string out;
  ASSERT_EQ(EncodeWords(hz, "hz-gb-2312", 'B', out), kEncodeOk);
  EXPECT_EQ(out.find(' '), std::string::npos);
  EXPECT_GT(out.size(), 75u);
  EXPECT_EQ(DecodeEncodedWords(out).text, hz);
}

}  // namespace
}  // namespace corvane
