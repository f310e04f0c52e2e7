// The SMTP client against scripted servers: greeting and EHLO/HELO, the
// extension list, STARTTLS, the choice and exchanges of AUTH, the envelope
// and the data writer.
#include "protocol/smtp_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <thread>

#include "base/limits.h"
#include "protocol/sasl_encoding.h"
#include "protocol/smtp_data_writer.h"
#include "support/scoped_env.h"
#include "support/scripted_peer.h"
#include "support/smtp_script.h"
#include "support/temp_dir.h"
#include "support/tls_test_ca.h"

namespace corvane {
namespace {

using test::Expect;
using test::HeaderOf;
using test::Join;
using test::ScriptedPeer;
using test::Send;
using test::Step;
using test::TakeData;

const char* const kEhloReply =
    "250-mail.test Hello\r\n250-SIZE 52428800\r\n250-AUTH LOGIN CRAM-MD5 PLAIN\r\n"
    "250 HELP\r\n";

std::vector<Step> Greeting(const std::string& ehloReply) {
  return test::SmtpGreeting(ehloReply);
}

int Connect(SmtpClient& client, ScriptedPeer& peer) {
  client.SetPort(peer.port());
  return client.SMTPConnect("127.0.0.1", "localhost");
}

TEST(SmtpGreeting, OneLineRefusalOfEhloFallsBackToHelo) {
  ScriptedPeer peer({Send("220 old.test\r\n"), Expect("EHLO localhost\r\n"),
                     Send("502 Command not implemented\r\n"), Expect("HELO localhost\r\n"),
                     Send("250 old.test\r\n")});
  SmtpClient client;
  EXPECT_EQ(Connect(client, peer), 0);
  EXPECT_EQ(client.AuthMethods().size(), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(SmtpGreeting, BadGreetingOrHeloAndNoServer) {
  {
    ScriptedPeer peer({Send("554 go away\r\n")});
    SmtpClient client;
    EXPECT_EQ(Connect(client, peer), 5);
  }
  {
    ScriptedPeer peer({Send("220 x\r\n"), Expect("EHLO localhost\r\n"), Send("500 no\r\n"),
                       Expect("HELO localhost\r\n"), Send("501 not you either\r\n")});
    SmtpClient client;
    EXPECT_EQ(Connect(client, peer), 54);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  {
    ScriptedPeer peer(
        {Send("220 x\r\n"), Expect("EHLO localhost\r\n"), Send("550-no\r\n550 really\r\n")});
    SmtpClient client;
    EXPECT_EQ(Connect(client, peer), 54);
  }
  SmtpClient client;
  client.SetPort(test::ClosedPort());
  EXPECT_NE(client.SMTPConnect("127.0.0.1", "localhost"), 0);
}

// Writes `line` every millisecond, up to 5000 times, until the client goes;
// how many it wrote lands in `written`.
Step EndlessReply(std::string line, int& written) {
  return test::Do([line, &written](test::PeerSession& session, std::string&) {
    for (written = 0; written < 5000 && session.Write(line); ++written) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  });
}

TEST(SmtpReplies, AReplyThatNeverEndsIsAFailedReplyAfterItsLineBound) {
  // The greeting and a MAIL reply that go on and on: the client leaves after
  // its bound, which shows in the lines the server got to write.
  for (bool greeting : {true, false}) {
    int written = 0;
    std::vector<Step> before;
    if (!greeting) {
      before = Join({Greeting("250 HELP\r\n"), {Expect("MAIL FROM:<sender@example.org>\r\n")}});
    }
    ScriptedPeer peer(Join({std::move(before), {EndlessReply("250-still there\r\n", written)}}));
    {
      SmtpClient client;
      if (greeting) {
        EXPECT_EQ(Connect(client, peer), 5);
      } else {
        ASSERT_EQ(Connect(client, peer), 0);
        EXPECT_EQ(client.StartData("sender@example.org", "a@example.com"), 12);
      }
    }
    peer.Finish();
    EXPECT_LT(written, 5000) << greeting;
    EXPECT_GE(written, limits::kMaxReplyLines - 1) << greeting;
  }
  // An EHLO reply ends where the socket runs dry: 2000 lines in one piece
  // are past the bound before it does.
  ScriptedPeer flood({Send("220 x\r\n"), Expect("EHLO localhost\r\n"), Send([] {
                        std::string lines;
                        for (int i = 0; i < 2000; ++i) lines += "250-AUTH LOGIN\r\n";
                        return lines;
                      }())});
  SmtpClient client;
  EXPECT_EQ(Connect(client, flood), 54);
}

TEST(SmtpExtensions, StartTlsAndEveryAuthMethodAreNoted) {
  ScriptedPeer peer(
      Greeting("250-mail.test\r\n250-STARTTLS\r\n250-AUTH LOGIN CRAM-MD5\r\n"
               "250-AUTH PLAIN\r\n250 8BITMIME\r\n"));
  SmtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  EXPECT_TRUE(client.StartTlsOffered());
  ASSERT_EQ(client.AuthMethods().size(), 3);
  EXPECT_EQ(client.AuthMethods()[0], "LOGIN");
  EXPECT_EQ(client.AuthMethods()[1], "CRAM-MD5");
  EXPECT_EQ(client.AuthMethods()[2], "PLAIN");
}

TEST(SmtpExtensions, LinesArrivingLateAreNotPartOfTheReply) {
  // The reply ends where the socket runs dry: the AUTH line that comes
  // after a pause is never read as an extension.
  ScriptedPeer peer({Send("220 x\r\n"), Expect("EHLO localhost\r\n"), Send("250-mail.test\r\n"),
                     test::Pause(300), Send("250 AUTH LOGIN\r\n")});
  SmtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  EXPECT_EQ(client.AuthMethods().size(), 0);
}

TEST(SmtpAuth, CramMd5WinsWhereverItStands) {
  // The exchange of the CRAM-MD5 definition: its challenge, user and key
  // give exactly its answer.
  ScriptedPeer peer(Join({Greeting(kEhloReply),
                          {Expect("AUTH CRAM-MD5\r\n"),
                           Send("334 PDE4OTYuNjk3MTcwOTUyQHBvc3RvZmZpY2UucmVzdG9uLm1jaS5uZXQ+\r\n"),
                           Expect("dGltIGI5MTNhNjAyYzdlZGE3YTQ5NWI0ZTZlNzMzNGQzODkw\r\n"),
                           Send("235 Authentication succeeded\r\n")}}));
  SmtpClient client;
  client.SetAuthentication(true);
  client.SetUserName("tim");
  client.SetPassword("tanstaaftanstaaf");
  EXPECT_EQ(Connect(client, peer), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(SmtpAuth, CramMd5Refusals) {
  struct Case {
    const char* reply;
    int code;
  } cases[] = {{"504 Unrecognized authentication type\r\n", 11}, {"535 no\r\n", 86}, {"34", 37}};
  for (const Case& c : cases) {
    ScriptedPeer peer(Join({Greeting("250-x\r\n250 AUTH CRAM-MD5\r\n"),
                            {Expect("AUTH CRAM-MD5\r\n"), Send(c.reply), test::Close()}}));
    SmtpClient client;
    client.SetAuthentication(true);
    client.SetUserName("tim");
    client.SetPassword("secret");
    EXPECT_EQ(Connect(client, peer), c.code) << c.reply;
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  // A wrong answer to a good challenge.
  ScriptedPeer peer(Join({Greeting("250-x\r\n250 AUTH CRAM-MD5\r\n"),
                          {Expect("AUTH CRAM-MD5\r\n"), Send("334 PDEyMzQ+\r\n"),
                           Send("535 Incorrect authentication data\r\n")}}));
  SmtpClient client;
  client.SetAuthentication(true);
  client.SetUserName("tim");
  client.SetPassword("secret");
  EXPECT_EQ(Connect(client, peer), 86);
}

TEST(SmtpAuth, LoginReportsTheRefusedPart) {
  struct Case {
    std::vector<Step> exchange;
    int code;
  };
  std::vector<Case> cases;
  cases.push_back({{Expect("AUTH LOGIN\r\n"), Send("504 not here\r\n")}, 11});
  cases.push_back({{Expect("AUTH LOGIN\r\n"), Send("500 what\r\n")}, 86});
  cases.push_back({{Expect("AUTH LOGIN\r\n"), Send("334 VXNlcm5hbWU6\r\n"), Expect("dXNlcg==\r\n"),
                    Send("535 who\r\n")},
                   40});
  cases.push_back({{Expect("AUTH LOGIN\r\n"), Send("334 VXNlcm5hbWU6\r\n"), Expect("dXNlcg==\r\n"),
                    Send("334 UGFzc3dvcmQ6\r\n"), Expect("Zmlyc3Q=\r\n"),
                    Send("535 Incorrect authentication data\r\n")},
                   41});
  cases.push_back({{Expect("AUTH LOGIN\r\n"), Send("334 VXNlcm5hbWU6\r\n"), Expect("dXNlcg==\r\n"),
                    Send("334 UGFzc3dvcmQ6\r\n"), Expect("Zmlyc3Q=\r\n"), Send("235 ok\r\n")},
                   0});
  for (Case& c : cases) {
    ScriptedPeer peer(Join({Greeting("250-x\r\n250 AUTH PLAIN LOGIN\r\n"), c.exchange}));
    SmtpClient client;
    client.SetAuthentication(true);
    client.SetUserName("user");
    client.SetPassword("first");
    client.SetPassword("");  // keeps "first"
    client.SetPassword(nullptr);
    EXPECT_EQ(Connect(client, peer), c.code);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

TEST(SmtpAuth, MissingCredentialsAndUnknownMethods) {
  {
    ScriptedPeer peer(Greeting("250-x\r\n250 AUTH LOGIN\r\n"));
    SmtpClient client;
    client.SetAuthentication(true);
    client.SetPassword("secret");
    EXPECT_EQ(Connect(client, peer), 40);
  }
  {
    ScriptedPeer peer(Greeting("250-x\r\n250 AUTH CRAM-MD5\r\n"));
    SmtpClient client;
    client.SetAuthentication(true);
    client.SetUserName("user");
    EXPECT_EQ(Connect(client, peer), 41);
  }
  {
    ScriptedPeer peer(Greeting("250-x\r\n250 AUTH PLAIN XOAUTH2\r\n"));
    SmtpClient client;
    client.SetAuthentication(true);
    client.SetUserName("user");
    client.SetPassword("secret");
    EXPECT_EQ(Connect(client, peer), 1);
  }
  // Without authentication switched on, offered methods are left alone.
  ScriptedPeer peer(Greeting(kEhloReply));
  SmtpClient client;
  client.SetUserName("user");
  client.SetPassword("secret");
  EXPECT_EQ(Connect(client, peer), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received().find("AUTH"), std::string::npos);
}

class SmtpSecurity : public ::testing::Test {
 protected:
  // The steps of a TLS handshake with a server certified by `ca`.
  static Step Handshake(test::TestCa& ca, test::Handshake outcome = test::Handshake::kMustSucceed) {
    return test::TlsAccept(test::ServerContext(ca.IssueLocalhost()), outcome);
  }
  static std::vector<Step> Upgrade(Step handshake) {
    return {Expect("STARTTLS\r\n"), Send("220 go ahead\r\n"), std::move(handshake)};
  }
  // EHLO again (inside TLS) answered with `reply`.
  static std::vector<Step> Ehlo(const std::string& reply) {
    return {Expect("EHLO localhost\r\n"), Send(reply)};
  }
  static std::vector<Step> Login() {
    return {Expect("AUTH LOGIN\r\n"),     Send("334 VXNlcm5hbWU6\r\n"), Expect("dXNlcg==\r\n"),
            Send("334 UGFzc3dvcmQ6\r\n"), Expect("c2VjcmV0\r\n"),       Send("235 ok\r\n")};
  }

  test::TempDir dir_;
  test::TestCa ca_{dir_.path()};
  test::TestCa stranger_{dir_.path(), "Stranger CA"};
};

TEST_F(SmtpSecurity, EachModeAgainstWhatTheServerOffers) {
  const std::string offer = "250-mail.test\r\n250-AUTH CRAM-MD5\r\n250 STARTTLS\r\n";
  const std::string noOffer = "250-mail.test\r\n250 AUTH LOGIN\r\n";
  const std::string insideTls = "250-mail.test\r\n250 AUTH LOGIN\r\n";
  const Step greeting = Send("220 mail.test ESMTP\r\n");
  struct Case {
    const char* what;
    SmtpTls tls;
    std::vector<Step> script;
    int code;  // -1: a certificate failure, 120..143
    bool secure;
  };
  std::vector<Case> cases;
  cases.push_back(
      {"off leaves an offer alone", SmtpTls::kOff,
       Join({test::SmtpGreeting(offer), {Expect("AUTH CRAM-MD5\r\n"), Send("535 no\r\n")}}), 86,
       false});
  cases.push_back({"auto without an offer stays clear", SmtpTls::kAuto,
                   Join({test::SmtpGreeting(noOffer), Login()}), 0, false});
  cases.push_back(
      {"auto with an offer forgets the methods of the clear session", SmtpTls::kAuto,
       Join({test::SmtpGreeting(offer), Upgrade(Handshake(ca_)), Ehlo(insideTls), Login()}), 0,
       true});
  cases.push_back({"auto: a server without EHLO gets HELO", SmtpTls::kAuto,
                   Join({test::SmtpGreeting("502 no\r\n"),
                         {Expect("HELO localhost\r\n"), Send("250 old.test\r\n")}}),
                   0, false});
  cases.push_back({"a refused upgrade is a failure", SmtpTls::kAuto,
                   Join({test::SmtpGreeting(offer),
                         {Expect("STARTTLS\r\n"), Send("454 TLS not available\r\n")}}),
                   54, false});
  cases.push_back(
      {"an untrusted certificate is a failure", SmtpTls::kAuto,
       Join({test::SmtpGreeting(offer), Upgrade(Handshake(stranger_, test::Handshake::kMustFail))}),
       -1, false});
  cases.push_back(
      {"required without an offer", SmtpTls::kRequired, test::SmtpGreeting(noOffer), 145, false});
  cases.push_back(
      {"required without EHLO", SmtpTls::kRequired, test::SmtpGreeting("502 no\r\n"), 145, false});
  cases.push_back(
      {"required with an offer", SmtpTls::kRequired,
       Join({test::SmtpGreeting(offer), Upgrade(Handshake(ca_)), Ehlo(insideTls), Login()}), 0,
       true});
  cases.push_back({"implicit", SmtpTls::kImplicit,
                   Join({{Handshake(ca_), greeting}, Ehlo(insideTls), Login()}), 0, true});
  cases.push_back({"implicit with an untrusted certificate",
                   SmtpTls::kImplicit,
                   {Handshake(stranger_, test::Handshake::kMustFail)},
                   -1,
                   false});
  for (Case& c : cases) {
    SCOPED_TRACE(c.what);
    ScriptedPeer peer(std::move(c.script));
    SmtpClient client;
    client.SetTls(c.tls);
    client.SetTrustedCaFile(ca_.CaFile().c_str());
    client.SetAuthentication(true);
    client.SetUserName("user");
    client.SetPassword("secret");
    const int code = Connect(client, peer);
    if (c.code < 0) {
      EXPECT_TRUE(code == kNetCertChainFailed || code == kNetCertTrustFailed) << code;
    } else {
      EXPECT_EQ(code, c.code);
    }
    EXPECT_EQ(client.IsSessionSecure(), c.secure);
    client.CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    // A failure never goes on in the clear, and never on a second connection.
    EXPECT_EQ(peer.Connections(), 1);
    if (code != 0 && c.tls != SmtpTls::kOff) {
      EXPECT_EQ(peer.Received().find("AUTH"), std::string::npos);
    }
  }
}

std::string Repeat(const std::string& piece, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += piece;
  return out;
}

TEST(SmtpData, NothingInTheDataCanEndItOrAddACommand) {
  // The data goes out with CRLF line ends and a "." before every line that
  // starts with one, so that only the client's own terminator ends it, the
  // same whether it comes whole or a byte at a time; past the line limit a
  // line goes on as a line of its own.
  const std::string longLine = std::string(999, 'x') + "." + std::string(500, 'y');
  struct Case {
    const char* what;
    std::string value;
    std::string sent;
    size_t lineLimit = 0;
  };
  const std::vector<Case> cases = {
      {"CR LF . CR LF and commands",
       "Hi\r\n.\r\nMAIL FROM:<x@example.org>\r\nRCPT TO:<victim@example.org>\r\nDATA\r\n",
       "Hi\r\n..\r\nMAIL FROM:<x@example.org>\r\nRCPT TO:<victim@example.org>\r\nDATA\r\n"},
      {"lines starting with dots", ".starts with a dot\r\n..two\r\n.\r\nend\r\n",
       "..starts with a dot\r\n...two\r\n..\r\nend\r\n"},
      {"lone CR", "a\r.\rMAIL FROM:<x@example.org>", "a\r\n..\r\nMAIL FROM:<x@example.org>"},
      {"lone LF", "a\n.\nMAIL FROM:<x@example.org>\n", "a\r\n..\r\nMAIL FROM:<x@example.org>\r\n"},
      {"NUL", std::string(".\0\r\n.\0", 6), std::string("..\0\r\n..\0", 8)},
      {"a lone dot", ".", ".."},
      {"long runs of breaks",
       "a" + Repeat("\r\n", 300) + Repeat("\r", 300) + "." + Repeat("\n", 300) + ".",
       "a" + Repeat("\r\n", 600) + ".." + Repeat("\r\n", 300) + ".."},
      {"a long line past the limit", longLine,
       std::string(999, 'x') + ".\r\n" + std::string(500, 'y'), 1000},
      // Without a limit a long line is one line: a "." inside it stays single.
      {"a long line, no limit", longLine, longLine},
  };
  for (const Case& c : cases) {
    for (bool bytewise : {false, true}) {
      SCOPED_TRACE(std::string(c.what) + (bytewise ? ", a byte at a time" : ""));
      std::string data;
      ScriptedPeer peer(Join({Greeting("250-x\r\n250 HELP\r\n"),
                              test::SmtpTransaction("sender@example.org", "a@example.com", data)}));
      SmtpClient client;
      ASSERT_EQ(Connect(client, peer), 0);
      ASSERT_EQ(client.StartData("sender@example.org", "a@example.com"), 0);
      SmtpDataWriter out(client);
      out.LimitLines(c.lineLimit);
      if (bytewise) {
        for (char byte : c.value) EXPECT_TRUE(out.Add(std::string_view(&byte, 1)));
      } else {
        EXPECT_TRUE(out.Add(c.value));
      }
      EXPECT_TRUE(out.Flush());
      EXPECT_EQ(client.EndData(), 0);
      ASSERT_TRUE(peer.Finish()) << peer.Errors();
      EXPECT_EQ(data, c.sent + "\r\n.\r\n") << test::Printable(data, 2000);
    }
  }
}

TEST(SmtpData, RefusedDataAndNoConnection) {
  ScriptedPeer peer(Join({Greeting("250-x\r\n250 HELP\r\n"),
                          {Expect("MAIL FROM:<sender@example.org>\r\n"), Send("250 OK\r\n"),
                           Expect("RCPT TO:<a@example.com>\r\n"), Send("250 OK\r\n"),
                           Expect("DATA\r\n"), Send("250 not what you expected\r\n")}}));
  SmtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  EXPECT_EQ(client.StartData("Sender <sender@example.org>", "a@example.com"), 52);
  SmtpClient idle;
  EXPECT_EQ(idle.StartData("sender@example.org", "a@example.com"), 6);
}

TEST(SmtpData, EnvelopeArgumentsWithLineBreaksOrNulAreRefusedUnsent) {
  // An EHLO name, a sender or a recipient that would end its command line
  // early: the command is never sent, and fails as a refused one does (54,
  // 12, 67); the session is still fit to QUIT.
  struct Case {
    const char* what;
    std::string localName = "localhost";
    std::string from = "Sender <sender@example.org>";
    std::string recipient = "a@example.com";
    int code;
  };
  const std::vector<Case> cases = {
      {.what = "EHLO, CR LF", .localName = "localhost\r\nMAIL FROM:<x@example.org>", .code = 54},
      {.what = "EHLO, lone LF", .localName = "localhost\nRSET", .code = 54},
      {.what = "EHLO, lone CR", .localName = "localhost\r", .code = 54},
      {.what = "MAIL, CR LF",
       .from = "Sender <s@example.org\r\nRCPT TO:<v@example.org>>",
       .code = 12},
      {.what = "MAIL, lone CR", .from = "s@example.org\rRSET", .code = 12},
      {.what = "MAIL, lone LF", .from = "<s@example.org\n>", .code = 12},
      {.what = "RCPT, CR LF", .recipient = "v@example.org\r\nDATA", .code = 67},
      {.what = "RCPT, lone LF", .recipient = "<v@example.org\n.>", .code = 67},
      {.what = "RCPT, lone CR", .recipient = "v@example.org\r", .code = 67},
      {.what = "RCPT, NUL", .recipient = std::string("v@example.org\0.evil", 19), .code = 67},
      {.what = "RCPT, a long run", .recipient = "v@example.org" + Repeat("\r\n", 500), .code = 67},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<Step> script = {Send("220 mail.test ESMTP\r\n")};
    std::string sent;
    if (c.code != 54) {
      script = Greeting("250-x\r\n250 HELP\r\n");
      sent = "EHLO localhost\r\n";
    }
    if (c.code == 67) {
      script.push_back(Expect("MAIL FROM:<sender@example.org>\r\n"));
      script.push_back(Send("250 OK\r\n"));
      sent += "MAIL FROM:<sender@example.org>\r\n";
    }
    script.push_back(Expect("QUIT\r\n"));
    ScriptedPeer peer(std::move(script));
    SmtpClient client;
    client.SetPort(peer.port());
    int result = client.SMTPConnect("127.0.0.1", c.localName.c_str());
    if (c.code != 54) {
      ASSERT_EQ(result, 0);
      result = client.StartData(c.from, c.recipient);
    }
    EXPECT_EQ(result, c.code);
    client.SMTPClose();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(peer.Received(), sent + "QUIT\r\n");
  }
}

TEST(SmtpAddress, TheAddressOfAMailboxText) {
  char buffer[64];
  EXPECT_EQ(SmtpClient::GetAddress("\"Doe, <John>\" <john@example.com>", buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "john@example.com");
  EXPECT_EQ(SmtpClient::GetAddress("Ann<ann@example.com", buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "ann@example.com");
  EXPECT_EQ(SmtpClient::GetAddress("bob@example.com (Bob)", buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "bob@example.com");
  EXPECT_EQ(SmtpClient::GetAddress(" bob@example.com", buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "bob@example.com");
  EXPECT_EQ(SmtpClient::GetAddress("<a@b.example>", buffer, 6), 0);
  EXPECT_STREQ(buffer, "a@b.e");
  EXPECT_EQ(SmtpClient::GetAddress("ab", buffer, sizeof buffer), 1);
}

TEST(SaslEncoding, Base64BothWays) {
  EXPECT_EQ(Base64Encode(""), "");
  EXPECT_EQ(Base64Encode("f"), "Zg==");
  EXPECT_EQ(Base64Encode("fo"), "Zm8=");
  EXPECT_EQ(Base64Encode("foo"), "Zm9v");
  EXPECT_EQ(Base64Decode("Zg==").value_or("?"), "f");
  EXPECT_EQ(Base64Decode(" Zm8=\r\n").value_or("?"), "fo");
  EXPECT_EQ(Base64Decode("Zm9v").value_or("?"), "foo");
  EXPECT_FALSE(Base64Decode("Zm9").has_value());
  EXPECT_FALSE(Base64Decode("Z!9v").has_value());
  EXPECT_FALSE(CramMd5Answer("u", "p", "***").has_value());
}

}  // namespace
}  // namespace corvane
