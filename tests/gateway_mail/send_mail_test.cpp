// SendMail, ReplyMail and ForwardMail through the real gateway, closing the
// loop: the private exim delivers into the maildirs the private dovecot
// serves, and the gateway reads back what arrived.
#include <filesystem>
#include <random>
#include <set>

#include "gateway_mail/gateway_client.h"
#include "support/scoped_env.h"

namespace corvane {
namespace {

using test::GatewayAnswer;
using test::Quoted;
using test::ReadFile;

class SendMailTest : public test::GatewayTest {
 protected:
  void SetUp() override {
    ASSERT_FALSE(smtp_.Get("SMTP_PORT").empty()) << "no SMTP test server: " << smtp_.path();
    GatewayTest::SetUp();
  }
  // A SendMail request through exim's `portKey`, authenticated as its user.
  std::string Send(const std::string& portKey = "SMTP_PORT", const std::string& password = "",
                   const std::string& auth = "true") const {
    return "--req Command=SendMail --req Smtp=127.0.0.1 --req SmtpPort=" + smtp_.Get(portKey) +
           " --req Login=" + smtp_.Get("SMTP_USER") +
           " --req Pwd=" + (password.empty() ? smtp_.Get("SMTP_PASS") : password) +
           " --req Auth=" + auth;
  }
  // `role`'s mailbox, sending through exim without authentication.
  std::string Account(const std::string& role) const {
    return Mailbox(role) + " --req Smtp=127.0.0.1 --req SmtpPort=" + smtp_.Get("SMTP_PORT");
  }
  // How exim received the copy holding `marker`: " with esmtpsa " for TLS and AUTH.
  std::string ReceivedBy(const std::string& role, const std::string& marker) const {
    const std::string copy = ReadFile(test::DeliveredFile(pop3_.Mailbox(role).maildir, marker));
    return copy.substr(0, copy.find("\n\t(envelope-from"));
  }

  test::Pop3ServerEnv smtp_{CORVANE_SMTP_ENV_FILE, "CORVANE_SMTP_ENV"};
  // exim offers TLS and [Smtp] Tls=auto takes it: the gateway trusts the test CA.
  test::ScopedEnv trust_{"SSL_CERT_FILE", smtp_.Get("CA_FILE")};
};

TEST_F(SendMailTest, Gb2312MailOverEachKindOfTlsArrivesAndReadsBackByteForByte) {
  const std::string body = "\xc3\xf7\xcc\xec\xbf\xaa\xbb\xe1\xa1\xa3\r\n.\xb5\xda\xb6\xfe\xd0\xd0";
  // STARTTLS then CRAM-MD5; AUTH LOGIN offered only once TLS is up; TLS from the first byte.
  for (const char* portKey : {"SMTP_PORT", "SMTP_LOGIN_PORT", "SMTPS_PORT"}) {
    SCOPED_TRACE(portKey);
    const std::string marker = test::UniqueMarker(portKey);
    const std::string subject = "\xbb\xe1\xd2\xe9\xcd\xa8\xd6\xaa " + marker;
    GatewayAnswer sent =
        Ask(Send(portKey) +
            " --param From=outboxuser@localhost --param Name=" + Quoted("\xd5\xc5\xc8\xfd") +
            " --param To=inboxuser@localhost --param Subject=" + Quoted(subject) +
            " --param Body=" + Quoted(body) + " --param Priority=" + Quoted(marker));
    ASSERT_EQ(sent["Status"], "success") << sent.output << gateway_.LogText();
    const std::string id = DeliveredId("INBOX", marker);
    ASSERT_FALSE(id.empty()) << "not delivered";
    EXPECT_NE(ReceivedBy("INBOX", marker).find(" with esmtpsa "), std::string::npos);
    EXPECT_NE(Ask("--req Command=ListMail" + Mailbox("INBOX")).output.find(id), std::string::npos);
    GatewayAnswer read = Receive("INBOX", id);
    EXPECT_EQ(read["Subject"], subject);
    EXPECT_EQ(read["From"], "\xd5\xc5\xc8\xfd<outboxuser@localhost>");
    EXPECT_EQ(read["To"], "inboxuser@localhost");
    EXPECT_EQ(read["Priority"], marker);
    EXPECT_EQ(read["Body"].substr(0, body.size()), body);  // the dot line unharmed by stuffing
  }
}

TEST_F(SendMailTest, CertificatesAndTlsSettingsDecideWhetherMailGoesAtAll) {
  struct Case {
    const char *what, *config, *trustedCa, *portKey;
    const char* logged;  // the cause in the log; empty: the mail goes, in the clear
  };
  const Case cases[] = {
      {"an untrusted POP3S server", "", "OTHER_CA_FILE", "POP3S", "connect pop3 server error: "},
      {"an untrusted STARTTLS", "", "OTHER_CA_FILE", "SMTP_PORT",
       "Failed to verify the certificate"},
      {"an untrusted 465", "", "OTHER_CA_FILE", "SMTPS_PORT", "Failed to verify the certificate"},
      {"required without STARTTLS", "Tls=required", "CA_FILE", "SMTP_CLEAR_PORT",
       "STARTTLS not supported by the SMTP server."},
      {"auto without STARTTLS", "", "CA_FILE", "SMTP_CLEAR_PORT", ""},
      {"off", "Tls=off", "CA_FILE", "SMTP_PORT", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::ScopedEnv trust("SSL_CERT_FILE", pop3_.Get(c.trustedCa));
    test::GatewayProcess gateway("log_level=debug\n[Smtp]\n" + std::string(c.config) + "\n");
    ASSERT_TRUE(gateway.Start());
    const bool pop3 = std::string(c.portKey) == "POP3S";
    std::string sender = test::UniqueMarker("");
    std::erase_if(sender, [](char ch) { return !std::isalnum(static_cast<unsigned char>(ch)); });
    GatewayAnswer answer = test::AskGateway(
        gateway.port(),
        pop3 ? "--req Command=ListMail" + Mailbox("SMALL", 995)
             : Send(c.portKey) + " --param From=" + sender +
                   "@localhost --param To=inboxuser@localhost --param Subject=" + sender);
    if (!*c.logged) {
      EXPECT_EQ(answer["Status"], "success") << answer.output << gateway.LogText();
      EXPECT_NE(ReceivedBy("INBOX", sender).find(" with esmtpa "), std::string::npos);
      continue;
    }
    EXPECT_EQ(answer["Status"], "fail");
    EXPECT_EQ(answer["Log"], pop3 ? "Connect pop3 server error" : "Connect to smtp server error");
    EXPECT_NE(gateway.LogText().find(c.logged), std::string::npos) << gateway.LogText();
    // Nothing got as far as a message.
    EXPECT_EQ(ReadFile(smtp_.Get("MAIN_LOG")).find("<= " + sender), std::string::npos);
  }
}

TEST_F(SendMailTest, AWrongPasswordIsRefusedAndNoAuthReachesEveryRecipient) {
  GatewayAnswer refused =
      Ask(Send("SMTP_PORT", "wrong") + " --param To=inboxuser@localhost --param Subject=x");
  EXPECT_EQ(refused["Status"], "fail");
  EXPECT_EQ(refused["Log"], "Connect to smtp server error");
  // "Auth" other than "true": no AUTH at all, which this server allows.
  const std::string marker = test::UniqueMarker("unauthenticated");
  EXPECT_EQ(Ask(Send("SMTP_PORT", "", "yes") +
                " --param To=inboxuser@localhost,outboxuser@localhost --param Subject=" +
                Quoted(marker))["Status"],
            "success");
  EXPECT_FALSE(DeliveredId("INBOX", marker).empty());
  EXPECT_FALSE(DeliveredId("OUTBOX", marker).empty());
}

TEST_F(SendMailTest, ReplyQuotesTheOriginalAndASmuggledSubjectStaysOneMessage) {
  // The original's Subject decodes to the end of a message and a second
  // transaction; the reply carries it inside its own Subject, and exim sees
  // no other command: its log never names the smuggled text.
  std::string token = test::UniqueMarker("smuggled");
  std::replace(token.begin(), token.end(), ' ', '-');
  const std::string words = "=?utf-8?Q?Hi=0D=0A.=0D=0AMAIL_FROM:<x-" + token +
                            "@example.org>=0D=0ARCPT_TO:<victim-" + token +
                            "@example.org>=0D=0ADATA=0D=0ASubject:_" + token + "=0D=0A?=";
  ASSERT_EQ(
      Ask(Send() +
          " --param From=outboxuser@localhost --param To=inboxuser@localhost --param Subject=" +
          Quoted(words) + " --param Body=Lunch?")["Status"],
      "success");
  const std::string id = DeliveredId("INBOX", token), answer = test::UniqueMarker("agreed");
  ASSERT_FALSE(id.empty()) << "not delivered";
  GatewayAnswer replied = Ask("--req Command=ReplyMail" + Account("INBOX") + " --param ID=" + id +
                              " --param Quote=true --param Body=" + Quoted(answer));
  ASSERT_EQ(replied["Status"], "success") << replied.output;
  const std::string replyId = DeliveredId("OUTBOX", answer);
  ASSERT_FALSE(replyId.empty()) << "the reply did not reach the original sender whole";
  EXPECT_NE(ReceivedBy("OUTBOX", token).find(" with esmtps "),
            std::string::npos);  // as SendMail sends
  GatewayAnswer reply = Receive("OUTBOX", replyId);
  EXPECT_TRUE(reply["Subject"].starts_with("Reply: Hi")) << reply["Subject"];
  EXPECT_NE(reply["Subject"].find("RCPT TO:<victim-" + token + "@example.org>"), std::string::npos);
  // The answer, then the quotation header ("original mail") and the original text.
  EXPECT_TRUE(reply["Body"].starts_with(
      answer + "\r\n\r\n------------\xD4\xAD\xD3\xCA\xBC\xFE\xC4\xDA\xC8\xDD"));
  EXPECT_NE(reply["Body"].find("\r\n\r\nLunch?"), std::string::npos) << reply["Body"];
  std::multiset<std::string> holders;  // every mailbox holding the text: the original and the reply
  for (const auto& box : std::filesystem::directory_iterator(smtp_.Get("MAIL_ROOT"))) {
    for (const char* sub : {"/Maildir/new", "/Maildir/cur"}) {
      std::error_code error;
      for (const auto& file : std::filesystem::directory_iterator(box.path().string() + sub, error))
        if (ReadFile(file.path()).find(token) != std::string::npos)
          holders.insert(box.path().filename());
    }
  }
  EXPECT_EQ(holders, (std::multiset<std::string>{pop3_.Mailbox("INBOX").user,
                                                 pop3_.Mailbox("OUTBOX").user}));
  EXPECT_EQ(ReadFile(smtp_.Get("MAIN_LOG")).find(token), std::string::npos);
  EXPECT_EQ(
      Ask("--req Command=ReplyMail" + Account("INBOX") + " --param ID=gone --param Body=x")["Log"],
      "Load pop3 message error");
}

TEST_F(SendMailTest, AttachmentsArriveByteForByteAndAForwardCarriesThemLeavingTheCache) {
  // The last file is named like the mailbox's list cache: the copy made for
  // the forward must not replace it.
  test::TempDir files;
  std::string binary(300 * 1024, '\0');
  std::mt19937 random(7);
  for (char& c : binary) c = static_cast<char>(random());
  const std::pair<std::string, std::string> attachments[] = {{"notes.txt", "first\nsecond\n.\n"},
                                                             {"noise.bin", binary},
                                                             {"empty.dat", ""},
                                                             {"list.cache", "not a list"}};
  std::string paths;
  for (const auto& [name, bytes] : attachments) {
    test::WriteFile(files / name, bytes);
    paths += (paths.empty() ? "" : ",") + files / name;
  }
  const std::string marker = test::UniqueMarker("to be forwarded");
  ASSERT_EQ(Ask(Send() + " --param To=inboxuser@localhost --param Subject=" + Quoted(marker) +
                " --param Body=Plan --mparam Attachments=" + Quoted(paths))["Status"],
            "success");
  const std::string id = DeliveredId("INBOX", marker);
  ASSERT_EQ(Ask("--req Command=ListMail" + Mailbox("INBOX"))["Status"], "success");
  auto arrived = [&](const std::string& role, const std::string& messageId) {
    test::TempDir saved;
    GatewayAnswer read = Receive(role, messageId, "--param Attachment=" + saved.path());
    for (size_t k = 0; k < std::size(attachments); ++k) {
      const auto& [name, bytes] = attachments[k];
      EXPECT_EQ(read["Attachment" + std::to_string(k)], name + "," + std::to_string(bytes.size()));
      EXPECT_TRUE(ReadFile(saved / name) == bytes) << name << " differs";
    }
    return read;
  };
  arrived("INBOX", id);
  auto cacheFiles = [this] {
    std::map<std::string, std::string> contents;
    for (const auto& entry : std::filesystem::directory_iterator(Cache("INBOX")))
      contents[entry.path().filename()] = ReadFile(entry.path());
    return contents;
  };
  const auto before = cacheFiles();
  GatewayAnswer forwarded =
      Ask("--req Command=ForwardMail" + Account("INBOX") + " --param ID=" + id +
          " --param From=inboxuser@localhost --param To=outboxuser@localhost");
  ASSERT_EQ(forwarded["Status"], "success") << forwarded.output;
  EXPECT_TRUE(cacheFiles() == before) << "the cache changed";
  GatewayAnswer copy = arrived("OUTBOX", DeliveredId("OUTBOX", "Fw: " + marker));
  EXPECT_EQ(copy["Subject"], "Fw: " + marker);
  EXPECT_NE(copy["Body"].find("\r\nPlan"), std::string::npos) << copy["Body"];
}

}  // namespace
}  // namespace corvane
