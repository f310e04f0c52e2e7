// Charset conversion, the charset table and the locale's default charset;
// encoded words in header text: decoding as far as they are well formed, and
// encoding into words that never split a character.
#include <gtest/gtest.h>

#include <set>

#include "base/ascii_text.h"
#include "mime/charset_converter.h"
#include "mime/charset_table.h"
#include "mime/default_charset.h"
#include "mime/encoded_words.h"
#include "support/scoped_env.h"

namespace corvane {
namespace {

// "中文" in each encoding.
const std::string kGb = "\xD6\xD0\xCE\xC4", kUtf8 = "\xE4\xB8\xAD\xE6\x96\x87",
                  kBig5 = "\xA4\xA4\xA4\xE5";

TEST(CharsetTest, FiveCaseBlindPairsConvertAndNothingElse) {
  const std::tuple<const char*, const char*, std::string, std::optional<std::string>> cases[] = {
      {"utf-8", "gb2312", "Re: " + kUtf8, "Re: " + kGb},
      {"GB2312", "UTF-8", kGb, kUtf8},
      {"BIG5", "Gb2312", kBig5 + "\xB0\xEA\xBB\x79",
       kGb + "\xB9\xFA\xD3\xEF"},  // 國語 simplified: 国语
      {"HZ-GB-2312", "gb2312", "ab~{<:Ky~}c~~d",
       "ab\xBC\xBA\xCB\xF9"
       "c~d"},
      {"utf-7", "gb2312", "Hi +Ti1lhw- 1+-1", "Hi " + kGb + " 1+1"},
      {"hz-gb-2312", "gb2312", "", ""},
      {"utf-8", "gb2312", kUtf8.substr(0, 3) + std::string(1, '\0') + "tail", "\xD6\xD0"},
      // Invalid or unmappable bytes become substitutes, never a failure.
      {"utf-8", "gb2312",
       "a\xFF"
       "b\xF0\x9F\x98\x80\xE4\xB8",
       "a?b??"},
      {"gb2312", "utf-8", "ok\xD6", "ok\xEF\xBF\xBD"},
      {"gb2312", "GB2312", kGb, std::nullopt},
      {"big5", "utf-8", kBig5, std::nullopt},
      {"utf-8", "utf-7", "x", std::nullopt},
      {"ISO-8859-1", "gb2312", "caf\xE9", std::nullopt},
      {"utf-8 ", "gb2312", kUtf8, std::nullopt}};
  for (const auto& [from, to, text, converted] : cases)
    EXPECT_EQ(ConvertCharset(from, to, text), converted) << from << " -> " << to << ": " << text;
  EXPECT_EQ(ConvertToGb("\xB0\xEA\xBB\x79", 950), "\x87\xF8\xD5\x5A");  // 國語 stays traditional
  EXPECT_EQ(ConvertToGb(kUtf8, 65001), kGb);
  EXPECT_EQ(ConvertToGb("~{<:Ky~}", 52936), "\xBC\xBA\xCB\xF9");
  EXPECT_EQ(ConvertToGb("+Ti1lhw-", 65000), kGb);
  for (uint32_t codePage : {936u, 1252u, 951u}) EXPECT_EQ(ConvertToGb(kGb, codePage), std::nullopt);
  EXPECT_EQ(TraditionalToSimplified(kGb + "\x87\xF8\xD5\x5A plain"),
            kGb + "\xB9\xFA\xD3\xEF plain");
  EXPECT_EQ(TraditionalToSimplified(std::string("\x87\xF8\0\xD5\x5A", 5)), "\xB9\xFA");
}

TEST(CharsetTest, EveryTableNameIsFoundInAnyCaseAndNoOtherIs) {
  std::set<std::string> names;
  for (const CharsetInfo& row : CharsetTable()) {
    std::string name(row.name);
    LowerAscii(name);
    EXPECT_EQ(LookupCharset(name), &row) << "a name listed twice is never found: " << name;
    names.insert(name);
  }
  EXPECT_EQ(names.size(), CharsetTable().size());
  EXPECT_EQ(LookupCharset("Big5")->codePage, 950u);  // the code pages the converters go by
  EXPECT_EQ(LookupCharset("hz-gb-2312")->codePage, 52936u);
  for (const std::string name : {"utf8", "gb2312 ", "GBK", ""})
    EXPECT_EQ(LookupCharset(name), nullptr);
  EXPECT_EQ(LookupCharset(std::string("gb2312\0x", 8)), nullptr);
}

TEST(CharsetTest, ANewMessageTakesTheLocalesAnsiCodePage) {
  const std::pair<const char*, const char*> locales[] = {
      {"zh_CN.UTF-8", "cp936"},  {"zh_TW.Big5", "cp950"},   {"zh_HK", "cp950"},
      {"zh_MO", "cp950"},        {"ja_JP.eucJP", "cp932"},  {"ru_RU.KOI8-R", "cp1251"},
      {"en_US.UTF-8", "cp1252"}, {"fil_PH", "cp1252"},      {"sr_RS", "cp1251"},
      {"sr_RS@latin", "cp1250"}, {"uz_UZ.UTF-8", "cp1254"}, {"az_AZ@cyrillic", "cp1251"},
      {"C.UTF-8", "us-ascii"},   {"", "us-ascii"},          {"zhx_CN", "us-ascii"}};
  for (auto [locale, charset] : locales)
    EXPECT_EQ(DefaultCharsetForLocale(locale), charset) << locale;
  // The first set of LC_ALL, LC_CTYPE and LANG.
  const std::tuple<const char*, const char*, const char*, const char*> environments[] = {
      {"ko_KR.UTF-8", "zh_TW", "ja_JP", "cp949"},
      {"", "zh_TW", "ja_JP", "cp950"},
      {nullptr, "", "zh_CN.UTF-8", "cp936"},
      {nullptr, nullptr, nullptr, "us-ascii"}};
  for (auto [all, ctype, lang, charset] : environments) {
    test::ScopedEnv allSet("LC_ALL", all), ctypeSet("LC_CTYPE", ctype), langSet("LANG", lang);
    EXPECT_EQ(DefaultCharset(), charset);
  }
}

TEST(DecodeEncodedWordsTest, GivesTheRawBytesAndTheFirstCharsetNamed) {
  struct Case {
    std::string text, decoded, charset;
  };
  const Case cases[] = {
      {"=?gb2312?B?1tDOxA==?=", "\xD6\xD0\xCE\xC4", "gb2312"},
      {"=?gb2312*zh-cn?b?1tDOxA?=", "\xD6\xD0\xCE\xC4", "gb2312"},  // no padding, language cut
      {"=?UTF-8?q?caf=C3=a9_au_lait?=", "caf\xC3\xA9 au lait", "UTF-8"},
      {"=?iso-8859-1?Q?100=_=ZZ=4?=", "100= =ZZ=4", "iso-8859-1"},  // broken escapes stay
      {"=?utf-8?B?\?=", "", "utf-8"},
      {"=?utf-8?B?QQ?=", "A", "utf-8"},       // a two-character last group still carries a byte
      {"=?utf-8?B?QUJDR?=", "ABC", "utf-8"},  // six bits make no byte
      // Whitespace between words goes, folds included, so a split character is whole again.
      {"=?gb2312?B?1g==?=\r\n\t =?gb2312?B?0M7E?=", "\xD6\xD0\xCE\xC4", "gb2312"},
      {"Re: =?gb2312?B?1tDOxA==?= (draft) =?gb2312?B?1tA=?=x",
       "Re: \xD6\xD0\xCE\xC4 (draft) \xD6\xD0x", "gb2312"},
      {"\xD5\xC5 =?utf-8?Q?x?= ", "\xD5\xC5 x ", "utf-8"},
      {"=?gb2312?B?1tA=?= =?big5?B?sOo=?=", "\xD6\xD0\xB0\xEA", "gb2312"},
      {"x =?broken =?gb2312?B?1tA=?=", "x =?broken \xD6\xD0", "gb2312"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_TRUE(HasEncodedWords(c.text));
    DecodedText decoded = DecodeEncodedWords(c.text);
    EXPECT_EQ(decoded.text, c.decoded);
    EXPECT_EQ(decoded.charset, c.charset);
  }
  for (const char* text : {"=?gb2312?X?1tDOxA==?=", "=?gb2312?B?1tD OxA==?=", "=??B?1tDOxA==?=",
                           "=?gb2312?B?1tDOxA==", "=?gb2312?B?1tA=?", "=?gb 2312?B?1tA=?=",
                           "=?gb\x7F?B?1tA=?=", "=?gb2312?B", "plain =? text ?=", ""}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(HasEncodedWords(text));
    EXPECT_EQ(DecodeEncodedWords(text).text, text);
    EXPECT_EQ(DecodeEncodedWords(text).charset, "");
  }
}

TEST(EncodeWordsTest, RefusesBadEncodingsAndCharsetsAndWritesExactWords) {
  std::string out = "stale";
  EXPECT_EQ(EncodeWords("x", "gb2312", 'X', out), kEncodeWrongType);
  EXPECT_EQ(out, "");
  for (const char* charset : {"gb 2312", "gb2312?", "", "a.b", "gb\x80"})
    EXPECT_EQ(EncodeWords("x", charset, 'B', out), kEncodeBadCharset) << charset;
  EXPECT_EQ(EncodeWords("x", std::string(kMaxCharsetName + 1, 'a'), 'B', out),
            kEncodeCharsetTooLong);
  EXPECT_EQ(EncodeWords("x", std::string(kMaxCharsetName, 'a'), 'b', out), kEncodeOk);
  EXPECT_EQ(EncodeWords("x", "utf-8", 'q', out), kEncodeOk);
  EXPECT_EQ(out, "=?utf-8?Q?x?=");
  ASSERT_EQ(EncodeWords("\xD6\xD0\xCE\xC4", "gb2312", 'B', out), kEncodeOk);
  EXPECT_EQ(out, "=?gb2312?B?1tDOxA==?=");
  ASSERT_EQ(EncodeWords("a b_c=d?\xE9!*+-/", "iso-8859-1", 'Q', out), kEncodeOk);
  EXPECT_EQ(out, "=?iso-8859-1?Q?a_b=5Fc=3Dd=3F=E9!*+-/?=");
  ASSERT_EQ(EncodeWords("", "gb2312", 'B', out), kEncodeOk);
  EXPECT_EQ(out, "");
}

TEST(EncodeWordsTest, FullWordsOfWholeCharactersInEveryKnownShape) {
  struct Case {
    const char* charset;
    std::vector<std::string> units;  // the characters the text is made of, in turn
  };
  const Case cases[] = {
      {"utf-8", {"a", "\xC0\x80", "\xE0\xA0\x80", "\xF0\x9F\x98\x80", "\xBF", "\xDF\xBF"}},
      {"GB2312", {"\x81\x40", "\xCE\xC4", "a", "\xFE\xA1", "\x80", "\xFF"}},
      {"gb18030", {"\x81\x30\x89\x38", "\xD6\xD0", "a", "\xFE\x39\xFE\x39", "\xD6\x3A", "~"}},
      {"shift_jis", {"\x81\x40", "a", "\xE0\x40", "\xB1", "\xFC\xFC", "\x9F\x40", "\xA0", "\xFD"}},
      {"euc-jp", {"\x8F\xA1\xA1", "\x8E\xB1", "a", "\xA1\xA1", "\xA0"}},
      {"iso-8859-1", {"a", "\xE9", " "}},
  };
  for (const Case& c : cases) {
    std::string text;
    std::set<size_t> ends;  // where a character ends
    for (int i = 0; i < 200; ++i) ends.insert((text += c.units[i % c.units.size()]).size());
    for (char encoding : {'B', 'Q'}) {
      SCOPED_TRACE(std::string(c.charset) + " " + encoding);
      std::string out, longer;
      ASSERT_EQ(EncodeWords(text, c.charset, encoding, out), kEncodeOk);
      EXPECT_EQ(DecodeEncodedWords(out).text, text);
      size_t at = 0, words = 0;
      for (size_t begin = 0; begin <= out.size(); ++words) {
        const size_t end = std::min(out.find(' ', begin), out.size());
        const std::string word = out.substr(begin, end - begin);
        begin = end + 1;
        const DecodedText piece = DecodeEncodedWords(word);
        EXPECT_LE(word.size(), 75u);
        EXPECT_EQ(piece.charset, c.charset);
        ASSERT_EQ(ends.count(at += piece.text.size()), 1u) << "a word ends inside a character";
        if (at == text.size()) break;
        // Full: with the next character the word would not fit.
        const size_t from = at - piece.text.size(), next = *ends.upper_bound(at);
        EncodeWords(text.substr(from, next - from), c.charset, encoding, longer);
        EXPECT_NE(longer.find(' '), std::string::npos) << word;
      }
      EXPECT_GT(words, 2u);
    }
  }
  // A charset switched by escapes cannot be cut safely: one word however long.
  std::string hz, out;
  for (int i = 0; i < 20; ++i) hz += "~{VPND~} ";
  ASSERT_EQ(EncodeWords(hz, "hz-gb-2312", 'B', out), kEncodeOk);
  EXPECT_EQ(out.find(' '), std::string::npos);
  EXPECT_EQ(DecodeEncodedWords(out).text, hz);
}

}  // namespace
}  // namespace corvane
