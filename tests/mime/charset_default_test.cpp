#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "mime/default_charset.h"
#include "support/scoped_env.h"

namespace corvane {
namespace {

TEST(DefaultCharsetTest, NamesTheLocalesAnsiCodePage) {
  EXPECT_EQ(DefaultCharsetForLocale("zh_CN.UTF-8"), "cp936");
  EXPECT_EQ(DefaultCharsetForLocale("zh_TW.Big5"), "cp950");
  EXPECT_EQ(DefaultCharsetForLocale("zh_HK.UTF-8"), "cp950");
  EXPECT_EQ(DefaultCharsetForLocale("ja_JP.eucJP"), "cp932");
  EXPECT_EQ(DefaultCharsetForLocale("ko_KR.UTF-8"), "cp949");
  EXPECT_EQ(DefaultCharsetForLocale("ru_RU.KOI8-R"), "cp1251");
  EXPECT_EQ(DefaultCharsetForLocale("pl_PL.UTF-8"), "cp1250");
  EXPECT_EQ(DefaultCharsetForLocale("en_US.UTF-8"), "cp1252");
  EXPECT_EQ(DefaultCharsetForLocale("el_GR"), "cp1253");
  EXPECT_EQ(DefaultCharsetForLocale("tr_TR.UTF-8"), "cp1254");
  EXPECT_EQ(DefaultCharsetForLocale("th_TH.TIS-620"), "cp874");
}

TEST(DefaultCharsetTest, FollowsTheScriptModifier) {
  EXPECT_EQ(DefaultCharsetForLocale("sr_RS"), "cp1251");
  EXPECT_EQ(DefaultCharsetForLocale("sr_RS@latin"), "cp1250");
  EXPECT_EQ(DefaultCharsetForLocale("uz_UZ.UTF-8"), "cp1254");
  EXPECT_EQ(DefaultCharsetForLocale("uz_UZ.UTF-8@cyrillic"), "cp1251");
}

TEST(DefaultCharsetTest, GivesUsAsciiForLocalesWithoutAnAnsiCodePage) {
  EXPECT_EQ(DefaultCharsetForLocale("C"), "us-ascii");
  EXPECT_EQ(DefaultCharsetForLocale("C.UTF-8"), "us-ascii");
  EXPECT_EQ(DefaultCharsetForLocale("POSIX"), "us-ascii");
  EXPECT_EQ(DefaultCharsetForLocale(""), "us-ascii");
  EXPECT_EQ(DefaultCharsetForLocale("hi_IN"), "us-ascii");
  EXPECT_EQ(DefaultCharsetForLocale("zhx_CN"), "us-ascii");
}

using test::ScopedEnv;

TEST(DefaultCharsetTest, TakesTheFirstSetOfLcAllLcCtypeAndLang) {
  {
    ScopedEnv all("LC_ALL", "ko_KR.UTF-8");
    ScopedEnv ctype("LC_CTYPE", "zh_TW");
    ScopedEnv lang("LANG", "ja_JP");
    EXPECT_EQ(DefaultCharset(), "cp949");
  }
  {
    ScopedEnv all("LC_ALL", "");
    ScopedEnv ctype("LC_CTYPE", "zh_TW");
    ScopedEnv lang("LANG", "ja_JP");
    EXPECT_EQ(DefaultCharset(), "cp950");
  }
  {
    ScopedEnv all("LC_ALL", nullptr);
    ScopedEnv ctype("LC_CTYPE", nullptr);
    ScopedEnv lang("LANG", "zh_CN.UTF-8");
    EXPECT_EQ(DefaultCharset(), "cp936");
  }
  {
    ScopedEnv all("LC_ALL", nullptr);
    ScopedEnv ctype("LC_CTYPE", nullptr);
    ScopedEnv lang("LANG", nullptr);
    EXPECT_EQ(DefaultCharset(), "us-ascii");
  }
}

}  // namespace
}  // namespace corvane
