// The SMTP client against the private exim: STARTTLS with the test CA and
// the second EHLO on the port that offers AUTH (LOGIN) only inside TLS, AUTH
// CRAM-MD5 in the clear, wrong passwords, and one copy per recipient with Bcc
// in no header.
#include <gtest/gtest.h>

#include "gateway_mail/delivered_mail.h"
#include "mail/message_submission.h"
#include "pop3/pop3_server_env.h"

namespace corvane {
namespace {

using test::DeliveredFile;
using test::ReadFile;

class SmtpEximTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(smtp_.Port("SMTP_PORT"), 0u) << "no SMTP test server: " << smtp_.path();
  }
  int Connect(SmtpClient& client, const char* portKey = "SMTP_PORT",
              const std::string& password = "") {
    client.SetPort(smtp_.Port(portKey));
    client.SetUserName(smtp_.Get("SMTP_USER").c_str());
    client.SetPassword(password.empty() ? smtp_.Get("SMTP_PASS").c_str() : password.c_str());
    return client.SMTPConnect("127.0.0.1", "localhost");
  }
  MailMessage Message(const std::string& marker, const std::string& to) {
    MailMessage message;
    message.AppendHeader(to.c_str(), kFieldTo);
    message.AppendHeader("outboxuser@localhost", kFieldFrom);
    message.AppendHeader(marker.c_str(), kFieldSubject);
    message.SetCharset("us-ascii");
    message.SetTextBody("one\r\n.two\r\n");
    return message;
  }
  std::string Maildir(const std::string& user) const {
    return smtp_.Get("MAIL_ROOT") + "/" + user + "/Maildir";
  }

  test::Pop3ServerEnv smtp_{CORVANE_SMTP_ENV_FILE, "CORVANE_SMTP_ENV"};
};

TEST_F(SmtpEximTest, StartTlsGreetsAgainForTheMethodsThenLogsInAndDelivers) {
  // The second port names its AUTH methods only inside TLS.
  SmtpClient client;
  client.SetTls(SmtpTls::kAuto);
  client.SetTrustedCaFile(smtp_.Get("CA_FILE").c_str());
  client.SetAuthentication(true);
  ASSERT_EQ(Connect(client, "SMTP_LOGIN_PORT"), 0);
  EXPECT_TRUE(client.IsSessionSecure());
  ASSERT_EQ(client.AuthMethods().size(), 2);
  EXPECT_EQ(client.AuthMethods()[0], "LOGIN");
  std::string marker = test::UniqueMarker("starttls");
  EXPECT_EQ(SubmitMessage(client, Message(marker, "inboxuser@localhost")), 0);
  client.SMTPClose();
  std::string delivered = ReadFile(DeliveredFile(Maildir("inboxuser"), marker));
  ASSERT_FALSE(delivered.empty()) << "not delivered";
  // Dot-stuffed on the way, unstuffed by the server.
  EXPECT_NE(delivered.find("\none\n.two\n"), std::string::npos) << delivered;
  EXPECT_NE(ReadFile(smtp_.Get("MAIN_LOG")).find("A=login:smtpuser"), std::string::npos);

  SmtpClient refused;
  refused.SetTls(SmtpTls::kAuto);
  refused.SetTrustedCaFile(smtp_.Get("CA_FILE").c_str());
  refused.SetAuthentication(true);
  EXPECT_EQ(Connect(refused, "SMTP_LOGIN_PORT", "wrong"), 41);
}

TEST_F(SmtpEximTest, CramMd5AgainstTheServer) {
  {
    SmtpClient client;
    client.SetAuthentication(true);
    ASSERT_EQ(Connect(client), 0);
    EXPECT_FALSE(client.IsSessionSecure());
    std::string marker = test::UniqueMarker("cram-md5");
    EXPECT_EQ(SubmitMessage(client, Message(marker, "inboxuser@localhost")), 0);
    client.SMTPClose();
    EXPECT_FALSE(DeliveredFile(Maildir("inboxuser"), marker).empty());
    EXPECT_NE(ReadFile(smtp_.Get("MAIN_LOG")).find("A=cram_md5:smtpuser"), std::string::npos);
  }
  SmtpClient client;
  client.SetAuthentication(true);
  EXPECT_EQ(Connect(client, "SMTP_PORT", "wrong"), 86);
}

TEST_F(SmtpEximTest, EachRecipientGetsACopyAndBccStaysHidden) {
  SmtpClient client;
  ASSERT_EQ(Connect(client), 0);
  std::string marker = test::UniqueMarker("three copies");
  MailMessage message = Message(marker, "inboxuser@localhost,Out <outboxuser@localhost>");
  message.AppendHeader("scratchuser@localhost", kFieldBcc);
  EXPECT_EQ(SubmitMessage(client, message), 0);
  client.SMTPClose();
  for (const char* user : {"inboxuser", "outboxuser", "scratchuser"}) {
    std::string copy = ReadFile(DeliveredFile(Maildir(user), marker));
    ASSERT_FALSE(copy.empty()) << user << " got no copy";
    std::string headers = copy.substr(0, copy.find("\n\n"));
    EXPECT_NE(headers.find("\nTo: inboxuser@localhost,Out <outboxuser@localhost>\n"),
              std::string::npos)
        << headers;
    EXPECT_EQ(headers.find("Bcc"), std::string::npos) << headers;
    EXPECT_EQ(headers.find("\nTo: scratchuser"), std::string::npos);
  }
}

}  // namespace
}  // namespace corvane
