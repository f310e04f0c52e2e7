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

// The three settings every login ends with.
std::vector<Step> Settings() {
  return Dialogue("C: TYPE I\nS: 200 ok\nC: MODE S\nS: 200 ok\nC: STRU F\nS: 200 ok");
}

// A server that greets, logs the user in at USER and takes the settings.
std::vector<Step> LoggedIn(std::vector<Step> then = {}) {
  return Join({Dialogue("S: 220 ready\nC: USER up\nS: 230 in"), Settings(), std::move(then)});
}

// Everything that arrives on `fd` until the other side closes (or 5 s of
// silence); closes it.
std::string ReadUntilClosed(int fd) {
  timeval wait{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  std::string received;
  char chunk[4096];
  for (ssize_t n; (n = recv(fd, chunk, sizeof chunk, 0)) > 0;)
    received.append(chunk, static_cast<size_t>(n));
  close(fd);
  return received;
}

// A step that connects to the client's data port, as a server does after
// STOR, from 127.0.0.1, and reads what arrives. Someone at 127.0.0.2 tries
// first; what it got lands in `intruded`.
Step ReceiveOnDataPort(int port, std::string& received, std::string& intruded) {
  return Do([port, &received, &intruded](PeerSession&, std::string& error) {
    for (std::string* into : {&intruded, &received}) {
      int fd = socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in address{AF_INET, htons(0), {}, {}};
      inet_pton(AF_INET, into == &intruded ? "127.0.0.2" : "127.0.0.1", &address.sin_addr);
      int bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
      address.sin_port = htons(static_cast<uint16_t>(port));
      inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
      if (bound != 0 || connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        error = "cannot connect to the data port " + std::to_string(port);
        return false;
      }
      *into = ReadUntilClosed(fd);
    }
    return true;
  });
}

class FtpClientTest : public ::testing::Test {
 protected:
  int Connect(ScriptedPeer& peer) {
    client_.SetPort(peer.port());
    client_.SetReceiveTimeOut(2000);
    return client_.FtpConnect("127.0.0.1", "up", "secret", "acct");
  }
  // A source of `content` to store.
  static std::unique_ptr<BufferDataSource> Source(const std::string& content) {
    auto source = std::make_unique<BufferDataSource>(static_cast<int64_t>(content.size()), "n");
    source->Open(DataSource::kOpenWrite);
    source->Write(content.data(), static_cast<int>(content.size()));
    source->Close();
    return source;
  }
  FtpClient client_;
};

TEST_F(FtpClientTest, TheGreetingThenEachLoginStepHasItsCode) {
  const std::string ready = "220 ready\r\n";
  auto password = [](std::vector<Step> after) {
    return Join(
        {{Expect("USER up\r\n"), Send("331 password\r\n"), Expect("PASS secret\r\n")}, after});
  };
  auto account = [&](const char* reply) {
    return password({Send("332 account\r\n"), Expect("ACCT acct\r\n"), Send(reply)});
  };
  struct Case {
    std::string greeting;
    std::vector<Step> login;
    int code;
  } cases[] = {
      {ready, {Expect("USER up\r\n"), Send("530 no\r\n")}, kNetUserRejected},
      {ready, password({Send("530 wrong\r\n")}), kNetPassRejected},
      {ready, account("530 no\r\n"), kNetAcctRejected},
      {ready, account("230 in\r\n"), 0},
      {ready, {Expect("USER up\r\n"), Pause(3000)}, kNetNoResponse},
      {ready,
       {Expect("USER up\r\n"), Repeat("230-Welcome\r\n", "230-and more\r\n")},
       kNetNoResponse},
      // The greeting is read whole before USER: several lines, or a 120 that
      // asks to wait for the 220; a server that refuses gets no USER at all.
      {"220-Welcome\r\n220-to the test\r\n220 ready\r\n", password({Send("230 in\r\n")}), 0},
      {"120 in a minute\r\n220 ready\r\n", password({Send("230 in\r\n")}), 0},
      {"421 too many of you\r\n", {}, kNetConnectFailed},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(Printable(c.greeting) + " code " + std::to_string(c.code));
    std::vector<Step> settings = c.code == 0 ? Settings() : std::vector<Step>{};
    ScriptedPeer peer(Join({{Send(c.greeting)}, std::move(c.login), std::move(settings)}));
    FtpClient client;
    client.SetPort(peer.port());
    client.SetReceiveTimeOut(2000);
    EXPECT_EQ(client.FtpConnect("127.0.0.1", "up", "secret", "acct"), c.code);
    EXPECT_LE(client.ReplyLines().size(), static_cast<size_t>(limits::kMaxReplyLines));
    client.CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    if (c.code == kNetConnectFailed) {
      EXPECT_EQ(peer.Received(), "");
    }
  }
}

TEST_F(FtpClientTest, DirectoryRepliesMapToCodesAndQuitIsNotAwaited) {
  ScriptedPeer peer(
      LoggedIn(Join({Dialogue("C: CWD /in/box\nS: 550 missing\nC: MKD /in/box\nS: 257 created\n"
                              "C: CWD /in/box\nS: 250 ok\nC: CWD x"),
                     {Pause(2500), Expect("Quit\r\n"), ExpectClose()}})));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_EQ(client_.ChangeDir("/in/box"), kNetRequestDenied);
  EXPECT_EQ(client_.MakeDir("/in/box"), 0);
  EXPECT_EQ(client_.ChangeDir("/in/box"), 0);
  EXPECT_EQ(client_.ChangeDir("x"), kNetNoResponse);
  EXPECT_EQ(client_.FtpClose(), 0);
  EXPECT_FALSE(client_.IsConnected());
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(FtpClientTest, ArgumentsThatWouldNotStayOneLineAreRefusedUnsent) {
  const std::string hostile[] = {"x\r\nDELE important",  "x\rDELE important",
                                 "x\nDELE important",    "\r\n",
                                 std::string(300, '\n'), std::string(300, 'a')};
  uint16_t closedPort = ClosedPort();
  for (const std::string& value : hostile) {
    SCOPED_TRACE(Printable(value));
    FtpClient refused;  // a refused login does not even connect
    refused.SetPort(closedPort);
    EXPECT_EQ(refused.FtpConnect("127.0.0.1", value.c_str(), "pw", ""), kNetInvalidParameter);
    EXPECT_EQ(refused.FtpConnect("127.0.0.1", "up", value.c_str(), ""), kNetInvalidParameter);
    ScriptedPeer peer(LoggedIn({Expect("Quit\r\n")}));
    ASSERT_EQ(Connect(peer), 0);
    EXPECT_EQ(client_.ChangeDir(value.c_str()), kNetInvalidParameter);
    EXPECT_EQ(client_.MakeDir(value.c_str()), kNetInvalidParameter);
    EXPECT_EQ(client_.StoreFromDataSource(*Source("x"), value.c_str()), kNetInvalidParameter);
    client_.FtpClose();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

TEST_F(FtpClientTest, ActiveStoreSkipsABusyPortAndTakesOnlyTheServer) {
  const int firstPort = 20000 + getpid() % 5000, offered = firstPort + 1;
  int busy = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(firstPort)), {htonl(INADDR_ANY)}, {}};
  ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(busy, 1), 0);
  std::string content, received, intruded = "not connected";
  for (int i = 0; i < 2000; ++i) content += "line " + std::to_string(i) + "\r\n";
  const std::string port =
      "127,0,0,1," + std::to_string(offered / 256) + "," + std::to_string(offered % 256);
  ScriptedPeer peer(LoggedIn({Expect("PORT " + port + "\r\n"), Send("200 PORT ok\r\n"),
                              Expect("STOR note.txt\r\n"), Send("150 go ahead\r\n"),
                              ReceiveOnDataPort(offered, received, intruded), Send("226 done\r\n"),
                              Expect("PORT 127,0,0,1,125,0\r\n"), Send("500 no\r\n"),
                              Expect("PORT 127,0,0,1,39,16\r\n"), Send("200 ok\r\n"),
                              Expect("STOR x\r\n"), Send("553 denied\r\n")}));
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
  struct Case {
    std::string epsv, pasv;  // replies with {port} or {p1},{p2}; no PASV when pasv is empty
    std::string stor, final;
    int code;
  };
  const std::string extended = "229 Entering Extended Passive Mode (|||{port}|)\r\n";
  const Case cases[] = {
      {extended, "", "150 go ahead\r\n", "226 done\r\n", 0},
      // The address of a 227 is not followed: the data goes to this server.
      {"500 what\r\n", "227 Entering Passive Mode (10,9,8,7,{p1},{p2})\r\n", "125 go\r\n",
       "250 stored\r\n", 0},
      {"229 (|||99999|)\r\n", "227 =127,0,0,1,{p1},{p2}\r\n", "150 go\r\n", "226 done\r\n", 0},
      {"502 no\r\n", "500 no\r\n", "", "", kNetDataPortUnavailable},
      {extended, "", "250 no mark that a transfer starts\r\n", "", kNetStorFailed},
      {extended, "", "150 go ahead\r\n", "451 disk full\r\n", kNetConnectTerminated},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.epsv + c.pasv + c.stor + c.final);
    uint16_t port = 0;
    int listener = ListenOnLoopback(port, 1);
    auto offer = [port](std::string text) {
      const std::pair<const char*, int> marks[] = {
          {"{port}", port}, {"{p1}", port / 256}, {"{p2}", port % 256}};
      for (auto [mark, value] : marks) {
        if (size_t at = text.find(mark); at != std::string::npos) {
          text.replace(at, std::strlen(mark), std::to_string(value));
        }
      }
      return text;
    };
    std::string received;
    Step receive = Do([listener, &received](PeerSession&, std::string& error) {
      pollfd waiting{listener, POLLIN, 0};
      int fd = poll(&waiting, 1, 5000) == 1 ? accept(listener, nullptr, nullptr) : -1;
      if (fd < 0) error = "the client did not connect to the passive port";
      if (fd >= 0) received = ReadUntilClosed(fd);
      return fd >= 0;
    });
    std::vector<Step> script = LoggedIn({Expect("EPSV\r\n"), Send(offer(c.epsv))});
    if (!c.pasv.empty()) {
      script = Join({std::move(script), {Expect("PASV\r\n"), Send(offer(c.pasv))}});
    }
    if (!c.stor.empty()) {
      script = Join({std::move(script), {Expect("STOR note.txt\r\n"), Send(c.stor)}});
    }
    if (!c.final.empty()) script = Join({std::move(script), {receive, Send(c.final)}});
    ScriptedPeer peer(std::move(script));
    FtpClient client;
    client.SetPassive(true);
    client.SetPort(peer.port());
    ASSERT_EQ(client.FtpConnect("127.0.0.1", "up", "secret", "acct"), 0);
    EXPECT_EQ(client.StoreFromDataSource(*Source("a\r\nb\xff\nc\rd"), "note.txt"), c.code);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(received, c.final.empty() ? "" : "a\r\nb\xff\nc\rd");
    close(listener);
  }
}

TEST(FtpPassiveReplyTest, OnlyAWellFormedOfferGivesAPort) {
  const std::tuple<int, std::string, std::optional<unsigned>> cases[] = {
      {229, "229 Entering Extended Passive Mode (|||6446|)", 6446},
      {229, "229 ok (!!!21!)", 21},
      {229, "229 (|||65535|)", 65535},
      {229, "229 (|||65536|)", std::nullopt},
      {229, "229 (|||0|)", std::nullopt},
      {229, "229 (|||4294967318|)", std::nullopt},  // 22 after a 32-bit wrap
      {229, "229 (||6446|)", std::nullopt},
      {229, "229 (|||6446)", std::nullopt},
      {229, "229 (|||6446|", std::nullopt},
      {229, "229 (1116461)", std::nullopt},
      {229, "229 (", std::nullopt},
      {227, "227 Entering Passive Mode (127,0,0,1,25,46)", 6446},
      {227, "227 =10,0,0,1,0,21", 21},
      {227, "227 (1,2,3,4,256,1)", std::nullopt},
      {227, "227 (1,2,3,4,5)", std::nullopt},
      {227, "227 (1,2,3,4,0,0)", std::nullopt},
      {227, "227 (1,2,3,4,0021,1)", std::nullopt},
      {227, "227", std::nullopt},
      {200, "200 (|||6446|) (127,0,0,1,25,46)", std::nullopt},
  };
  for (const auto& [code, reply, port] : cases)
    EXPECT_EQ(PassiveDataPort(code, reply), port) << reply;
}

}  // namespace
}  // namespace corvane
