// The POP3 client against scripted peers: every reply and code path.
#include "protocol/pop3_client.h"

#include <gtest/gtest.h>

#include <cstring>

#include "base/limits.h"
#include "stream/buffer_data_source.h"
#include "support/pop3_script.h"
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
  long lastTotal = 0, stopAt = 1L << 40;
};

// A command (its CRLF added), the server's reply, and what the client call
// that sends it gives ("code|value|...").
struct Exchange {
  std::string command, reply, result;
};

class Pop3ClientTest : public ::testing::Test {
 protected:
  int Connect(ScriptedPeer& peer, const char* user = "joe", const char* password = "pw") {
    client_.SetPort(peer.port());
    client_.SetPOP3TimeOut(2);
    return client_.POP3Connect("127.0.0.1", user, password);
  }
  // Logs in, then plays every exchange in order, and `more` steps after.
  void Play(const std::vector<Exchange>& exchanges, std::vector<Step> more = {}) {
    std::vector<std::pair<std::string, std::string>> script;
    for (const Exchange& e : exchanges) script.emplace_back(e.command, e.reply);
    ScriptedPeer peer(Join({Pop3Login(), Pop3Exchange(script), std::move(more)}));
    ASSERT_EQ(Connect(peer), 0);
    for (const Exchange& e : exchanges) {
      EXPECT_EQ(Run(e.command), e.result) << e.command << ": " << Printable(e.reply);
    }
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  // Makes the client call that sends `command`.
  std::string Run(const std::string& command) {
    int n = std::atoi(command.c_str() + std::min(command.find(' '), command.size()));
    if (command.starts_with("UIDL")) {  // the code, then the listing as "number id" entries
      std::string out = Of(client_.GetUIDL(n));
      for (const auto& e : client_.UidList()) out += "|" + std::to_string(e.number) + " " + e.uid;
      return out;
    }
    if (command.starts_with("TOP") || command.starts_with("RETR")) {
      return command.starts_with("RETR") && !lineWise_ ? Retrieve(n) : Open(n, command[0] == 'T');
    }
    if (command.starts_with("DELE")) return Of(client_.DeleteMsg(n));
    if (command == "RSET") return Of(client_.ResetDelete());
    int count = -1;
    long size = -1;
    int code = command == "STAT" ? client_.GetNumMsgs(&count) : client_.GetMsgSize(n, &size);
    return Of(code, code ? "" : std::to_string(command == "STAT" ? count : size));
  }
  static std::string Of(int code, const std::string& value = "") {
    return std::to_string(code) + (value.empty() ? "" : "|" + value);
  }
  std::string Retrieve(int number) {
    BufferDataSource message(8192, "m");
    int code = client_.RetrieveToDataSource(number, message);
    return Of(code, std::string(message.Data()));
  }
  // Opens a TOP (all its pieces read) or a RETR (one piece read) into rooms
  // of room_ bytes, then closes it.
  std::string Open(int number, bool top) {
    std::string out = Of(top ? client_.OpenTop(number, 0) : client_.OpenMsg(number));
    std::vector<char> line(static_cast<size_t>(room_));
    for (int n, left = top ? 1 << 20 : 1;
         left-- > 0 && (n = top ? client_.ReadTopLine(line.data(), room_)
                                : client_.ReadMsgLine(line.data(), room_)) > 0;) {
      out += "|" + std::string(line.data());
      if (std::strlen(line.data()) != static_cast<size_t>(n)) out += "(length " + Of(n) + ")";
    }
    return out + "|closed " +
           Of(top ? client_.CloseTop() : client_.CloseMsg() + client_.CloseMsg());
  }
  StoppingClient client_;
  bool lineWise_ = false;
  int room_ = 256;
};

TEST_F(Pop3ClientTest, EachLoginStepHasItsCodeStlsComesFirstAndHostileLoginTextIsNeverSent) {
  TempDir dir;
  TestCa ca(dir.path());
  const std::string go = "+OK\r\n";
  const std::tuple<std::vector<Step>, int, bool> cases[] = {
      // script, code, STLS
      {{Send("-ERR busy\r\n")}, kNetConnectTimeout, false},  // a refused greeting: no USER failure
      {{Send(go), Expect("USER joe\r\n"), Send("-ERR who\r\n")}, kNetUserFailed, false},
      {{Send(go), Expect("USER joe\r\n"), Send(go), Expect("PASS pw\r\n"),
        Send("-ERR [AUTH] no\r\n")},
       kNetPassFailed,
       false},
      {Join({Pop3Login(), {Expect("QUIT\r\n"), Send("+OK bye\r\n")}}), kNetOk, false},
      {{Send("-ERR busy\r\n")}, kNetConnectFailed, true},
      {{Send(go), Expect("STLS\r\n"), Send("-ERR not here\r\n")}, kNetPop3NoTls, true},
      {{Send(go), Expect("STLS\r\n"), Send(go), TlsAccept(ServerContext(ca.IssueLocalhost())),
        Expect("USER joe\r\n"), Send(go), Expect("PASS pw\r\n"), Send(go)},
       kNetOk,
       true}};
  for (const auto& [script, code, stls] : cases) {
    ScriptedPeer peer(Join({script, {ExpectClose()}}));  // nothing more is sent before the close
    Pop3Client client;
    client.SetPort(peer.port());
    client.SetSecurityEnabled(stls);
    client.SetTrustedCaFile(ca.CaFile().c_str());
    EXPECT_EQ(client.POP3Connect("localhost", "joe", "pw"), code);
    EXPECT_EQ(client.IsSessionSecure(), stls && code == kNetOk);
    EXPECT_EQ(client.LastResponse()[0], code == kNetOk ? '+' : '-');
    EXPECT_EQ(code == kNetOk && !stls ? client.POP3Close() : 0, 0);
    client.CloseConnection();
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
  for (const char* hostile : {"joe\r\nDELE 1", "joe\rDELE 1", "joe\nDELE 1", "\r\n"}) {
    ScriptedPeer unused({}, 200);
    EXPECT_EQ(Connect(unused, hostile), kNetInvalidParameter) << hostile;
    EXPECT_EQ(Connect(unused, "joe", hostile), kNetInvalidParameter) << hostile;
    unused.Finish();
    EXPECT_EQ(unused.Connections(), 0) << hostile;  // not even connected
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

TEST_F(Pop3ClientTest, EachReplyGivesItsValueOrCodeAndTheSessionStaysInStep) {
  lineWise_ = true;
  Play(
      {{"STAT", "+OK 7 123456\r\n", "0|7"},
       {"LIST 3", "+OK 3 2048\r\n", "0|2048"},
       {"LIST 4", "+OK (4) (99)\r\n", "0|99"},
       {"STAT", "+OK\r\n", Of(kNetInvalidResponse)},
       {"LIST 9", "-ERR no such message\r\n", Of(kNetListFailed)},
       {"STAT", "-ERR\r\n", Of(kNetStatFailed)},
       {"STAT", "+OK 99999999999999999999 1\r\n", "0|" + Of(limits::kMaxMessages)},
       {"STAT", "+OK 0 0\r\n", "0|0"},
       {"UIDL", "+OK\r\n1 a\r\n.\r\n", "0"},  // none kept from an empty mailbox
       {"STAT", "+OK 2 10\r\n", "0|2"},
       // No more ids than the count, but read to the end of the listing.
       {"UIDL", "+OK\r\n1 a\r\n2 b\r\n3 c\r\n4 d\r\n.\r\n", "0|1 a|2 b"},
       {"UIDL", "+OK\r\n1 aaa\r\n2 " + std::string(80, 'u') + "\r\n.\r\n",
        "0|1 aaa|2 " + std::string(69, 'u')},
       {"UIDL 2", "+OK 2 bbb\r\n", "0|2 bbb"},
       {"UIDL 5", "+OK 5\r\n", Of(kNetInvalidResponse)},
       {"UIDL", "-ERR\r\n", Of(kNetUidlFailed)},
       {"TOP 3 0", "+OK\r\nFrom: a\r\n..x\r\n\r\n.\r\n", "0|From: a\r\n|..x\r\n|\r\n|closed 0"},
       {"RETR 3", "+OK\r\nbody 1\r\nbody 2\r\n.\r\n", "0|body 1\r\n|closed 0"},  // the rest dropped
       {"TOP 4 0", "-ERR\r\n", Of(kNetTopFailed) + "|closed 0"},
       {"DELE 3", "+OK\r\n", "0"},
       {"DELE 3", "-ERR already\r\n", Of(kNetDeleFailed)},
       {"RSET", "+OK\r\n", "0"},
       {"RSET", "-ERR\r\n", Of(kNetRsetFailed)},
       // A line without its id ends the listing, keeping what came before.
       {"UIDL", "+OK\r\n1 x\r\n7 \r\n8 z\r\n.\r\n", Of(kNetInvalidResponse) + "|1 x"}});
}

TEST_F(Pop3ClientTest, OnlyALineStartEndsAListingOrLosesADot) {
  // Pieces hold 1023 bytes: the second piece of each long line starts with
  // a dot, and one of them is a whole "." line end.
  const std::string dotAfter1023 = std::string(1023, 'x') + ".tail\r\n";
  const std::string endAfter1023 = std::string(1023, 'y') + ".\r\n";
  const std::string longId = "1 " + std::string(1021, 'u'), kept = "0|1 " + std::string(69, 'u');
  room_ = 1024;
  Play({{"RETR 1",
         "+OK\r\nSubject: dots\r\n\r\n..\r\n..leading\r\n" + dotAfter1023 + endAfter1023 + ".\r\n",
         "0|Subject: dots\r\n\r\n.\r\n.leading\r\n" + dotAfter1023 + endAfter1023},
        // The status line's rest is not in the header.
        {"TOP 1 0", "+OK " + std::string(1500, 's') + "\r\n" + endAfter1023 + "Subject: s\r\n.\r\n",
         "0|" + std::string(1023, 'y') + "|.\r\n|Subject: s\r\n|closed 0"},
        {"UIDL", "+OK\r\n" + longId + "\r\n2 two\r\n.\r\n", kept + "|2 two"},
        {"UIDL", "+OK\r\n" + longId + "2 forged\r\n.\r\n", kept},  // the rest of line 1
        {"STAT", "", Of(kNetNoServerResponse)}},                   // no reply in time
       {Pause(3000)});
}

// CAPA says whether TOPs may go out ahead: PIPELINING at the start of a line,
// in any case; a CAPA reply past its bounds closes the session. Ahead, at
// most the window goes unanswered, and the replies read as one by one.
TEST_F(Pop3ClientTest, PipelinedTopsGoOutAheadWithinTheWindowAndReadAsBefore) {
  const std::pair<std::string, bool> capas[] = {
      {"+OK\r\nTOP\r\npipelining\r\nUIDL\r\n.\r\n", true},
      {"+OK\r\nPIPELININGS\r\n" + std::string(1100, 'x') + "PIPELINING\r\n.\r\n", false},
      {"-ERR unknown\r\n", false},
      {"+OK\r\n" + std::string(limits::kMaxReplyLines, 'P') + "PIPELINING\r\n.\r\n", false}};
  for (const auto& [capa, pipelined] : capas) {
    ScriptedPeer peer(Join({Pop3Login(), Pop3Exchange({{"CAPA", capa}})}));
    ASSERT_EQ(Connect(peer), 0);
    EXPECT_EQ(client_.AskPipelining(), pipelined) << Printable(capa);
    EXPECT_EQ(client_.IsConnected(), capa.size() < 2000);  // the endless one is dropped
    client_.CloseConnection();
  }
  std::string window, rest, replies;
  std::vector<int> numbers;
  for (int n = 1; n <= 100; ++n) {
    numbers.push_back(n);
    (n <= 64 ? window : rest) += "TOP " + std::to_string(n) + " 0\r\n";
    replies += n == 3 ? "-ERR gone\r\n" : "+OK\r\nSubject: " + std::to_string(n) + "\r\n.\r\n";
  }
  auto nothingMore = [](PeerSession& session, std::string& error) {
    if (!session.pending().empty()) error = "past the window: " + Printable(session.pending());
    return error.empty();
  };
  ScriptedPeer peer(Join({Pop3Login(),
                          {Expect(window), Do(nothingMore), Send(replies), Expect(rest)},
                          Pop3Exchange({{"STAT", "+OK 1 9\r\n"}, {"TOP 1 0", "+OK\r\n.\r\n"}})}));
  ASSERT_EQ(Connect(peer), 0);
  client_.SendTopsAhead(numbers, 0);
  for (int n : numbers) {
    EXPECT_EQ(Open(n, true), n == 3 ? Of(kNetTopFailed) + "|closed 0"
                                    : "0|Subject: " + std::to_string(n) + "\r\n|closed 0");
  }
  EXPECT_EQ(Run("STAT"), "0|1");  // none ahead any more: sent as ever
  // A command other than the next one ahead: the replies no longer match.
  client_.SendTopsAhead({1, 2}, 0);
  EXPECT_EQ(Run("STAT"), Of(kNetNoConnection));
  EXPECT_FALSE(client_.IsConnected());
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(Pop3ClientTest, RetrieveFailuresKeepWhatCame) {
  ScriptedPeer cut(Join({Pop3Login(), Pop3Exchange({{"RETR 1", "+OK\r\nline one\r\n"}})}));
  ASSERT_EQ(Connect(cut), 0);
  TempDir dir;
  EXPECT_EQ(client_.RetrieveToFile(1, (dir / "no/such/dir/m.txt").c_str()), kNetFileOpenFailed);
  EXPECT_EQ(Retrieve(1), Of(kNetTimeout, "line one\r\n"));  // the stream stopped before its end
  client_.CloseConnection();
  client_.stopAt = 20;              // the progress hook says stop at the line that passes 20 bytes
  client_.SetMaxRetrieveBytes(24);  // 24 bytes may come, not 25
  Play({{"RETR 2", "-ERR gone\r\n", Of(kNetRetrFailed)},
        {"RETR 4", "+OK\r\n01234567890123456789012\r\n", Of(kNetBodyTooLong)},
        {"RETR 3", "+OK\r\n0123456789\r\n0123456789\r\n0123456789\r\n.\r\n",
         Of(kNetAborted, "0123456789\r\n")}});
  EXPECT_EQ(client_.lastTotal, 24);
}

TEST_F(Pop3ClientTest, CommandsNeedAConnectionAndATimeOutAboveZero) {
  int count = 0;
  EXPECT_EQ(client_.GetNumMsgs(&count), kNetNoConnection);
  EXPECT_EQ(client_.GetUIDL(-1), kNetNoConnection);
  EXPECT_EQ(client_.DeleteMsg(1), kNetNoConnection);
  EXPECT_EQ(Retrieve(1), Of(kNetNoConnection));
  EXPECT_EQ(client_.CloseMsg(), 0);
  char line[8];
  EXPECT_EQ(client_.ReadTopLine(line, sizeof line), -1);  // nothing open
  EXPECT_EQ(client_.GetPOP3TimeOut(), 10);
  EXPECT_EQ(client_.SetPOP3TimeOut(0) + client_.SetPOP3TimeOut(-5), 2);
  EXPECT_EQ(client_.SetPOP3TimeOut(1), 0);
  EXPECT_EQ(client_.GetPOP3TimeOut(), 1);
}

}  // namespace
}  // namespace corvane
