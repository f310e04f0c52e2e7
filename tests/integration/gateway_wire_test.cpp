// The real gateway driven over its request port by corvane-cli and raw sockets.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>

#include "support/gateway_process.h"
#include "support/notify_socket.h"
#include "support/pop3_script.h"
#include "support/scoped_env.h"
#include "support/scripted_peer.h"
#include "transport/counted_string.h"
#include "transport/wx_codec.h"
#include "transport/wx_entry_log.h"
#include "transport/wx_record_file.h"

namespace corvane {
namespace {

using test::GatewayProcess;

struct CliResult {
  int status;
  std::string output;
};

CliResult RunCli(const std::string& arguments, const std::string& input = "") {
  std::string inputFile;
  std::string command = std::string("'") + CORVANE_CLI + "' " + arguments;
  test::TempDir scratch;
  if (!input.empty()) {
    test::WriteFile(scratch / "in", input);
    command += " < '" + (scratch / "in") + "'";
  }
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  std::string output;
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) output.append(chunk, n);
  int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// A raw client socket on the gateway's port.
class RawClient {
 public:
  explicit RawClient(int port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~RawClient() { close(fd_); }
  bool connected() const { return connected_; }

  void Send(std::string_view bytes) { send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

  // Bytes received within `ms`, stopping early once `want` bytes are in or the
  // peer has closed.
  std::string Receive(size_t want, int ms = 5000) {
    std::string got;
    char chunk[65536];
    while (got.size() < want) {
      pollfd ready{fd_, POLLIN, 0};
      if (poll(&ready, 1, ms) <= 0) break;
      ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
      if (n <= 0) {
        closedByPeer_ = true;
        break;
      }
      got.append(chunk, static_cast<size_t>(n));
    }
    return got;
  }
  bool closedByPeer() const { return closedByPeer_; }

 private:
  int fd_;
  bool connected_ = false;
  bool closedByPeer_ = false;
};

std::string PlainRequest(const std::string& command) {
  wxEntryLog log;
  log.SetRecording(true);
  log.AddEntryText(1, "sysREQUEST", "aRequest");
  log.AddEntryText(2, "Command", command);
  log.AddEntryText(5, "0", std::nullopt);
  return log.Serialize();
}

// The framed, enciphered request for `command`.
std::string Frame(const std::string& command) {
  return CountedString::Encode(wxCodec::Encode(PlainRequest(command)));
}

// Splits received bytes into decoded answers.
std::vector<std::string> Answers(const std::string& bytes) {
  std::vector<std::string> answers;
  size_t position = 0;
  while (position < bytes.size()) {
    size_t size = CountedString::SizeAt(bytes.data() + position, bytes.size() - position);
    auto body = CountedString::DataAt(bytes.data() + position, bytes.size() - position);
    if (size == 0 || !body) break;
    answers.push_back(wxCodec::Decode(*body));
    position += size;
  }
  return answers;
}

bool AnswersCommand(const std::string& answer, const std::string& command) {
  return answer.find("217Command" + CountedString::Encode(command)) != std::string::npos;
}

class GatewayWireTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(gateway_.Start()); }
  std::string Cli(const std::string& arguments) {
    return "--port " + std::to_string(gateway_.port()) + " " + arguments;
  }
  // Answers arriving for the bytes sent (a frame of an unknown command
  // answers about 90 bytes).
  std::vector<std::string> Exchange(const std::string& bytes, size_t expectedAnswers) {
    RawClient client(gateway_.port());
    client.Send(bytes);
    return Answers(client.Receive(expectedAnswers * 80, 3000));
  }
  GatewayProcess gateway_;
};

TEST_F(GatewayWireTest, ConfigMailRoundTripsRewriteTheProfile) {
  const std::string account =
      "--req Command=ConfigMail --req Pop3=pop.local --req Port=995 --req Login=joe "
      "--req Pwd=secret --req Mobile=139 ";
  CliResult added = RunCli(Cli(account + "--param Config=append --param Polling=start"));
  EXPECT_EQ(added.status, 0) << added.output;
  EXPECT_NE(added.output.find("Status = success"), std::string::npos) << added.output;

  CliResult again = RunCli(Cli(account + "--param Config=append --param Polling=start --json"));
  EXPECT_EQ(again.status, 1);
  EXPECT_EQ(again.output,
            "{\"sysRESPONSE\":{\"Command\":\"ConfigMail\",\"Status\":\"fail\","
            "\"Log\":\"Account is already exist\"}}\n");

  std::string profile = gateway_.dir() / "account.dat";
  wxRecordFile file(profile);
  file.SetEncipher(true);
  ASSERT_EQ(file.CountRecords(), 1);
  EXPECT_STREQ(file.ReadRecord()->c_str(), "joe,pop.local,secret,995,139,1");

  EXPECT_EQ(RunCli(Cli(account + "--param Config=update --param Polling=stop")).status, 0);
  wxRecordFile updated(profile);
  updated.SetEncipher(true);
  updated.CountRecords();
  EXPECT_STREQ(updated.ReadRecord()->c_str(), "joe,pop.local,secret,995,139,0");

  EXPECT_EQ(RunCli(Cli(account + "--param Config=delete --param Polling=stop")).status, 0);
  EXPECT_FALSE(std::filesystem::exists(profile));
  EXPECT_TRUE(std::filesystem::exists(profile + ".bak"));
}

TEST_F(GatewayWireTest, CliRepeatsOverOneConnectionAndSpeaksRapid) {
  CliResult result = RunCli(Cli("--repeat 3 --rapid --req Command=Ping"));
  EXPECT_EQ(result.status, 1);
  size_t count = 0;
  for (size_t at = 0; (at = result.output.find("Log = Unknow command", at)) != std::string::npos;
       ++at) {
    ++count;
  }
  EXPECT_EQ(count, 3u) << result.output;
}

TEST_F(GatewayWireTest, RequestInOneByteSegmentsIsAnsweredOnce) {
  RawClient client(gateway_.port());
  std::string frame = Frame("Slow");
  for (char byte : frame) {
    client.Send(std::string_view(&byte, 1));
    usleep(1000);
  }
  std::vector<std::string> answers = Answers(client.Receive(1 << 20, 1500));
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(AnswersCommand(answers[0], "Slow"));
}

TEST_F(GatewayWireTest, BackToBackRequestsAreAnsweredInOrder) {
  auto answers = Exchange(Frame("First") + Frame("Second"), 2);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_TRUE(AnswersCommand(answers[0], "First"));
  EXPECT_TRUE(AnswersCommand(answers[1], "Second"));
}

TEST_F(GatewayWireTest, JunkAndZeroHeadersAreSkippedByteByByte) {
  auto answers = Exchange("0" + std::string("x\r\n00") + Frame("AfterJunk"), 1);
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(AnswersCommand(answers[0], "AfterJunk"));
}

TEST_F(GatewayWireTest, LengthLimitIs20480) {
  // 20481 is refused without an answer; its announced bytes, here a padded
  // valid frame, are then read as headers.
  std::string inner = Frame("Inside");
  auto answers = Exchange("520481" + inner + std::string(20481 - inner.size(), 'z'), 1);
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_TRUE(AnswersCommand(answers[0], "Inside"));

  // 20480 is taken as one body: it deciphers to no container, so the
  // dispatcher answers that no command was found.
  std::string body(20480, 'q');
  answers = Exchange("520480" + body + Frame("Next"), 2);
  ASSERT_EQ(answers.size(), 2u);
  EXPECT_NE(answers[0].find("Request command is wrong"), std::string::npos);
  EXPECT_TRUE(AnswersCommand(answers[1], "Next"));
}

TEST_F(GatewayWireTest, FiftyConnectionsAreServedAndTheFiftyFirstIsClosed) {
  // The start-up probe's connection counts until housekeeping reaps it.
  usleep(1500 * 1000);
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 50; ++i) {
    clients.push_back(std::make_unique<RawClient>(gateway_.port()));
    ASSERT_TRUE(clients.back()->connected());
    clients.back()->Send(Frame("Hello"));
    ASSERT_EQ(Answers(clients.back()->Receive(80)).size(), 1u) << i;  // admitted and served
  }
  RawClient extra(gateway_.port());
  extra.Send(Frame("Hello"));
  EXPECT_EQ(extra.Receive(1, 3000), "");
  EXPECT_TRUE(extra.closedByPeer());

  // A connection that leaves makes room again.
  clients.pop_back();
  usleep(1500 * 1000);  // housekeeping reaps closed connections every second
  RawClient later(gateway_.port());
  later.Send(Frame("Later"));
  EXPECT_EQ(Answers(later.Receive(80)).size(), 1u);
}

TEST_F(GatewayWireTest, SigtermWithClientsConnectedStopsCleanly) {
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 10; ++i) {
    clients.push_back(std::make_unique<RawClient>(gateway_.port()));
    clients.back()->Send(Frame("Busy").substr(0, 5));  // half a frame
  }
  EXPECT_EQ(gateway_.Stop(30), 0);
  for (auto& client : clients) {
    client->Receive(1, 1000);
    EXPECT_TRUE(client->closedByPeer());
  }
  EXPECT_NE(gateway_.LogText().find(" Program terminal\n"), std::string::npos);
}

TEST_F(GatewayWireTest, SigtermDuringAccountChangesLosesNoConfirmedAccount) {
  // Accounts are added one after another while the stop comes; every one
  // the gateway confirmed must be in the profile it leaves behind.
  std::mutex mutex;
  std::vector<std::string> confirmed;
  auto confirmedCount = [&] {
    std::lock_guard lock(mutex);
    return confirmed.size();
  };
  std::atomic<bool> stopping{false};
  std::thread traffic([&] {
    for (int i = 0; i < 200 && !stopping; ++i) {
      std::string login = "user" + std::to_string(i);
      CliResult added =
          RunCli(Cli("--req Command=ConfigMail --req Pop3=pop.local --req Login=" + login +
                     " --req Pwd=pw --req Mobile=1 --param Config=append "
                     "--param Polling=start"));
      if (added.output.find("Status = success") != std::string::npos) {
        std::lock_guard lock(mutex);
        confirmed.push_back(login);
      }
    }
  });
  while (confirmedCount() < 5) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(gateway_.Stop(30), 0);
  stopping = true;
  traffic.join();
  EXPECT_NE(gateway_.LogText().find(" Program terminal\n"), std::string::npos);

  wxRecordFile file(gateway_.dir() / "account.dat");
  file.SetEncipher(true);
  std::set<std::string> saved;
  for (int n = file.CountRecords(); n > 0; --n) {
    std::optional<std::string> record = file.ReadRecord();
    ASSERT_TRUE(record.has_value());
    saved.insert(record->substr(0, record->find(',')));
  }
  for (const std::string& login : confirmed) EXPECT_EQ(saved.count(login), 1u) << login;
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

TEST(HostileMailServerTest, EachRequestEndsWithAnAnswerWithinItsBounds) {
  std::string manyFields = "+OK\r\nSubject: many\r\n";
  for (int i = 0; i < 300000; ++i) manyFields += "X-A: b\r\n";
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
       OneMessagePop3({test::Send("+OK\r\nSubject: counted\r\n.\r\n"), test::Expect("QUIT\r\n"),
                       test::Send("+OK\r\n")},
                      2147483647),
       "Status = success"},
      {"a header of 300,000 fields",
       OneMessagePop3(
           {test::Send(manyFields + ".\r\n"), test::Expect("QUIT\r\n"), test::Send("+OK\r\n")}),
       "Status = success"},
  };
  GatewayProcess gateway("log_level=debug\npop3_timeout=60\noperation_timeout=2\n");
  ASSERT_TRUE(gateway.Start());
  for (Case& c : cases) {
    test::ScriptedPeer server(std::move(c.server), 5000);
    const auto start = std::chrono::steady_clock::now();
    CliResult answer =
        RunCli("--port " + std::to_string(gateway.port()) + " " + ListMailAt(server));
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
            .count();
    EXPECT_NE(answer.output.find(c.answer), std::string::npos) << c.name << "\n" << answer.output;
    EXPECT_LT(seconds, 10) << c.name;  // the servers alone would hold it for minutes
  }
  EXPECT_NE(gateway.LogText().find("ListMail did not end within 2 seconds"), std::string::npos);
}

TEST(HostileMailServerTest, SigtermEndsTheGatewayWhileAMailServerHangs) {
  GatewayProcess gateway("pop3_timeout=60\noperation_timeout=0\n");
  ASSERT_TRUE(gateway.Start());
  test::ScriptedPeer server(SilentPop3(), 5000);
  std::thread client(
      [&] { RunCli("--port " + std::to_string(gateway.port()) + " " + ListMailAt(server)); });
  for (int i = 0; i < 100 && server.Connections() == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_EQ(gateway.Stop(10), 0);
  client.join();
  EXPECT_NE(gateway.LogText().find(" Program terminal\n"), std::string::npos);
}

// Whether a connection to 127.0.0.1:port is accepted right now.
bool Accepts(int port) {
  RawClient client(port);
  return client.connected();
}

TEST(ServiceReadinessTest, ReadyOnlyOnceThePortAcceptsAndATakenPortExitsNonZero) {
  test::TempDir dir;
  test::NotifySocket systemd(dir / "notify");
  test::ScopedEnv notify("NOTIFY_SOCKET", (dir / "notify").c_str());
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.Start(false));
  EXPECT_EQ(systemd.Next().rfind("READY=1", 0), 0u);
  EXPECT_TRUE(Accepts(gateway.port()));  // at once: the port was bound first
  EXPECT_EQ(gateway.Stop(), 0);
  EXPECT_EQ(systemd.Next().rfind("STOPPING=1", 0), 0u);

  // A second gateway on a port that is taken: no READY, and a status a
  // supervisor retries on.
  GatewayProcess holder;
  ASSERT_TRUE(holder.Start());
  EXPECT_EQ(systemd.Next().rfind("READY=1", 0), 0u);
  GatewayProcess second;
  test::WriteFile(second.dir() / "config.ini",
                  "[Application]\nport=" + std::to_string(holder.port()) + "\n");
  ASSERT_TRUE(second.Start(false));
  EXPECT_EQ(second.WaitForExit(10), 1);
  EXPECT_EQ(systemd.Next(), "");
  EXPECT_NE(second.LogText().find("Cannot listen on port " + std::to_string(holder.port())),
            std::string::npos);
}

TEST(CliTest, EncodeAndDecodeRoundTripAndUnreachableGatewayIsAClearError) {
  std::string plain = PlainRequest("ListMail");
  CliResult encoded = RunCli("encode", plain);
  EXPECT_EQ(encoded.output, wxCodec::Encode(plain));
  CliResult decoded = RunCli("decode", encoded.output);
  EXPECT_EQ(decoded.output, plain);

  CliResult unreachable =
      RunCli("--port " + std::to_string(test::FreePort()) + " --req Command=ListMail");
  EXPECT_EQ(unreachable.status, 2);
  EXPECT_NE(unreachable.output.find("cannot connect to 127.0.0.1:"), std::string::npos)
      << unreachable.output;
  EXPECT_EQ(RunCli("--port 99999 --req Command=X").status, 2);
}

}  // namespace
}  // namespace corvane
