#pragma once

#include <atomic>
#include <cstdio>
#include <string>

namespace corvane {

// The program as a system service under systemd. "-i" writes and enables a
// unit for the executable, "-u" disables and removes it, "-v" reports the
// version and whether the unit is there. With no argument the service runs
// in the foreground, as systemd runs it: SIGTERM or SIGINT is the stop
// control, and readiness and stopping are announced to systemd when it
// started the process. Service events go to syslog, trace lines to syslog at
// debug severity.
//
// A derived service overrides Run (serve until stopped) and OnStop (end
// Run); the other routines trace and do nothing. There is exactly one
// instance, reachable process-wide for the stop control.
class TCService {
 public:
  enum State : unsigned long { kStopped = 1, kStartPending = 2, kStopPending = 3, kRunning = 4 };
  enum Control : unsigned long {
    kControlStop = 1,
    kControlPause = 2,
    kControlContinue = 3,
    kControlInterrogate = 4,
    kControlShutdown = 5,
    kControlUser = 128,
  };
  enum Event : int {
    kEventInstalled = 100,
    kEventRemoved = 101,
    kEventNotRemoved = 102,
    kEventHandlerFailed = 103,
    kEventInitFailed = 104,
    kEventInitDone = 105,
    kEventNotHandled = 106,
    kEventStopped = 108,
  };
  static constexpr int kMajorVersion = 3;
  static constexpr int kMinorVersion = 0;

  explicit TCService(const char* serviceName);
  virtual ~TCService();
  TCService(const TCService&) = delete;
  TCService& operator=(const TCService&) = delete;

  virtual void Run();
  virtual bool OnInit();
  virtual void OnStop();
  virtual void OnInterrogate();
  virtual void OnPause();
  virtual void OnContinue();
  virtual void OnShutdown();
  virtual bool OnUserControl(unsigned long code);

  // 0 without an argument (the caller then starts the service); 1 when the
  // argument was handled: -v, -i, -u (any letter case), or the usage text.
  // Results go to `out`.
  int ParseStandardArgs(int argc, char** argv, FILE* out = stdout);
  bool IsInstalled() const;
  // Writes the unit, then reloads systemd and enables it when systemd runs
  // the machine. False with errno set when the unit cannot be written.
  bool Install();
  bool Uninstall();
  // Runs the service's main routine in the foreground until it has stopped.
  int StartService();
  // True when the service could not start (OnInit failed): the process
  // should exit non-zero, so that a supervisor retries.
  bool StartFailed() const { return startFailed_; }
  // The control request `code` (kControlStop and the others).
  void Handler(unsigned long code);
  void SetStatus(unsigned long state);

  unsigned long CurrentState() const { return currentState_.load(); }
  bool IsRunning() const { return isRunning_.load(); }
  const char* Name() const { return serviceName_; }
  // The last event reported, 0 before any.
  int LastEvent() const { return lastEvent_.load(); }
  static TCService* Instance() { return instance_; }

  // Where the unit goes: $CORVANE_SYSTEMD_DIR, else /etc/systemd/system.
  static std::string UnitDirectory();
  std::string UnitPath() const;

 protected:
  void Trace(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void ReportEvent(int id, const char* insertion = nullptr);
  void SetRunning(bool running) { isRunning_ = running; }

 private:
  void ServiceMain();
  bool Initialize();
  // Tells systemd about the state when it started the process.
  void ReportStatus();

  char serviceName_[65] = {};
  int majorVersion_ = kMajorVersion;
  int minorVersion_ = kMinorVersion;
  unsigned long statusHandle_ = 0;
  std::atomic<unsigned long> currentState_{kStopped};
  unsigned long exitCode_ = 0;
  bool startFailed_ = false;
  std::atomic<bool> isRunning_{false};
  bool eventSourceOpen_ = false;
  std::atomic<int> lastEvent_{0};

  static TCService* instance_;
};

}  // namespace corvane
