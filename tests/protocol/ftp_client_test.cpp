// The FTP client against scripted peers: greeting and login replies,
// directory commands, the active store with its data-port walk, the passive
// store, and Quit.
#include "protocol/ftp_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>

#include "base/limits.h"
#include "protocol/ftp_passive_reply.h"
#include "stream/buffer_data_source.h"
#include "support/scripted_peer.h"

namespace corvane {
namespace {

using namespace test;

// A server that greets, logs the user in at USER and takes the settings
// every login ends with, then `then`.
std::vector<Step> LoggedIn(const std::string& then = "") {
  return Dialogue(
      "S: 220 ready\nC: USER up\nS: 230 in\nC: TYPE I\nS: 200 ok\nC: MODE S\nS: 200 ok\n"
      "C: STRU F\nS: 200 ok\n" +
      then);
}

// Everything that arrives on `fd` until the other side closes (or 5 s of
// silence); closes it.
std::string ReadUntilClosed(int fd) {
  timeval wait{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  std::string received;
  char chunk[4096];
  for (ssize_t n; (n = recv(fd, chunk, sizeof chunk, 0)) > 0;) received.append(chunk, size_t(n));
  close(fd);
  return received;
}

// A source of `content` to store.
std::unique_ptr<BufferDataSource> Source(const std::string& content) {
  auto source = std::make_unique<BufferDataSource>(static_cast<int64_t>(content.size()), "n");
  source->Open(DataSource::kOpenWrite);
  source->Write(content.data(), static_cast<int>(content.size()));
  source->Close();
  return source;
}

class FtpClientTest : public ::testing::Test {
 protected:
  int Connect(ScriptedPeer& peer, bool passive = false) {
    client_.SetPassive(passive);
    client_.SetPort(peer.port());
    client_.SetReceiveTimeOut(2000);
    return client_.FtpConnect("127.0.0.1", "up", "secret", "acct");
  }
  FtpClient client_;
};

TEST_F(FtpClientTest, TheGreetingThenEachLoginStepHasItsCode) {
  const std::string settings = "C: TYPE I\nS: 200 ok\nC: MODE S\nS: 200 ok\nC: STRU F\nS: 200 ok";
  const std::string password = "S: 220 ready\nC: USER up\nS: 331 password\nC: PASS secret\n";
  const std::string account = password + "S: 332 account\nC: ACCT acct\n";
  const std::pair<std::vector<Step>, int> cases[] = {
      {Dialogue("S: 220 ready\nC: USER up\nS: 530 no"), kNetUserRejected},
      {Dialogue(password + "S: 530 wrong"), kNetPassRejected},
      {Dialogue(password), kNetNoResponse},  // closed without a word
      {Dialogue(account), kNetNoResponse},
      {Dialogue(account + "S: 530 no"), kNetAcctRejected},
      {Dialogue(account + "S: 230 in\n" + settings), 0},
      {Join({Dialogue("S: 220 ready\nC: USER up"), {Pause(3000)}}), kNetNoResponse},
      {Join(
           {Dialogue("S: 220 ready\nC: USER up"), {Repeat("230-Welcome\r\n", "230-and more\r\n")}}),
       kNetNoResponse},
      // The greeting is read whole before USER: several lines, or a 120 that
      // asks to wait for the 220; a server that refuses gets no USER at all.
      {Dialogue("S: 220-Welcome\nS: 220-to the test\n" + password + "S: 230 in\n" + settings), 0},
      {Dialogue("S: 120 in a minute\n" + password + "S: 230 in\n" + settings), 0},
      {Join({Dialogue("S: 421 too many of you"), {ExpectClose()}}), kNetConnectFailed}};
  for (const auto& [script, code] : cases) {
    SCOPED_TRACE("code " + std::to_string(code));
    ScriptedPeer peer(script);
    EXPECT_EQ(Connect(peer), code);
    EXPECT_LE(client_.ReplyLines().size(), static_cast<size_t>(limits::kMaxReplyLines));
    client_.CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

TEST_F(FtpClientTest, DirectoryRepliesHaveTheirCodesHostileArgumentsGoUnsentAndQuitIsNotAwaited) {
  ScriptedPeer peer(
      Join({LoggedIn("C: CWD /in/box\nS: 550 missing\nC: MKD /in/box\nS: 257 created\n"
                     "C: CWD /in/box\nS: 250 ok\nC: CWD x"),
            {Pause(2500), Expect("Quit\r\n"), ExpectClose()}}));
  ASSERT_EQ(Connect(peer), 0);
  for (const std::string& value :
       {std::string("x\r\nDELE a"), std::string("x\rDELE a"), std::string("x\nDELE a"),
        std::string("\r\n"), std::string(300, '\n'), std::string(300, 'a')}) {
    SCOPED_TRACE(Printable(value));
    FtpClient refused;  // a refused login does not even connect
    refused.SetPort(ClosedPort());
    EXPECT_EQ(refused.FtpConnect("127.0.0.1", value.c_str(), "pw", ""), kNetInvalidParameter);
    EXPECT_EQ(refused.FtpConnect("127.0.0.1", "up", value.c_str(), ""), kNetInvalidParameter);
    EXPECT_EQ(client_.ChangeDir(value.c_str()), kNetInvalidParameter);
    EXPECT_EQ(client_.MakeDir(value.c_str()), kNetInvalidParameter);
    EXPECT_EQ(client_.StoreFromDataSource(*Source("x"), value.c_str()), kNetInvalidParameter);
  }
  EXPECT_EQ(client_.ChangeDir("/in/box"), kNetRequestDenied);
  EXPECT_EQ(client_.MakeDir("/in/box"), 0);
  EXPECT_EQ(client_.ChangeDir("/in/box"), 0);
  EXPECT_EQ(client_.ChangeDir("x"), kNetNoResponse);
  EXPECT_EQ(client_.FtpClose(), 0);
  EXPECT_FALSE(client_.IsConnected());
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(FtpClientTest, ActiveStoreSkipsABusyPortAndTakesOnlyTheServer) {
  const int firstPort = 20000 + getpid() % 5000, offered = firstPort + 1;
  int busy = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(firstPort)), {htonl(INADDR_ANY)}, {}};
  ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(busy, 1), 0);
  std::string content, received, intruded = "not connected";
  for (int i = 0; i < 2000; ++i) content += "line " + std::to_string(i) + "\r\n";
  // Connects to the client's data port from 127.0.0.1 after STOR, as the
  // server does; someone at 127.0.0.2 tries first.
  Step dataConnection = Do([&](PeerSession&, std::string& error) {
    for (std::string* into : {&intruded, &received}) {
      int fd = socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in from{AF_INET, 0, {}, {}}, to{AF_INET, htons(uint16_t(offered)), {}, {}};
      inet_pton(AF_INET, into == &intruded ? "127.0.0.2" : "127.0.0.1", &from.sin_addr);
      inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
      if (bind(fd, reinterpret_cast<sockaddr*>(&from), sizeof from) != 0 ||
          connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
        close(fd);
        error = "cannot connect to the data port";
        return false;
      }
      *into = ReadUntilClosed(fd);
    }
    return true;
  });
  const std::string port = std::to_string(offered / 256) + "," + std::to_string(offered % 256);
  ScriptedPeer peer(
      Join({LoggedIn("C: PORT 127,0,0,1," + port +
                     "\nS: 200 PORT ok\n"
                     "C: STOR note.txt\nS: 150 go ahead"),
            {dataConnection},
            Dialogue("S: 226 done\nC: PORT 127,0,0,1,125,0\nS: 500 no\n"
                     "C: PORT 127,0,0,1,39,16\nS: 200 ok\nC: STOR x\nS: 553 denied")}));
  ASSERT_EQ(Connect(peer), 0);
  client_.SetDataPort(firstPort);
  EXPECT_EQ(client_.StoreFromDataSource(*Source(content), "note.txt"), 0);
  EXPECT_EQ(client_.DataPort(), offered + 1);
  client_.SetDataPort(32000);  // 125 * 256
  EXPECT_EQ(client_.StoreFromDataSource(*Source("x"), "x"), kNetPortFailed);
  EXPECT_EQ(client_.DataPort(), 10000);  // past 32000 the offer starts again at 10000
  EXPECT_EQ(client_.StoreFromDataSource(*Source("x"), "x"), kNetStorFailed);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(intruded, "");  // closed unread
  EXPECT_EQ(received, content);
  close(busy);
}

TEST_F(FtpClientTest, PassiveStoreConnectsOnlyToTheControlConnectionsServer) {
  // Offers carry {port}, or {p1},{p2}; then the reply that ends the transfer.
  const std::string epsv = "C: EPSV\nS: 229 (|||{port}|)\nC: STOR n\n";
  const std::tuple<std::string, std::string, int> cases[] = {
      {epsv + "S: 150 go ahead", "226 done", 0},
      // The address of a 227 is not followed: the data goes to this server.
      {"C: EPSV\nS: 500 what\nC: PASV\nS: 227 Passive (10,9,8,7,{p1},{p2})\nC: STOR n\nS: 125 go",
       "250 stored", 0},
      {"C: EPSV\nS: 229 (|||99999|)\nC: PASV\nS: 227 =127,0,0,1,{p1},{p2}\nC: STOR n\nS: 150 go",
       "226 done", 0},
      {"C: EPSV\nS: 502 no\nC: PASV\nS: 500 no", "", kNetDataPortUnavailable},
      {epsv + "S: 250 no mark that a transfer starts", "", kNetStorFailed},
      {epsv + "S: 150 go", "451 disk full", kNetConnectTerminated}};
  for (const auto& [offers, end, code] : cases) {
    SCOPED_TRACE(offers);
    uint16_t port = 0;
    int listener = ListenOnLoopback(port, 1);
    std::string script = offers, received;
    for (auto [mark, value] :
         {std::pair{"{port}", port}, {"{p1}", port / 256}, {"{p2}", port % 256}}) {
      if (size_t at = script.find(mark); at != std::string::npos) {
        script.replace(at, std::strlen(mark), std::to_string(value));
      }
    }
    Step transfer = Do([listener, &received](PeerSession&, std::string&) {
      pollfd waiting{listener, POLLIN, 0};
      int fd = poll(&waiting, 1, 5000) == 1 ? accept(listener, nullptr, nullptr) : -1;
      received = fd < 0 ? "no connection to the passive port" : ReadUntilClosed(fd);
      return true;
    });
    ScriptedPeer peer(
        Join({LoggedIn(script), end.empty() ? std::vector<Step>{}
                                            : std::vector<Step>{transfer, Send(end + "\r\n")}}));
    ASSERT_EQ(Connect(peer, true), 0);
    EXPECT_EQ(client_.StoreFromDataSource(*Source("a\r\nb\xff\nc\rd"), "n"), code);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(received, end.empty() ? "" : "a\r\nb\xff\nc\rd");
    close(listener);
    client_.CloseConnection();
  }
}

TEST(FtpPassiveReplyTest, OnlyAWellFormedOfferGivesAPort) {
  const std::pair<std::string, unsigned> offers[] = {
      {"229 Entering Extended Passive Mode (|||6446|)", 6446},
      {"229 ok (!!!21!)", 21},
      {"229 (|||65535|)", 65535},
      {"227 Entering Passive Mode (127,0,0,1,25,46)", 6446},
      {"227 =10,0,0,1,0,21", 21}};
  for (const auto& [reply, port] : offers)
    EXPECT_EQ(PassiveDataPort(std::stoi(reply), reply), port);
  // "4294967318" is 22 after a 32-bit wrap.
  for (std::string reply :
       {"229 (|||65536|)", "229 (|||0|)", "229 (|||4294967318|)", "229 (||6446|)", "229 (|||6446)",
        "229 (|||6446|", "229 (1116461)", "229 (", "227 (1,2,3,4,256,1)", "227 (1,2,3,4,5)",
        "227 (1,2,3,4,0,0)", "227 (1,2,3,4,0021,1)", "227", "200 (|||6446|) (127,0,0,1,25,46)"}) {
    EXPECT_EQ(PassiveDataPort(std::stoi(reply), reply), std::nullopt) << reply;
  }
}

}  // namespace
}  // namespace corvane
