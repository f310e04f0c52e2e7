// The service wrapper: the -v/-i/-u texts and the unit they write into a test
// unit directory, control requests routed to their routines, and a foreground
// run stopped by SIGTERM with its systemd notifications.
#include "service/tc_service.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

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

class ServiceArgsTest : public ::testing::Test {
 protected:
  // Runs the standard-argument handling with one argument; what it printed.
  std::string Handle(std::string argument, int* handled = nullptr) {
    char program[] = "corvane";
    char* argv[] = {program, argument.data(), nullptr};
    FILE* out = std::tmpfile();
    int result = service_.ParseStandardArgs(argument.empty() ? 1 : 2, argv, out);
    if (handled) *handled = result;
    std::string text(static_cast<size_t>(std::ftell(out)), '\0');
    std::rewind(out);
    text.resize(std::fread(text.data(), 1, text.size(), out));
    std::fclose(out);
    return text;
  }

  test::TempDir units_;
  test::ScopedEnv unitDirectory_{"CORVANE_SYSTEMD_DIR", units_.path().c_str()};
  TCService service_{"Corvane"};
};

TEST_F(ServiceArgsTest, InstallReportRemoveAndTheirRepeats) {
  EXPECT_EQ(Handle("-v"), "Corvane Version 3.0\nThe service is not installed\n");
  EXPECT_EQ(Handle("-u"), "Corvane is not installed\n");
  EXPECT_EQ(Handle("-i"), "Corvane installed\n");
  EXPECT_EQ(service_.LastEvent(), TCService::kEventInstalled);
  const std::string executable = ExecutablePath();
  std::string unit = test::ReadFile(units_ / "corvane.service");
  for (std::string line :
       {"ExecStart=" + executable, std::string("Restart=on-failure"), std::string("Type=notify"),
        "WorkingDirectory=" + ProgramDirectoryFromPath(executable)}) {
    EXPECT_NE(unit.find("\n" + line + "\n"), std::string::npos) << line << "\n" << unit;
  }
  // A second install changes nothing.
  test::WriteFile(units_ / "corvane.service", "edited by hand\n");
  EXPECT_EQ(Handle("-I"), "Corvane is already installed\n");
  EXPECT_EQ(test::ReadFile(units_ / "corvane.service"), "edited by hand\n");
  EXPECT_EQ(Handle("-V"), "Corvane Version 3.0\nThe service is currently installed\n");
  EXPECT_EQ(Handle("-U"),
            "Corvane removed. (You must delete the file (" + executable + ") yourself.)\n");
  EXPECT_FALSE(std::filesystem::exists(units_ / "corvane.service"));
  EXPECT_EQ(service_.LastEvent(), TCService::kEventRemoved);
}

TEST_F(ServiceArgsTest, FailuresPrintTheSystemErrorAndAnythingElsePrintsTheUsage) {
  {
    test::ScopedEnv missing("CORVANE_SYSTEMD_DIR", (units_ / "no/such/dir").c_str());
    EXPECT_EQ(Handle("-i"), "Corvane failed to install. Error 2\n");
  }
  // A "unit" that cannot be removed: a directory with something in it.
  std::filesystem::create_directories(units_ / "corvane.service/inside");
  EXPECT_EQ(Handle("-u"), "Could not remove Corvane. Error 39\n");
  EXPECT_EQ(service_.LastEvent(), TCService::kEventNotRemoved);
  int handled = -1;
  EXPECT_EQ(Handle("-x", &handled),
            "Corvane Service.\n\n*   -v, report the name and version number of the service\n"
            "*   -i, installs the service\n*   -u, removes the service\n");
  EXPECT_EQ(handled, 1);
  EXPECT_EQ(Handle("", &handled), "");
  EXPECT_EQ(handled, 0);
}

// Records which routines ran, with the state at the stop; Run blocks until
// OnStop.
class RecordingService : public TCService {
 public:
  RecordingService() : TCService("Corvane") {}
  void Run() override {
    Record("Run");
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return calls_.back().starts_with("OnStop"); });
  }
  void OnStop() override { Record("OnStop@" + std::to_string(CurrentState())); }
  void OnPause() override { Record("OnPause"); }
  void OnContinue() override { Record("OnContinue"); }
  void OnInterrogate() override { Record("OnInterrogate"); }
  void OnShutdown() override { Record("OnShutdown"); }
  bool OnUserControl(unsigned long code) override {
    Record("OnUserControl " + std::to_string(code));
    return TCService::OnUserControl(code);
  }
  std::vector<std::string> Calls(size_t atLeast = 0) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return calls_.size() >= atLeast; });
    return calls_;
  }

 private:
  void Record(std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> calls_;
};

TEST(ServiceRun, ControlsReachTheirRoutinesAndSigtermIsTheStopThatSystemdHears) {
  test::TempDir dir;
  test::NotifySocket systemd(dir / "notify");
  test::ScopedEnv notifySocket("NOTIFY_SOCKET", (dir / "notify").c_str());
  BlockStopSignals();  // as the program does before any thread starts
  RecordingService service;
  std::thread runner([&service] { service.StartService(); });
  EXPECT_EQ(systemd.Next().rfind("READY=1", 0), 0u);
  ASSERT_EQ(service.Calls(1).size(), 1u);
  EXPECT_TRUE(service.IsRunning());
  EXPECT_EQ(service.CurrentState(), TCService::kRunning);

  for (unsigned long control : {TCService::kControlPause, TCService::kControlContinue,
                                TCService::kControlInterrogate, TCService::kControlShutdown}) {
    service.Handler(control);
  }
  EXPECT_EQ(service.LastEvent(), TCService::kEventInitDone);
  service.Handler(200);
  EXPECT_EQ(service.LastEvent(), TCService::kEventNotHandled);
  service.Handler(7);  // below the user range, no routine at all
  EXPECT_EQ(service.CurrentState(), TCService::kRunning);

  ::kill(::getpid(), SIGTERM);
  runner.join();
  std::string status;  // each control reports the state again
  while ((status = systemd.Next()).starts_with("READY=1")) continue;
  EXPECT_TRUE(status.starts_with("STOPPING=1")) << status;
  EXPECT_EQ(service.Calls(),
            (std::vector<std::string>{"Run", "OnPause", "OnContinue", "OnInterrogate", "OnShutdown",
                                      "OnUserControl 200", "OnStop@3"}));
  EXPECT_EQ(service.CurrentState(), TCService::kStopped);
  EXPECT_EQ(service.LastEvent(), TCService::kEventStopped);
  EXPECT_FALSE(service.IsRunning());
}

}  // namespace
}  // namespace corvane
