#include "service/tc_service.h"

#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "base/ascii_text.h"
#include "base/debug_trace.h"
#include "base/program_paths.h"
#include "base/service_settings.h"
#include "service/service_unit.h"

extern char** environ;

namespace corvane {
namespace {

constexpr char kDefaultUnitDirectory[] = "/etc/systemd/system";
constexpr char kPackageUnitDirectory[] = "/lib/systemd/system";

// A unit directory of the caller's choosing: systemd and the package's unit
// are left out of it.
bool UnitDirectoryChosen() {
  const char* chosen = std::getenv("CORVANE_SYSTEMD_DIR");
  return chosen != nullptr && *chosen != '\0';
}

// Whether systemd manages this machine's units, so that a unit written for
// it is to be loaded and enabled (not so for a unit directory of the
// caller's choosing).
bool SystemdManagesUnits() {
  return !UnitDirectoryChosen() && access("/run/systemd/system", F_OK) == 0;
}

// Runs "systemctl <verb> [unit]" and waits for it; true when it succeeded.
bool Systemctl(const char* verb, const std::string& unit = {}) {
  const char* argv[] = {"systemctl", verb, unit.empty() ? nullptr : unit.c_str(), nullptr};
  pid_t pid;
  if (posix_spawnp(&pid, "systemctl", nullptr, nullptr, const_cast<char* const*>(argv), environ) !=
      0) {
    return false;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

struct EventText {
  int id;
  bool error;
  const char* text;
};
constexpr EventText kEvents[] = {
    {TCService::kEventInstalled, false, "%s installed"},
    {TCService::kEventRemoved, false, "%s removed"},
    {TCService::kEventNotRemoved, true, "%s could not be removed"},
    {TCService::kEventHandlerFailed, true, "The stop control could not be set up"},
    {TCService::kEventInitFailed, true, "Initialisation failed"},
    {TCService::kEventInitDone, false, "Initialised"},
    {TCService::kEventNotHandled, true, "Control request not handled"},
    {TCService::kEventStopped, false, "Stopped"},
};

}  // namespace

TCService* TCService::instance_ = nullptr;

TCService::TCService(const char* serviceName) {
  std::snprintf(serviceName_, sizeof serviceName_, "%s", serviceName);
  instance_ = this;
}

TCService::~TCService() {
  Trace("TCService::~TCService()");
  if (eventSourceOpen_) closelog();
  if (instance_ == this) instance_ = nullptr;
}

void TCService::Trace(const char* format, ...) const {
  va_list args;
  va_start(args, format);
  DebugTraceV(serviceName_, format, args);
  va_end(args);
}

void TCService::ReportEvent(int id, const char* insertion) {
  lastEvent_ = id;
  for (const EventText& event : kEvents) {
    if (event.id != id) continue;
    if (!eventSourceOpen_) {
      openlog(serviceName_, LOG_PID, LOG_DAEMON);
      eventSourceOpen_ = true;
    }
    char text[256];
    std::snprintf(text, sizeof text, event.text, insertion ? insertion : "");
    syslog(LOG_DAEMON | (event.error ? LOG_ERR : LOG_INFO), "Event %d: %s", id, text);
    return;
  }
}

void TCService::Run() {
  Trace("Entering TCService::Run()");
  while (isRunning_) {
    Trace("Sleeping...");
    usleep(5000 * 1000);
  }
  Trace("Leaving TCService::Run()");
}

bool TCService::OnInit() {
  Trace("TCService::OnInit()");
  return true;
}

void TCService::OnStop() {
  Trace("TCService::OnStop()");
}
void TCService::OnInterrogate() {
  Trace("TCService::OnInterrogate()");
}
void TCService::OnPause() {
  Trace("TCService::OnPause()");
}
void TCService::OnContinue() {
  Trace("TCService::OnContinue()");
}
void TCService::OnShutdown() {
  Trace("TCService::OnShutdown()");
}

bool TCService::OnUserControl(unsigned long code) {
  Trace("TCService::OnUserControl(%8.8lXH)", code);
  return false;
}

std::string TCService::UnitDirectory() {
  return UnitDirectoryChosen() ? std::getenv("CORVANE_SYSTEMD_DIR") : kDefaultUnitDirectory;
}

std::string TCService::UnitPath() const {
  std::string unit(serviceName_);
  LowerAscii(unit);
  return UnitDirectory() + "/" + unit + ".service";
}

bool TCService::IsInstalled() const {
  // The package's unit counts as well, unless a unit directory was chosen.
  const std::string path = UnitPath();
  const std::string packaged = kPackageUnitDirectory + path.substr(UnitDirectory().size());
  return access(path.c_str(), F_OK) == 0 ||
         (!UnitDirectoryChosen() && access(packaged.c_str(), F_OK) == 0);
}

bool TCService::Install() {
  const std::string path = UnitPath();
  const auto text = ServiceUnitText(serviceName_, ExecutablePath(), g_settings.filesRoot);
  if (!text) {
    errno = EINVAL;
    return false;
  }
  FILE* unit = std::fopen(path.c_str(), "w");
  if (unit == nullptr) return false;
  std::fputs(text->c_str(), unit);
  if (std::fclose(unit) != 0) return false;
  if (SystemdManagesUnits()) {
    Systemctl("daemon-reload");
    Systemctl("enable", path.substr(path.rfind('/') + 1));
  }
  ReportEvent(kEventInstalled, serviceName_);
  return true;
}

bool TCService::Uninstall() {
  const std::string path = UnitPath();
  if (SystemdManagesUnits()) Systemctl("disable", path.substr(path.rfind('/') + 1));
  if (std::remove(path.c_str()) != 0) {
    int error = errno;
    ReportEvent(kEventNotRemoved, serviceName_);
    errno = error;
    return false;
  }
  if (SystemdManagesUnits()) Systemctl("daemon-reload");
  ReportEvent(kEventRemoved, serviceName_);
  return true;
}

int TCService::ParseStandardArgs(int argc, char** argv, FILE* out) {
  if (argc < 2) return 0;
  const char* argument = argv[1];
  if (SameText(argument, "-v")) {
    std::fprintf(out, "%s Version %d.%d\n", serviceName_, majorVersion_, minorVersion_);
    std::fprintf(out, "The service is %s installed\n", IsInstalled() ? "currently" : "not");
  } else if (SameText(argument, "-i")) {
    if (IsInstalled()) {
      std::fprintf(out, "%s is already installed\n", serviceName_);
    } else if (Install()) {
      std::fprintf(out, "%s installed\n", serviceName_);
    } else {
      std::fprintf(out, "%s failed to install. Error %d\n", serviceName_, errno);
    }
  } else if (SameText(argument, "-u")) {
    if (!IsInstalled()) {
      std::fprintf(out, "%s is not installed\n", serviceName_);
    } else if (!Uninstall()) {
      std::fprintf(out, "Could not remove %s. Error %d\n", serviceName_, errno);
    } else {
      std::fprintf(out, "%s removed. (You must delete the file (%s) yourself.)\n", serviceName_,
                   ExecutablePath().c_str());
    }
  } else {
    std::fprintf(out, "%s Service.\n\n", serviceName_);
    std::fprintf(out, "*   -v, report the name and version number of the service\n");
    std::fprintf(out, "*   -i, installs the service\n");
    std::fprintf(out, "*   -u, removes the service\n");
  }
  std::fflush(out);
  return 1;
}

int TCService::StartService() {
  Trace("Calling StartServiceCtrlDispatcher()");
  ServiceMain();
  Trace("Returned from StartServiceCtrlDispatcher()");
  return 1;
}

void TCService::ServiceMain() {
  Trace("Entering TCService::ServiceMain()");
  currentState_ = kStartPending;

  // The control handler: SIGTERM and SIGINT, blocked in every thread, are
  // taken by this one thread and become the stop control.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  // Set before the handler thread starts: a stop may come at once.
  statusHandle_ = static_cast<unsigned long>(getpid());
  std::atomic<bool> stopHandled{false}, wakeOnly{false};
  std::thread controller;
  try {
    controller = std::thread([&] {
      int received = 0;
      sigwait(&stopSignals, &received);
      if (!wakeOnly) Handler(kControlStop);
      stopHandled = true;
    });
  } catch (const std::system_error&) {
    ReportEvent(kEventHandlerFailed);
    return;
  }

  if (Initialize()) {
    isRunning_ = true;
    exitCode_ = 0;
    Run();
    // Run ended without a stop control (the service could not serve): stop
    // as if one had come.
  } else {
    wakeOnly = true;
    startFailed_ = true;
  }
  if (!stopHandled) pthread_kill(controller.native_handle(), SIGTERM);
  controller.join();

  SetStatus(kStopped);
  Trace("Leaving TCService::ServiceMain()");
}

bool TCService::Initialize() {
  Trace("Entering TCService::Initialize()");
  SetStatus(kStartPending);
  errno = 0;
  bool initialised = OnInit();
  exitCode_ = static_cast<unsigned long>(errno);
  if (!initialised) {
    ReportEvent(kEventInitFailed);
    SetStatus(kStopped);
    return false;
  }
  ReportEvent(kEventInitDone);
  SetStatus(kRunning);
  Trace("Leaving TCService::Initialize()");
  return true;
}

void TCService::Handler(unsigned long code) {
  Trace("TCService::Handler(%lu)", code);
  switch (code) {
    case kControlStop:
      SetStatus(kStopPending);
      OnStop();
      isRunning_ = false;
      ReportEvent(kEventStopped);
      break;
    case kControlPause:
      OnPause();
      break;
    case kControlContinue:
      OnContinue();
      break;
    case kControlInterrogate:
      OnInterrogate();
      break;
    case kControlShutdown:
      OnShutdown();
      break;
    default:
      if (code < kControlUser || !OnUserControl(code)) ReportEvent(kEventNotHandled);
      break;
  }
  Trace("Updating status (%lu, %lu)", statusHandle_, currentState_.load());
  ReportStatus();
}

void TCService::SetStatus(unsigned long state) {
  Trace("TCService::SetStatus(%lu, %lu)", statusHandle_, state);
  currentState_ = state;
  ReportStatus();
}

void TCService::ReportStatus() {
  // sd_notify does nothing unless systemd started the process.
  switch (currentState_.load()) {
    case kRunning:
      sd_notify(0, "READY=1\nSTATUS=Serving requests");
      break;
    case kStopPending:
      sd_notify(0, "STOPPING=1\nSTATUS=Stopping");
      break;
    default:
      break;
  }
}

}  // namespace corvane
