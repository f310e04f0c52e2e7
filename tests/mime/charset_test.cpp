// Charset conversion, the charset table and the locale's default charset.
#include <gtest/gtest.h>

#include <set>

#include "base/ascii_text.h"
#include "mime/charset_converter.h"
#include "mime/charset_table.h"
#include "mime/default_charset.h"
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

}  // namespace
}  // namespace corvane
