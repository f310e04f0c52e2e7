// "config.ini" as read and the settings taken from it; text helpers, numbers,
// trace lines and the program's directories.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "base/ascii_text.h"
#include "base/confined_path.h"
#include "base/debug_trace.h"
#include "base/decimal_text.h"
#include "base/ini_file.h"
#include "base/program_paths.h"
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

TEST_F(IniSettingsTest, KeysAreFoundOnlyInTheirOwnSectionAndLongLinesComeInPieces) {
  IniFile ini = Load(
      "Host=outside\r\n[Ftp]\r\nHost = ftp.example.org \r\n; Login=commented\r\n# Pwd=also\r\n"
      "nonsense\r\nLogin=first\r\nLogin=second\r\n  [ Application ]  \r\n\tPORT\t=\t9000\t\r\n"
      "default_body=\r\n[Pushmail]\r\nSender=\"/usr/bin/notify --mode=push\"\r\nOther='a=b'\r\n"
      "Half=\"open\r\nEmpty=\"\"\r\nLone=\"\r\n[Long]\nbody=" +
      std::string(600, 'v') + "\n" + std::string(IniFile::kMaxLine - 1, ' ') + "port=77\n");
  const std::tuple<const char*, const char*, std::optional<std::string>> cases[] = {
      {"Ftp", "Host", "ftp.example.org"},
      {"ftp", "LOGIN", "first"},
      {"Ftp", "Pwd", std::nullopt},
      {"Ftp", "port", std::nullopt},
      {"application", "port", "9000"},
      {"Application", "Host", std::nullopt},
      {"Application", "default_body", ""},
      {"Pushmail", "Sender", "/usr/bin/notify --mode=push"},
      {"Pushmail", "Other", "a=b"},
      {"Pushmail", "Half", "\"open"},
      {"Pushmail", "Empty", ""},
      {"Pushmail", "Lone", "\""},
      {"Smtp", "Host", std::nullopt},
      {"Long", "body", std::string(IniFile::kMaxLine - 6, 'v')},
      {"Long", "port", "77"}};
  for (const auto& [section, key, value] : cases) EXPECT_EQ(ini.Get(section, key), value) << key;
  IniFile missing;
  EXPECT_FALSE(missing.Open(dir_ / "absent.ini"));
  EXPECT_EQ(missing.Get("Application", "port"), std::nullopt);
}

TEST_F(IniSettingsTest, EverySettingIsReadFromItsKey) {
  ServiceSettings none = ServiceSettings::Load(IniFile(dir_ / "absent.ini"));
  EXPECT_FALSE(none.ftpHost || none.ftpLogin || none.ftpPassword || none.notifyProgram ||
               none.defaultBody || none.ftpPassive || none.smtpTls != SmtpTlsSetting::kAuto ||
               none.bindAddress || none.filesRoot);
  ServiceSettings s = ServiceSettings::Load(Load(
      "[Ftp]\nHost=ftp.local\nLogin=up\nPwd=secret\nPort=2121\nPassive=1\n[Smtp]\nTls=off\n"
      "[Pushmail]\nSender=/opt/push/notify\nInterval= 5s\nWorkers=7\n[Application]\nport=+8600x\n"
      "subject_length=24\npop3_timeout=\noperation_timeout=9\nmax_message_size=2\n"
      "default_body=(no text)\nlog_level=error\nbind=::1\nfiles_root=\n"));
  EXPECT_EQ(std::tuple(*s.ftpHost, *s.ftpLogin, *s.ftpPassword, *s.notifyProgram, *s.defaultBody),
            std::tuple("ftp.local", "up", "secret", "/opt/push/notify", "(no text)"));
  EXPECT_EQ(std::pair(s.checkWorkers, none.checkWorkers), std::pair(7, 50));
  EXPECT_EQ(std::pair(s.bindAddress, s.filesRoot),
            std::pair(std::optional<std::string>("::1"), std::optional<std::string>()));
  EXPECT_EQ(ServiceSettings::Load(Load("[Application]\nfiles_root=/srv/f\n")).filesRoot, "/srv/f");
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

TEST(AsciiTextTest, CaseIsForAsciiLettersOnlyAndTextEndsAtNul) {
  EXPECT_TRUE(SameText("Content-Type:", "content-TYPE:"));
  EXPECT_FALSE(SameText("Content-Type", "Content-Type:"));
  EXPECT_FALSE(SameText("\xC4", "\xE4"));  // Latin-1 letters are bytes
  EXPECT_FALSE(SameText("[", "{"));        // these differ by the case bit only
  EXPECT_TRUE(StartsWithText("Text/HTML; charset=x", "text/"));
  EXPECT_FALSE(StartsWithText("tex", "text/"));
  std::string text = "ABC xyz [Z] @ \xC4\xD6 09", cut("AB\0CD", 5);
  LowerAscii(text);
  LowerAscii(cut);
  EXPECT_EQ(text + "|" + cut, "abc xyz [z] @ \xC4\xD6 09|ab");
  EXPECT_EQ(UpToNul(std::string_view("a\0b", 3)), "a");
  EXPECT_EQ(UpToNul("no nul"), "no nul");
}

TEST(DecimalTextTest, LeadingBlanksSignAndDigitsSaturatingAt32Bits) {
  const std::pair<const char*, int32_t> cases[] = {{"42", 42},
                                                   {"  \t-17abc", -17},
                                                   {"+8", 8},
                                                   {"007", 7},
                                                   {"abc", 0},
                                                   {"- 5", 0},
                                                   {"", 0},
                                                   {"2147483647", 2147483647},
                                                   {"2147483648", 2147483647},
                                                   {"-2147483648", -2147483647 - 1},
                                                   {"-99999999999", -2147483647 - 1}};
  for (auto [text, value] : cases) EXPECT_EQ(ReadDecimal(text), value) << text;
}

TEST(DebugTraceTest, LineNamesServiceAndThreadAndIsCutToItsBuffer) {
  char line[1024];
  const int used = FormatDebugTrace(line, "Corvane", 4242, "SetStatus(%lu, %lu)", 7ul, 4ul);
  EXPECT_STREQ(line, "[Corvane](4242): SetStatus(7, 4)\n");
  EXPECT_EQ(used, static_cast<int>(std::strlen(line)));
  FormatDebugTrace(line, "Corvane", 1, "%s", std::string(3000, 'x').c_str());
  EXPECT_EQ(std::strlen(line), sizeof line - 1);
  EXPECT_EQ(std::string(line).rfind("[Corvane](1): xxx", 0), 0u);
}

TEST(ProgramPathsTest, EverythingLivesUnderTheProgramDirectoryWhichIsMadeWhenMissing) {
  for (auto [path, directory] : {std::pair{"/opt/corvane/corvane", "/opt/corvane"},
                                 {"C:\\Gateway\\bin\\corvane.exe", "C:\\Gateway\\bin"},
                                 {"/opt/dir\\corvane", "/opt/dir"},
                                 {"C:\\dir/corvane", "C:\\dir"},
                                 {"/corvane", ""},
                                 {"corvane", ""}})
    EXPECT_EQ(ProgramDirectoryFromPath(path), directory) << path;
  // Nothing in the way is replaced, and the working directory stays.
  test::TempDir dir;
  test::WriteFile(dir / "blocker", "data");
  const auto workingDirectory = std::filesystem::current_path();
  for (int twice = 0; twice < 2; ++twice) EnsureDirectory(dir.path() + "/a/b\\c//d/");
  EnsureDirectory(dir.path() + "/blocker/sub/");
  EXPECT_TRUE(std::filesystem::is_directory(dir.path() + "/a/b/c/d"));
  EXPECT_EQ(test::ReadFile(dir / "blocker"), "data");
  EXPECT_EQ(std::filesystem::current_path(), workingDirectory);
}

// A path is inside the root only as what it resolves to, links followed; a
// part still to be made is judged by its names.
TEST(ConfinedPathTest, APathIsInsideOnlyAsItResolves) {
  test::TempDir dir;
  const std::string base = std::filesystem::canonical(dir.path()), root = base + "/root";
  std::filesystem::create_directories(root + "/sub");
  std::filesystem::create_directories(base + "/root2");
  test::WriteFile(root + "/sub/file", "x");
  std::filesystem::create_directory_symlink(root + "/sub", root + "/in");
  std::filesystem::create_directory_symlink(base, root + "/out");
  std::filesystem::create_symlink(base + "/made", root + "/dangling");
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {root, root},
      {root + "/sub/", root + "/sub"},
      {root + "/./in/new/./deeper/", root + "/sub/new/deeper"},
      {root + "/out", std::nullopt},
      {root + "/out/root/sub", root + "/sub"},  // out and back in
      {root + "/out/new", std::nullopt},
      {root + "/dangling", std::nullopt},  // writing through it would make base/made
      {root + "/dangling/", std::nullopt},
      {root + "/dangling/x", std::nullopt},
      {root + "/../root2", std::nullopt},
      {base + "/root2/x", std::nullopt},  // the root's name is only a prefix of it
      {root + "/new/../../x", std::nullopt},
      {root + "/sub/file/x", std::nullopt},
      {"", std::nullopt}};
  for (const auto& [path, resolved] : cases) EXPECT_EQ(PathWithin(path, root), resolved) << path;
  EXPECT_EQ(PathWithin(root + "/sub", base + "/missing"), std::nullopt);
  EXPECT_EQ(PathWithin(root + "/in/x", "/"), root + "/sub/x");
  const ServiceSettings saved = g_settings;
  EXPECT_EQ(ClientLocalPath("../anywhere"), "../anywhere");  // no files_root: as named
  g_settings.filesRoot = root + "/in/";
  EXPECT_EQ(ClientLocalPath(root + "/in/file"), root + "/sub/file");
  EXPECT_EQ(ClientLocalPath(root + "/in/new"), root + "/sub/new");
  EXPECT_EQ(ClientLocalPath(root), std::nullopt);
  g_settings = saved;
}

}  // namespace
}  // namespace corvane
