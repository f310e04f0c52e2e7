// The real gateway and corvane-cli together: what only the two programs show.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

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
std::string At(int port) {
  return "--port " + std::to_string(port) + " ";
}
std::string AppendAccount(const std::string& login) {
  return "--req Command=ConfigMail --req Pop3=pop.local --req Port=995 --req Login=" + login +
         " --req Pwd=secret --req Mobile=139 --param Config=append --param Polling=start";
}
size_t Count(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

TEST(GatewayWireTest, CliAddsAnAccountOnceRepeatsEncodesAndReportsAnUnreachableGateway) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.Start());
  test::CommandOutput added = RunCli(At(gateway.port()) + AppendAccount("joe"));
  EXPECT_EQ(added.status, 0) << added.output;
  EXPECT_EQ(Count(added.output, "Status = success"), 1u) << added.output;
  test::CommandOutput again = RunCli(At(gateway.port()) + AppendAccount("joe") + " --json");
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.output,
            "{\"sysRESPONSE\":{\"Command\":\"ConfigMail\",\"Status\":\"fail\","
            "\"Log\":\"Account is already exist\"}}\n");
  test::CommandOutput repeated =
      RunCli(At(gateway.port()) + "--repeat 3 --rapid --req Command=Ping");
  EXPECT_EQ(repeated.status, 1);
  EXPECT_EQ(Count(repeated.output, "Log = Unknow command"), 3u) << repeated.output;

  const std::string plain = "1210sysREQUEST10217Command18ListMail";
  test::CommandOutput encoded = RunCli("encode", plain);
  EXPECT_EQ(encoded.output, wxCodec::Encode(plain));
  EXPECT_EQ(RunCli("decode", encoded.output).output, plain);
  test::CommandOutput unreachable = RunCli(At(test::FreePort()) + "--req Command=ListMail");
  EXPECT_EQ(unreachable.status, 2);
  EXPECT_EQ(Count(unreachable.output, "cannot connect to 127.0.0.1:"), 1u) << unreachable.output;
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
std::string ListMailAt(const GatewayProcess& gateway, const test::ScriptedPeer& server) {
  return At(gateway.port()) +
         "--req Command=ListMail --req Pop3=127.0.0.1 --req Port=" + std::to_string(server.port()) +
         " --req Login=joe --req Pwd=pw";
}

// The stop comes while accounts are being added and a mail server hangs a
// request that has no time limit of its own.
TEST(GatewayWireTest, SigtermEndsHungRequestsAndLosesNoConfirmedAccount) {
  GatewayProcess gateway("pop3_timeout=60\noperation_timeout=0\n");
  ASSERT_TRUE(gateway.Start());
  test::ScriptedPeer server(SilentPop3(), 5000);
  std::thread hung([&] { RunCli(ListMailAt(gateway, server)); });
  std::vector<std::string> confirmed;  // the traffic thread's own until it is joined
  std::atomic<size_t> confirmedCount{0};
  std::atomic<bool> stopping{false};
  std::thread traffic([&] {
    for (int i = 0; i < 200 && !stopping; ++i) {
      std::string login = "user" + std::to_string(i);
      if (Count(RunCli(At(gateway.port()) + AppendAccount(login)).output, "Status = success")) {
        confirmed.push_back(login);
        ++confirmedCount;
      }
    }
  });
  for (int i = 0; i < 1200 && (confirmedCount < 5 || server.Connections() == 0); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  EXPECT_EQ(gateway.Stop(10), 0);
  stopping = true;
  traffic.join();
  hung.join();
  EXPECT_EQ(Count(gateway.LogText(), " Program terminal\n"), 1u);
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
  const std::vector<test::Step> quit = {test::Expect("QUIT\r\n"), test::Send("+OK\r\n")};
  std::string ids;
  for (int i = 1; i <= 1000; ++i) ids += std::to_string(i) + " id" + std::to_string(i) + "\r\n";
  const char* const kFailed = "Log = Connect pop3 server error";
  struct Case {
    const char* name;
    std::vector<test::Step> server;
    const char* answer;  // a line of what the client is shown
  } cases[] = {{"silent after the greeting", SilentPop3(), kFailed},
               {"a header line every 200 ms",
                OneMessagePop3({test::Repeat("+OK\r\n", "X-Slow: y\r\n", 200)}), kFailed},
               {"one header line without end",
                OneMessagePop3({test::Repeat("+OK\r\nX-Long: ", "aaaaaaaa")}), kFailed},
               {"an id list without end",
                test::Join({test::Pop3Login(),
                            {test::Expect("STAT\r\n"), test::Send("+OK 5 9\r\n"),
                             test::Expect("UIDL\r\n"), test::Repeat("+OK\r\n", "1 again\r\n")}}),
                kFailed},
               {"a count of 2147483647",
                OneMessagePop3(test::Join({{test::Send("+OK\r\nSubject: counted\r\n.\r\n")}, quit}),
                               2147483647),
                "Status = success"},
               {"a thousand ids, then gone",
                test::Join({test::Pop3Login(), test::Pop3Listing(1000, ids), {test::Close()}}),
                "Status = success"}};
  GatewayProcess gateway("log_level=debug\npop3_timeout=60\noperation_timeout=2\n");
  ASSERT_TRUE(gateway.Start());
  for (Case& c : cases) {
    test::ScriptedPeer server(std::move(c.server), 5000);
    const auto start = std::chrono::steady_clock::now();
    test::CommandOutput answer = RunCli(ListMailAt(gateway, server));
    EXPECT_EQ(Count(answer.output, c.answer), 1u) << c.name << "\n" << answer.output;
    // The servers alone would hold it for minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10)) << c.name;
  }
  EXPECT_GE(Count(gateway.LogText(), "ListMail did not end within 2 seconds"), 1u);
  // A line for the first header that could not be read, one for the rest.
  EXPECT_LT(Count(gateway.LogText(), "Load pop3 message error: "), std::size(cases));
  EXPECT_EQ(Count(gateway.LogText(), "error for 999 more messages"), 1u);
}

}  // namespace
}  // namespace corvane
