// "config.ini" as read, and the settings taken from it.
#include <gtest/gtest.h>

#include "base/ini_file.h"
#include "base/service_settings.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

class IniSettingsTest : public ::testing::Test {
 protected:
  IniFile Load(const std::string& content) {
    test::WriteFile(dir_ / "config.ini", content);
    return IniFile(dir_ / "config.ini");
  }
  test::TempDir dir_;
};

TEST_F(IniSettingsTest, KeysAreFoundOnlyInTheirOwnSection) {
  IniFile ini = Load(
      "Host=outside\r\n[Ftp]\r\nHost = ftp.example.org \r\n; Login=commented\r\n# Pwd=also\r\n"
      "nonsense\r\nLogin=first\r\nLogin=second\r\n  [ Application ]  \r\n\tPORT\t=\t9000\t\r\n"
      "default_body=\r\n[Pushmail]\r\nSender=\"/usr/bin/notify --mode=push\"\r\nOther='a=b'\r\n"
      "Half=\"open\r\nEmpty=\"\"\r\nLone=\"\r\n");
  const std::tuple<const char*, const char*, std::optional<std::string>> cases[] = {
      {"Ftp", "Host", "ftp.example.org"},  {"ftp", "LOGIN", "first"},
      {"Ftp", "Pwd", std::nullopt},        {"Ftp", "port", std::nullopt},
      {"application", "port", "9000"},     {"Application", "Host", std::nullopt},
      {"Application", "default_body", ""}, {"Pushmail", "Sender", "/usr/bin/notify --mode=push"},
      {"Pushmail", "Other", "a=b"},        {"Pushmail", "Half", "\"open"},
      {"Pushmail", "Empty", ""},           {"Pushmail", "Lone", "\""},
      {"Smtp", "Host", std::nullopt}};
  for (const auto& [section, key, value] : cases) EXPECT_EQ(ini.Get(section, key), value) << key;
  IniFile missing;
  EXPECT_FALSE(missing.Open(dir_ / "absent.ini"));
  EXPECT_EQ(missing.Get("Application", "port"), std::nullopt);
}

TEST_F(IniSettingsTest, AnOverlongLineIsReadInPiecesOfTheLineBound) {
  IniFile ini = Load("[Application]\ndefault_body=" + std::string(600, 'v') + "\n");
  EXPECT_EQ(ini.Get("Application", "default_body"),
            std::string(IniFile::kMaxLine - 1 - std::string("default_body=").size(), 'v'));
  IniFile split = Load("[Application]\n" + std::string(IniFile::kMaxLine - 1, ' ') + "port=77\n");
  EXPECT_EQ(split.Get("Application", "port"), "77");
}

TEST_F(IniSettingsTest, EverySettingHasItsDefaultAndItsKey) {
  ServiceSettings none = ServiceSettings::Load(IniFile(dir_ / "absent.ini"));
  EXPECT_FALSE(none.ftpHost || none.ftpLogin || none.ftpPassword || none.notifyProgram ||
               none.defaultBody);
  EXPECT_EQ(std::tuple(none.ftpPort, none.ftpPassive, none.smtpTls, none.checkIntervalMs,
                       none.listenPort, none.subjectLength, none.pop3Timeout, none.operationTimeout,
                       none.maxMessageMb, none.logLevel),
            std::tuple(21, false, SmtpTlsSetting::kAuto, 60000, 8500, 0, 20, 300, 64, 1));

  ServiceSettings s = ServiceSettings::Load(
      Load("[Ftp]\nHost=ftp.local\nLogin=up\nPwd=secret\nPort=2121\nPassive=1\n[Smtp]\nTls=off\n"
           "[Pushmail]\nSender=/opt/push/notify\nInterval= 5s\n[Application]\nport=+8600x\n"
           "subject_length=24\npop3_timeout=\noperation_timeout=9\nmax_message_size=2\n"
           "default_body=(no text)\nlog_level=error\n"));
  EXPECT_EQ(std::tuple(*s.ftpHost, *s.ftpLogin, *s.ftpPassword, *s.notifyProgram, *s.defaultBody),
            std::tuple("ftp.local", "up", "secret", "/opt/push/notify", "(no text)"));
  EXPECT_EQ(
      std::tuple(s.ftpPort, s.ftpPassive, s.smtpTls, s.checkIntervalMs, s.listenPort,
                 s.subjectLength, s.pop3Timeout, s.operationTimeout, s.maxMessageMb, s.logLevel),
      std::tuple(2121, true, SmtpTlsSetting::kOff, 5000, 8600, 24, 0, 9, 2, 3));
}

TEST_F(IniSettingsTest, NamesMatchWithoutCaseAndUnknownTlsIsRequired) {
  const std::pair<std::optional<std::string>, SmtpTlsSetting> tls[] = {
      {std::nullopt, SmtpTlsSetting::kAuto}, {"AUTO", SmtpTlsSetting::kAuto},
      {"Off", SmtpTlsSetting::kOff},         {"required", SmtpTlsSetting::kRequired},
      {"of", SmtpTlsSetting::kRequired},     {"", SmtpTlsSetting::kRequired}};
  for (const auto& [name, setting] : tls)
    EXPECT_EQ(SmtpTlsFromName(name), setting) << name.value_or("none");
  const std::pair<std::optional<std::string>, int32_t> levels[] = {
      {"DEBUG", 0},  {"info", 1},    {"Warning", 2}, {"eRRoR", 3},
      {"debug ", 1}, {"verbose", 1}, {"", 1},        {std::nullopt, 1}};
  for (const auto& [name, level] : levels) EXPECT_EQ(LogLevelFromName(name), level);
}

}  // namespace
}  // namespace corvane
