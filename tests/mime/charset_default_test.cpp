#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mime/default_charset.h"
#include "support/scoped_env.h"

namespace corvane {
namespace {

using test::ScopedEnv;

TEST(DefaultCharsetTest, TheLocalesAnsiCodePageElseUsAscii) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"zh_CN.UTF-8", "cp936"},
      {"zh_TW.Big5", "cp950"},
      {"zh_HK.UTF-8", "cp950"},
      {"ja_JP.eucJP", "cp932"},
      {"ko_KR.UTF-8", "cp949"},
      {"ru_RU.KOI8-R", "cp1251"},
      {"pl_PL.UTF-8", "cp1250"},
      {"en_US.UTF-8", "cp1252"},
      {"el_GR", "cp1253"},
      {"tr_TR.UTF-8", "cp1254"},
      {"th_TH.TIS-620", "cp874"},
      // The script modifier decides where a language has two.
      {"sr_RS", "cp1251"},
      {"sr_RS@latin", "cp1250"},
      {"uz_UZ.UTF-8", "cp1254"},
      {"uz_UZ.UTF-8@cyrillic", "cp1251"},
      // No ANSI code page.
      {"C", "us-ascii"},
      {"C.UTF-8", "us-ascii"},
      {"POSIX", "us-ascii"},
      {"", "us-ascii"},
      {"hi_IN", "us-ascii"},
      {"zhx_CN", "us-ascii"}};
  for (const auto& [locale, charset] : cases) {
    EXPECT_EQ(DefaultCharsetForLocale(locale), charset) << locale;
  }
}

TEST(DefaultCharsetTest, TakesTheFirstSetOfLcAllLcCtypeAndLang) {
  struct Case {
    const char *all, *ctype, *lang, *charset;
  };
  const Case cases[] = {{"ko_KR.UTF-8", "zh_TW", "ja_JP", "cp949"},
                        {"", "zh_TW", "ja_JP", "cp950"},
                        {nullptr, nullptr, "zh_CN.UTF-8", "cp936"},
                        {nullptr, nullptr, nullptr, "us-ascii"}};
  for (const Case& c : cases) {
    ScopedEnv all("LC_ALL", c.all), ctype("LC_CTYPE", c.ctype), lang("LANG", c.lang);
    EXPECT_EQ(DefaultCharset(), c.charset);
  }
}

}  // namespace
}  // namespace corvane
