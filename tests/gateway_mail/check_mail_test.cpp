// The new-mail check of the real gateway with a real notification program:
// which messages are announced, with which arguments, and never twice, not
// even across a restart or a crash.
#include <algorithm>
#include <csignal>
#include <filesystem>

#include "gateway_mail/gateway_client.h"
#include "support/pop3_script.h"
#include "support/scoped_env.h"
#include "support/scripted_peer.h"

namespace corvane {
namespace {

using test::CountOf;
using test::GatewayProcess;

// Writes each call's arguments, NUL-separated, into a file of its own beside
// itself; printf never lets an argument be read as shell text.
constexpr char kNotifyScript[] =
    "#!/bin/sh\n"
    "out=\"$(dirname \"$0\")/call.$$\"\n"
    "for a in \"$@\"; do printf '%s\\0' \"$a\"; done > \"$out.tmp\"\n"
    "mv \"$out.tmp\" \"$out\"\n";

const std::vector<std::string> kNewMessageArguments = {
    "13800000000", "\xd5\xc5\xc8\xfd <zhang@example.com>", "2023-11-14 22:13",
    "Quote \"this\"; $(touch pwned) `touch pwned2` it's new"};

class CheckMailTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pop3_.ok()) << "no POP3 test server: " << pop3_.path();
    test::WriteFile(notify_ / "notify", kNotifyScript);
    std::filesystem::permissions(notify_ / "notify", std::filesystem::perms::owner_all);
  }
  std::string Config() const {
    return "log_level=debug\n[Pushmail]\nInterval=1\nSender=" + (notify_ / "notify") + "\n";
  }
  // Adds (or updates) an account of mobile 13800000000: the NOTIFY mailbox,
  // or `login` with the password "pw".
  void Register(const GatewayProcess& gateway, unsigned port, const std::string& polling = "start",
                const std::string& login = "", const std::string& config = "append") {
    const test::Pop3ServerEnv::Account account = pop3_.Mailbox("NOTIFY");
    test::GatewayAnswer answer = test::AskGateway(
        gateway.port(),
        "--req Command=ConfigMail --req Pop3=127.0.0.1 --req Port=" + std::to_string(port) +
            " --req Login=" + (login.empty() ? account.user : login) +
            " --req Pwd=" + (login.empty() ? account.password : "pw") +
            " --req Mobile=13800000000 --param Config=" + config + " --param Polling=" + polling);
    ASSERT_EQ(answer.status, 0) << answer.output;
  }
  // The arguments of every call of the notification program so far, in order of their text.
  std::vector<std::vector<std::string>> Calls() const {
    std::vector<std::vector<std::string>> calls;
    for (const auto& entry : std::filesystem::directory_iterator(notify_.path())) {
      const std::string name = entry.path().filename(), text = test::ReadFile(entry.path());
      if (!name.starts_with("call.") || name.ends_with(".tmp")) continue;
      std::vector<std::string>& arguments = calls.emplace_back();
      for (size_t start = 0, end; (end = text.find('\0', start)) != std::string::npos;
           start = end + 1)
        arguments.push_back(text.substr(start, end - start));
    }
    std::sort(calls.begin(), calls.end());
    return calls;
  }
  // Waits up to 30 s for `done`.
  static bool WaitFor(const std::function<bool()>& done) {
    for (int i = 0; i < 300 && !done(); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return done();
  }
  // True once the log shows `count` checks of `key` (the last one begun).
  static bool Checked(const GatewayProcess& gateway, const std::string& key, size_t count) {
    return WaitFor(
        [&] { return CountOf(gateway.LogText(), "Check mail account: " + key + "\n") >= count; });
  }
  std::string Key() const { return pop3_.Mailbox("NOTIFY").user + "@127.0.0.1"; }

  test::Pop3ServerEnv pop3_{CORVANE_POP3_ENV_FILE};
  test::TempDir notify_;
  test::ScopedEnv utc_{"TZ", "UTC"};
};

TEST_F(CheckMailTest, OnlyTheUnknownMessageIsAnnouncedAndNeverTwice) {
  GatewayProcess gateway(Config());
  const std::string cache = gateway.dir() / ("cache/" + Key() + ":" + pop3_.Get("POP3_PORT") + "/");
  std::filesystem::create_directories(cache);
  test::WriteFile(cache + "mail.list", "1700000001.M1P4242.mailhost,1700000002.M2P4242.mailhost");
  ASSERT_TRUE(gateway.Start());
  Register(gateway, pop3_.Port("POP3_PORT"));
  // A second check has begun: the first is over, and announced once.
  ASSERT_TRUE(Checked(gateway, Key(), 2)) << gateway.LogText();
  EXPECT_EQ(Calls(), std::vector<std::vector<std::string>>{kNewMessageArguments});
  // The subject reached the program as text: nothing in it was run.
  for (const std::string& where : {gateway.dir().path(), notify_.path(), std::string(".")})
    for (const char* marker : {"/pwned", "/pwned2"})
      EXPECT_FALSE(std::filesystem::exists(where + marker));
  EXPECT_EQ(test::ReadFile(cache + "mail.list"),
            "1700000001.M1P4242.mailhost,1700000002.M2P4242.mailhost,1700000003.M3P4242.mailhost");
  EXPECT_NE(gateway.LogText().find("Run: " + (notify_ / "notify") + " \"13800000000\" \""),
            std::string::npos);

  // Across a restart the saved list keeps the message from being announced again.
  EXPECT_EQ(gateway.Stop(), 0);
  ASSERT_TRUE(gateway.Start());
  ASSERT_TRUE(Checked(gateway, Key(),
                      CountOf(gateway.LogText(), "Check mail account: " + Key() + "\n") + 2));
  EXPECT_EQ(Calls().size(), 1u);
}

TEST_F(CheckMailTest, AnAccountWithPollingOffHoldsThePassUntilItIsOn) {
  GatewayProcess gateway(Config());
  ASSERT_TRUE(gateway.Start());
  // Added first and switched off: a pass begun after both were added waits on it.
  Register(gateway, pop3_.Port("POP3_PORT"), "stop", "held@example.org");
  const size_t added = gateway.LogText().size();
  Register(gateway, pop3_.Port("POP3_PORT"));
  ASSERT_TRUE(WaitFor(
      [&] { return gateway.LogText().find("Start check mail", added) != std::string::npos; }));
  const std::string held = gateway.LogText();
  Register(gateway, pop3_.Port("POP3_PORT"), "start", "held@example.org", "update");
  ASSERT_TRUE(Checked(gateway, Key(), 1)) << gateway.LogText();
  const std::string log = gateway.LogText();
  // Nothing was checked while held; then the held account, then the other.
  EXPECT_EQ(CountOf(held, "Check mail account: "), 0u) << held;
  EXPECT_LT(log.find("Check mail account: held@example.org\n"),
            log.find("Check mail account: " + Key()))
      << log;
  EXPECT_EQ(CountOf(log.substr(0, log.find("Check mail account: ")), "Start check mail"),
            CountOf(held, "Start check mail"))
      << "a new pass began while one was held";
}

TEST_F(CheckMailTest, AGatewayKilledRightAfterANoticeNeverRepeatsIt) {
  // The first call of the program kills the gateway, as a crash would,
  // while the server keeps the pass waiting on the next header.
  test::WriteFile(notify_ / "notify",
                  std::string(kNotifyScript) +
                      "[ -e \"$(dirname \"$0\")/crashed\" ] ||"
                      " { touch \"$(dirname \"$0\")/crashed\"; kill -KILL $PPID; }\n");
  auto session = [](std::vector<test::Step> then) {
    return test::Join(
        {test::Pop3Login(), test::Pop3Listing(2, "1 first\r\n2 second\r\n"), std::move(then)});
  };
  // After the restart only the message never announced is fetched.
  test::ScriptedPeer server(
      test::Join(
          {session({test::Expect("TOP 1 0\r\n"), test::Send("+OK\r\nSubject: one\r\n\r\n.\r\n"),
                    test::Drain(15000), test::Accept()}),
           session({test::Expect("TOP 2 0\r\n"), test::Send("+OK\r\nSubject: two\r\n\r\n.\r\n"),
                    test::Expect("QUIT\r\n"), test::Send("+OK\r\n")})}),
      15000);
  GatewayProcess gateway(Config());
  ASSERT_TRUE(gateway.Start());
  Register(gateway, server.port(), "start", "joe");
  ASSERT_TRUE(WaitFor([&] { return std::filesystem::exists(notify_ / "crashed"); }));
  ASSERT_EQ(gateway.Stop(15), 128 + SIGKILL);  // reaps what the program killed
  ASSERT_TRUE(gateway.Start());
  EXPECT_TRUE(server.Finish()) << server.Errors();
  ASSERT_TRUE(WaitFor([&] { return Calls().size() >= 2; }));
  const auto calls = Calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0][3], "one");
  EXPECT_EQ(calls[1][3], "two");
}

}  // namespace
}  // namespace corvane
