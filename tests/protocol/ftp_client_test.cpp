// The FTP client against scripted peers: greeting and login replies,
// directory commands, the active store with its data-port walk, the passive
// store, and Quit.
#include "protocol/ftp_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>

#include "base/limits.h"
#include "protocol/ftp_passive_reply.h"
#include "stream/buffer_data_source.h"
#include "support/scripted_peer.h"

namespace corvane {
namespace {

using test::Expect;
using test::ScriptedPeer;
using test::Send;
using test::Step;

// The three settings every login ends with.
std::vector<Step> Settings() {
  return {Expect("TYPE I\r\n"), Send("200 ok\r\n"),   Expect("MODE S\r\n"),
          Send("200 ok\r\n"),   Expect("STRU F\r\n"), Send("200 ok\r\n")};
}

// A server that greets, logs the user in at USER and takes the settings.
std::vector<Step> LoggedIn() {
  return test::Join(
      {{Send("220 ready\r\n"), Expect("USER up\r\n"), Send("230 in\r\n")}, Settings()});
}

int Connect(FtpClient& client, ScriptedPeer& peer) {
  client.SetPort(peer.port());
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

TEST(FtpLoginTest, TheGreetingThenEachLoginStepHasItsCode) {
  const std::string ready = "220 ready\r\n";
  auto password = [](std::vector<Step> after) {
    return test::Join(
        {{Expect("USER up\r\n"), Send("331 password\r\n"), Expect("PASS secret\r\n")}, after});
  };
  auto account = [&](const char* reply) {
    return password({Send("332 account\r\n"), Expect("ACCT acct\r\n"), Send(reply)});
  };
  struct Case {
    std::string greeting;
    std::vector<Step> login;
    int code;
  };
  std::vector<Case> cases;
  cases.push_back({ready, {Expect("USER up\r\n"), Send("230 welcome\r\n")}, 0});  // no PASS
  cases.push_back({ready, {Expect("USER up\r\n"), Send("530 no\r\n")}, 62});
  cases.push_back({ready, password({Send("530 wrong\r\n")}), 63});
  cases.push_back({ready, account("530 no\r\n"), 64});
  cases.push_back({ready, account("230 in\r\n"), 0});
  cases.push_back({ready, {Expect("USER up\r\n"), test::Pause(3000)}, 38});
  // The greeting is read whole before USER: several lines, or a 120 that
  // asks to wait for the 220; a server that refuses gets no USER at all.
  cases.push_back(
      {"220-Welcome\r\n220-to the test\r\n220 ready\r\n", password({Send("230 in\r\n")}), 0});
  cases.push_back({"120 in a minute\r\n220 ready\r\n", password({Send("230 in\r\n")}), 0});
  cases.push_back({"421 too many of you\r\n", {}, 2});
  for (Case& c : cases) {
    SCOPED_TRACE(test::Printable(c.greeting) + " code " + std::to_string(c.code));
    std::vector<Step> settings = c.code == 0 ? Settings() : std::vector<Step>{};
    ScriptedPeer peer(test::Join({{Send(c.greeting)}, std::move(c.login), std::move(settings)}));
    FtpClient client;
    EXPECT_EQ(Connect(client, peer), c.code);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    if (c.code == 2) {
      EXPECT_EQ(peer.Received(), "");
    }
  }
}

TEST(FtpLoginTest, AReplyThatNeverEndsIsNoReply) {
  ScriptedPeer peer({Send("220 ready\r\n"), Expect("USER up\r\n"),
                     test::Do([](test::PeerSession& session, std::string&) {
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
      test::Join({LoggedIn(),
                  {Expect("CWD /in/box\r\n"), Send("550 missing\r\n"), Expect("MKD /in/box\r\n"),
                   Send("257 created\r\n"), Expect("CWD /in/box\r\n"), Send("250 ok\r\n"),
                   Expect("CWD x\r\n"), test::Pause(3000)}}));
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
  ScriptedPeer peer(test::Join(
      {LoggedIn(),
       {Expect("PORT " + port + "\r\n"), Send("200 PORT ok\r\n"), Expect("STOR note.txt\r\n"),
        Send("150 go ahead\r\n"), ReceiveOnDataPort(offered, received), Send("226 done\r\n")}}));
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
  ScriptedPeer peer(test::Join(
      {LoggedIn(),
       {Expect("PORT 127,0,0,1,125,0\r\n"), Send("500 no\r\n"), Expect("PORT 127,0,0,1,39,16\r\n"),
        Send("200 ok\r\n"), Expect("STOR x\r\n"), Send("553 denied\r\n")}}));
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
  ScriptedPeer peer(
      test::Join({LoggedIn(),
                  {Expect("PORT " + port + "\r\n"), Send("200 ok\r\n"), Expect("STOR note.txt\r\n"),
                   Send("150 go ahead\r\n"), ReceiveOnDataPort(offered, received, &intruded),
                   Send("226 done\r\n")}}));
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

// The server side of a passive transfer: a data port on loopback.
class PassiveListener {
 public:
  PassiveListener() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(fd_, reinterpret_cast<sockaddr*>(&address), size);
    listen(fd_, 1);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
  }
  ~PassiveListener() { close(fd_); }
  PassiveListener(const PassiveListener&) = delete;
  PassiveListener& operator=(const PassiveListener&) = delete;

  // `text` with {port} as the port and {p1},{p2} as its two PASV bytes.
  std::string Offer(std::string text) const {
    const std::pair<const char*, int> marks[] = {
        {"{port}", port_}, {"{p1}", port_ / 256}, {"{p2}", port_ % 256}};
    for (const auto& [mark, value] : marks) {
      size_t at = text.find(mark);
      if (at != std::string::npos) text.replace(at, std::strlen(mark), std::to_string(value));
    }
    return text;
  }
  // A step that takes the client's data connection and reads it to its end.
  Step Receive(std::string& received) const {
    return test::Do([this, &received](test::PeerSession&, std::string& error) {
      pollfd waiting{fd_, POLLIN, 0};
      int fd = poll(&waiting, 1, 5000) == 1 ? accept(fd_, nullptr, nullptr) : -1;
      if (fd < 0) {
        error = "the client did not connect to the passive port";
        return false;
      }
      received = ReadUntilClosed(fd);
      return true;
    });
  }

 private:
  int fd_;
  int port_ = 0;
};

TEST(FtpStoreTest, PassiveStoreConnectsOnlyToTheControlConnectionsServer) {
  struct Case {
    std::string epsv, pasv;  // replies; no PASV is asked for when pasv is empty
    std::string stor, final;
    int code;
  };
  const std::string extended = "229 Entering Extended Passive Mode (|||{port}|)\r\n";
  const std::vector<Case> cases = {
      {extended, "", "150 go ahead\r\n", "226 done\r\n", 0},
      // The address of a 227 is not followed: the data goes to this server.
      {"500 what\r\n", "227 Entering Passive Mode (10,9,8,7,{p1},{p2})\r\n", "125 go\r\n",
       "250 stored\r\n", 0},
      {"229 (|||99999|)\r\n", "227 =127,0,0,1,{p1},{p2}\r\n", "150 go\r\n", "226 done\r\n", 0},
      {"502 no\r\n", "500 no\r\n", "", "", 8},
      {extended, "", "250 no mark that a transfer starts\r\n", "", 51},
      {extended, "", "150 go ahead\r\n", "451 disk full\r\n", 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.epsv + c.pasv + c.stor + c.final);
    PassiveListener data;
    std::string received;
    std::vector<Step> script =
        test::Join({LoggedIn(), {Expect("EPSV\r\n"), Send(data.Offer(c.epsv))}});
    if (!c.pasv.empty())
      script = test::Join({std::move(script), {Expect("PASV\r\n"), Send(data.Offer(c.pasv))}});
    if (!c.stor.empty())
      script = test::Join({std::move(script), {Expect("STOR note.txt\r\n"), Send(c.stor)}});
    if (!c.final.empty())
      script = test::Join({std::move(script), {data.Receive(received), Send(c.final)}});
    ScriptedPeer peer(std::move(script));
    FtpClient client;
    client.SetPassive(true);
    ASSERT_EQ(Connect(client, peer), 0);
    BufferDataSource source(9, "note");
    source.Open(DataSource::kOpenWrite);
    source.Write("a\r\nb\xff\nc\rd", 9);
    source.Close();
    EXPECT_EQ(client.StoreFromDataSource(source, "note.txt"), c.code);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(received, c.final.empty() ? "" : "a\r\nb\xff\nc\rd");
  }
}

TEST(FtpPassiveReplyTest, OnlyAWellFormedOfferGivesAPort) {
  const std::vector<std::tuple<int, std::string, std::optional<unsigned>>> cases = {
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
  for (const auto& [code, reply, port] : cases) {
    EXPECT_EQ(PassiveDataPort(code, reply), port) << reply;
  }
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
    refused.SetPort(closedPort);
    EXPECT_EQ(refused.FtpConnect("127.0.0.1", value.c_str(), "pw", ""), 106);
    EXPECT_EQ(refused.FtpConnect("127.0.0.1", "up", value.c_str(), ""), 106);

    // After a login, a refused directory or name sends nothing but the Quit.
    ScriptedPeer peer(test::Join({LoggedIn(), {Expect("Quit\r\n")}}));
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
  ScriptedPeer peer(test::Join({LoggedIn(), {Expect("Quit\r\n"), test::ExpectClose()}}));
  FtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  EXPECT_EQ(client.FtpClose(), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_FALSE(client.IsConnected());
}

}  // namespace
}  // namespace corvane
