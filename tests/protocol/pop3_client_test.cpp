// The POP3 client against scripted peers: every reply and code path.
#include "protocol/pop3_client.h"

#include <gtest/gtest.h>

#include "base/limits.h"
#include "stream/buffer_data_source.h"
#include "support/pop3_script.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::Close;
using test::Expect;
using test::ScriptedPeer;
using test::Send;
using test::Step;

// The login every session below starts with.
std::vector<Step> Login(std::vector<Step> then) {
  return test::Join({test::Pop3Login(), std::move(then)});
}

class Pop3ClientTest : public ::testing::Test {
 protected:
  int Connect(ScriptedPeer& peer) {
    client_.SetPort(peer.port());
    client_.SetPOP3TimeOut(2);
    return client_.POP3Connect("127.0.0.1", "joe", "pw");
  }
  Pop3Client client_;
};

TEST_F(Pop3ClientTest, LoginRepliesGiveTheirOwnCodes) {
  {
    ScriptedPeer peer({Send("-ERR busy\r\n")});
    EXPECT_EQ(Connect(peer), 5);  // a negative greeting is not a USER failure
  }
  {
    ScriptedPeer peer({Send("+OK\r\n"), Expect("USER joe\r\n"), Send("-ERR who\r\n")});
    EXPECT_EQ(Connect(peer), 53);
    EXPECT_STREQ(client_.LastResponse(), "-ERR who\r\n");
  }
  {
    ScriptedPeer peer({Send("+OK\r\n"), Expect("USER joe\r\n"), Send("+OK\r\n"),
                       Expect("PASS pw\r\n"), Send("-ERR [AUTH] no\r\n")});
    EXPECT_EQ(Connect(peer), 55);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  {
    // A greeting that never ends its line: the client gives up after its
    // bound, long before the server runs out of bytes to send.
    int written = 0;
    ScriptedPeer peer({test::Do([&written](test::PeerSession& session, std::string&) {
      session.Write("+OK ");
      for (const std::string kib(1024, 'x'); written < 100000 && session.Write(kib);) ++written;
      return true;
    })});
    EXPECT_EQ(Connect(peer), 5);
    client_.CloseConnection();
    peer.Finish();
    EXPECT_LT(written, 100000);
  }
  {
    ScriptedPeer peer(Login({Expect("QUIT\r\n"), Send("+OK bye\r\n"), test::ExpectClose()}));
    EXPECT_EQ(Connect(peer), 0);
    EXPECT_EQ(client_.POP3Close(), 0);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

TEST_F(Pop3ClientTest, CountSizeAndTheirMalformedReplies) {
  ScriptedPeer peer(
      Login({Expect("STAT\r\n"), Send("+OK 7 123456\r\n"), Expect("LIST 3\r\n"),
             Send("+OK 3 2048\r\n"), Expect("LIST 4\r\n"), Send("+OK (4) (99)\r\n"),
             Expect("STAT\r\n"), Send("+OK\r\n"), Expect("LIST 9\r\n"),
             Send("-ERR no such message\r\n"), Expect("STAT\r\n"), Send("-ERR\r\n")}));
  ASSERT_EQ(Connect(peer), 0);
  int count = 0;
  long size = 0;
  EXPECT_EQ(client_.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 7);
  EXPECT_EQ(client_.GetMsgSize(3, &size), 0);
  EXPECT_EQ(size, 2048);
  EXPECT_EQ(client_.GetMsgSize(4, &size), 0);
  EXPECT_EQ(size, 99);
  EXPECT_EQ(client_.GetNumMsgs(&count), 37);
  EXPECT_EQ(client_.GetMsgSize(9, &size), 50);
  EXPECT_EQ(client_.GetNumMsgs(&count), 56);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(Pop3ClientTest, LoginTextThatWouldNotStayOneLineIsRefusedBeforeConnecting) {
  for (const char* hostile : {"joe\r\nDELE 1", "joe\rDELE 1", "joe\nDELE 1", "\r\n"}) {
    ScriptedPeer peer({}, 200);
    client_.SetPort(peer.port());
    EXPECT_EQ(client_.POP3Connect("127.0.0.1", hostile, "pw"), 106) << hostile;
    EXPECT_EQ(client_.POP3Connect("127.0.0.1", "joe", hostile), 106) << hostile;
    peer.Finish();
    EXPECT_EQ(peer.Connections(), 0) << hostile;
  }
}

TEST_F(Pop3ClientTest, HugeCountsAreCappedAndUidlKeepsNoMoreIdsThanTheCount) {
  ScriptedPeer peer(Login({Expect("STAT\r\n"), Send("+OK 2147483647 100\r\n"), Expect("STAT\r\n"),
                           Send("+OK 99999999999999999999 1\r\n"), Expect("STAT\r\n"),
                           Send("+OK 2 10\r\n"), Expect("UIDL\r\n"),
                           Send("+OK\r\n1 a\r\n2 b\r\n3 c\r\n4 d\r\n.\r\n"), Expect("NOOP\r\n")}));
  ASSERT_EQ(Connect(peer), 0);
  int count = 0;
  EXPECT_EQ(client_.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, limits::kMaxMessages);
  EXPECT_EQ(client_.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, limits::kMaxMessages);
  EXPECT_EQ(client_.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(client_.GetUIDL(0), 0);  // read to its end, so the session goes on
  EXPECT_EQ(client_.UidList().size(), 2u);
  EXPECT_STREQ(client_.GetUID(2), "b");
  EXPECT_EQ(client_.GetUID(3), nullptr);
  client_.Send("NOOP\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(Pop3ClientTest, RetrieveUnstuffsDotsAndEndsAtTheLoneDot) {
  ScriptedPeer peer(Login({Expect("RETR 1\r\n"), Send("+OK 40 octets\r\n"
                                                      "Subject: dots\r\n"
                                                      "\r\n"
                                                      "..\r\n"
                                                      "..leading\r\n"
                                                      ".\r\n")}));
  ASSERT_EQ(Connect(peer), 0);
  BufferDataSource message(4096, "message");
  EXPECT_EQ(client_.RetrieveToDataSource(1, message), 0);
  EXPECT_EQ(std::string(message.Data()), "Subject: dots\r\n\r\n.\r\n.leading\r\n");
}

TEST_F(Pop3ClientTest, RetrieveFailures) {
  {
    ScriptedPeer peer(Login({Expect("RETR 2\r\n"), Send("-ERR gone\r\n")}));
    ASSERT_EQ(Connect(peer), 0);
    BufferDataSource message(64, "m");
    EXPECT_EQ(client_.RetrieveToDataSource(2, message), 48);
  }
  {
    // The stream stops before its end: a line fails to arrive.
    ScriptedPeer peer(
        Login({Expect("RETR 1\r\n"), Send("+OK\r\nline one\r\n"), test::Pause(3000)}));
    ASSERT_EQ(Connect(peer), 0);
    BufferDataSource message(64, "m");
    EXPECT_EQ(client_.RetrieveToDataSource(1, message), 20);
    EXPECT_EQ(std::string(message.Data()), "line one\r\n");
  }
  {
    ScriptedPeer peer(Login({test::Drain()}));
    ASSERT_EQ(Connect(peer), 0);
    test::TempDir dir;
    EXPECT_EQ(client_.RetrieveToFile(1, (dir.path() + "/no/such/dir/m.txt").c_str()), 27);
  }
}

TEST_F(Pop3ClientTest, OnlyALineStartEndsAListingOrLosesADot) {
  // Pieces hold 1023 bytes: the second piece of each long line starts with
  // a dot, and one of them is a whole "." line end.
  const std::string dotAfter1023 = std::string(1023, 'x') + ".tail\r\n";
  const std::string endAfter1023 = std::string(1023, 'y') + ".\r\n";
  const std::string overlongStatus = "+OK " + std::string(1500, 's') + "\r\n";
  ScriptedPeer peer(Login(
      {Expect("RETR 1\r\n"), Send("+OK\r\n" + dotAfter1023 + endAfter1023 + "..\r\nlast\r\n.\r\n"),
       Expect("TOP 1 0\r\n"), Send(overlongStatus + endAfter1023 + "Subject: s\r\n.\r\n"),
       Expect("UIDL\r\n"), Send("+OK\r\n1 " + std::string(1021, 'u') + "\r\n2 two\r\n.\r\n"),
       Expect("UIDL\r\n"), Send("+OK\r\n1 " + std::string(1021, 'u') + "2 forged\r\n.\r\n")}));
  ASSERT_EQ(Connect(peer), 0);
  BufferDataSource message(8192, "m");
  EXPECT_EQ(client_.RetrieveToDataSource(1, message), 0);
  EXPECT_EQ(std::string(message.Data()), dotAfter1023 + endAfter1023 + ".\r\nlast\r\n");

  ASSERT_EQ(client_.OpenTop(1, 0), 0);
  std::string header;
  char piece[1024];
  while (client_.ReadTopLine(piece, sizeof piece) > 0) header += piece;
  EXPECT_EQ(header, endAfter1023 + "Subject: s\r\n");  // the status line's rest is not in it

  EXPECT_EQ(client_.GetUIDL(0), 0);
  ASSERT_EQ(client_.UidList().size(), 2u);
  EXPECT_STREQ(client_.GetUID(2), "two");
  EXPECT_EQ(client_.GetUIDL(0), 0);
  EXPECT_EQ(client_.UidList().size(), 1u);  // "2 forged" was the rest of line 1
  EXPECT_EQ(client_.GetUID(2), nullptr);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

class AbortingClient : public Pop3Client {
 public:
  bool RetrieveStatus(long bytesSoFar) override {
    lastTotal = bytesSoFar;
    return bytesSoFar < 20;
  }
  long lastTotal = 0;
};

TEST(Pop3ClientAbortTest, ProgressHookStopsARetrieve) {
  ScriptedPeer peer(Login(
      {Expect("RETR 1\r\n"), Send("+OK\r\n0123456789\r\n0123456789\r\n0123456789\r\n.\r\n")}));
  AbortingClient client;
  client.SetPort(peer.port());
  ASSERT_EQ(client.POP3Connect("127.0.0.1", "joe", "pw"), 0);
  BufferDataSource message(256, "m");
  EXPECT_EQ(client.RetrieveToDataSource(1, message), 98);
  EXPECT_EQ(client.lastTotal, 24);
}

TEST_F(Pop3ClientTest, UniqueIdsOneAndAll) {
  std::string longId(80, 'u');
  ScriptedPeer peer(Login({Expect("UIDL\r\n"), Send("+OK\r\n1 aaa\r\n2 " + longId + "\r\n.\r\n"),
                           Expect("UIDL 2\r\n"), Send("+OK 2 bbb\r\n"), Expect("UIDL 5\r\n"),
                           Send("+OK 5\r\n"), Expect("UIDL\r\n"), Send("-ERR\r\n"),
                           Expect("UIDL\r\n"), Send("+OK\r\n1 x\r\n7 \r\n8 z\r\n.\r\n")}));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_EQ(client_.GetUIDL(-1), 0);
  ASSERT_EQ(client_.UidList().size(), 2u);
  EXPECT_STREQ(client_.GetUID(1), "aaa");
  EXPECT_EQ(std::string(client_.GetUID(2)), longId.substr(0, 69));

  EXPECT_EQ(client_.GetUIDL(2), 0);
  EXPECT_STREQ(client_.GetUID(2), "bbb");
  EXPECT_EQ(client_.GetUID(1), nullptr);  // the list was emptied first
  EXPECT_EQ(client_.GetUID(9), nullptr);

  EXPECT_EQ(client_.GetUIDL(5), 37);
  EXPECT_EQ(client_.GetUIDL(0), 58);
  // A line without its id ends the listing with 37, keeping what came before.
  EXPECT_EQ(client_.GetUIDL(0), 37);
  ASSERT_EQ(client_.UidList().size(), 1u);
  EXPECT_STREQ(client_.GetUID(1), "x");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(Pop3ClientTest, TopAndMessageLineByLine) {
  ScriptedPeer peer(Login(
      {Expect("TOP 3 0\r\n"), Send("+OK\r\nFrom: a\r\n..x\r\n\r\n.\r\n"), Expect("RETR 3\r\n"),
       Send("+OK\r\nbody 1\r\nbody 2\r\n.\r\n"), Expect("TOP 4 0\r\n"), Send("-ERR\r\n"),
       Expect("DELE 3\r\n"), Send("+OK\r\n"), Expect("DELE 3\r\n"), Send("-ERR already\r\n"),
       Expect("RSET\r\n"), Send("+OK\r\n"), Expect("RSET\r\n"), Send("-ERR\r\n")}));
  ASSERT_EQ(Connect(peer), 0);
  char line[256];
  EXPECT_EQ(client_.ReadTopLine(line, sizeof line), -1);  // nothing open
  ASSERT_EQ(client_.OpenTop(3, 0), 0);
  EXPECT_EQ(client_.ReadTopLine(line, sizeof line), 9);
  EXPECT_STREQ(line, "From: a\r\n");
  EXPECT_EQ(client_.ReadTopLine(line, sizeof line), 5);
  EXPECT_STREQ(line, "..x\r\n");  // line by line, dots stay
  EXPECT_EQ(client_.ReadTopLine(line, sizeof line), 2);
  EXPECT_EQ(client_.ReadTopLine(line, sizeof line), 0);
  EXPECT_EQ(client_.CloseTop(), 0);

  ASSERT_EQ(client_.OpenMsg(3), 0);
  EXPECT_EQ(client_.ReadMsgLine(line, sizeof line), 8);
  EXPECT_EQ(client_.CloseMsg(), 0);  // drops "body 2" and the end
  EXPECT_EQ(client_.CloseMsg(), 0);

  EXPECT_EQ(client_.OpenTop(4, 0), 57);
  EXPECT_EQ(client_.DeleteMsg(3), 0);
  EXPECT_EQ(client_.DeleteMsg(3), 59);
  EXPECT_EQ(client_.ResetDelete(), 0);
  EXPECT_EQ(client_.ResetDelete(), 60);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(Pop3ClientTest, CommandsNeedAConnectionAndRepliesInTime) {
  int count = 0;
  EXPECT_EQ(client_.GetNumMsgs(&count), 6);
  EXPECT_EQ(client_.GetUIDL(-1), 6);
  EXPECT_EQ(client_.DeleteMsg(1), 6);
  BufferDataSource message(16, "m");
  EXPECT_EQ(client_.RetrieveToDataSource(1, message), 6);
  EXPECT_EQ(client_.CloseMsg(), 0);

  ScriptedPeer peer(Login({Expect("STAT\r\n"), test::Pause(3000)}));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_EQ(client_.GetNumMsgs(&count), 12);
}

TEST_F(Pop3ClientTest, QuitWithoutAnswerLeavesTheSocketOpen) {
  ScriptedPeer peer(Login({Expect("QUIT\r\n"), test::Pause(3000)}));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_EQ(client_.POP3Close(), 12);
  EXPECT_TRUE(client_.IsConnected());
}

TEST_F(Pop3ClientTest, TimeOutSetting) {
  EXPECT_EQ(client_.GetPOP3TimeOut(), 10);
  EXPECT_EQ(client_.SetPOP3TimeOut(0), 1);
  EXPECT_EQ(client_.SetPOP3TimeOut(-5), 1);
  EXPECT_EQ(client_.GetPOP3TimeOut(), 10);
  EXPECT_EQ(client_.SetPOP3TimeOut(45), 0);
  EXPECT_EQ(client_.GetPOP3TimeOut(), 45);
}

TEST_F(Pop3ClientTest, ReconnectEndsThePreviousSessionWithQuit) {
  ScriptedPeer peer(Login({Expect("QUIT\r\n"), Send("+OK\r\n"), test::ExpectClose(), test::Accept(),
                           Send("+OK again\r\n"), Expect("USER joe\r\n"), Send("+OK\r\n"),
                           Expect("PASS pw\r\n"), Send("+OK\r\n")}));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_EQ(client_.POP3Connect("127.0.0.1", "joe", "pw"), 0);
  EXPECT_EQ(peer.Connections(), 2);
}

}  // namespace
}  // namespace corvane
