// The new-mail check of the real gateway against the private dovecot, with a
// real notification program: which messages are announced, with which
// arguments, and that none is announced twice.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "gateway_mail/gateway_client.h"
#include "pop3/pop3_server_env.h"
#include "support/gateway_process.h"
#include "support/pop3_script.h"
#include "support/scoped_env.h"
#include "support/scripted_peer.h"

namespace corvane {
namespace {

using test::AskGateway;
using test::CountOf;
using test::GatewayProcess;

// Writes each call's arguments, NUL-separated, into a file of its own beside
// itself; printf never lets an argument be read as shell text.
constexpr char kNotifyScript[] =
    "#!/bin/sh\n"
    "out=\"$(dirname \"$0\")/call.$$\"\n"
    "for a in \"$@\"; do printf '%s\\0' \"$a\"; done > \"$out.tmp\"\n"
    "mv \"$out.tmp\" \"$out\"\n";

class CheckMailTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(env_.ok()) << "no POP3 test server: " << env_.path();
    test::WriteFile(notifyDir_ / "notify", kNotifyScript);
    std::filesystem::permissions(notifyDir_ / "notify", std::filesystem::perms::owner_all);
  }

  std::string Config() const {
    return "log_level=debug\n[Pushmail]\nInterval=1\nSender=" + (notifyDir_ / "notify") + "\n";
  }
  // Registers the notify mailbox on `port` under mobile `mobile`.
  void Register(GatewayProcess& gateway, unsigned port, const std::string& polling = "start",
                const std::string& login = "") {
    test::Pop3ServerEnv::Account account = env_.Mailbox("NOTIFY");
    test::GatewayAnswer answer = AskGateway(
        gateway.port(),
        "--req Command=ConfigMail --req Pop3=127.0.0.1 --req Port=" + std::to_string(port) +
            " --req Login=" + (login.empty() ? account.user : login) +
            " --req Pwd=" + account.password + " --req Mobile=13800000000 --param Config=append" +
            " --param Polling=" + polling);
    ASSERT_EQ(answer.status, 0) << answer.output;
  }
  // The arguments of every call of the notification program so far.
  std::vector<std::vector<std::string>> Calls() const {
    std::vector<std::vector<std::string>> calls;
    for (const auto& entry : std::filesystem::directory_iterator(notifyDir_.path())) {
      std::string name = entry.path().filename();
      if (name.rfind("call.", 0) != 0 || name.find(".tmp") != std::string::npos) continue;
      std::string text = test::ReadFile(entry.path());
      std::vector<std::string> arguments;
      for (size_t start = 0, end; (end = text.find('\0', start)) != std::string::npos;
           start = end + 1) {
        arguments.push_back(text.substr(start, end - start));
      }
      calls.push_back(arguments);
    }
    return calls;
  }
  // Waits (up to 30 s) until the gateway's log shows `count` checks of `key`.
  static bool WaitForChecks(const GatewayProcess& gateway, const std::string& key, size_t count) {
    for (int i = 0; i < 300; ++i) {
      if (CountOf(gateway.LogText(), "Check mail account: " + key + "\n") >= count) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
  }
  std::string Key() const { return env_.Mailbox("NOTIFY").user + "@127.0.0.1"; }

  test::Pop3ServerEnv env_{CORVANE_POP3_ENV_FILE};
  test::TempDir notifyDir_;
  test::ScopedEnv utc_{"TZ", "UTC"};
};

const std::vector<std::string> kNewMessageArguments = {
    "13800000000", "\xd5\xc5\xc8\xfd <zhang@example.com>", "2023-11-14 22:13",
    "Quote \"this\"; $(touch pwned) `touch pwned2` it's new"};

TEST_F(CheckMailTest, OnlyTheUnknownMessageIsAnnouncedAndNeverTwice) {
  GatewayProcess gateway(Config());
  std::string cache =
      gateway.dir() / ("cache/" + Key() + ":" + std::to_string(env_.Port("POP3_PORT")) + "/");
  std::filesystem::create_directories(cache);
  test::WriteFile(cache + "mail.list", "1700000001.M1P4242.mailhost,1700000002.M2P4242.mailhost");
  ASSERT_TRUE(gateway.Start());
  Register(gateway, env_.Port("POP3_PORT"));
  ASSERT_TRUE(WaitForChecks(gateway, Key(), 2)) << gateway.LogText();

  auto calls = Calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0], kNewMessageArguments);
  // The subject reached the program as text: nothing in it was run.
  for (const char* marker : {"pwned", "pwned2"}) {
    EXPECT_FALSE(std::filesystem::exists(gateway.dir() / marker));
    EXPECT_FALSE(std::filesystem::exists(notifyDir_ / marker));
    EXPECT_FALSE(std::filesystem::exists(marker));
  }
  EXPECT_EQ(test::ReadFile(cache + "mail.list"),
            "1700000001.M1P4242.mailhost,1700000002.M2P4242.mailhost,1700000003.M3P4242.mailhost");
  std::string log = gateway.LogText();
  EXPECT_NE(log.find("Run: " + (notifyDir_ / "notify") + " \"13800000000\" \""), std::string::npos);

  // Across a restart the saved list keeps the message from being announced again.
  EXPECT_EQ(gateway.Stop(), 0);
  ASSERT_TRUE(gateway.Start());
  size_t before = CountOf(gateway.LogText(), "Check mail account: " + Key() + "\n");
  ASSERT_TRUE(WaitForChecks(gateway, Key(), before + 2));
  EXPECT_EQ(Calls().size(), 1u);
}

TEST_F(CheckMailTest, AnAccountOnPort995IsPolledOverTls) {
  test::ScopedEnv trust("SSL_CERT_FILE", env_.Get("CA_FILE"));
  GatewayProcess gateway(Config());
  ASSERT_TRUE(gateway.Start());
  Register(gateway, 995);
  ASSERT_TRUE(WaitForChecks(gateway, Key(), 1)) << gateway.LogText();
  for (int i = 0; i < 50 && Calls().size() < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  auto calls = Calls();
  ASSERT_EQ(calls.size(), 3u);
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls[0][3], "Known 1");
  EXPECT_EQ(calls[2], kNewMessageArguments);
}

TEST_F(CheckMailTest, AnAccountWithPollingOffHoldsTheCheckUntilItIsOn) {
  GatewayProcess gateway(Config());
  ASSERT_TRUE(gateway.Start());
  // Added first and switched off: the pass waits on it.
  Register(gateway, env_.Port("POP3_PORT"), "stop", "held@example.org");
  Register(gateway, env_.Port("POP3_PORT"));
  std::this_thread::sleep_for(std::chrono::seconds(3));
  EXPECT_EQ(CountOf(gateway.LogText(), "Check mail account: "), 0u);
  EXPECT_TRUE(Calls().empty());

  test::Pop3ServerEnv::Account account = env_.Mailbox("NOTIFY");
  test::GatewayAnswer update =
      AskGateway(gateway.port(), "--req Command=ConfigMail --req Pop3=127.0.0.1 --req Port=" +
                                     std::to_string(env_.Port("POP3_PORT")) +
                                     " --req Login=held@example.org --req Pwd=x --req Mobile=1" +
                                     " --param Config=update --param Polling=start");
  ASSERT_EQ(update.status, 0) << update.output;
  EXPECT_TRUE(WaitForChecks(gateway, Key(), 1)) << gateway.LogText();
}

TEST_F(CheckMailTest, AGatewayKilledRightAfterANoticeNeverRepeatsIt) {
  // The first call of the program kills the gateway, as a crash would,
  // while the server keeps the pass waiting on the next header.
  test::WriteFile(notifyDir_ / "notify",
                  std::string(kNotifyScript) +
                      "[ -e \"$(dirname \"$0\")/crashed\" ] ||"
                      " { touch \"$(dirname \"$0\")/crashed\"; kill -KILL $PPID; }\n");
  auto login = [](std::vector<test::Step> then) {
    return test::Join(
        {test::Pop3Login(), test::Pop3Listing(2, "1 first\r\n2 second\r\n"), std::move(then)});
  };
  std::vector<test::Step> script =
      login({test::Expect("TOP 1 0\r\n"), test::Send("+OK\r\nSubject: one\r\n\r\n.\r\n"),
             test::Drain(15000), test::Accept()});
  // After the restart only the message never announced is fetched.
  for (test::Step& step :
       login({test::Expect("TOP 2 0\r\n"), test::Send("+OK\r\nSubject: two\r\n\r\n.\r\n"),
              test::Expect("QUIT\r\n"), test::Send("+OK\r\n")})) {
    script.push_back(std::move(step));
  }
  test::ScriptedPeer server(std::move(script), 15000);

  GatewayProcess gateway(Config());
  ASSERT_TRUE(gateway.Start());
  ASSERT_EQ(AskGateway(gateway.port(),
                       "--req Command=ConfigMail --req Pop3=127.0.0.1 --req Port=" +
                           std::to_string(server.port()) +
                           " --req Login=joe --req Pwd=pw --req Mobile=1 --param Config=append"
                           " --param Polling=start")
                .status,
            0);
  for (int i = 0; i < 150 && !std::filesystem::exists(notifyDir_ / "crashed"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ASSERT_EQ(gateway.Stop(15), 128 + SIGKILL);  // reaps what the program killed
  ASSERT_TRUE(gateway.Start());
  EXPECT_TRUE(server.Finish()) << server.Errors();
  for (int i = 0; i < 50 && Calls().size() < 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  auto calls = Calls();
  ASSERT_EQ(calls.size(), 2u);
  std::sort(calls.begin(), calls.end());
  EXPECT_EQ(calls[0][3], "one");
  EXPECT_EQ(calls[1][3], "two");
}

}  // namespace
}  // namespace corvane
