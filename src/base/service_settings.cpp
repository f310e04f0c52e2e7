#include "base/service_settings.h"

#include "base/ascii_text.h"
#include "base/decimal_text.h"
#include "base/ini_file.h"

namespace corvane {

ServiceSettings g_settings;

namespace {

void ReadNumber(const IniFile& ini, const char* section, const char* key, int32_t& value) {
  if (auto text = ini.Get(section, key)) value = ReadDecimal(*text);
}

// An empty value means the same as none.
std::optional<std::string> NonEmpty(std::optional<std::string> text) {
  return text && !text->empty() ? text : std::nullopt;
}

}  // namespace

ServiceSettings ServiceSettings::Load(const IniFile& ini) {
  ServiceSettings s;
  s.ftpHost = ini.Get("Ftp", "Host");
  s.ftpLogin = ini.Get("Ftp", "Login");
  s.ftpPassword = ini.Get("Ftp", "Pwd");
  ReadNumber(ini, "Ftp", "Port", s.ftpPort);
  int32_t passive = 0;
  ReadNumber(ini, "Ftp", "Passive", passive);
  s.ftpPassive = passive != 0;
  s.smtpTls = SmtpTlsFromName(ini.Get("Smtp", "Tls"));
  s.notifyProgram = ini.Get("Pushmail", "Sender");
  // A present but non-numeric Interval gives 0 ms: passes then run back to back.
  if (auto interval = ini.Get("Pushmail", "Interval")) {
    s.checkIntervalMs = static_cast<int32_t>(static_cast<int64_t>(ReadDecimal(*interval)) * 1000);
  }
  ReadNumber(ini, "Pushmail", "Workers", s.checkWorkers);
  ReadNumber(ini, "Application", "port", s.listenPort);
  s.bindAddress = NonEmpty(ini.Get("Application", "bind"));
  ReadNumber(ini, "Application", "subject_length", s.subjectLength);
  ReadNumber(ini, "Application", "pop3_timeout", s.pop3Timeout);
  ReadNumber(ini, "Application", "operation_timeout", s.operationTimeout);
  ReadNumber(ini, "Application", "max_message_size", s.maxMessageMb);
  ReadNumber(ini, "Application", "max_attachment_size", s.maxAttachmentMb);
  s.defaultBody = ini.Get("Application", "default_body");
  s.filesRoot = NonEmpty(ini.Get("Application", "files_root"));
  s.logLevel = LogLevelFromName(ini.Get("Application", "log_level"));
  return s;
}

SmtpTlsSetting SmtpTlsFromName(const std::optional<std::string>& name) {
  if (!name || SameText(*name, "auto")) return SmtpTlsSetting::kAuto;
  if (SameText(*name, "off")) return SmtpTlsSetting::kOff;
  return SmtpTlsSetting::kRequired;
}

int32_t LogLevelFromName(const std::optional<std::string>& name) {
  if (!name) return 1;
  static constexpr struct {
    const char* name;
    int32_t level;
  } kLevels[] = {{"debug", 0}, {"warning", 2}, {"info", 1}, {"error", 3}};
  for (const auto& entry : kLevels) {
    if (SameText(*name, entry.name)) return entry.level;
  }
  return 1;
}

}  // namespace corvane
