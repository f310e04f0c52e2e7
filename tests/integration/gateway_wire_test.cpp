// The real gateway and corvane-cli together: what only the two programs show.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include "support/command_output.h"
#include "support/gateway_process.h"
#include "support/pop3_script.h"
#include "support/scripted_peer.h"
#include "transport/wx_codec.h"
#include "transport/wx_record_file.h"

namespace corvane {
namespace {

using test::GatewayProcess;

test::CommandOutput RunCli(const std::string& arguments, const std::string& input = "") {
  test::TempDir scratch;
  test::WriteFile(scratch / "in", input);
  return test::RunCommand(std::string("'") + CORVANE_CLI + "' " + arguments + " < '" +
                          (scratch / "in") + "'");
}

test::CommandOutput RunCli(const GatewayProcess& gateway, const std::string& arguments) {
  return RunCli("--port " + std::to_string(gateway.port()) + " " + arguments);
}

std::string AppendAccount(const std::string& login) {
  return "--req Command=ConfigMail --req Pop3=pop.local --req Port=995 --req Login=" + login +
         " --req Pwd=secret --req Mobile=139 --param Config=append --param Polling=start";
}

TEST(GatewayWireTest, CliAddsAnAccountOnceRepeatsEncodesAndReportsAnUnreachableGateway) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.Start());
  test::CommandOutput added = RunCli(gateway, AppendAccount("joe"));
  EXPECT_EQ(added.status, 0) << added.output;
  EXPECT_NE(added.output.find("Status = success"), std::string::npos) << added.output;
  test::CommandOutput again = RunCli(gateway, AppendAccount("joe") + " --json");
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.output,
            "{\"sysRESPONSE\":{\"Command\":\"ConfigMail\",\"Status\":\"fail\","
            "\"Log\":\"Account is already exist\"}}\n");

  test::CommandOutput repeated = RunCli(gateway, "--repeat 3 --rapid --req Command=Ping");
  EXPECT_EQ(repeated.status, 1);
  size_t count = 0;
  for (size_t at = 0; (at = repeated.output.find("Log = Unknow command", at)) != std::string::npos;
       ++at) {
    ++count;
  }
  EXPECT_EQ(count, 3u) << repeated.output;

  const std::string plain = "1210sysREQUEST10217Command18ListMail";
  test::CommandOutput encoded = RunCli("encode", plain);
  EXPECT_EQ(encoded.output, wxCodec::Encode(plain));
  EXPECT_EQ(RunCli("decode", encoded.output).output, plain);

  test::CommandOutput unreachable =
      RunCli("--port " + std::to_string(test::FreePort()) + " --req Command=ListMail");
  EXPECT_EQ(unreachable.status, 2);
  EXPECT_NE(unreachable.output.find("cannot connect to 127.0.0.1:"), std::string::npos)
      << unreachable.output;
  EXPECT_EQ(RunCli("--port 99999 --req Command=X").status, 2);
}

std::vector<test::Step> SilentPop3() {
  return {test::Send("+OK ready\r\n"), test::Expect("USER joe\r\n"), test::Drain(120000)};
}

// A mailbox of one message whose TOP is answered by `top`, listed by STAT
// with `count` messages.
std::vector<test::Step> OneMessagePop3(std::vector<test::Step> top, int count = 1) {
  return test::Join({test::Pop3Login(),
                     test::Pop3Listing(count, "1 a\r\n"),
                     {test::Expect("TOP 1 0\r\n")},
                     std::move(top)});
}

std::string ListMailAt(const test::ScriptedPeer& server) {
  return "--req Command=ListMail --req Pop3=127.0.0.1 --req Port=" + std::to_string(server.port()) +
         " --req Login=joe --req Pwd=pw";
}

// The stop comes while accounts are being added and a mail server hangs a
// request that has no time limit of its own.
TEST(GatewayWireTest, SigtermEndsHungRequestsAndLosesNoConfirmedAccount) {
  GatewayProcess gateway("pop3_timeout=60\noperation_timeout=0\n");
  ASSERT_TRUE(gateway.Start());
  test::ScriptedPeer server(SilentPop3(), 5000);
  std::thread hung([&] { RunCli(gateway, ListMailAt(server)); });
  std::mutex mutex;
  std::condition_variable changed;  // a login confirmed
  std::multiset<std::string> confirmed;
  std::atomic<bool> stopping{false};
  std::thread traffic([&] {
    for (int i = 0; i < 200 && !stopping; ++i) {
      std::string login = "user" + std::to_string(i);
      if (RunCli(gateway, AppendAccount(login)).output.find("Status = success") !=
          std::string::npos) {
        std::lock_guard lock(mutex);
        confirmed.insert(login);
        changed.notify_all();
      }
    }
  });
  {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, std::chrono::seconds(30), [&] { return confirmed.size() >= 5; });
  }
  for (int i = 0; i < 400 && server.Connections() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  EXPECT_EQ(gateway.Stop(10), 0);
  stopping = true;
  traffic.join();
  hung.join();
  EXPECT_NE(gateway.LogText().find(" Program terminal\n"), std::string::npos);
  wxRecordFile file(gateway.dir() / "account.dat");
  file.SetEncipher(true);
  std::multiset<std::string> saved;
  for (int n = file.CountRecords(); n > 0; --n) {
    std::string record = file.ReadRecord().value_or("<none>");
    saved.insert(record.substr(0, record.find(',')));
  }
  for (const std::string& login : confirmed) EXPECT_EQ(saved.count(login), 1u) << login;
}

TEST(HostileMailServerTest, EachRequestEndsWithAnAnswerWithinItsBounds) {
  std::string manyFields = "+OK\r\nSubject: many\r\n";
  for (int i = 0; i < 300000; ++i) manyFields += "X-A: b\r\n";
  const std::vector<test::Step> quit = {test::Expect("QUIT\r\n"), test::Send("+OK\r\n")};
  struct Case {
    const char* name;
    std::vector<test::Step> server;
    const char* answer;  // a line of what the client is shown
  } cases[] = {
      {"silent after the greeting", SilentPop3(), "Log = Connect pop3 server error"},
      {"a header line every 200 ms",
       OneMessagePop3({test::Repeat("+OK\r\n", "X-Slow: y\r\n", 200)}),
       "Log = Connect pop3 server error"},
      {"one header line without end", OneMessagePop3({test::Repeat("+OK\r\nX-Long: ", "aaaaaaaa")}),
       "Log = Connect pop3 server error"},
      {"an id list without end",
       test::Join({test::Pop3Login(),
                   {test::Expect("STAT\r\n"), test::Send("+OK 5 9\r\n"), test::Expect("UIDL\r\n"),
                    test::Repeat("+OK\r\n", "1 again\r\n")}}),
       "Log = Connect pop3 server error"},
      {"a count of 2147483647",
       OneMessagePop3(test::Join({{test::Send("+OK\r\nSubject: counted\r\n.\r\n")}, quit}),
                      2147483647),
       "Status = success"},
      {"a header of 300,000 fields",
       OneMessagePop3(test::Join({{test::Send(manyFields + ".\r\n")}, quit})), "Status = success"}};
  GatewayProcess gateway("log_level=debug\npop3_timeout=60\noperation_timeout=2\n");
  ASSERT_TRUE(gateway.Start());
  for (Case& c : cases) {
    test::ScriptedPeer server(std::move(c.server), 5000);
    const auto start = std::chrono::steady_clock::now();
    test::CommandOutput answer = RunCli(gateway, ListMailAt(server));
    EXPECT_NE(answer.output.find(c.answer), std::string::npos) << c.name << "\n" << answer.output;
    // The servers alone would hold it for minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << c.name;
  }
  EXPECT_NE(gateway.LogText().find("ListMail did not end within 2 seconds"), std::string::npos);
}

}  // namespace
}  // namespace corvane
