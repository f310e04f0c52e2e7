// The service wrapper on its own (the -v/-i/-u texts and the unit they write
// into a test unit directory, controls routed to their routines), then the real
// executable run from a temporary program directory and stopped by SIGTERM.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "base/program_paths.h"
#include "service/service_unit.h"
#include "service/tc_service.h"
#include "support/command_output.h"
#include "support/gateway_process.h"
#include "support/notify_socket.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "transport/counted_string.h"
#include "transport/wx_codec.h"

namespace corvane {
namespace {

TEST(ServiceArgsTest, InstallReportRemoveTheirRepeatsAndFailures) {
  test::TempDir units;
  test::ScopedEnv unitDirectory("CORVANE_SYSTEMD_DIR", units.path());
  TCService service("Corvane");
  // Whether the standard-argument handling took one argument, and what it
  // printed.
  auto handle = [&](std::string argument) {
    char program[] = "corvane";
    char* argv[] = {program, argument.data(), nullptr};
    FILE* out = std::tmpfile();
    int handled = service.ParseStandardArgs(argument.empty() ? 1 : 2, argv, out);
    std::string text(static_cast<size_t>(std::ftell(out)), '\0');
    std::rewind(out);
    text.resize(std::fread(text.data(), 1, text.size(), out));
    std::fclose(out);
    return std::to_string(handled) + " " + text;
  };
  const std::string executable = ExecutablePath(), unit = units / "corvane.service";
  EXPECT_EQ(handle("-v"), "1 Corvane Version 3.0\nThe service is not installed\n");
  EXPECT_EQ(handle("-u"), "1 Corvane is not installed\n");
  EXPECT_EQ(handle("-i"), "1 Corvane installed\n");
  EXPECT_EQ(service.LastEvent(), TCService::kEventInstalled);
  // The unit of this executable (its lines: ServiceUnitTest).
  EXPECT_NE(test::ReadFile(unit).find("\nExecStart=\"" + executable + "\"\n"), std::string::npos);
  test::WriteFile(unit, "edited by hand\n");  // a second install changes nothing
  EXPECT_EQ(handle("-I"), "1 Corvane is already installed\n");
  EXPECT_EQ(test::ReadFile(unit), "edited by hand\n");
  EXPECT_EQ(handle("-V"), "1 Corvane Version 3.0\nThe service is currently installed\n");
  EXPECT_EQ(handle("-U"),
            "1 Corvane removed. (You must delete the file (" + executable + ") yourself.)\n");
  EXPECT_FALSE(std::filesystem::exists(unit));
  EXPECT_EQ(service.LastEvent(), TCService::kEventRemoved);
  // A "unit" that cannot be removed: a directory with something in it.
  std::filesystem::create_directories(unit + "/inside");
  EXPECT_EQ(handle("-u"), "1 Could not remove Corvane. Error 39\n");
  EXPECT_EQ(service.LastEvent(), TCService::kEventNotRemoved);
  test::ScopedEnv missing("CORVANE_SYSTEMD_DIR", units / "no/such/dir");
  EXPECT_EQ(handle("-i"), "1 Corvane failed to install. Error 2\n");
  EXPECT_TRUE(handle("-x").starts_with("1 Corvane Service.\n\n*   -v, report"));  // the usage
  EXPECT_EQ(handle(""), "0 ");
}

// The unit runs the gateway sandboxed wherever it was built: systemd's own
// rating of it stays "OK" (2.0 at most), and no path can break out of its line.
TEST(ServiceUnitTest, IsSandboxedAndQuotesItsPaths) {
  const struct {
    std::string executable;
    std::optional<std::string> filesRoot;
    std::vector<std::string> lines;  // each must be in the unit as it stands
  } cases[] = {
      {"/usr/sbin/corvane",
       std::nullopt,
       {"ExecStart=\"/usr/sbin/corvane\"", "WorkingDirectory=/usr/sbin", "ProtectHome=yes",
        "Type=notify", "Restart=on-failure"}},
      {"/home/joe/build/corvane",
       "/srv/fi les",
       {"WorkingDirectory=/home/joe/build", "ProtectHome=read-only",
        "ReadWritePaths=\"-/srv/fi les\""}},
      {"/opt/a b/100%/corvane",
       "/home/joe/files",
       {"ExecStart=\"/opt/a b/100%%/corvane\"", "ProtectHome=read-only",
        "WorkingDirectory=/opt/a b/100%%"}},
  };
  test::TempDir units;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.executable);
    const auto unit = ServiceUnitText("Corvane", c.executable, c.filesRoot);
    ASSERT_TRUE(unit);
    for (const std::string& line : c.lines) EXPECT_NE(unit->find("\n" + line + "\n"), unit->npos);
    EXPECT_EQ(unit->find("ReadWritePaths") != unit->npos, c.filesRoot.has_value());
    test::WriteFile(units / "corvane.service", *unit);
    auto rating = test::RunCommand("cd " + units.path() +
                                   " && systemd-analyze security --offline=true corvane.service");
    const size_t at = rating.output.find("Overall exposure level for corvane.service: ");
    ASSERT_NE(at, std::string::npos) << rating.output;
    EXPECT_LE(std::stod(rating.output.substr(at + 44)), 2.0) << rating.output.substr(at);
    EXPECT_EQ(rating.output.find("Unknown key"), std::string::npos) << rating.output;
  }
  for (std::string bad : {"/opt/a\nExecStartPre=/bin/sh", "/opt/\x7f", "/opt/\"", "/opt/\\"}) {
    EXPECT_FALSE(ServiceUnitText("Corvane", bad, std::nullopt));
    EXPECT_FALSE(ServiceUnitText("Corvane", "/usr/sbin/corvane", bad));
  }
}

// Records which routines ran, with the state at the stop.
struct RecordingService : TCService {
  RecordingService() : TCService("Corvane") {}
  void Run() override {}
  void OnStop() override { calls += "OnStop@" + std::to_string(CurrentState()) + " "; }
  void OnPause() override { calls += "OnPause "; }
  void OnContinue() override { calls += "OnContinue "; }
  void OnInterrogate() override { calls += "OnInterrogate "; }
  void OnShutdown() override { calls += "OnShutdown "; }
  bool OnUserControl(unsigned long code) override {
    calls += "OnUserControl " + std::to_string(code) + " ";
    return TCService::OnUserControl(code);
  }
  std::string calls;
};

// A stop by SIGTERM is shown on the real executable below.
TEST(ServiceControlTest, ControlsReachTheirRoutinesAndTheStopIsWhatSystemdHears) {
  test::TempDir dir;
  test::NotifySocket systemd(dir / "notify");
  test::ScopedEnv notifySocket("NOTIFY_SOCKET", dir / "notify");
  RecordingService service;
  const int initial = service.LastEvent();
  for (unsigned long control : {TCService::kControlPause, TCService::kControlContinue,
                                TCService::kControlInterrogate, TCService::kControlShutdown}) {
    service.Handler(control);
  }
  EXPECT_EQ(service.LastEvent(), initial);
  service.Handler(200);
  EXPECT_EQ(service.LastEvent(), TCService::kEventNotHandled);
  service.Handler(7);  // below the user range, no routine at all
  service.Handler(TCService::kControlStop);
  EXPECT_TRUE(systemd.Next().starts_with("STOPPING=1"));
  EXPECT_EQ(service.calls,
            "OnPause OnContinue OnInterrogate OnShutdown OnUserControl 200 OnStop@3 ");
  EXPECT_EQ(service.LastEvent(), TCService::kEventStopped);
  EXPECT_FALSE(service.IsRunning());
}

// A switch that only prints still sets up the program directory, and the log
// says what the program is about to do.
TEST(StartupTest, ASwitchSetsUpTheProgramDirectoryAndLogsWhatItIsAboutToDo) {
  test::GatewayProcess gateway;
  test::CommandOutput run = test::RunCommand("'" + (gateway.dir() / "corvane") + "' -x");
  EXPECT_EQ(run.status, 0) << run.output;
  for (const char* name : {"temp", "log", "cache"}) {
    EXPECT_TRUE(std::filesystem::is_directory(gateway.dir() / name)) << name;
  }
  const std::string log = gateway.LogText();
  EXPECT_NE(log.find(" Corvaine starting on port " + std::to_string(gateway.port()) +
                     "... \xB5\xC8\xB4\xFD\xBD\xD3\xCA\xD5\xC7\xEB\xC7\xF3\xA3\xBA\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find(" Accounts profile is not exist.\n"), std::string::npos);
  EXPECT_EQ(log.find("Destroy global variables."), std::string::npos);  // a debug line

  // Under a unit, systemd names where the configuration, state and logs go.
  test::TempDir system;
  test::WriteFile(system / "config.ini", "[Application]\nport=1234\n");
  test::ScopedEnv config("CONFIGURATION_DIRECTORY", system.path());
  test::ScopedEnv state("STATE_DIRECTORY", system / "state:" + (system / "unused"));
  test::ScopedEnv logs("LOGS_DIRECTORY", system / "logs/");
  std::filesystem::remove_all(gateway.dir() / "log");
  EXPECT_EQ(test::RunCommand("'" + (gateway.dir() / "corvane") + "' -x").status, 0);
  for (const char* name : {"state/temp", "state/cache", "logs"}) {
    EXPECT_TRUE(std::filesystem::is_directory(system / name)) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(gateway.dir() / "log"));
  EXPECT_FALSE(std::filesystem::exists(system / "unused"));
  const auto entries = std::filesystem::directory_iterator(system / "logs");
  ASSERT_NE(begin(entries), end(entries));
  EXPECT_NE(test::ReadFile(begin(entries)->path()).find("starting on port 1234..."),
            std::string::npos);
}

TEST(GatewayRunTest, ReadyOnceThePortAcceptsSigtermEndsItAndATakenPortExitsWithOne) {
  test::TempDir dir;
  test::NotifySocket systemd(dir / "notify");
  test::ScopedEnv notify("NOTIFY_SOCKET", (dir / "notify").c_str());
  test::GatewayProcess gateway("log_level=debug\n");
  test::ScopedEnv trace("CORVANE_TRACE", "stderr");
  ASSERT_TRUE(gateway.Start(false));
  EXPECT_EQ(systemd.Next().rfind("READY=1", 0), 0u);
  // Where it listens and logs, on standard error with the trace.
  const std::string started = gateway.StandardError();
  EXPECT_NE(started.find("corvane 3.0: listening on 0.0.0.0:" + std::to_string(gateway.port()) +
                         ", program directory " + gateway.dir().path() + ", log " +
                         gateway.dir().path() + "/log/"),
            std::string::npos)
      << started;
  EXPECT_NE(started.find("[Corvane]("), std::string::npos) << started;
  EXPECT_TRUE(test::WaitForListener(gateway.port()));  // at once: the port was bound first
  // The new-mail check runs its first pass once the port is bound.
  for (int i = 0; i < 200 && gateway.LogText().find("Start check mail") == std::string::npos; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_NE(gateway.LogText().find(" [Corvane] Start check mail\n"), std::string::npos);

  // A second gateway on the port that is taken: no READY, and a status a
  // supervisor retries on.
  test::GatewayProcess second;
  test::WriteFile(second.dir() / "config.ini",
                  "[Application]\nport=" + std::to_string(gateway.port()) + "\n");
  ASSERT_TRUE(second.Start(false));
  EXPECT_EQ(second.WaitForExit(30), 1);
  EXPECT_NE(second.LogText().find("Cannot listen on port " + std::to_string(gateway.port())),
            std::string::npos);

  EXPECT_EQ(gateway.Stop(), 0);
  EXPECT_EQ(systemd.Next().rfind("STOPPING=1", 0), 0u);  // and nothing from the second
  EXPECT_NE(gateway.StandardError().find("corvane: stopped\n"), std::string::npos);
  for (const char* line : {" Program terminal\n", " Destroy global variables.\n"}) {
    EXPECT_NE(gateway.LogText().find(line), std::string::npos) << line;
  }
}

// A raw client on the gateway's port that sends one request; reads wait 10 s.
struct RawClient {
  explicit RawClient(int port) {
    sockaddr_in address;
    fd = test::LoopbackSocket(port, address);
    timeval limit{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    std::string frame = CountedString::Encode(wxCodec::Encode("x"));
    send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
  }
  ~RawClient() { close(fd); }
  ssize_t Read() {
    char chunk[4096];
    return recv(fd, chunk, sizeof chunk, 0);
  }
  bool Closed() {
    ssize_t n;
    while ((n = Read()) > 0) continue;
    return n == 0 || errno == ECONNRESET;
  }
  int fd;
};

TEST(GatewayRunTest, FiftyConnectionsAreServedTheNextIsClosedAndSigtermClosesAll) {
  test::GatewayProcess gateway;
  ASSERT_TRUE(gateway.Start());
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 50; ++i) {
    clients.push_back(std::make_unique<RawClient>(gateway.port()));
    ASSERT_GT(clients.back()->Read(), 0) << i;
  }
  EXPECT_LE(RawClient(gateway.port()).Read(), 0);  // closed or never answered
  EXPECT_EQ(gateway.Stop(), 0);
  for (auto& client : clients) EXPECT_TRUE(client->Closed());
}

}  // namespace
}  // namespace corvane
