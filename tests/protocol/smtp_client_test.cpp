// The SMTP client against scripted servers: greeting and EHLO/HELO, the
// extension list, STARTTLS, the choice and exchanges of AUTH, the envelope
// and the data writer.
#include "protocol/smtp_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "base/limits.h"
#include "protocol/sasl_encoding.h"
#include "protocol/smtp_data_writer.h"
#include "support/scripted_peer.h"
#include "support/smtp_script.h"
#include "support/temp_dir.h"
#include "support/tls_test_ca.h"

namespace corvane {
namespace {

using namespace test;

// One case of a table: a server's script and the code the client ends with.
struct Case {
  const char* what;
  std::vector<Step> script;
  int code;
};

class SmtpClientTest : public ::testing::Test {
 protected:
  // Connects as localhost, with AUTH on when there is a user.
  int Connect(ScriptedPeer& peer, const char* user = nullptr, const char* password = "secret",
              SmtpTls tls = SmtpTls::kOff) {
    client_ = std::make_unique<SmtpClient>();
    client_->SetPort(peer.port());
    client_->SetTls(tls);
    client_->SetTrustedCaFile(ca_.CaFile().c_str());
    client_->SetAuthentication(user != nullptr);
    client_->SetUserName(user);
    client_->SetPassword(password);
    client_->SetPassword("");  // keeps the one before
    return client_->SMTPConnect("127.0.0.1", "localhost");
  }
  TempDir dir_;
  TestCa ca_{dir_.path()};
  std::unique_ptr<SmtpClient> client_;
};

TEST_F(SmtpClientTest, GreetingAndHelloRepliesGiveTheirCodes) {
  std::string flood;
  for (int i = 0; i < 2000; ++i) flood += "250-SIZE\r\n";
  Case cases[] = {
      {"refused greeting", Dialogue("S: 554 go away"), kNetConnectTimeout},
      {"greeting below 200", Dialogue("S: 199 soon"), kNetConnectTimeout},
      {"no EHLO: HELO",
       Dialogue("S: 220 x\nC: EHLO localhost\nS: 502 no\nC: HELO localhost\nS: 250 old"), kNetOk},
      {"neither", Dialogue("S: 220 x\nC: EHLO localhost\nS: 500 no\nC: HELO localhost\nS: 501 no"),
       kNetHelloFailed},
      {"a refused EHLO list", Dialogue("S: 220 x\nC: EHLO localhost\nS: 550-no\nS: 550 really"),
       kNetHelloFailed},
      {"an EHLO list past its bound", SmtpGreeting(flood), kNetHelloFailed},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScriptedPeer peer(std::move(c.script));
    EXPECT_EQ(Connect(peer), c.code);
    EXPECT_TRUE(client_->AuthMethods().empty());
  }
  client_->SetPort(ClosedPort());
  EXPECT_NE(client_->SMTPConnect("127.0.0.1", "localhost"), kNetOk);
}

TEST_F(SmtpClientTest, AReplyThatNeverEndsFailsAfterItsLineBound) {
  // The greeting and a MAIL reply that go on and on: the client leaves after
  // its bound, which shows in the lines the server got to write.
  for (bool greeting : {true, false}) {
    int written = 0;
    Step endless = Do([&written](PeerSession& session, std::string&) {
      for (written = 0; written < 5000 && session.Write("250-still there\r\n"); ++written) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      return true;
    });
    ScriptedPeer peer(Join({greeting ? std::vector<Step>{} : SmtpGreeting("250 HELP\r\n"),
                            Dialogue(greeting ? "" : "C: MAIL FROM:<s@example.org>"),
                            {endless}}));
    int code = Connect(peer);
    if (!greeting && code == kNetOk) code = client_->StartData("s@example.org", "a@example.com");
    EXPECT_EQ(code, greeting ? kNetConnectTimeout : kNetNoServerResponse);
    client_.reset();
    peer.Finish();
    EXPECT_LT(written, 5000) << greeting;
    EXPECT_GE(written, limits::kMaxReplyLines - 1) << greeting;
  }
}

TEST_F(SmtpClientTest, TheExtensionListEndsWhereTheSocketRunsDry) {
  ScriptedPeer peer(
      Join({SmtpGreeting("250-mail.test\r\n250-STARTTLS\r\n250-AUTH LOGIN CRAM-MD5\r\n"
                         "250-AUTH PLAIN\r\n250-8BITMIME\r\n"),
            {Pause(300)},
            Dialogue("S: 250 AUTH XOAUTH2")}));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_TRUE(client_->StartTlsOffered());
  EXPECT_EQ(client_->AuthMethods(), (std::vector<std::string>{"LOGIN", "CRAM-MD5", "PLAIN"}));
}

TEST_F(SmtpClientTest, AuthPicksCramMd5ElseLoginAndReportsTheRefusedPart) {
  const std::string user = "C: AUTH LOGIN\nS: 334 VXNlcm5hbWU6\nC: dXNlcg==\n";
  const std::string password = user + "S: 334 UGFzc3dvcmQ6\nC: c2VjcmV0\n";
  struct AuthCase {
    std::string offer, dialogue;
    int code;
    const char* user = "user";
    const char* password = "secret";
  } cases[] = {
      // The exchange of the CRAM-MD5 definition: its challenge, user and key
      // give exactly its answer.
      {"LOGIN CRAM-MD5 PLAIN",
       "C: AUTH CRAM-MD5\nS: 334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\n"
       "C: dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw\nS: 235 ok",
       kNetOk, "tim", "tanstaaftanstaaf"},
      {"CRAM-MD5", "C: AUTH CRAM-MD5\nS: 504 no", kNetNotSupported},
      {"CRAM-MD5", "C: AUTH CRAM-MD5\nS: 535 no", kNetLoginFailed},
      {"CRAM-MD5", "C: AUTH CRAM-MD5\nS: ", kNetInvalidResponse},  // a reply cut short
      {"CRAM-MD5", "C: AUTH CRAM-MD5\nS: 334 ***", kNetFailed},
      {"CRAM-MD5", "C: AUTH CRAM-MD5\nS: 334 PDEyMzQ+\nS: 535 no", kNetLoginFailed},
      {"CRAM-MD5", "", kNetInvalidUser, ""},
      {"CRAM-MD5", "", kNetInvalidPassword, "user", ""},
      {"LOGIN", "", kNetInvalidUser, ""},
      {"PLAIN LOGIN", "C: AUTH LOGIN\nS: 504 no", kNetNotSupported},
      {"LOGIN", "C: AUTH LOGIN\nS: 500 what", kNetLoginFailed},
      {"LOGIN", user + "S: 535 who", kNetInvalidUser},
      {"LOGIN", password + "S: 535 no", kNetInvalidPassword},
      {"LOGIN", password + "S: 235 ok", kNetOk},
      {"PLAIN XOAUTH2", "", kNetFailed},
  };
  for (const AuthCase& c : cases) {
    SCOPED_TRACE(c.dialogue);
    ScriptedPeer peer(
        Join({SmtpGreeting("250-x\r\n250 AUTH " + c.offer + "\r\n"), Dialogue(c.dialogue)}));
    EXPECT_EQ(Connect(peer, c.user, c.password), c.code);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  // Without authentication switched on, offered methods are left alone.
  ScriptedPeer peer(SmtpGreeting("250-x\r\n250 AUTH LOGIN\r\n"));
  EXPECT_EQ(Connect(peer), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received(), "EHLO localhost\r\n");
}

TEST_F(SmtpClientTest, EachTlsModeAgainstWhatTheServerOffers) {
  auto tls = [this] { return std::vector<Step>{TlsAccept(ServerContext(ca_.IssueLocalhost()))}; };
  const std::string offer = "250-mail.test\r\n250-AUTH CRAM-MD5\r\n250 STARTTLS\r\n";
  const std::string clear = "250-mail.test\r\n250 AUTH LOGIN\r\n";
  const auto upgrade = Join({Dialogue("C: STARTTLS\nS: 220 go ahead"), tls()});
  // Inside TLS only the new EHLO counts: CRAM-MD5 of the clear one is gone.
  const auto login = Dialogue(
      "C: AUTH LOGIN\nS: 334 VXNlcm5hbWU6\nC: dXNlcg==\nS: 334 UGFzc3dvcmQ6\nC: c2VjcmV0\nS: 235 "
      "ok");
  const auto inside =
      Join({Dialogue("C: EHLO localhost\nS: 250-mail.test\nS: 250 AUTH LOGIN"), login});
  struct TlsCase {
    SmtpTls tls;
    Case expected;
    bool secure;
  } cases[] = {
      {SmtpTls::kOff,
       {"off", Join({SmtpGreeting(offer), Dialogue("C: AUTH CRAM-MD5\nS: 535 no")}),
        kNetLoginFailed},
       false},
      {SmtpTls::kAuto, {"auto, no offer", Join({SmtpGreeting(clear), login}), 0}, false},
      {SmtpTls::kAuto, {"auto, an offer", Join({SmtpGreeting(offer), upgrade, inside}), 0}, true},
      {SmtpTls::kAuto,
       {"auto, HELO", Join({SmtpGreeting("502 no\r\n"), Dialogue("C: HELO localhost\nS: 250 old")}),
        0},
       false},
      {SmtpTls::kAuto,
       {"refused upgrade", Join({SmtpGreeting(offer), Dialogue("C: STARTTLS\nS: 454 no")}),
        kNetHelloFailed},
       false},
      // The server's answer to STARTTLS comes in the clear where TLS should.
      {SmtpTls::kAuto,
       {"no TLS",
        Join({SmtpGreeting(offer),
              Dialogue("C: STARTTLS\nS: 220 go"),
              {Pause(100), Send("250 forged\r\n"), Drain()}}),
        -1},
       false},
      {SmtpTls::kRequired, {"required, no offer", SmtpGreeting(clear), kNetSmtpNoStartTls}, false},
      {SmtpTls::kRequired,
       {"required, no EHLO", SmtpGreeting("502 no\r\n"), kNetSmtpNoStartTls},
       false},
      {SmtpTls::kRequired,
       {"required, an offer", Join({SmtpGreeting(offer), upgrade, inside}), 0},
       true},
      {SmtpTls::kImplicit,
       {"implicit", Join({tls(), Dialogue("S: 220 mail.test"), inside}), 0},
       true},
  };
  for (TlsCase& c : cases) {
    SCOPED_TRACE(c.expected.what);
    ScriptedPeer peer(std::move(c.expected.script));
    const int code = Connect(peer, "user", "secret", c.tls);
    if (c.expected.code < 0) {
      EXPECT_TRUE(code >= kNetSecurityFirst && code <= kNetSecurityLast) << code;
    } else {
      EXPECT_EQ(code, c.expected.code);
    }
    EXPECT_EQ(client_->IsSessionSecure(), c.secure);
    client_->CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    // A failure never goes on in the clear, and never on a second connection.
    EXPECT_EQ(peer.Connections(), 1);
    EXPECT_TRUE(code == 0 || c.tls == SmtpTls::kOff ||
                peer.Received().find("AUTH") == std::string::npos);
  }
}

TEST_F(SmtpClientTest, EnvelopeRepliesAndArgumentsThatWouldNotStayOneLine) {
  // A refused or hostile argument is never sent, and fails as a refused
  // command does; the session is still fit to QUIT.
  const std::string mail = "C: MAIL FROM:<s@example.org>\nS: 299 OK\n";
  const std::string rcpt = mail + "C: RCPT TO:<a@example.com>\nS: 200 OK\nC: DATA\n";
  struct EnvelopeCase {
    std::string dialogue;
    int code;
    std::string from = "s@example.org", to = "a@example.com";
  } cases[] = {
      {rcpt + "S: 354 go", kNetOk},
      {rcpt + "S: 250 hm", kNetDataFailed},
      {"C: MAIL FROM:<s@example.org>\nS: 300 hm", kNetNoServerResponse},
      {mail + "C: RCPT TO:<a@example.com>\nS: 199 hm", kNetRcptFailed},
      {"", kNetBadAddress, "<>"},
      {"", kNetNoServerResponse, "Sender <s@example.org\r\nRCPT TO:<v@example.org>>"},
      {"", kNetNoServerResponse, "s@example.org\rRSET"},
      {mail, kNetRcptFailed, "s@example.org", "<v@example.org\n.>"},
      {mail, kNetRcptFailed, "s@example.org", std::string("v@example.org\0.evil", 19)},
  };
  for (const EnvelopeCase& c : cases) {
    SCOPED_TRACE(c.dialogue + " " + Printable(c.from + " " + c.to));
    ScriptedPeer peer(Join({SmtpGreeting("250 HELP\r\n"), Dialogue(c.dialogue + "\nC: QUIT")}));
    ASSERT_EQ(Connect(peer), 0);
    EXPECT_EQ(client_->StartData(c.from, c.to), c.code);
    client_->SMTPClose();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  EXPECT_EQ(client_->StartData("s@example.org", "a@example.com"), kNetNoConnection);
  for (const char* localName : {"localhost\r\nMAIL FROM:<x@example.org>", "localhost\n", "a\r"}) {
    ScriptedPeer peer(Dialogue("S: 220 x\nC: QUIT"));
    client_->SetPort(peer.port());
    EXPECT_EQ(client_->SMTPConnect("127.0.0.1", localName), kNetHelloFailed);
    client_->SMTPClose();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

std::string Times(const std::string& piece, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += piece;
  return out;
}

TEST_F(SmtpClientTest, NothingInTheDataCanEndItOrAddACommand) {
  // The data goes out with CRLF line ends and a "." before every line that
  // starts with one, so that only the client's own terminator ends it, the
  // same whether it comes whole or a byte at a time; past the line limit a
  // line goes on as a line of its own.
  const std::string longLine = std::string(999, 'x') + "." + std::string(500, 'y');
  struct DataCase {
    std::string value, sent;
    size_t lineLimit = 0;
  } cases[] = {
      {"Hi\r\n.\r\nMAIL FROM:<x@example.org>\r\nDATA\r\n",
       "Hi\r\n..\r\nMAIL FROM:<x@example.org>\r\nDATA\r\n"},
      {".starts\r\n..two\r\n.\r\nend\r\n", "..starts\r\n...two\r\n..\r\nend\r\n"},
      {"a\r.\rMAIL FROM:<x@example.org>", "a\r\n..\r\nMAIL FROM:<x@example.org>"},
      {"a\n.\nMAIL\n", "a\r\n..\r\nMAIL\r\n"},
      {std::string(".\0\r\n.\0", 6), std::string("..\0\r\n..\0", 8)},
      {".", ".."},
      {"a" + Times("\r\n", 300) + Times("\r", 300) + "." + Times("\n", 300) + ".",
       "a" + Times("\r\n", 600) + ".." + Times("\r\n", 300) + ".."},
      {longLine, std::string(999, 'x') + ".\r\n" + std::string(500, 'y'), 1000},
      {longLine, longLine},  // without a limit one line: its "." stays single
  };
  for (const DataCase& c : cases) {
    for (bool bytewise : {false, true}) {
      SCOPED_TRACE(Printable(c.value) + (bytewise ? ", a byte at a time" : ""));
      std::string data;
      ScriptedPeer peer(Join(
          {SmtpGreeting("250 HELP\r\n"), SmtpTransaction("s@example.org", "a@example.com", data)}));
      ASSERT_EQ(Connect(peer), 0);
      ASSERT_EQ(client_->StartData("s@example.org", "a@example.com"), 0);
      SmtpDataWriter out(*client_);
      out.LimitLines(c.lineLimit);
      for (size_t at = 0; at < c.value.size(); at += bytewise ? 1 : c.value.size()) {
        EXPECT_TRUE(out.Add(std::string_view(c.value).substr(at, bytewise ? 1 : c.value.size())));
      }
      EXPECT_TRUE(out.Flush());
      EXPECT_EQ(client_->EndData(), 0);
      ASSERT_TRUE(peer.Finish()) << peer.Errors();
      EXPECT_EQ(data, c.sent + "\r\n.\r\n") << Printable(data, 2000);
    }
  }
}

TEST(SmtpAddress, TheAddressOfAMailboxTextAndItsBase64) {
  const std::pair<const char*, const char*> addresses[] = {
      {"\"Doe, <John>\" <john@example.com>", "john@example.com"},
      {"Ann<ann@example.com", "ann@example.com"},
      {"bob@example.com (Bob)", "bob@example.com"},
      {" bob@example.com", "bob@example.com"}};
  char buffer[64];
  for (const auto& [text, address] : addresses) {
    EXPECT_EQ(SmtpClient::GetAddress(text, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, address);
  }
  EXPECT_EQ(SmtpClient::GetAddress("<a@b.example>", buffer, 6), 0);
  EXPECT_STREQ(buffer, "a@b.e");
  EXPECT_EQ(SmtpClient::GetAddress("ab", buffer, sizeof buffer), 1);
  const std::pair<const char*, const char*> codes[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}};
  for (const auto& [plain, coded] : codes) {
    EXPECT_EQ(Base64Encode(plain), coded);
    EXPECT_EQ(Base64Decode(std::string(" ") + coded + "\r\n").value_or("?"), plain);
  }
  EXPECT_FALSE(Base64Decode("Zm9").has_value());
  EXPECT_FALSE(Base64Decode("Z!9v").has_value());
}

}  // namespace
}  // namespace corvane
