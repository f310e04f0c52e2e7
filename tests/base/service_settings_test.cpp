#include "base/service_settings.h"

#include <gtest/gtest.h>

#include "base/decimal_text.h"
#include "base/ini_file.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::TempDir;
using test::WriteFile;

ServiceSettings LoadFrom(const std::string& content) {
  TempDir dir;
  WriteFile(dir / "config.ini", content);
  return ServiceSettings::Load(IniFile(dir / "config.ini"));
}

TEST(ServiceSettingsTest, NoFileGivesEveryDefault) {
  ServiceSettings s = ServiceSettings::Load(IniFile("/nonexistent/config.ini"));
  EXPECT_FALSE(s.ftpHost.has_value());
  EXPECT_FALSE(s.ftpLogin.has_value());
  EXPECT_FALSE(s.ftpPassword.has_value());
  EXPECT_EQ(s.ftpPort, 21);
  EXPECT_FALSE(s.ftpPassive);
  EXPECT_EQ(s.smtpTls, SmtpTlsSetting::kAuto);
  EXPECT_FALSE(s.notifyProgram.has_value());
  EXPECT_FALSE(s.defaultBody.has_value());
  EXPECT_EQ(s.checkIntervalMs, 60000);
  EXPECT_EQ(s.listenPort, 8500);
  EXPECT_EQ(s.subjectLength, 0);
  EXPECT_EQ(s.pop3Timeout, 20);
  EXPECT_EQ(s.logLevel, 1);
}

TEST(ServiceSettingsTest, EveryKeyIsReadFromItsSection) {
  ServiceSettings s = LoadFrom(
      "[Ftp]\nHost=ftp.local\nLogin=up\nPwd=secret\nPort=2121\nPassive=1\n"
      "[Smtp]\nTls=off\n"
      "[Pushmail]\nSender=/opt/push/notify\nInterval=5\n"
      "[Application]\nport=8600\nsubject_length=24\npop3_timeout=45\n"
      "default_body=(no text)\nlog_level=error\n");
  EXPECT_EQ(s.ftpHost, "ftp.local");
  EXPECT_EQ(s.ftpLogin, "up");
  EXPECT_EQ(s.ftpPassword, "secret");
  EXPECT_EQ(s.ftpPort, 2121);
  EXPECT_TRUE(s.ftpPassive);
  EXPECT_EQ(s.smtpTls, SmtpTlsSetting::kOff);
  EXPECT_EQ(s.notifyProgram, "/opt/push/notify");
  EXPECT_EQ(s.checkIntervalMs, 5000);
  EXPECT_EQ(s.listenPort, 8600);
  EXPECT_EQ(s.subjectLength, 24);
  EXPECT_EQ(s.pop3Timeout, 45);
  EXPECT_EQ(s.defaultBody, "(no text)");
  EXPECT_EQ(s.logLevel, 3);
}

TEST(ServiceSettingsTest, PresentButNonNumericValuesReadAsZero) {
  ServiceSettings s =
      LoadFrom("[Pushmail]\nInterval=abc\n[Application]\nport=eighty\npop3_timeout=\n");
  EXPECT_EQ(s.checkIntervalMs, 0);
  EXPECT_EQ(s.listenPort, 0);
  EXPECT_EQ(s.pop3Timeout, 0);
}

TEST(ServiceSettingsTest, NumbersAreLeadingDigitsOnly) {
  ServiceSettings s = LoadFrom("[Pushmail]\nInterval= 7s\n[Application]\nport=+9100x\n");
  EXPECT_EQ(s.checkIntervalMs, 7000);
  EXPECT_EQ(s.listenPort, 9100);
}

TEST(ServiceSettingsTest, SmtpTlsNamesMatchWithoutCaseAndUnknownIsRequired) {
  EXPECT_EQ(SmtpTlsFromName(std::nullopt), SmtpTlsSetting::kAuto);
  EXPECT_EQ(SmtpTlsFromName("AUTO"), SmtpTlsSetting::kAuto);
  EXPECT_EQ(SmtpTlsFromName("Off"), SmtpTlsSetting::kOff);
  EXPECT_EQ(SmtpTlsFromName("required"), SmtpTlsSetting::kRequired);
  EXPECT_EQ(SmtpTlsFromName("of"), SmtpTlsSetting::kRequired);
  EXPECT_EQ(SmtpTlsFromName(""), SmtpTlsSetting::kRequired);
}

TEST(ServiceSettingsTest, LogLevelNamesMatchWithoutCaseAndUnknownIsInfo) {
  EXPECT_EQ(LogLevelFromName("DEBUG"), 0);
  EXPECT_EQ(LogLevelFromName("Warning"), 2);
  EXPECT_EQ(LogLevelFromName("info"), 1);
  EXPECT_EQ(LogLevelFromName("eRRoR"), 3);
  EXPECT_EQ(LogLevelFromName("verbose"), 1);
  EXPECT_EQ(LogLevelFromName("debug "), 1);  // only whole names match
  EXPECT_EQ(LogLevelFromName(""), 1);
  EXPECT_EQ(LogLevelFromName(std::nullopt), 1);
}

TEST(DecimalTextTest, ReadsLikeTheCLibrary) {
  EXPECT_EQ(ReadDecimal("42"), 42);
  EXPECT_EQ(ReadDecimal("  \t-17abc"), -17);
  EXPECT_EQ(ReadDecimal("+8"), 8);
  EXPECT_EQ(ReadDecimal("007"), 7);
  EXPECT_EQ(ReadDecimal("abc"), 0);
  EXPECT_EQ(ReadDecimal("- 5"), 0);
  EXPECT_EQ(ReadDecimal(""), 0);
  EXPECT_EQ(ReadDecimal("99999999999"), 2147483647);
  EXPECT_EQ(ReadDecimal("-99999999999"), -2147483647 - 1);
}

}  // namespace
}  // namespace corvane
