// Runs the real executable from a temporary program directory.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/command_output.h"
#include "support/gateway_process.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::ReadFile;
using test::TempDir;

class StartupTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::copy_file(CORVANE_BINARY, dir_ / "corvane");
    std::filesystem::permissions(dir_ / "corvane", std::filesystem::perms::owner_all);
  }

  // Runs the copied executable with one argument; returns its output.
  std::string Run(const std::string& argument) {
    // A unit written by "-i" goes into the test's own directory.
    test::CommandOutput run = test::RunCommand("CORVANE_SYSTEMD_DIR='" + dir_.path() + "' '" +
                                               (dir_ / "corvane") + "' " + argument);
    exitStatus_ = run.status;
    return run.output;
  }

  std::string LogText() {
    std::string text;
    for (const auto& entry : std::filesystem::directory_iterator(dir_ / "log")) {
      text += ReadFile(entry.path());
    }
    return text;
  }

  TempDir dir_;
  int exitStatus_ = -1;
};

TEST_F(StartupTest, NoConfigurationMakesTheDirectoriesAndLogsTheBannerOnPort8500) {
  Run("-x");
  EXPECT_EQ(exitStatus_, 0);
  for (const char* name : {"temp", "log", "cache"}) {
    EXPECT_TRUE(std::filesystem::is_directory(dir_ / name)) << name;
  }
  std::string log = LogText();
  EXPECT_NE(log.find(" Corvaine starting on port 8500... "
                     "\xB5\xC8\xB4\xFD\xBD\xD3\xCA\xD5\xC7\xEB\xC7\xF3\xA3\xBA\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find(" Accounts profile is not exist.\n"), std::string::npos) << log;
  // Info level: the teardown's debug line is not written.
  EXPECT_EQ(log.find("Destroy global variables."), std::string::npos);
}

TEST_F(StartupTest, ConfiguredPortAndDebugLevelShowInTheLog) {
  test::WriteFile(dir_ / "config.ini", "[Application]\nport=9123\nlog_level=DEBUG\n");
  Run("-x");
  std::string log = LogText();
  EXPECT_NE(log.find("Corvaine starting on port 9123... "), std::string::npos) << log;
  EXPECT_NE(log.find(" Destroy global variables.\n"), std::string::npos) << log;
}

TEST_F(StartupTest, EachSwitchLogsWhatItIsAboutToDo) {
  struct Case {
    const char* argument;
    const char* line;
  } cases[] = {{"-i", " Install Corvane as service\n"},
               {"-U", " unnstall Corvane from service\n"},
               {"-v", " Show the version\n"},
               {"-x", " Corvaine starting on port 8500... "}};
  for (const Case& c : cases) {
    std::filesystem::remove_all(dir_ / "log");
    Run(c.argument);
    EXPECT_NE(LogText().find(c.line), std::string::npos) << c.argument;
  }
}

TEST(GatewayRunTest, NoArgumentServesUntilSigterm) {
  test::GatewayProcess gateway("log_level=debug\n");
  ASSERT_TRUE(gateway.Start());
  EXPECT_EQ(gateway.Stop(), 0);
  std::string log = gateway.LogText();
  EXPECT_NE(log.find(" Program terminal\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" Destroy global variables.\n"), std::string::npos) << log;
}

}  // namespace
}  // namespace corvane
