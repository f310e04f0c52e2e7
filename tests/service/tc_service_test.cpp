// The service wrapper: the -v/-i/-u texts and the unit they write into a
// test unit directory, the routing of control requests with their events,
// and a foreground run stopped by SIGTERM with its systemd notifications.
#include "service/tc_service.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "base/program_paths.h"
#include "service/gateway_service.h"
#include "support/notify_socket.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

// Runs the standard-argument handling with one argument; what it printed.
std::string Handle(TCService& service, const char* argument, int* handled = nullptr) {
  char program[] = "corvane";
  std::string copy = argument;
  char* argv[] = {program, copy.data(), nullptr};
  FILE* out = std::tmpfile();
  int result = service.ParseStandardArgs(argument[0] ? 2 : 1, argv, out);
  if (handled) *handled = result;
  std::rewind(out);
  std::string text;
  char chunk[512];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, out)) > 0) text.append(chunk, n);
  std::fclose(out);
  return text;
}

class ServiceArgsTest : public ::testing::Test {
 protected:
  test::TempDir units_;
  test::ScopedEnv unitDirectory_{"CORVANE_SYSTEMD_DIR", units_.path().c_str()};
  TCService service_{"Corvane"};
};

TEST_F(ServiceArgsTest, InstallReportRemoveAndTheirRepeats) {
  EXPECT_EQ(Handle(service_, "-v"), "Corvane Version 3.0\nThe service is not installed\n");
  EXPECT_EQ(Handle(service_, "-u"), "Corvane is not installed\n");
  EXPECT_EQ(Handle(service_, "-i"), "Corvane installed\n");
  const std::string executable = ExecutablePath();
  std::string unit = test::ReadFile(units_ / "corvane.service");
  EXPECT_NE(unit.find("\nExecStart=" + executable + "\n"), std::string::npos) << unit;
  EXPECT_NE(unit.find("\nWorkingDirectory=" + ProgramDirectoryFromPath(executable) + "\n"),
            std::string::npos)
      << unit;
  EXPECT_NE(unit.find("\nRestart=on-failure\n"), std::string::npos) << unit;
  EXPECT_NE(unit.find("\nType=notify\n"), std::string::npos) << unit;
  EXPECT_EQ(service_.LastEvent(), TCService::kEventInstalled);

  // A second install changes nothing.
  test::WriteFile(units_ / "corvane.service", "edited by hand\n");
  EXPECT_EQ(Handle(service_, "-I"), "Corvane is already installed\n");
  EXPECT_EQ(test::ReadFile(units_ / "corvane.service"), "edited by hand\n");
  EXPECT_EQ(Handle(service_, "-V"), "Corvane Version 3.0\nThe service is currently installed\n");

  EXPECT_EQ(Handle(service_, "-U"),
            "Corvane removed. (You must delete the file (" + executable + ") yourself.)\n");
  EXPECT_FALSE(std::filesystem::exists(units_ / "corvane.service"));
  EXPECT_EQ(service_.LastEvent(), TCService::kEventRemoved);
}

TEST_F(ServiceArgsTest, FailuresPrintTheSystemError) {
  {
    test::ScopedEnv missing("CORVANE_SYSTEMD_DIR", (units_ / "no/such/dir").c_str());
    EXPECT_EQ(Handle(service_, "-i"), "Corvane failed to install. Error 2\n");
  }
  // A "unit" that cannot be removed: a directory with something in it.
  std::filesystem::create_directories(units_ / "corvane.service/inside");
  EXPECT_EQ(Handle(service_, "-u"), "Could not remove Corvane. Error 39\n");
  EXPECT_EQ(service_.LastEvent(), TCService::kEventNotRemoved);
}

TEST_F(ServiceArgsTest, UsageForAnythingElseAndNothingWithoutArgument) {
  int handled = -1;
  EXPECT_EQ(Handle(service_, "-x", &handled),
            "Corvane Service.\n\n*   -v, report the name and version number of the service\n"
            "*   -i, installs the service\n*   -u, removes the service\n");
  EXPECT_EQ(handled, 1);
  EXPECT_EQ(Handle(service_, "", &handled), "");
  EXPECT_EQ(handled, 0);
}

// Records which routines ran; Run blocks until OnStop.
class RecordingService : public TCService {
 public:
  RecordingService() : TCService("Corvane") {}
  void Run() override {
    std::unique_lock lock(mutex_);
    calls_.push_back("Run");
    woken_.wait(lock, [this] { return stopped_; });
  }
  void OnStop() override {
    std::lock_guard lock(mutex_);
    calls_.push_back("OnStop@" + std::to_string(CurrentState()));
    stopped_ = true;
    woken_.notify_all();
  }
  void OnPause() override { Record("OnPause"); }
  void OnContinue() override { Record("OnContinue"); }
  void OnInterrogate() override { Record("OnInterrogate"); }
  void OnShutdown() override { Record("OnShutdown"); }
  bool OnUserControl(unsigned long code) override {
    Record("OnUserControl " + std::to_string(code));
    return TCService::OnUserControl(code);
  }
  std::vector<std::string> Calls() {
    std::lock_guard lock(mutex_);
    return calls_;
  }

 private:
  void Record(std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  std::mutex mutex_;
  std::condition_variable woken_;
  bool stopped_ = false;
  std::vector<std::string> calls_;
};

TEST(ServiceControl, RequestsReachTheirRoutinesAndUnhandledOnesAreReported) {
  RecordingService service;
  service.SetStatus(TCService::kRunning);
  service.Handler(TCService::kControlPause);
  service.Handler(TCService::kControlContinue);
  service.Handler(TCService::kControlInterrogate);
  service.Handler(TCService::kControlShutdown);
  EXPECT_EQ(service.LastEvent(), 0);
  service.Handler(200);
  EXPECT_EQ(service.LastEvent(), TCService::kEventNotHandled);
  EXPECT_EQ(service.CurrentState(), TCService::kRunning);
  service.Handler(7);  // below the user range, no routine at all
  EXPECT_EQ(service.Calls(), (std::vector<std::string>{"OnPause", "OnContinue", "OnInterrogate",
                                                       "OnShutdown", "OnUserControl 200"}));
  service.Handler(TCService::kControlStop);
  EXPECT_EQ(service.Calls().back(), "OnStop@3");  // stop pending while it runs
  EXPECT_EQ(service.LastEvent(), TCService::kEventStopped);
  EXPECT_FALSE(service.IsRunning());
}

TEST(ServiceRun, SigtermIsTheStopControlAndSystemdHearsEachStep) {
  test::TempDir dir;
  test::NotifySocket systemd(dir / "notify");
  test::ScopedEnv notifySocket("NOTIFY_SOCKET", (dir / "notify").c_str());
  BlockStopSignals();  // as the program does before any thread starts
  RecordingService service;
  std::thread runner([&service] { service.StartService(); });

  EXPECT_EQ(systemd.Next().rfind("READY=1", 0), 0u);
  while (service.Calls().empty()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_TRUE(service.IsRunning());
  EXPECT_EQ(service.CurrentState(), TCService::kRunning);
  ::kill(::getpid(), SIGTERM);
  runner.join();

  EXPECT_EQ(systemd.Next().rfind("STOPPING=1", 0), 0u);
  EXPECT_EQ(service.Calls(), (std::vector<std::string>{"Run", "OnStop@3"}));
  EXPECT_EQ(service.CurrentState(), TCService::kStopped);
  EXPECT_EQ(service.LastEvent(), TCService::kEventStopped);
}

}  // namespace
}  // namespace corvane
