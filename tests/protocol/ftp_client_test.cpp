// The FTP client against scripted peers: login replies, directory commands,
// the active-mode store with its data-port walk, and Quit.
#include "protocol/ftp_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "protocol/buffer_data_source.h"
#include "service/limits.h"
#include "support/scripted_peer.h"

namespace corvane {
namespace {

using test::Expect;
using test::ScriptedPeer;
using test::Send;
using test::Step;

// The three settings every login ends with.
std::vector<Step> Settings() {
  return {Expect("TYPE A\r\n"), Send("200 ok\r\n"),   Expect("MODE S\r\n"),
          Send("200 ok\r\n"),   Expect("STRU F\r\n"), Send("200 ok\r\n")};
}

std::vector<Step> Then(std::vector<Step> first, std::vector<Step> second) {
  first.insert(first.end(), std::make_move_iterator(second.begin()),
               std::make_move_iterator(second.end()));
  return first;
}

int Connect(FtpClient& client, ScriptedPeer& peer) {
  client.SetServerPort(peer.port());
  client.SetReceiveTimeOut(2000);
  return client.FtpConnect("127.0.0.1", "up", "secret", "acct");
}

// A connection to the client's data port from the loopback address `from`,
// or -1.
int ConnectToDataPort(int port, const char* from) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in source{};
  source.sin_family = AF_INET;
  inet_pton(AF_INET, from, &source.sin_addr);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0 ||
      connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  timeval wait{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  return fd;
}

// Everything that arrives until the other side closes (or 5 s of silence).
std::string ReadUntilClosed(int fd) {
  std::string received;
  char chunk[4096];
  ssize_t n;
  while ((n = recv(fd, chunk, sizeof chunk, 0)) > 0) received.append(chunk, static_cast<size_t>(n));
  close(fd);
  return received;
}

// A step that connects to the client's data port, as a server does after
// STOR, and reads what arrives until the client closes it. With `intruded`,
// someone at another address (127.0.0.2) connects first; what it got lands
// there.
Step ReceiveOnDataPort(int port, std::string& received, std::string* intruded = nullptr) {
  return test::Do([port, &received, intruded](test::PeerSession&, std::string& error) {
    if (intruded != nullptr) {
      int other = ConnectToDataPort(port, "127.0.0.2");
      if (other < 0) {
        error = "the intruder cannot connect to the data port";
        return false;
      }
      *intruded = ReadUntilClosed(other);
    }
    int fd = ConnectToDataPort(port, "127.0.0.1");
    if (fd < 0) {
      error = "cannot connect to the data port " + std::to_string(port);
      return false;
    }
    received = ReadUntilClosed(fd);
    return true;
  });
}

TEST(FtpLoginTest, UserAcceptedAloneSendsNoPassword) {
  ScriptedPeer peer(Then({Expect("USER up\r\n"), Send("230 welcome\r\n")}, Settings()));
  FtpClient client;
  EXPECT_EQ(Connect(client, peer), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(FtpLoginTest, EachLoginStepHasItsCode) {
  struct Case {
    std::vector<Step> script;
    int code;
  };
  std::vector<Case> cases;
  cases.push_back({{Expect("USER up\r\n"), Send("530 no\r\n")}, 62});
  cases.push_back({{Expect("USER up\r\n"), Send("331 password\r\n"), Expect("PASS secret\r\n"),
                    Send("530 wrong\r\n")},
                   63});
  cases.push_back({{Expect("USER up\r\n"), Send("331 password\r\n"), Expect("PASS secret\r\n"),
                    Send("332 account\r\n"), Expect("ACCT acct\r\n"), Send("530 no\r\n")},
                   64});
  cases.push_back({{Expect("USER up\r\n"), test::Pause(3000)}, 38});
  for (Case& c : cases) {
    ScriptedPeer peer(std::move(c.script));
    FtpClient client;
    EXPECT_EQ(Connect(client, peer), c.code);
    EXPECT_TRUE(peer.Finish()) << c.code << ": " << peer.Errors();
  }
  ScriptedPeer full(
      Then({Expect("USER up\r\n"), Send("331 password\r\n"), Expect("PASS secret\r\n"),
            Send("332 account\r\n"), Expect("ACCT acct\r\n"), Send("230 in\r\n")},
           Settings()));
  FtpClient client;
  EXPECT_EQ(Connect(client, full), 0);
  EXPECT_TRUE(full.Finish()) << full.Errors();
}

TEST(FtpLoginTest, GreetingIsTakenAsTheReplyToUser) {
  // A one-line greeting answers USER; the login's own replies then come one
  // command late, and no PASS is sent.
  ScriptedPeer peer({Send("220 ready\r\n"), Expect("USER up\r\n"), Send("331 password\r\n"),
                     Expect("TYPE A\r\n"), Send("530 login first\r\n"), Expect("MODE S\r\n"),
                     Send("530 login first\r\n"), Expect("STRU F\r\n")});
  FtpClient client;
  EXPECT_EQ(Connect(client, peer), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received().find("PASS"), std::string::npos);

  // A multi-line greeting is read as one reply.
  ScriptedPeer multi({Send("220-Welcome\r\n220-to the test\r\n220 ready\r\n"),
                      Expect("USER up\r\n"), Send("331 password\r\n"), Expect("TYPE A\r\n")});
  FtpClient second;
  EXPECT_EQ(Connect(second, multi), 0);
  EXPECT_EQ(second.ReplyLines(), (std::vector<std::string>{"220-to the test", "220 ready"}));
}

TEST(FtpLoginTest, AReplyThatNeverEndsIsNoReply) {
  ScriptedPeer peer({Expect("USER up\r\n"), test::Do([](test::PeerSession& session, std::string&) {
                       session.Write("230-Welcome\r\n");
                       for (int i = 0; i < 100000 && session.Write("230-and more\r\n"); ++i) {
                       }
                       return true;
                     })});
  FtpClient client;
  EXPECT_EQ(Connect(client, peer), 38);
  EXPECT_LE(client.ReplyLines().size(), static_cast<size_t>(limits::kMaxReplyLines));
}

TEST(FtpDirectoryTest, RepliesMapToCodes) {
  ScriptedPeer peer(
      Then(Then({Expect("USER up\r\n"), Send("230 in\r\n")}, Settings()),
           {Expect("CWD /in/box\r\n"), Send("550 missing\r\n"), Expect("MKD /in/box\r\n"),
            Send("257 created\r\n"), Expect("CWD /in/box\r\n"), Send("250 ok\r\n"),
            Expect("CWD x\r\n"), test::Pause(3000)}));
  FtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  EXPECT_EQ(client.ChangeDir("/in/box"), 10);
  EXPECT_EQ(client.MakeDir("/in/box"), 0);
  EXPECT_EQ(client.ChangeDir("/in/box"), 0);
  EXPECT_EQ(client.ChangeDir("x"), 38);
}

TEST(FtpStoreTest, ActiveStoreSkipsABusyPortAndSendsTheWholeSource) {
  // Occupy the port the client would offer first.
  int busy = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  int firstPort = 20000 + getpid() % 5000;
  address.sin_port = htons(static_cast<uint16_t>(firstPort));
  ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(busy, 1), 0);

  const int offered = firstPort + 1;
  std::string content;
  for (int i = 0; i < 2000; ++i) content += "line " + std::to_string(i) + "\r\n";
  std::string received;
  const std::string port =
      "127,0,0,1," + std::to_string(offered / 256) + "," + std::to_string(offered % 256);
  ScriptedPeer peer(
      Then(Then({Expect("USER up\r\n"), Send("230 in\r\n")}, Settings()),
           {Expect("PORT " + port + "\r\n"), Send("200 PORT ok\r\n"), Expect("STOR note.txt\r\n"),
            Send("150 go ahead\r\n"), ReceiveOnDataPort(offered, received), Send("226 done\r\n")}));
  FtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  client.SetDataPort(firstPort);
  BufferDataSource source(static_cast<int64_t>(content.size()), "note");
  source.Open(DataSource::kOpenWrite);
  source.Write(content.data(), static_cast<int>(content.size()));
  source.Close();
  EXPECT_EQ(client.StoreFromDataSource(source, "note.txt"), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(received, content);
  EXPECT_EQ(client.DataPort(), offered + 1);
  close(busy);
}

TEST(FtpStoreTest, RefusalsOfPortAndStorAndTheWrapOfTheDataPort) {
  ScriptedPeer peer(Then(
      Then({Expect("USER up\r\n"), Send("230 in\r\n")}, Settings()),
      {Expect("PORT 127,0,0,1,125,0\r\n"), Send("500 no\r\n"), Expect("PORT 127,0,0,1,39,16\r\n"),
       Send("200 ok\r\n"), Expect("STOR x\r\n"), Send("553 denied\r\n")}));
  FtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  BufferDataSource source(8, "x");
  client.SetDataPort(32000);  // 125 * 256
  EXPECT_EQ(client.StoreFromDataSource(source, "x"), 49);
  EXPECT_EQ(client.DataPort(), 10000);  // past 32000 the offer starts again at 10000
  EXPECT_EQ(client.StoreFromDataSource(source, "x"), 51);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(FtpStoreTest, OnlyTheServerItselfMayConnectToTheDataPort) {
  std::string received;
  std::string intruded = "not connected";
  const int offered = 20000 + getpid() % 5000;
  const std::string port =
      "127,0,0,1," + std::to_string(offered / 256) + "," + std::to_string(offered % 256);
  ScriptedPeer peer(Then(Then({Expect("USER up\r\n"), Send("230 in\r\n")}, Settings()),
                         {Expect("PORT " + port + "\r\n"), Send("200 ok\r\n"),
                          Expect("STOR note.txt\r\n"), Send("150 go ahead\r\n"),
                          ReceiveOnDataPort(offered, received, &intruded), Send("226 done\r\n")}));
  FtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  client.SetDataPort(offered);
  BufferDataSource source(6, "note");
  source.Open(DataSource::kOpenWrite);
  source.Write("secret", 6);
  source.Close();
  EXPECT_EQ(client.StoreFromDataSource(source, "note.txt"), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(intruded, "");  // closed unread
  EXPECT_EQ(received, "secret");
}

TEST(FtpCommandTextTest, ArgumentsThatWouldNotStayOneLineAreRefusedUnsent) {
  const std::vector<std::string> hostile = {"x\r\nDELE important",  "x\rDELE important",
                                            "x\nDELE important",    "\r\n",
                                            std::string(300, '\n'), std::string(300, 'a')};
  unsigned closedPort = 0;
  {
    ScriptedPeer gone({});
    closedPort = gone.port();
  }
  for (const std::string& value : hostile) {
    SCOPED_TRACE(testing::PrintToString(value));
    // A refused login does not even connect (to a port nobody listens on).
    FtpClient refused;
    refused.SetServerPort(closedPort);
    EXPECT_EQ(refused.FtpConnect("127.0.0.1", value.c_str(), "pw", ""), 106);
    EXPECT_EQ(refused.FtpConnect("127.0.0.1", "up", value.c_str(), ""), 106);

    // After a login, a refused directory or name sends nothing but the Quit.
    ScriptedPeer peer(
        Then(Then({Expect("USER up\r\n"), Send("230 in\r\n")}, Settings()), {Expect("Quit\r\n")}));
    FtpClient client;
    ASSERT_EQ(Connect(client, peer), 0);
    EXPECT_EQ(client.ChangeDir(value.c_str()), 106);
    EXPECT_EQ(client.MakeDir(value.c_str()), 106);
    BufferDataSource source(1, "x");
    EXPECT_EQ(client.StoreFromDataSource(source, value.c_str()), 106);
    client.FtpClose();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

TEST(FtpCloseTest, QuitIsSentAndTheConnectionClosedWithoutAnAnswer) {
  ScriptedPeer peer(Then(Then({Expect("USER up\r\n"), Send("230 in\r\n")}, Settings()),
                         {Expect("Quit\r\n"), test::ExpectClose()}));
  FtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  EXPECT_EQ(client.FtpClose(), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_FALSE(client.IsConnected());
}

}  // namespace
}  // namespace corvane
