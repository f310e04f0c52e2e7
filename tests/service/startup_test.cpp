// Runs the real executable from a temporary program directory.
#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>
#include <memory>
#include <vector>

#include "support/command_output.h"
#include "support/gateway_process.h"
#include "support/notify_socket.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "transport/counted_string.h"
#include "transport/wx_codec.h"

namespace corvane {
namespace {

TEST(StartupTest, EachSwitchStartsUpTheProgramDirectoryAndLogsWhatItIsAboutToDo) {
  for (auto [argument, line] : std::initializer_list<std::pair<const char*, const char*>>{
           {"-i", " Install Corvane as service\n"},
           {"-U", " unnstall Corvane from service\n"},
           {"-v", " Show the version\n"},
           {"-x",
            " Corvaine starting on port 8500... "
            "\xB5\xC8\xB4\xFD\xBD\xD3\xCA\xD5\xC7\xEB\xC7\xF3\xA3\xBA\n"}}) {
    test::TempDir dir;
    std::filesystem::copy_file(CORVANE_BINARY, dir / "corvane");
    // A unit written by "-i" goes into the test's own directory.
    test::CommandOutput run = test::RunCommand("CORVANE_SYSTEMD_DIR='" + dir.path() + "' '" +
                                               (dir / "corvane") + "' " + argument);
    EXPECT_EQ(run.status, 0) << run.output;
    for (const char* name : {"temp", "log", "cache"}) {
      EXPECT_TRUE(std::filesystem::is_directory(dir / name)) << name;
    }
    std::string log;
    for (const auto& entry : std::filesystem::directory_iterator(dir / "log")) {
      log += test::ReadFile(entry.path());
    }
    EXPECT_NE(log.find(line), std::string::npos) << log;
    EXPECT_NE(log.find(" Accounts profile is not exist.\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("Destroy global variables."), std::string::npos);  // a debug line
  }
}

TEST(GatewayRunTest, ReadyOnceThePortAcceptsSigtermEndsItAndATakenPortExitsWithOne) {
  test::TempDir dir;
  test::NotifySocket systemd(dir / "notify");
  test::ScopedEnv notify("NOTIFY_SOCKET", (dir / "notify").c_str());
  test::GatewayProcess gateway("log_level=debug\n");
  ASSERT_TRUE(gateway.Start(false));
  EXPECT_EQ(systemd.Next().rfind("READY=1", 0), 0u);
  EXPECT_TRUE(test::WaitForListener(gateway.port()));  // at once: the port was bound first

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
  std::string log = gateway.LogText();
  EXPECT_NE(log.find(" Corvaine starting on port " + std::to_string(gateway.port())),
            std::string::npos);
  EXPECT_NE(log.find(" Program terminal\n"), std::string::npos) << log;
  EXPECT_NE(log.find(" Destroy global variables.\n"), std::string::npos) << log;
}

// A raw client on the gateway's port that sends one request.
class RawClient {
 public:
  explicit RawClient(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    std::string frame = CountedString::Encode(wxCodec::Encode("x"));
    send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL);
  }
  ~RawClient() { close(fd_); }
  // Whether answer bytes came (within 10 s, and before the gateway closed).
  bool Answered() {
    pollfd ready{fd_, POLLIN, 0};
    char chunk[4096];
    return poll(&ready, 1, 10000) > 0 && recv(fd_, chunk, sizeof chunk, 0) > 0;
  }
  bool Closed() {
    for (pollfd ready{fd_, POLLIN, 0}; poll(&ready, 1, 10000) > 0;) {
      char chunk[4096];
      ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
      if (n <= 0) return n == 0 || errno == ECONNRESET;
    }
    return false;
  }

 private:
  int fd_;
};

TEST(GatewayRunTest, FiftyConnectionsAreServedTheNextIsClosedAndSigtermClosesAll) {
  test::GatewayProcess gateway;
  ASSERT_TRUE(gateway.Start());
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 50; ++i) {
    clients.push_back(std::make_unique<RawClient>(gateway.port()));
    ASSERT_TRUE(clients.back()->Answered()) << i;
  }
  EXPECT_FALSE(RawClient(gateway.port()).Answered());
  EXPECT_EQ(gateway.Stop(), 0);
  for (auto& client : clients) EXPECT_TRUE(client->Closed());
}

}  // namespace
}  // namespace corvane
