// The SMTP client against scripted servers: greeting and EHLO/HELO, the
// extension list, STARTTLS, the choice and exchanges of AUTH, the envelope
// and the data writer.
#include "protocol/smtp_client.h"

#include <gtest/gtest.h>

#include "base/limits.h"
#include "protocol/sasl_encoding.h"
#include "protocol/smtp_data_writer.h"
#include "support/smtp_script.h"
#include "support/temp_dir.h"
#include "support/tls_test_ca.h"

namespace corvane {
namespace {

using namespace test;

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
  // A server that greets and answers EHLO with `ehlo` ("S: " lines), then `then`.
  static std::vector<Step> Greeted(const std::string& ehlo, const std::string& then) {
    return Dialogue("S: 220 mail.test\nC: EHLO localhost\n" + ehlo + "\n" + then);
  }
  TempDir dir_;
  TestCa ca_{dir_.path()};
  std::unique_ptr<SmtpClient> client_;
};

TEST_F(SmtpClientTest, GreetingHelloAuthAndEachTlsModeGiveTheirCodes) {
  std::string ehlo;  // an EHLO list at its bound
  for (int i = 1; i < limits::kMaxReplyLines; ++i) ehlo += "250-SIZE\r\n";
  const std::string offer = "S: 250-mail.test\nS: 250-AUTH CRAM-MD5\nS: 250 STARTTLS";
  const std::string clear = "S: 250-mail.test\nS: 250 AUTH LOGIN";
  const std::string user = "C: AUTH LOGIN\nS: 334 VXNlcm5hbWU6\nC: dXNlcg==\n";
  const std::string password = user + "S: 334 UGFzc3dvcmQ6\nC: c2VjcmV0\n";
  // Inside TLS only the new EHLO counts: CRAM-MD5 of the clear one is gone.
  const auto inside = Dialogue("C: EHLO localhost\n" + clear + "\n" + password + "S: 235 ok");
  auto tls = [this] { return std::vector<Step>{TlsAccept(ServerContext(ca_.IssueLocalhost()))}; };
  auto upgrade = [&] { return Join({Greeted(offer, "C: STARTTLS\nS: 220 go"), tls(), inside}); };
  auto greeting = [](int lines) {  // a 220 reply of `lines` lines
    std::string out;
    for (int i = 1; i < lines; ++i) out += "220-x\r\n";
    return std::vector<Step>{Send(out + "220 ok\r\n")};
  };
  auto auth = [](const std::string& methods, const std::string& dialogue) {
    return Greeted("S: 250-x\nS: 250 AUTH " + methods, dialogue);
  };
  const struct {
    std::vector<Step> script;
    int code;  // -1: any TLS failure
    SmtpTls tls = SmtpTls::kOff;
    const char *user = "user", *password = "secret";
    bool secure = false;
  } cases[] = {
      {Dialogue("S: 554 go away"), kNetConnectTimeout, SmtpTls::kOff, nullptr},
      {Dialogue("S: 199 soon"), kNetConnectTimeout, SmtpTls::kOff, nullptr},
      {Join({greeting(limits::kMaxReplyLines), Dialogue("C: EHLO localhost\nS: 250 x")}), kNetOk,
       SmtpTls::kOff, nullptr},  // a reply at its bound, and one line past it
      {greeting(limits::kMaxReplyLines + 1), kNetConnectTimeout, SmtpTls::kOff, nullptr},
      {Greeted("S: 502 no", "C: HELO localhost\nS: 250 old"), kNetOk, SmtpTls::kOff, nullptr},
      {Greeted("S: 500 no", "C: HELO localhost\nS: 501 no"), kNetHelloFailed, SmtpTls::kOff,
       nullptr},
      {Greeted("S: 550-no\nS: 550 really", ""), kNetHelloFailed, SmtpTls::kOff, nullptr},
      {SmtpGreeting(ehlo + "250 HELP\r\n"), kNetOk, SmtpTls::kOff, nullptr},
      {SmtpGreeting(ehlo + "250-SIZE\r\n250 HELP\r\n"), kNetHelloFailed, SmtpTls::kOff, nullptr},
      {auth("LOGIN", ""), kNetOk, SmtpTls::kOff, nullptr},  // no AUTH when not switched on
      // The exchange of the CRAM-MD5 definition: its challenge, user and key
      // give exactly its answer.
      {auth("LOGIN CRAM-MD5 PLAIN",
            "C: AUTH CRAM-MD5\nS: 334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\n"
            "C: dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw\nS: 235 ok"),
       kNetOk, SmtpTls::kOff, "tim", "tanstaaftanstaaf"},
      {auth("CRAM-MD5", "C: AUTH CRAM-MD5\nS: 504 no"), kNetNotSupported},
      {auth("CRAM-MD5", "C: AUTH CRAM-MD5\nS: 535 no"), kNetLoginFailed},
      {auth("CRAM-MD5", "C: AUTH CRAM-MD5\nS: "), kNetInvalidResponse},  // a reply cut short
      {auth("CRAM-MD5", "C: AUTH CRAM-MD5\nS: 334 ***"), kNetFailed},
      {auth("CRAM-MD5",
            "C: AUTH CRAM-MD5\nS: 334 PDEyMzQ+\n"
            "C: dXNlciA1OTcwNWYyZDFhZmY3NDIyY2Y2MTMwM2RkZTQ2NGExOA==\nS: 535 no"),
       kNetLoginFailed},
      {auth("CRAM-MD5", ""), kNetInvalidUser, SmtpTls::kOff, ""},
      {auth("CRAM-MD5", ""), kNetInvalidPassword, SmtpTls::kOff, "user", ""},
      {auth("LOGIN", ""), kNetInvalidUser, SmtpTls::kOff, ""},
      {auth("PLAIN LOGIN", "C: AUTH LOGIN\nS: 504 no"), kNetNotSupported},
      {auth("LOGIN", "C: AUTH LOGIN\nS: 500 what"), kNetLoginFailed},
      {auth("LOGIN", user + "S: 535 who"), kNetInvalidUser},
      {auth("LOGIN", password + "S: 535 no"), kNetInvalidPassword},
      {auth("PLAIN XOAUTH2", ""), kNetFailed},
      {Greeted(offer, "C: AUTH CRAM-MD5\nS: 535 no"), kNetLoginFailed},
      {Greeted(clear, password + "S: 235 ok"), 0, SmtpTls::kAuto},
      {upgrade(), 0, SmtpTls::kAuto, "user", "secret", true},
      {Greeted("S: 502 no", "C: HELO localhost\nS: 250 old"), 0, SmtpTls::kAuto},
      {Greeted(offer, "C: STARTTLS\nS: 454 no"), kNetHelloFailed, SmtpTls::kAuto},
      // The server's answer to STARTTLS comes in the clear where TLS should.
      {Join({Greeted(offer, "C: STARTTLS\nS: 220 go"),
             {Pause(100), Send("250 forged\r\n"), Drain()}}),
       -1, SmtpTls::kAuto},
      {Greeted(clear, ""), kNetSmtpNoStartTls, SmtpTls::kRequired},
      {Greeted("S: 502 no", ""), kNetSmtpNoStartTls, SmtpTls::kRequired},
      {upgrade(), 0, SmtpTls::kRequired, "user", "secret", true},
      {Join({tls(), Dialogue("S: 220 mail.test"), inside}), 0, SmtpTls::kImplicit, "user", "secret",
       true}};
  for (const auto& c : cases) {
    SCOPED_TRACE("row " + std::to_string(&c - cases) + ", code " + std::to_string(c.code));
    // Whatever the outcome, nothing more is sent before the close.
    ScriptedPeer peer(Join({c.script, {c.code < 0 ? Pause(0) : ExpectClose()}}));
    const int code = Connect(peer, c.user, c.password, c.tls);
    EXPECT_TRUE(c.code < 0 ? code >= kNetSecurityFirst && code <= kNetSecurityLast : code == c.code)
        << code;
    EXPECT_EQ(client_->IsSessionSecure(), c.secure);
    client_->CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    // A failure never goes on in the clear, and never on a second connection.
    EXPECT_EQ(peer.Connections(), 1);
    EXPECT_TRUE(code == 0 || c.tls == SmtpTls::kOff ||
                peer.Received().find("AUTH") == std::string::npos);
  }
  // The extension list ends where the socket runs dry.
  ScriptedPeer peer(Join({Greeted("S: 250-mail.test\nS: 250-STARTTLS\nS: 250-AUTH LOGIN CRAM-MD5\n"
                                  "S: 250-AUTH PLAIN\nS: 250-8BITMIME",
                                  ""),
                          {Pause(300)},
                          Dialogue("S: 250 AUTH XOAUTH2")}));
  ASSERT_EQ(Connect(peer), 0);
  EXPECT_TRUE(client_->StartTlsOffered());
  EXPECT_EQ(client_->AuthMethods(), (std::vector<std::string>{"LOGIN", "CRAM-MD5", "PLAIN"}));
  client_->SetPort(ClosedPort());
  EXPECT_NE(client_->SMTPConnect("127.0.0.1", "localhost"), kNetOk);
}

TEST_F(SmtpClientTest, EnvelopeRepliesAndArgumentsThatWouldNotStayOneLine) {
  // A refused or hostile argument is never sent, and fails as a refused
  // command does; the session is still fit to QUIT.
  const std::string mail = "C: MAIL FROM:<s@example.org>\nS: 299 OK\n";
  const std::string rcpt = mail + "C: RCPT TO:<a@example.com>\nS: 200 OK\nC: DATA\n";
  const struct {
    std::string dialogue;
    int code;
    std::string from = "s@example.org", to = "a@example.com";
  } cases[] = {{rcpt + "S: 354 go", kNetOk},
               {rcpt + "S: 250 hm", kNetDataFailed},
               {"C: MAIL FROM:<s@example.org>\nS: 300 hm", kNetNoServerResponse},
               {mail + "C: RCPT TO:<a@example.com>\nS: 199 hm", kNetRcptFailed},
               {"", kNetBadAddress, "<>"},
               {"", kNetNoServerResponse, "Sender <s@example.org\r\nRCPT TO:<v@example.org>>"},
               {"", kNetNoServerResponse, "s@example.org\rRSET"},
               {mail, kNetRcptFailed, "s@example.org", "<v@example.org\n.>"},
               {mail, kNetRcptFailed, "s@example.org", std::string("v@example.org\0.evil", 19)}};
  for (const auto& c : cases) {
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

TEST_F(SmtpClientTest, NothingInTheDataCanEndItOrAddACommand) {
  // The data goes out with CRLF line ends and a "." before every line that
  // starts with one, so that only the client's own terminator ends it, the
  // same whether it comes whole or a byte at a time; past the line limit a
  // line goes on as a line of its own.
  auto times = [](const std::string& piece, int n) {
    std::string out;
    while (n-- > 0) out += piece;
    return out;
  };
  const std::string longLine = std::string(999, 'x') + "." + std::string(500, 'y');
  const struct {
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
      {"a" + times("\r\n", 300) + times("\r", 300) + "." + times("\n", 300) + ".",
       "a" + times("\r\n", 600) + ".." + times("\r\n", 300) + ".."},
      {longLine, std::string(999, 'x') + ".\r\n" + std::string(500, 'y'), 1000},
      {longLine, longLine}  // without a limit one line: its "." stays single
  };
  for (const auto& c : cases) {
    for (size_t step : {c.value.size(), size_t{1}}) {
      SCOPED_TRACE(Printable(c.value) + " in pieces of " + std::to_string(step));
      std::string data;
      ScriptedPeer peer(Join(
          {SmtpGreeting("250 HELP\r\n"), SmtpTransaction("s@example.org", "a@example.com", data)}));
      ASSERT_EQ(Connect(peer), 0);
      ASSERT_EQ(client_->StartData("s@example.org", "a@example.com"), 0);
      SmtpDataWriter out(*client_);
      out.LimitLines(c.lineLimit);
      for (size_t at = 0; at < c.value.size(); at += step) {
        EXPECT_TRUE(out.Add(std::string_view(c.value).substr(at, step)));
      }
      EXPECT_TRUE(out.Flush());
      EXPECT_EQ(client_->EndData(), 0);
      ASSERT_TRUE(peer.Finish()) << peer.Errors();
      EXPECT_EQ(data, c.sent + "\r\n.\r\n") << Printable(data, 2000);
    }
  }
}

TEST(SmtpAddress, TheAddressOfAMailboxTextAndItsBase64) {
  char buffer[64];
  for (const char* text : {"\"Doe, <a@b.example>\" <x@example.com>", "Ann<x@example.com",
                           "x@example.com (Bob)", " x@example.com"}) {
    EXPECT_EQ(SmtpClient::GetAddress(text, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "x@example.com") << text;
  }
  EXPECT_EQ(SmtpClient::GetAddress("<a@b.example>", buffer, 6), 0);
  EXPECT_STREQ(buffer, "a@b.e");
  EXPECT_EQ(SmtpClient::GetAddress("ab", buffer, sizeof buffer), 1);
  EXPECT_EQ(Base64Encode("f") + Base64Encode("fo") + Base64Encode("foo"), "Zg==Zm8=Zm9v");
  EXPECT_EQ(Base64Decode(" Zm8=\r\n").value_or("?") + Base64Decode(" \r\n").value_or("?"), "fo");
  EXPECT_FALSE(Base64Decode("Zm9").has_value() || Base64Decode("Z!9v").has_value());
}

}  // namespace
}  // namespace corvane
