#include "base/ini_file.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::TempDir;
using test::WriteFile;

class IniFileTest : public ::testing::Test {
 protected:
  IniFile Load(const std::string& content) {
    WriteFile(dir_ / "config.ini", content);
    return IniFile(dir_ / "config.ini");
  }
  TempDir dir_;
};

TEST_F(IniFileTest, MissingFileHasNoKeys) {
  IniFile ini;
  EXPECT_FALSE(ini.Open(dir_ / "absent.ini"));
  EXPECT_FALSE(ini.Get("Application", "port").has_value());
}

TEST_F(IniFileTest, KeysAreFoundOnlyInTheirOwnSection) {
  IniFile ini = Load(
      "Host=outside\r\n"
      "[Ftp]\r\n"
      "Host = ftp.example.org \r\n"
      "[Application]\r\n"
      "port=9000\r\n");
  EXPECT_EQ(ini.Get("Ftp", "Host"), "ftp.example.org");
  EXPECT_EQ(ini.Get("Application", "port"), "9000");
  EXPECT_FALSE(ini.Get("Application", "Host").has_value());
  EXPECT_FALSE(ini.Get("Ftp", "port").has_value());
  EXPECT_FALSE(ini.Get("Pushmail", "Host").has_value());
}

TEST_F(IniFileTest, HeadersAndNamesAreTrimmedAndMatchedWithoutCase) {
  IniFile ini = Load("  [ Application ]  \n\tLOG_LEVEL\t=\tdebug\t\n");
  EXPECT_EQ(ini.Get("application", "log_level"), "debug");
}

TEST_F(IniFileTest, PresentEmptyValueIsNotAbsent) {
  IniFile ini = Load("[Application]\ndefault_body=\n");
  ASSERT_TRUE(ini.Get("Application", "default_body").has_value());
  EXPECT_EQ(*ini.Get("Application", "default_body"), "");
}

TEST_F(IniFileTest, ValueKeepsLaterEqualsSignsAndLosesOnePairOfQuotes) {
  IniFile ini = Load(
      "[Pushmail]\n"
      "Sender=\"/usr/bin/notify --mode=push\"\n"
      "Other='a=b'\n"
      "Half=\"open\n");
  EXPECT_EQ(ini.Get("Pushmail", "Sender"), "/usr/bin/notify --mode=push");
  EXPECT_EQ(ini.Get("Pushmail", "Other"), "a=b");
  EXPECT_EQ(ini.Get("Pushmail", "Half"), "\"open");
}

TEST_F(IniFileTest, CommentsAndLinesWithoutEqualsAreSkipped) {
  IniFile ini = Load("[Ftp]\n; Host=commented\n# Host=also\nnonsense\nHost=real\n");
  EXPECT_EQ(ini.Get("Ftp", "Host"), "real");
}

TEST_F(IniFileTest, FirstOfTwoEqualKeysWins) {
  IniFile ini = Load("[Ftp]\nLogin=first\nLogin=second\n");
  EXPECT_EQ(ini.Get("Ftp", "Login"), "first");
}

TEST_F(IniFileTest, OverlongLineIsReadInPiecesOf511Bytes) {
  // The tail of a long line becomes a line of its own; a key hidden there is
  // found, the value of the long line itself is cut.
  std::string value(600, 'v');
  IniFile ini = Load("[Application]\ndefault_body=" + value + "\n");
  auto body = ini.Get("Application", "default_body");
  ASSERT_TRUE(body.has_value());
  EXPECT_EQ(body->size(), IniFile::kMaxLine - 1 - std::string("default_body=").size());

  std::string padding(IniFile::kMaxLine - 1, ' ');
  IniFile split = Load("[Application]\n" + padding + "port=77\n");
  EXPECT_EQ(split.Get("Application", "port"), "77");
}

}  // namespace
}  // namespace corvane
