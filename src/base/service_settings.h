#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace corvane {

class IniFile;

// [Smtp] Tls: how sending sessions are secured.
enum class SmtpTlsSetting { kOff, kAuto, kRequired };

// The process-wide settings read from "config.ini" at start-up. They are
// written by the main thread before any other thread starts and read without
// locks afterwards. An absent text setting has no value (it is not empty).
struct ServiceSettings {
  std::optional<std::string> ftpHost;              // [Ftp] Host
  std::optional<std::string> ftpLogin;             // [Ftp] Login
  std::optional<std::string> ftpPassword;          // [Ftp] Pwd
  int32_t ftpPort = 21;                            // [Ftp] Port
  bool ftpPassive = false;                         // [Ftp] Passive, not 0: EPSV/PASV
  SmtpTlsSetting smtpTls = SmtpTlsSetting::kAuto;  // [Smtp] Tls
  std::optional<std::string> notifyProgram;        // [Pushmail] Sender
  int32_t checkIntervalMs = 60000;                 // [Pushmail] Interval, in seconds
  int32_t checkWorkers = 50;                       // [Pushmail] Workers: accounts at once
  int32_t listenPort = 8500;                       // [Application] port
  std::optional<std::string> bindAddress;          // [Application] bind; none: every address
  int32_t subjectLength = 0;                       // [Application] subject_length
  int32_t pop3Timeout = 20;                        // [Application] pop3_timeout
  int32_t operationTimeout = 300;                  // [Application] operation_timeout, seconds
  int32_t maxMessageMb = 64;                       // [Application] max_message_size, MB
  int32_t maxAttachmentMb = 25;            // [Application] max_attachment_size, MB: a send's files
  std::optional<std::string> defaultBody;  // [Application] default_body
  std::optional<std::string> filesRoot;    // [Application] files_root; none: anywhere
  int32_t logLevel = 1;                    // [Application] log_level

  // Reads every key in the start-up order; missing keys keep their defaults.
  static ServiceSettings Load(const IniFile& ini);
};

// "auto", "required" or "off" in any case; none is auto, and anything else
// required: a mistyped value never weakens a session.
SmtpTlsSetting SmtpTlsFromName(const std::optional<std::string>& name);

// "debug", "info", "warning" or "error" in any case; anything else is info.
int32_t LogLevelFromName(const std::optional<std::string>& name);

extern ServiceSettings g_settings;

}  // namespace corvane
