// The POP3 client against scripted peers: every reply and code path.
#include "protocol/pop3_client.h"

#include <gtest/gtest.h>

#include <cstring>

#include "base/limits.h"
#include "stream/buffer_data_source.h"
#include "support/pop3_script.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"
#include "support/tls_test_ca.h"

namespace corvane {
namespace {

using namespace test;

// Stops a retrieve once `stopAt` bytes have come.
class StoppingClient : public Pop3Client {
 public:
  bool RetrieveStatus(long bytesSoFar) override {
    lastTotal = bytesSoFar;
    return bytesSoFar < stopAt;
  }
  long lastTotal = 0;
  long stopAt = 1L << 40;
};

class Pop3ClientTest : public ::testing::Test {
 protected:
  int Connect(ScriptedPeer& peer, const char* user = "joe", const char* password = "pw") {
    client_.SetPort(peer.port());
    client_.SetPOP3TimeOut(2);
    return client_.POP3Connect("127.0.0.1", user, password);
  }
  std::string Retrieve(int number, int expectedCode) {
    BufferDataSource message(8192, "m");
    EXPECT_EQ(client_.RetrieveToDataSource(number, message), expectedCode) << number;
    return std::string(message.Data());
  }
  StoppingClient client_;
};

TEST_F(Pop3ClientTest, EachLoginStepHasItsCode) {
  struct Case {
    std::vector<Step> script;
    int code;
  } cases[] = {
      {{Send("-ERR busy\r\n")}, kNetConnectTimeout},  // a refused greeting is no USER failure
      {{Send("+OK\r\n"), Expect("USER joe\r\n"), Send("-ERR who\r\n")}, kNetUserFailed},
      {{Send("+OK\r\n"), Expect("USER joe\r\n"), Send("+OK\r\n"), Expect("PASS pw\r\n"),
        Send("-ERR [AUTH] no\r\n")},
       kNetPassFailed},
      {Join({Pop3Login(), {Expect("QUIT\r\n"), Send("+OK bye\r\n"), ExpectClose()}}), kNetOk},
  };
  for (Case& c : cases) {
    ScriptedPeer peer(std::move(c.script));
    Pop3Client client;
    client.SetPort(peer.port());
    EXPECT_EQ(client.POP3Connect("127.0.0.1", "joe", "pw"), c.code);
    EXPECT_EQ(client.LastResponse()[0], c.code == kNetOk ? '+' : '-');
    if (c.code == kNetOk) {
      EXPECT_EQ(client.POP3Close(), 0);
    }
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  // A greeting that never ends its line: the client gives up after its
  // bound, long before the server runs out of bytes to send.
  int written = 0;
  ScriptedPeer endless({Do([&written](PeerSession& session, std::string&) {
    session.Write("+OK ");
    for (const std::string kib(1024, 'x'); written < 100000 && session.Write(kib);) ++written;
    return true;
  })});
  EXPECT_EQ(Connect(endless), kNetConnectTimeout);
  client_.CloseConnection();
  endless.Finish();
  EXPECT_LT(written, 100000);
  // Login text that would not stay one line never even connects.
  for (const char* hostile : {"joe\r\nDELE 1", "joe\rDELE 1", "joe\nDELE 1", "\r\n"}) {
    ScriptedPeer unused({}, 200);
    EXPECT_EQ(Connect(unused, hostile), kNetInvalidParameter) << hostile;
    EXPECT_EQ(Connect(unused, "joe", hostile), kNetInvalidParameter) << hostile;
    unused.Finish();
    EXPECT_EQ(unused.Connections(), 0) << hostile;
  }
}

TEST_F(Pop3ClientTest, ReconnectEndsThePreviousSessionAndAnUnansweredQuitKeepsTheSocket) {
  ScriptedPeer peer(Join({Pop3Login(),
                          {Expect("QUIT\r\n"), Send("+OK\r\n"), ExpectClose(), Accept()},
                          Pop3Login(),
                          {Expect("QUIT\r\n"), Pause(3000)}}));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_EQ(client_.POP3Connect("127.0.0.1", "joe", "pw"), 0);
  EXPECT_EQ(peer.Connections(), 2);
  EXPECT_EQ(client_.POP3Close(), kNetNoServerResponse);
  EXPECT_TRUE(client_.IsConnected());
}

TEST_F(Pop3ClientTest, StlsUpgradesBeforeTheLoginOrFailsWithoutIt) {
  TempDir dir;
  TestCa ca(dir.path());
  struct Case {
    std::vector<Step> script;
    int code;
  } cases[] = {
      {{Send("-ERR busy\r\n")}, kNetConnectFailed},
      {{Send("+OK\r\n"), Expect("STLS\r\n"), Send("-ERR not here\r\n")}, kNetPop3NoTls},
      {{Send("+OK\r\n"), Expect("STLS\r\n"), Send("+OK go\r\n"),
        TlsAccept(ServerContext(ca.IssueLocalhost())), Expect("USER joe\r\n"), Send("+OK\r\n"),
        Expect("PASS pw\r\n"), Send("+OK in\r\n")},
       kNetOk},
  };
  for (Case& c : cases) {
    ScriptedPeer peer(std::move(c.script));
    Pop3Client client;
    client.SetPort(peer.port());
    client.SetSecurityEnabled(true);
    client.SetTrustedCaFile(ca.CaFile().c_str());
    EXPECT_EQ(client.POP3Connect("localhost", "joe", "pw"), c.code);
    EXPECT_EQ(client.IsSessionSecure(), c.code == kNetOk);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(peer.Received().find("USER") != std::string::npos, c.code == kNetOk);
  }
}

TEST_F(Pop3ClientTest, CountsSizesAndIdsTheirMalformedRepliesAndTheirCaps) {
  ScriptedPeer peer(
      Pop3Session({{"STAT", "+OK 7 123456\r\n"},
                   {"LIST 3", "+OK 3 2048\r\n"},
                   {"LIST 4", "+OK (4) (99)\r\n"},
                   {"STAT", "+OK\r\n"},
                   {"LIST 9", "-ERR no such message\r\n"},
                   {"STAT", "-ERR\r\n"},
                   {"STAT", "+OK 99999999999999999999 1\r\n"},
                   {"STAT", "+OK 2 10\r\n"},
                   {"UIDL", "+OK\r\n1 a\r\n2 b\r\n3 c\r\n4 d\r\n.\r\n"},
                   {"UIDL", "+OK\r\n1 aaa\r\n2 " + std::string(80, 'u') + "\r\n.\r\n"},
                   {"UIDL 2", "+OK 2 bbb\r\n"},
                   {"UIDL 5", "+OK 5\r\n"},
                   {"UIDL", "-ERR\r\n"},
                   {"UIDL", "+OK\r\n1 x\r\n7 \r\n8 z\r\n.\r\n"}},
                  {Expect("NOOP\r\n")}));
  ASSERT_EQ(Connect(peer), 0);
  int count = 0;
  long size = 0;
  EXPECT_EQ(client_.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 7);
  EXPECT_EQ(client_.GetMsgSize(3, &size), 0);
  EXPECT_EQ(size, 2048);
  EXPECT_EQ(client_.GetMsgSize(4, &size), 0);
  EXPECT_EQ(size, 99);
  EXPECT_EQ(client_.GetNumMsgs(&count), kNetInvalidResponse);
  EXPECT_EQ(client_.GetMsgSize(9, &size), kNetListFailed);
  EXPECT_EQ(client_.GetNumMsgs(&count), kNetStatFailed);
  EXPECT_EQ(client_.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, limits::kMaxMessages);
  EXPECT_EQ(client_.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(client_.GetUIDL(0), 0);  // no more ids than the count, but read to the end
  EXPECT_EQ(client_.UidList().size(), 2u);
  EXPECT_STREQ(client_.GetUID(2), "b");
  EXPECT_EQ(client_.GetUID(3), nullptr);
  EXPECT_EQ(client_.GetUIDL(-1), 0);
  EXPECT_STREQ(client_.GetUID(1), "aaa");
  EXPECT_EQ(std::string(client_.GetUID(2)), std::string(69, 'u'));
  EXPECT_EQ(client_.GetUIDL(2), 0);
  EXPECT_STREQ(client_.GetUID(2), "bbb");
  EXPECT_EQ(client_.GetUID(1), nullptr);  // the list was emptied first
  EXPECT_EQ(client_.GetUIDL(5), kNetInvalidResponse);
  EXPECT_EQ(client_.GetUIDL(0), kNetUidlFailed);
  // A line without its id ends the listing, keeping what came before.
  EXPECT_EQ(client_.GetUIDL(0), kNetInvalidResponse);
  ASSERT_EQ(client_.UidList().size(), 1u);
  EXPECT_STREQ(client_.GetUID(1), "x");
  client_.Send("NOOP\r\n");  // the session is still in step
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(Pop3ClientTest, OnlyALineStartEndsAListingOrLosesADot) {
  // Pieces hold 1023 bytes: the second piece of each long line starts with
  // a dot, and one of them is a whole "." line end.
  const std::string dotAfter1023 = std::string(1023, 'x') + ".tail\r\n";
  const std::string endAfter1023 = std::string(1023, 'y') + ".\r\n";
  const std::string longId = "1 " + std::string(1021, 'u');
  ScriptedPeer peer(Pop3Session(
      {{"RETR 1",
        "+OK\r\nSubject: dots\r\n\r\n..\r\n..leading\r\n" + dotAfter1023 + endAfter1023 + ".\r\n"},
       {"TOP 1 0", "+OK " + std::string(1500, 's') + "\r\n" + endAfter1023 + "Subject: s\r\n.\r\n"},
       {"UIDL", "+OK\r\n" + longId + "\r\n2 two\r\n.\r\n"},
       {"UIDL", "+OK\r\n" + longId + "2 forged\r\n.\r\n"}}));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_EQ(Retrieve(1, 0), "Subject: dots\r\n\r\n.\r\n.leading\r\n" + dotAfter1023 + endAfter1023);
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
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(Pop3ClientTest, RetrieveFailuresKeepWhatCame) {
  ScriptedPeer cut(Pop3Session({{"RETR 1", "+OK\r\nline one\r\n"}}, {Pause(3000)}));
  ASSERT_EQ(Connect(cut), 0);
  EXPECT_EQ(Retrieve(1, kNetTimeout), "line one\r\n");  // the stream stopped before its end
  client_.CloseConnection();
  ScriptedPeer peer(
      Pop3Session({{"RETR 2", "-ERR gone\r\n"},
                   {"RETR 3", "+OK\r\n0123456789\r\n0123456789\r\n0123456789\r\n.\r\n"}}));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_EQ(Retrieve(2, kNetRetrFailed), "");
  client_.stopAt = 20;
  Retrieve(3, kNetAborted);  // the progress hook said stop
  EXPECT_EQ(client_.lastTotal, 24);
  TempDir dir;
  EXPECT_EQ(client_.RetrieveToFile(1, (dir / "no/such/dir/m.txt").c_str()), kNetFileOpenFailed);
}

TEST_F(Pop3ClientTest, TopAndMessageLineByLineAndDeletes) {
  ScriptedPeer peer(Pop3Session({{"TOP 3 0", "+OK\r\nFrom: a\r\n..x\r\n\r\n.\r\n"},
                                 {"RETR 3", "+OK\r\nbody 1\r\nbody 2\r\n.\r\n"},
                                 {"TOP 4 0", "-ERR\r\n"},
                                 {"DELE 3", "+OK\r\n"},
                                 {"DELE 3", "-ERR already\r\n"},
                                 {"RSET", "+OK\r\n"},
                                 {"RSET", "-ERR\r\n"},
                                 {"STAT", ""}},
                                {Pause(3000)}));
  ASSERT_EQ(Connect(peer), 0);
  char line[256];
  EXPECT_EQ(client_.ReadTopLine(line, sizeof line), -1);  // nothing open
  ASSERT_EQ(client_.OpenTop(3, 0), 0);
  for (const char* expected : {"From: a\r\n", "..x\r\n", "\r\n"}) {  // line by line, dots stay
    EXPECT_EQ(client_.ReadTopLine(line, sizeof line), static_cast<int>(strlen(expected)));
    EXPECT_STREQ(line, expected);
  }
  EXPECT_EQ(client_.ReadTopLine(line, sizeof line), 0);
  EXPECT_EQ(client_.CloseTop(), 0);
  ASSERT_EQ(client_.OpenMsg(3), 0);
  EXPECT_EQ(client_.ReadMsgLine(line, sizeof line), 8);
  EXPECT_EQ(client_.CloseMsg(), 0);  // drops "body 2" and the end
  EXPECT_EQ(client_.CloseMsg(), 0);
  EXPECT_EQ(client_.OpenTop(4, 0), kNetTopFailed);
  EXPECT_EQ(client_.DeleteMsg(3), 0);
  EXPECT_EQ(client_.DeleteMsg(3), kNetDeleFailed);
  EXPECT_EQ(client_.ResetDelete(), 0);
  EXPECT_EQ(client_.ResetDelete(), kNetRsetFailed);
  int count = 0;
  EXPECT_EQ(client_.GetNumMsgs(&count), kNetNoServerResponse);  // no reply in time
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(Pop3ClientTest, CommandsNeedAConnectionAndATimeOutAboveZero) {
  int count = 0;
  EXPECT_EQ(client_.GetNumMsgs(&count), kNetNoConnection);
  EXPECT_EQ(client_.GetUIDL(-1), kNetNoConnection);
  EXPECT_EQ(client_.DeleteMsg(1), kNetNoConnection);
  EXPECT_EQ(Retrieve(1, kNetNoConnection), "");
  EXPECT_EQ(client_.CloseMsg(), 0);
  EXPECT_EQ(client_.GetPOP3TimeOut(), 10);
  EXPECT_EQ(client_.SetPOP3TimeOut(0), 1);
  EXPECT_EQ(client_.SetPOP3TimeOut(-5), 1);
  EXPECT_EQ(client_.SetPOP3TimeOut(1), 0);
  EXPECT_EQ(client_.GetPOP3TimeOut(), 1);
}

}  // namespace
}  // namespace corvane
