// The IMAP response reader fed from memory, and the IMAP client against
// scripted peers: login, STARTTLS, the mailbox commands, IDLE, hostile servers.
#include "protocol/imap_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "base/limits.h"
#include "stream/buffer_data_source.h"
#include "support/temp_dir.h"
#include "support/tls_test_ca.h"

namespace corvane {
namespace {

using namespace test;
using Clock = std::chrono::steady_clock;

std::string Show(const std::vector<ImapItem>& items) {
  std::string out;
  for (const ImapItem& i : items) {
    out += out.empty() ? "" : " ";
    switch (i.kind) {
      case ImapItem::Kind::kList:
        out += "(" + Show(i.items) + ")";
        break;
      case ImapItem::Kind::kQuoted:
        out += "\"" + i.text + "\"";
        break;
      case ImapItem::Kind::kNumber:
        out += "#" + i.text;
        break;
      case ImapItem::Kind::kNil:
        out += "NIL";
        break;
      case ImapItem::Kind::kLiteral:
        out += "{" + std::to_string(i.number) + (i.cut ? " cut:" : ":") +
               (i.text.size() > 20 ? std::to_string(i.text.size()) + " kept" : i.text) + "}";
        break;
      default:
        out += i.text;
    }
  }
  return out;
}

// Every response of `bytes`, " | " between them, "!n" for a failed read.
std::string Parse(const std::string& bytes, const ImapLiteralTap& tap = nullptr) {
  MemoryByteSource source(bytes);
  std::string out;
  while (!source.AtEnd()) {
    ImapResponse r;
    ImapRead read = ReadImapResponse(source, r, tap);
    out += out.empty() ? "" : " | ";
    if (read != ImapRead::kOk) return out + "!" + std::to_string(static_cast<int>(read));
    out += r.type == ImapResponse::Type::kContinuation ? "+ " + r.text
           : r.status.empty()                          ? "* " + Show(r.items)
                              : (r.tag.empty() ? "*" : r.tag) + " " + r.status;
    if (!r.code.empty()) out += " [" + Show(r.code) + "]";
    if (!r.status.empty()) out += " " + r.text;
  }
  return out;
}

TEST(ImapResponseTest, ReadsEachFormAndKeepsEveryBound) {
  const std::string nest16 = std::string(15, '(') + std::string(15, ')');
  std::string items, lines;
  for (size_t i = 0; i < limits::kMaxImapItems; ++i) items += " a";
  for (int i = 0; i < 18; ++i) lines += std::string(60000, 'x') + " {0}\r\n";
  const std::pair<std::string, std::string> cases[] = {
      {"* 3 EXISTS\r\n+ go on\r\nA1 ok [UIDVALIDITY 77] done\n",
       "* #3 EXISTS | + go on | A1 OK [UIDVALIDITY #77] done"},
      {"* OK [PERMANENTFLAGS (\\Seen \\*)] x\r\n* BYE\r\n",
       "* OK [PERMANENTFLAGS (\\Seen \\*)] x | * BYE "},
      {"* LIST (\\Noselect) \"/\" \"a\\\"b\\\\c\" nil NIL 18446744073709551616\r\n",
       "* LIST (\\Noselect) \"/\" \"a\"b\\c\" NIL NIL 18446744073709551616"},
      {"* 1 FETCH (UID 5 BODY[HEADER.FIELDS (SUBJECT FROM)] {6}\r\nab\r\n\r\n UID 6)\r\n",
       "* #1 FETCH (UID #5 BODY[HEADER.FIELDS (SUBJECT FROM)] {6:ab\r\n\r\n} UID #6)"},
      {"* 2 FETCH (A {2}\r\n() B {3+}\r\n{1})\r\n", "* #2 FETCH (A {2:()} B {3:{1}})"},
      {"* 1 FETCH (BODY[] {" + std::to_string(limits::kMaxHeaderBytes + 9) + "}\r\n" +
           std::string(limits::kMaxHeaderBytes + 9, 'h') + ")\r\n",
       "* #1 FETCH (BODY[] {262153 cut:262144 kept})"},
      {"* X " + nest16 + "\r\n", "* X " + nest16},
      {"* X (" + nest16 + ")\r\n", "!4"},              // too deep
      {"*" + items + "\r\n", "* " + items.substr(1)},  // as many items as allowed
      {"*" + items + " b\r\n", "!5"},                  // one more
      {"* " + std::string(limits::kMaxReplyLineBytes, 'x') + "\r\n", "!2"},  // line too long
      {"* X " + lines + "\r\n", "!3"},  // a response past its room
      {"* X {16777217}\r\n", "!3"},     // a literal too large to hold
      {"* X {99999999999999999999}\r\n", "!6"},
      {"* X {5}\r\nabc", "!1"},  // the literal ends early
      {"* X (a b\r\n", "!6"},
      {"* X a)\r\n", "!6"},
      {"* X \"ab\r\n", "!6"},
      {"* X {2} y\r\n", "!6"},
      {"* OK [X {2}\r\nab]\r\n", "!6"},
      {"A1 3 EXISTS\r\n", "!6"},
      {"\r\n", "!6"},
      {"* 1 EXISTS", "!1"}};
  for (const auto& [bytes, shown] : cases) EXPECT_EQ(Parse(bytes), shown) << Printable(bytes);
  // A streamed literal goes to its sink, not into the response.
  struct : ImapLiteralSink {
    bool Write(const char* bytes, size_t n) override { return got.append(bytes, n).size() < 9; }
    std::string got;
  } sink;
  ImapLiteralTap tap = [&sink](const std::vector<ImapItem>& list, uint64_t) {
    return list.size() > 1 && list[list.size() - 2].IsAtom("BODY[]") ? &sink : nullptr;
  };
  EXPECT_EQ(Parse("* 1 FETCH (BODY[] {5}\r\nHello X {1}\r\nx)\r\n", tap),
            "* #1 FETCH (BODY[] {5 cut:} X {1:x})");
  EXPECT_EQ(sink.got, "Hello");
  EXPECT_EQ(Parse("* 1 FETCH (BODY[] {9}\r\n123456789)\r\n", tap), "!7");  // the sink refused
}

// A server's side of LOGIN joe pw (tag A<tag>) and EXAMINE with 3 messages.
std::vector<Step> ImapLogin(int tag, const std::string& caps = "IMAP4rev1 IDLE") {
  const std::string t = "A" + std::to_string(tag), u = "A" + std::to_string(tag + 1);
  return Dialogue("C: " + t + " LOGIN \"joe\" \"pw\"\nS: " + t + " OK [CAPABILITY " + caps +
                  "] in\nC: " + u +
                  " EXAMINE INBOX\nS: * 3 EXISTS\nS: * OK [UIDVALIDITY 77] ok\nS: " + u +
                  " OK [READ-ONLY] done");
}
std::vector<Step> ImapOpen(const std::string& caps = "IMAP4rev1 IDLE") {
  return Join({{Send("* OK [CAPABILITY " + caps + "] hi\r\n")}, ImapLogin(1, caps)});
}

class ImapClientTest : public ::testing::Test {
 protected:
  int Open(ScriptedPeer& peer, const char* user = "joe", const char* password = "pw") {
    client_.SetPort(peer.port());
    client_.SetReplyTimeOut(1);
    return client_.Open("localhost", user, password);
  }
  TempDir dir_;
  TestCa ca_{dir_.path()};
  SslCtxPtr server_ = ServerContext(ca_.IssueLocalhost());
  struct : ImapClient {
    bool IsAborted() override { return abortAt.load() < Clock::now() || ImapClient::IsAborted(); }
    std::atomic<Clock::time_point> abortAt{Clock::time_point::max()};
  } client_;
};

TEST_F(ImapClientTest, LoginQuotesOrSendsLiteralsAndRefusesLineBreaksBeforeSending) {
  const std::string ok = "S: A1 OK in\nC: A2 CAPABILITY\nS: * CAPABILITY IMAP4rev1\nS: A2 OK\n";
  const std::tuple<const char*, const char*, std::string, std::vector<Step>, int> cases[] = {
      {"jo\"e", "p\\w", "", Dialogue("C: A1 LOGIN \"jo\\\"e\" \"p\\\\w\"\n" + ok), 0},
      {"", "", "", Dialogue("C: A1 LOGIN \"\" \"\"\n" + ok), 0},
      {"j\xc3\xb6", "\t", "",
       Dialogue("C: A1 LOGIN {3}\nS: + go\nC: j\xc3\xb6 {1}\nS: + go\nC: \t\n" + ok), 0},
      {"j\xc3\xb6",
       "pw",
       "LITERAL+",
       {Expect("A1 LOGIN {3+}\r\nj\xc3\xb6 \"pw\"\r\n"), Send("A1 OK [CAPABILITY X] in\r\n")},
       0},
      {"j\xc3\xb6", "pw", "", Dialogue("C: A1 LOGIN {3}\nS: A1 NO no\n"), kNetLoginFailed},
      {"joe", "pw", "",
       Dialogue("C: A1 LOGIN \"joe\" \"pw\"\nS: * OK fine\nS: A1 NO [AUTHENTICATIONFAILED] no"),
       kNetLoginFailed},
      {"joe", "pw", "BYE", {}, kNetConnectFailed},
      {"joe", "pw", "",  // EXAMINE without UIDVALIDITY
       Dialogue("C: A1 LOGIN \"joe\" \"pw\"\nS: A1 OK [CAPABILITY IDLE] in\nC: A2 EXAMINE "
                "INBOX\nS: * 3 EXISTS\nS: A2 OK"),
       kNetInvalidResponse}};
  for (const auto& [user, password, caps, login, code] : cases) {
    SCOPED_TRACE(Printable(user));
    std::vector<Step> greeting = {
        Send(caps == "BYE" ? "* BYE busy\r\n" : "* OK [CAPABILITY IMAP4rev1 " + caps + "] hi\r\n")};
    std::vector<Step> examine =
        Dialogue(code ? ""
                      : "C: A" + std::to_string(caps.empty() ? 3 : 2) +
                            " EXAMINE INBOX\nS: * OK [UIDVALIDITY 1] x\nS: A" +
                            std::to_string(caps.empty() ? 3 : 2) + " OK");
    ScriptedPeer peer(Join({greeting, login, examine, {ExpectClose()}}));
    EXPECT_EQ(Open(peer, user, password), code);
    EXPECT_EQ(client_.UidValidity(), code ? 0u : 1u);
    client_.CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  for (const char* hostile : {"joe\r\nA9 DELETE INBOX", "joe\rx", "joe\nx"}) {
    ScriptedPeer unused({}, 200);
    EXPECT_EQ(Open(unused, hostile), kNetInvalidParameter);
    EXPECT_EQ(Open(unused, "joe", hostile), kNetInvalidParameter);
    unused.Finish();
    EXPECT_EQ(unused.Connections(), 0);
  }
}

TEST_F(ImapClientTest, StartTlsWhenOfferedNeverInTheClearAfterAFailedUpgrade) {
  TestCa stranger(dir_.path(), "Stranger CA");
  const std::string go = "A1 STARTTLS\r\n";
  const std::tuple<std::string, std::vector<Step>, int, bool> cases[] = {
      // greeting (empty: TLS from the first byte), what follows, code, secure
      {"* OK [CAPABILITY IMAP4rev1 STARTTLS] hi",
       Join({{Expect(go), Send("A1 OK go\r\n"), TlsAccept(server_)},
             Dialogue("C: A2 CAPABILITY\nS: * CAPABILITY IMAP4rev1 IDLE\nS: A2 OK"),
             ImapLogin(3)}),
       0, true},
      {"* OK [CAPABILITY IMAP4rev1] hi", ImapLogin(1), 0, false},
      {"* OK hi",
       Join({Dialogue("C: A1 CAPABILITY\nS: * CAPABILITY IMAP4rev1\nS: A1 OK"), ImapLogin(2)}), 0,
       false},
      {"* OK [CAPABILITY STARTTLS] hi",
       {Expect(go), Send("A1 NO not now\r\n")},
       kNetImapNoStartTls,
       false},
      {"* OK [CAPABILITY STARTTLS] hi",
       {Expect(go), Send("A1 OK go\r\n* OK [CAPABILITY IMAP4rev1] x\r\n")},
       kNetHandshakeFailed,
       false},
      {"* OK [CAPABILITY STARTTLS] hi",
       {Expect(go), Send("A1 OK go\r\n"),
        TlsAccept(ServerContext(stranger.IssueLocalhost()), Handshake::kMustFail)},
       kNetCertTrustFailed,
       false},
      {"* PREAUTH [CAPABILITY IMAP4rev1 STARTTLS] hi", {}, kNetImapNoStartTls, false},
      {"", Join({{TlsAccept(server_), Send("* OK [CAPABILITY IMAP4rev1] hi\r\n")}, ImapLogin(1)}),
       0, true}};
  for (const auto& [greeting, rest, code, secure] : cases) {
    SCOPED_TRACE(greeting + " " + std::to_string(code));
    std::vector<Step> hello;
    if (!greeting.empty()) hello.push_back(Send(greeting + "\r\n"));
    ScriptedPeer peer(Join({hello, rest, {ExpectClose()}}));
    ImapClient client;
    client.SetPort(peer.port());
    client.SetImplicitTlsPort(greeting.empty() ? peer.port() : 993);
    client.SetSecurityEnabled(true);
    client.SetTrustedCaFile(ca_.CaFile().c_str());
    EXPECT_EQ(client.Open("localhost", "joe", "pw"), code);
    EXPECT_EQ(client.IsSessionSecure(), secure);
    EXPECT_EQ(client.HasCapability("idle"), code == 0);
    client.CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

std::vector<Step> S(const std::string& bytes) {
  return {Send(bytes)};
}

TEST_F(ImapClientTest, EachCommandGivesItsValueOrCodeAndABrokenReplyClosesTheSession) {
  const std::string headers = "UID FETCH 1:3,5,9 (UID BODY.PEEK[HEADER.FIELDS (SUBJECT FROM)])";
  const std::string big(limits::kMaxHeaderBytes + 10, 'h'), body = "UID FETCH 5 BODY.PEEK[]";
  const std::tuple<std::string, std::vector<Step>, std::string> cases[] = {
      {"UID FETCH 1:* (UID)",
       S("* 2 FETCH (UID 9)\r\n* 1 FETCH (FLAGS () UID 1)\r\n* 3 FETCH (UID 5)\r\n* 3 FETCH (UID "
         "5)\r\n* 4 EXISTS\r\nA3 OK\r\n"),
       "0|1,5,9,|4 open"},
      {"UID FETCH 1:* (UID)", S("* 1 FETCH (UID 1)\r\nA3 NO x\r\n"), "58||3 open"},
      {headers,
       S("* 1 FETCH (UID 5 BODY[HEADER.FIELDS (SUBJECT FROM)] {12}\r\nSubject: a\r\n)\r\n"
         "* 2 FETCH (BODY[HEADER.FIELDS (\"SUBJECT\" \"FROM\")] \"From: b\" UID 1)\r\n"
         "* 4 FETCH (UID 7 BODY[HEADER.FIELDS (SUBJECT FROM)] {3}\r\nxyz)\r\n"
         "* 1 FETCH (UID 5 BODY[HEADER.FIELDS (SUBJECT FROM)] NIL)\r\n* 3 FETCH (FLAGS "
         "(\\Seen))\r\n"
         "* 4 FETCH (UID 9 BODY[HEADER.FIELDS (SUBJECT FROM)] NIL)\r\nA3 OK\r\n"),
       "0|5=Subject: a\r\n,1=From: b,9=,|3 open"},
      {"UID FETCH 5 (UID BODY.PEEK[HEADER])",
       S("* 1 FETCH (UID 5 BODY[HEADER] {" + std::to_string(big.size()) + "}\r\n" + big +
         ")\r\nA3 OK\r\n"),
       "0|5=262144 bytes,|3 open"},
      {headers, S("A3 BAD what\r\n"), "57||3 open"},
      {body, S("* 3 FETCH (UID 5 BODY[] {12}\r\nHello\r\nWorld)\r\nA3 OK\r\n"),
       "0|Hello\r\nWorld|3 open"},
      {body,
       S("* 2 FETCH (BODY[] {3}\r\nabc UID 4)\r\n* 3 FETCH (UID 5 BODY[] \"xy\")\r\nA3 OK\r\n"),
       "0|xy|3 open"},
      {body,
       S("* 3 FETCH (UID 5 BODY[] {12}\r\nHello\r\nWorld BODY[] {12}\r\nmore bytes!!)\r\nA3 "
         "OK\r\n"),
       "0|Hello\r\nWorld|3 open"},  // together past the bound: the first body only
      {body, S("* 3 FETCH (UID 5 BODY[] NIL)\r\nA3 OK\r\n"), "39||3 open"},
      {body, S("* 3 FETCH (UID 5 BODY[] {21}\r\n" + std::string(21, 'b')), "79||3 closed"},
      {body, S("A3 NO gone\r\n"), "48||3 open"},
      {"NOOP", S("* 4 EXISTS\r\n* 1 RECENT\r\nA3 OK\r\n"), "1|4 open"},
      {"NOOP", S("* 2 EXPUNGE\r\nA3 OK\r\n"), "1|2 open"},
      {"NOOP", S("* 0 RECENT\r\n* OK [ALERT] hi\r\nA3 OK\r\n"), "0|3 open"},
      {"NOOP", S("A3 NO\r\n"), "87|3 open"},
      {"LOGOUT", S("* BYE bye\r\nA3 OK\r\n"), "0|3 closed"},
      {"LOGOUT", {Send("* BYE bye\r\n"), Close()}, "0|3 closed"},
      // Hostile replies: the session cannot be trusted to be in step after them.
      {"NOOP", S("B7 OK\r\n"), "37|3 closed"},
      {"NOOP", S("A2 OK\r\n"), "37|3 closed"},
      {"NOOP", S("* 1 FETCH " + std::string(20, '(') + "\r\n"), "37|3 closed"},
      {"NOOP", S("* 1 FETCH (X {99999999999})\r\n"), "37|3 closed"},
      {"NOOP", {Send("* BYE going\r\n"), Close()}, "4|3 closed"},
      {"NOOP", {}, "12|3 closed"},
      {"NOOP", {Repeat("", "* OK still here\r\n")}, "37|3 closed"},
      {"NOOP", {Repeat("* OK ", std::string(1024, 'x'))}, "37|3 closed"}};
  for (const auto& [command, reply, result] : cases) {
    SCOPED_TRACE(command + " " + result);
    ScriptedPeer peer(Join({ImapOpen(), {Expect("A3 " + command + "\r\n")}, reply}));
    ASSERT_EQ(Open(peer), 0);
    std::string out;
    if (command.starts_with("UID FETCH 1:*")) {
      std::vector<uint32_t> uids{42};
      out = std::to_string(client_.FetchUids(uids)) + "|";
      for (uint32_t uid : uids) out += std::to_string(uid) + ",";
    } else if (command.starts_with("UID FETCH 5 BODY")) {
      BufferDataSource message(64, "m");
      out = std::to_string(client_.FetchMessage(5, message, 20)) + "|";
      out += message.Data();
    } else if (command.starts_with("UID FETCH")) {
      bool some = command.find("1:3") != std::string::npos;
      std::vector<uint32_t> uids =
          some ? std::vector<uint32_t>{9, 5, 1, 2, 3, 5} : std::vector<uint32_t>{5};
      std::vector<std::string> fields =
          some ? std::vector<std::string>{"SUBJECT", "FROM"} : std::vector<std::string>{};
      int code = client_.FetchHeaders(uids, fields, [&out](uint32_t uid, std::string header) {
        out += std::to_string(uid) + "=" +
               (header.size() > 99 ? std::to_string(header.size()) + " bytes" : header) + ",";
      });
      out = std::to_string(code) + "|" + out;
    } else {
      out = std::to_string(command == "NOOP" ? client_.Noop() : client_.Logout());
    }
    EXPECT_EQ(out + "|" + std::to_string(client_.Exists()) +
                  (client_.IsConnected() ? " open" : " closed"),
              result);
    client_.CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  // Field names are put on the command line: only names, nothing sent else.
  ScriptedPeer peer(ImapOpen());
  ASSERT_EQ(Open(peer), 0);
  EXPECT_EQ(client_.FetchHeaders({1}, {"SUBJECT)] A9 DELETE"}, nullptr), kNetInvalidParameter);
  EXPECT_EQ(ImapClient::UidSet({7, 1, 3, 2, 2, 9, 8, 5}), "1:3,5,7:9");
  client_.CloseConnection();
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received().find("FETCH"), std::string::npos);
}

TEST_F(ImapClientTest, IdleEndsOnAChangeTheTimeOrAnAbort) {
  const std::string idling = "+ idling\r\n";
  const std::tuple<std::vector<Step>, int, int, int, int> cases[] = {
      // after IDLE, seconds, abort after ms, result, at most ms
      {{Send(idling), Pause(300), Send("* 4 EXISTS\r\n"), Expect("DONE\r\n"), Send("A3 OK\r\n")},
       5,
       -1,
       1,
       1500},
      {{Send(idling), Expect("DONE\r\n", 3000), Send("A3 OK\r\n")}, 1, -1, 0, 2000},
      {{Send("* 1 EXPUNGE\r\n" + idling), Expect("DONE\r\n"), Send("A3 OK\r\n")}, 5, -1, 1, 500},
      {{Send("A3 NO no\r\n")}, 5, -1, kNetNotSupported, 500},
      {{Send(idling)}, 30, 300, kNetAborted, 800},
      {{Send(idling + "* 4 EXI")}, 30, 300, kNetAborted, 800},  // amid a line
      {{Send(idling), Close()}, 30, -1, kNetNoServerResponse, 500}};
  for (const auto& [steps, seconds, abortMs, result, maxMs] : cases) {
    SCOPED_TRACE(result);
    ScriptedPeer peer(Join({ImapOpen(), {Expect("A3 IDLE\r\n")}, steps}));
    ASSERT_EQ(Open(peer), 0);
    const auto start = Clock::now();
    if (abortMs >= 0) client_.abortAt = start + std::chrono::milliseconds(abortMs);
    EXPECT_EQ(client_.Idle(seconds), result);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
    EXPECT_LE(ms.count(), maxMs);
    EXPECT_GE(ms.count(), result == 0 ? 1000 : 0);
    client_.abortAt = Clock::time_point::max();
    client_.CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  ScriptedPeer peer(ImapOpen("IMAP4rev1"));  // no IDLE: nothing is sent
  ASSERT_EQ(Open(peer), 0);
  EXPECT_EQ(client_.Idle(1), kNetNotSupported);
  client_.CloseConnection();
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received().find("IDLE"), std::string::npos);
}

}  // namespace
}  // namespace corvane
