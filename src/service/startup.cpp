#include "service/startup.h"

#include <algorithm>

#include "accounts/process_registry.h"
#include "base/ascii_text.h"
#include "base/ini_file.h"
#include "base/limits.h"
#include "base/process_log.h"
#include "base/service_settings.h"
#include "service/gateway_service.h"

namespace corvane {

ProgramPaths InitGlobals(const std::string& programDirectory) {
  ProgramPaths paths = ProgramPaths::ForDirectory(programDirectory, FileLayout::FromEnvironment());
  IniFile ini;
  ini.Open(paths.configFile);  // a missing file leaves every default
  g_settings = ServiceSettings::Load(ini);

  EnsureDirectory(paths.directory + "/");
  EnsureDirectory(paths.tempDirectory);
  EnsureDirectory(paths.logDirectory);
  g_logWriter = std::make_unique<LogWriter>(paths.logDirectory, g_settings.logLevel);
  EnsureDirectory(paths.cacheDirectory);

  auto registry = std::make_shared<AccountRegistry>(paths.accountFile, paths.directory);
  registry->Load();
  g_accountRegistry.store(std::move(registry));
  return paths;
}

void DestroyGlobals() {
  WriteLog(kLogDebug, "Destroy global variables.\n");
  g_accountRegistry.store(nullptr);
  g_settings.ftpHost.reset();
  g_settings.ftpLogin.reset();
  g_settings.ftpPassword.reset();
  g_settings.notifyProgram.reset();
  g_settings.defaultBody.reset();
  g_settings.bindAddress.reset();
  g_settings.filesRoot.reset();
  g_logWriter.reset();
}

void LogStartupIntent(int argc, char** argv) {
  const char* argument = argc > 1 ? argv[1] : "";
  if (SameText(argument, "-i")) {
    WriteLog(kLogInfo, "Install Corvane as service\n");
  } else if (SameText(argument, "-u")) {
    WriteLog(kLogInfo, "unnstall Corvane from service\n");  // spelling kept on purpose
  } else if (SameText(argument, "-v")) {
    WriteLog(kLogInfo, "Show the version\n");
  } else {
    // The banner ends in GB2312 text: "waiting to receive requests" and a
    // full-width colon. "Corvaine" is this banner's own spelling, kept.
    WriteLog(kLogInfo,
             "Corvaine starting on port %d... "
             "\xB5\xC8\xB4\xFD\xBD\xD3\xCA\xD5\xC7\xEB\xC7\xF3\xA3\xBA\n",
             g_settings.listenPort);
  }
}

int RunProgram(int argc, char** argv) {
  const std::string programDirectory = ProgramDirectoryFromPath(ExecutablePath());
  InitGlobals(programDirectory);
  GatewayService service;
  service.SetProgramDirectory(programDirectory);
  LogStartupIntent(argc, argv);
  if (service.ParseStandardArgs(argc, argv) != 0) {
    DestroyGlobals();
    return 0;
  }
  // Before any thread starts, so that only the stop control takes them.
  BlockStopSignals();
  CheckMailThread checkMail(g_settings.notifyProgram,
                            std::chrono::milliseconds(g_settings.checkIntervalMs),
                            std::clamp(g_settings.checkWorkers, 1, limits::kMaxCheckWorkers));
  service.SetCheckMail(&checkMail);  // started once the port is bound
  service.StartService();
  DestroyGlobals();  // nothing left to do when the stop routine ran
  return service.StartFailed() ? 1 : 0;
}

}  // namespace corvane
