// SendMail, ReplyMail and ForwardMail through the real gateway and
// corvane-cli, closing the loop: the private exim delivers into the maildirs
// the private dovecot serves, and the gateway reads back what arrived.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "gateway_mail/delivered_mail.h"
#include "gateway_mail/gateway_client.h"
#include "pop3/pop3_server_env.h"
#include "support/gateway_process.h"
#include "support/scoped_env.h"

namespace corvane {
namespace {

using test::AskGateway;
using test::GatewayAnswer;
using test::GatewayProcess;
using test::Quoted;
using test::ReadFile;

class SendMailTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pop3_.ok()) << "no POP3 test server: " << pop3_.path();
    ASSERT_FALSE(smtp_.Get("SMTP_PORT").empty()) << "no SMTP test server: " << smtp_.path();
    ASSERT_TRUE(gateway_.Start());
  }

  std::string Marker(const std::string& what) const { return test::UniqueMarker(what); }

  // The account fields of a sending request.
  std::string SmtpAccount(bool authenticate = true, const std::string& password = "") const {
    return "--req Smtp=127.0.0.1 --req SmtpPort=" + smtp_.Get("SMTP_PORT") +
           " --req Login=" + smtp_.Get("SMTP_USER") +
           " --req Pwd=" + (password.empty() ? smtp_.Get("SMTP_PASS") : password) +
           (authenticate ? " --req Auth=true" : "");
  }
  // The mailbox fields of a request on `role`'s mailbox, sending through the
  // test exim without authentication.
  std::string Mailbox(const std::string& role) const {
    test::Pop3ServerEnv::Account account = pop3_.Mailbox(role);
    return "--req Pop3=127.0.0.1 --req Port=" + pop3_.Get("POP3_PORT") +
           " --req Login=" + account.user + " --req Pwd=" + account.password +
           " --req Smtp=127.0.0.1 --req SmtpPort=" + smtp_.Get("SMTP_PORT");
  }

  GatewayAnswer Ask(const std::string& arguments) { return AskGateway(gateway_.port(), arguments); }

  // The id of the message in `role`'s maildir whose text holds `marker`,
  // once delivered; empty when it did not come.
  std::string DeliveredId(const std::string& role, const std::string& marker) const {
    std::string path = test::DeliveredFile(pop3_.Mailbox(role).maildir, marker);
    return path.empty() ? path : test::MaildirId(path);
  }

  GatewayAnswer Receive(const std::string& role, const std::string& id,
                        const std::string& extra = "") {
    return Ask("--req Command=ReceiveMail " + Mailbox(role) + " --param ID=" + id + " " + extra);
  }

  // The Received header exim put on the delivered copy holding `marker`:
  // "with esmtpsa" for a secured, authenticated submission.
  std::string ReceivedBy(const std::string& role, const std::string& marker) const {
    std::string copy = ReadFile(test::DeliveredFile(pop3_.Mailbox(role).maildir, marker));
    return copy.substr(0, copy.find("\n\t(envelope-from"));
  }

  test::Pop3ServerEnv pop3_{CORVANE_POP3_ENV_FILE};
  test::Pop3ServerEnv smtp_{CORVANE_SMTP_ENV_FILE, "CORVANE_SMTP_ENV"};
  // Sessions go over TLS whenever exim offers it ([Smtp] Tls=auto): the
  // gateway trusts the test CA as a machine would trust a provider's.
  test::ScopedEnv trust_{"SSL_CERT_FILE", smtp_.Get("CA_FILE")};
  GatewayProcess gateway_{"log_level=debug\n"};
};

TEST_F(SendMailTest, Gb2312MailOverEachKindOfTlsArrivesAndReadsBackByteForByte) {
  // GB2312: "meeting notice" and a two-line body.
  const std::string body = "\xc3\xf7\xcc\xec\xbf\xaa\xbb\xe1\xa1\xa3\r\n.\xb5\xda\xb6\xfe\xd0\xd0";
  // STARTTLS and then CRAM-MD5; a submission port that offers AUTH (LOGIN)
  // only once TLS is up; TLS from the first byte on 465.
  for (const char* portKey : {"SMTP_PORT", "SMTP_LOGIN_PORT", "SMTPS_PORT"}) {
    SCOPED_TRACE(portKey);
    std::string marker = Marker(portKey);
    std::string subject = "\xbb\xe1\xd2\xe9\xcd\xa8\xd6\xaa " + marker;
    GatewayAnswer sent =
        Ask("--req Command=SendMail --req Smtp=127.0.0.1 --req SmtpPort=" + smtp_.Get(portKey) +
            " --req Login=" + smtp_.Get("SMTP_USER") + " --req Pwd=" + smtp_.Get("SMTP_PASS") +
            " --req Auth=true --param From=outboxuser@localhost" +
            " --param Name=" + Quoted("\xd5\xc5\xc8\xfd") + " --param To=inboxuser@localhost" +
            " --param Subject=" + Quoted(subject) + " --param Body=" + Quoted(body) +
            " --param Priority=" + Quoted(marker));
    ASSERT_EQ(sent["Status"], "success") << sent.output << gateway_.LogText();

    std::string id = DeliveredId("INBOX", marker);
    ASSERT_FALSE(id.empty()) << "not delivered";
    EXPECT_NE(ReceivedBy("INBOX", marker).find(" with esmtpsa "), std::string::npos)
        << ReceivedBy("INBOX", marker);
    GatewayAnswer listed = Ask("--req Command=ListMail " + Mailbox("INBOX"));
    ASSERT_EQ(listed["Status"], "success") << listed.output;
    EXPECT_NE(listed.output.find(id), std::string::npos);

    GatewayAnswer read = Receive("INBOX", id);
    ASSERT_EQ(read["Status"], "success") << read.output;
    EXPECT_EQ(read["Subject"], subject);
    EXPECT_EQ(read["From"], "\xd5\xc5\xc8\xfd<outboxuser@localhost>");
    EXPECT_EQ(read["To"], "inboxuser@localhost");
    // The 8-bit subject went out encoded; the priority, the marker searched
    // for, as it stands.
    EXPECT_EQ(read["Priority"], marker);
    // The body comes back as it went, the dot line unharmed by the stuffing.
    EXPECT_EQ(read["Body"].substr(0, body.size()), body);
  }
}

TEST_F(SendMailTest, TlsSettingsAndCertificatesDecideWhetherMailGoesAtAll) {
  struct Case {
    const char* what;
    const char* config;     // the [Smtp] section
    const char* trustedCa;  // the CA the gateway trusts
    const char* portKey;
    bool sent;
    const char* logged;  // on failure, the cause in the gateway's log
  };
  const Case cases[] = {
      {"an untrusted certificate", "", "OTHER_CA_FILE", "SMTP_PORT", false,
       "smtp server error: Failed to verify the certificate"},
      {"an untrusted certificate on 465", "", "OTHER_CA_FILE", "SMTPS_PORT", false,
       "smtp server error: Failed to verify the certificate"},
      {"required without STARTTLS", "Tls=required", "CA_FILE", "SMTP_CLEAR_PORT", false,
       "STARTTLS not supported by the SMTP server."},
      {"auto without STARTTLS", "", "CA_FILE", "SMTP_CLEAR_PORT", true, ""},
      {"off", "Tls=off", "CA_FILE", "SMTP_PORT", true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::ScopedEnv trust("SSL_CERT_FILE", pop3_.Get(c.trustedCa));
    GatewayProcess gateway("log_level=debug\n[Smtp]\n" + std::string(c.config) + "\n");
    ASSERT_TRUE(gateway.Start());
    std::string marker = Marker(c.what);
    std::string sender = marker;  // made fit for an address
    sender.erase(
        std::remove_if(sender.begin(), sender.end(),
                       [](char ch) { return !std::isalnum(static_cast<unsigned char>(ch)); }),
        sender.end());
    GatewayAnswer answer = AskGateway(
        gateway.port(),
        "--req Command=SendMail --req Smtp=127.0.0.1 --req SmtpPort=" + smtp_.Get(c.portKey) +
            " --req Login=" + smtp_.Get("SMTP_USER") + " --req Pwd=" + smtp_.Get("SMTP_PASS") +
            " --req Auth=true" + " --param From=" + sender + "@localhost" +
            " --param To=inboxuser@localhost --param Subject=" + Quoted(marker));
    const std::string mainLog = ReadFile(smtp_.Get("MAIN_LOG"));
    if (c.sent) {
      EXPECT_EQ(answer["Status"], "success") << answer.output << gateway.LogText();
      // Authenticated in the clear: "esmtpa", not "esmtpsa".
      EXPECT_NE(ReceivedBy("INBOX", marker).find(" with esmtpa "), std::string::npos)
          << ReceivedBy("INBOX", marker);
      continue;
    }
    EXPECT_EQ(answer["Status"], "fail");
    EXPECT_EQ(answer["Log"], "Connect to smtp server error");
    EXPECT_NE(gateway.LogText().find(c.logged), std::string::npos) << gateway.LogText();
    // Nothing got as far as a message: exim accepted none from this sender.
    EXPECT_EQ(mainLog.find("<= " + sender + "@localhost"), std::string::npos);
  }
}

TEST_F(SendMailTest, Utf8MailReadsBackInUtf8AndInGb2312) {
  std::string marker = Marker("utf8");
  std::string subject = "\xe4\xbc\x9a\xe8\xae\xae " + marker;  // "meeting"
  std::string body = "\xe6\x98\x8e\xe5\xa4\xa9\xe5\xbc\x80\xe4\xbc\x9a\xe3\x80\x82";
  GatewayAnswer sent = Ask(
      "--req Command=SendMail " + SmtpAccount() + " --param From=outboxuser@localhost" +
      " --param To=inboxuser@localhost --param Encode=utf-8 --param Subject=" + Quoted(subject) +
      " --param Body=" + Quoted(body) + " --param Priority=" + Quoted(marker));
  ASSERT_EQ(sent["Status"], "success") << sent.output;
  std::string id = DeliveredId("INBOX", marker);
  ASSERT_FALSE(id.empty()) << "not delivered";

  GatewayAnswer utf8 = Receive("INBOX", id, "--param Encode=utf-8");
  ASSERT_EQ(utf8["Status"], "success") << utf8.output;
  EXPECT_EQ(utf8["Subject"], subject);
  EXPECT_EQ(utf8["Body"].substr(0, body.size()), body);
  GatewayAnswer gb = Receive("INBOX", id, "--param Encode=gb2312");
  EXPECT_EQ(gb["Subject"], "\xbb\xe1\xd2\xe9 " + marker);
  EXPECT_EQ(gb["Body"].substr(0, 14), "\xc3\xf7\xcc\xec\xbf\xaa\xbb\xe1\xa1\xa3");
}

TEST_F(SendMailTest, AttachmentsArriveByteForByteInTheirOrder) {
  test::TempDir files;
  std::string binary(300 * 1024, '\0');
  std::mt19937 random(7);
  for (char& c : binary) c = static_cast<char>(random());
  const std::vector<std::pair<std::string, std::string>> attachments = {
      {"notes.txt", "first line\nsecond line\n.\n"}, {"noise.bin", binary}, {"empty.dat", ""}};
  std::string paths;
  for (const auto& [name, bytes] : attachments) {
    std::ofstream(files / name, std::ios::binary) << bytes;
    paths += (paths.empty() ? "" : ",") + files / name;
  }
  std::string marker = Marker("attachments");
  GatewayAnswer sent = Ask("--req Command=SendMail " + SmtpAccount() +
                           " --param To=inboxuser@localhost --param Subject=" + Quoted(marker) +
                           " --param Body=see --mparam Attachments=" + Quoted(paths));
  ASSERT_EQ(sent["Status"], "success") << sent.output;
  std::string id = DeliveredId("INBOX", marker);
  ASSERT_FALSE(id.empty()) << "not delivered";

  test::TempDir saved;
  GatewayAnswer read = Receive("INBOX", id, "--param Attachment=" + saved.path());
  ASSERT_EQ(read["Status"], "success") << read.output;
  for (size_t k = 0; k < attachments.size(); ++k) {
    const auto& [name, bytes] = attachments[k];
    EXPECT_EQ(read["Attachment" + std::to_string(k)], name + "," + std::to_string(bytes.size()));
    EXPECT_TRUE(ReadFile(saved / name) == bytes) << name << " differs";
  }
}

TEST_F(SendMailTest, AuthenticationAndServerFailures) {
  GatewayAnswer refused = Ask("--req Command=SendMail " + SmtpAccount(true, "wrong") +
                              " --param To=inboxuser@localhost --param Subject=x");
  EXPECT_EQ(refused["Status"], "fail");
  EXPECT_EQ(refused["Log"], "Connect to smtp server error");

  // "Auth" other than "true": no AUTH at all, which this server allows.
  std::string marker = Marker("unauthenticated");
  GatewayAnswer plain = Ask("--req Command=SendMail " + SmtpAccount(false) +
                            " --param To=inboxuser@localhost,outboxuser@localhost" +
                            " --param Subject=" + Quoted(marker));
  EXPECT_EQ(plain["Status"], "success") << plain.output;
  EXPECT_FALSE(DeliveredId("INBOX", marker).empty());
  EXPECT_FALSE(DeliveredId("OUTBOX", marker).empty());

  GatewayAnswer missing = Ask("--req Command=SendMail " + SmtpAccount() + " --param Subject=x");
  EXPECT_EQ(missing["Log"], "The parameter of request is not enough");
  GatewayAnswer unreadable =
      Ask("--req Command=SendMail " + SmtpAccount() +
          " --param To=inboxuser@localhost --mparam Attachments=" + "/nonexistent/corvane.bin");
  EXPECT_EQ(unreadable["Log"], "Send mail error");
  // The log line keeps its own spelling.
  EXPECT_NE(gateway_.LogText().find("[Error] Send mail ocurr error: "), std::string::npos);
}

TEST_F(SendMailTest, ReplyQuotesTheOriginalAndGoesToItsSender) {
  std::string marker = Marker("to be answered");
  ASSERT_EQ(
      Ask("--req Command=SendMail " + SmtpAccount() +
          " --param From=outboxuser@localhost --param To=inboxuser@localhost" +
          " --param Subject=" + Quoted(marker) + " --param Body=" + Quoted("Lunch?"))["Status"],
      "success");
  std::string id = DeliveredId("INBOX", marker);
  ASSERT_FALSE(id.empty()) << "not delivered";

  GatewayAnswer replied = Ask("--req Command=ReplyMail " + Mailbox("INBOX") + " --param ID=" + id +
                              " --param Quote=true --param Body=Agreed.");
  ASSERT_EQ(replied["Status"], "success") << replied.output;
  std::string replyId = DeliveredId("OUTBOX", "Reply: " + marker);
  ASSERT_FALSE(replyId.empty()) << "the reply did not reach the original sender";
  // Sent the way SendMail sends: over STARTTLS, which exim offers.
  EXPECT_NE(ReceivedBy("OUTBOX", "Reply: " + marker).find(" with esmtps "), std::string::npos);
  GatewayAnswer reply = Receive("OUTBOX", replyId);
  EXPECT_EQ(reply["Subject"], "Reply: " + marker);
  const std::string body = reply["Body"];
  EXPECT_EQ(body.rfind("Agreed.\r\n\r\n------------\xD4\xAD\xD3\xCA\xBC\xFE\xC4\xDA\xC8\xDD", 0),
            0u)
      << body;
  EXPECT_NE(body.find("\xD6\xF7\xCC\xE2: " + marker + "\r\n\r\nLunch?"), std::string::npos) << body;

  GatewayAnswer unknown = Ask("--req Command=ReplyMail " + Mailbox("INBOX") +
                              " --param ID=no-such-message --param Body=x");
  EXPECT_EQ(unknown["Log"], "Load pop3 message error");
}

TEST_F(SendMailTest, ReplyToASubjectDecodingToSmtpCommandsSendsOneMessage) {
  // The original's Subject decodes to the end of a message and a second
  // transaction. The reply built from it goes out as one message to the
  // original's sender, the whole text inside its Subject: exim sees no other
  // command (its log never names the smuggled addresses or text).
  std::string token = Marker("smuggled");
  std::replace(token.begin(), token.end(), ' ', '-');
  const std::string words = "=?utf-8?Q?Hi=0D=0A.=0D=0AMAIL_FROM:<x-" + token +
                            "@example.org>=0D=0ARCPT_TO:<victim-" + token +
                            "@example.org>=0D=0ADATA=0D=0ASubject:_" + token + "=0D=0A?=";
  ASSERT_EQ(Ask("--req Command=SendMail " + SmtpAccount() +
                " --param From=outboxuser@localhost --param To=inboxuser@localhost" +
                " --param Subject=" + Quoted(words) + " --param Body=Hello")["Status"],
            "success");
  std::string id = DeliveredId("INBOX", token);
  ASSERT_FALSE(id.empty()) << "not delivered";

  const std::string answer = Marker("answer");
  GatewayAnswer replied = Ask("--req Command=ReplyMail " + Mailbox("INBOX") + " --param ID=" + id +
                              " --param Body=" + Quoted(answer));
  ASSERT_EQ(replied["Status"], "success") << replied.output;
  std::string replyId = DeliveredId("OUTBOX", answer);
  ASSERT_FALSE(replyId.empty()) << "the reply did not arrive whole";
  GatewayAnswer reply = Receive("OUTBOX", replyId);
  EXPECT_EQ(reply["Subject"].rfind("Reply: Hi", 0), 0u) << reply["Subject"];
  EXPECT_NE(reply["Subject"].find("RCPT TO:<victim-" + token + "@example.org>"), std::string::npos)
      << reply["Subject"];
  EXPECT_EQ(reply["Body"].rfind(answer, 0), 0u) << reply["Body"];

  // Every message holding the text: the original and the one reply.
  std::multiset<std::string> holders;
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
}

// The files in a mailbox's cache directory, by name.
std::set<std::string> FilesIn(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory))
    names.insert(entry.path().filename());
  return names;
}

TEST_F(SendMailTest, ForwardCarriesTheAttachmentsAndLeavesTheCacheAsItWas) {
  // Named like the mailbox's list cache: the copy made for the forward must
  // not replace it.
  test::TempDir files;
  std::string pdf = "%PDF-1.4\n" + std::string(50000, 'x') + "\n%%EOF\n";
  std::ofstream(files / "plan.pdf", std::ios::binary) << pdf;
  std::ofstream(files / "list.cache", std::ios::binary) << "not a list";
  std::string marker = Marker("to be forwarded");
  ASSERT_EQ(Ask("--req Command=SendMail " + SmtpAccount() +
                " --param From=outboxuser@localhost --param To=inboxuser@localhost" +
                " --param Subject=" + Quoted(marker) + " --param Body=Plan" +
                " --mparam Attachments=" + Quoted(files / "plan.pdf") + "," +
                Quoted(files / "list.cache"))["Status"],
            "success");
  std::string id = DeliveredId("INBOX", marker);
  ASSERT_FALSE(id.empty()) << "not delivered";
  ASSERT_EQ(Ask("--req Command=ListMail " + Mailbox("INBOX"))["Status"], "success");
  ASSERT_EQ(Receive("INBOX", id)["Status"], "success");
  std::string cache = gateway_.dir() / ("cache/" + pop3_.Mailbox("INBOX").user + "@127.0.0.1:" +
                                        std::to_string(pop3_.Port("POP3_PORT")) + "/");
  const std::string listCache = ReadFile(cache + "list.cache");
  const std::set<std::string> cacheFiles = FilesIn(cache);

  GatewayAnswer forwarded =
      Ask("--req Command=ForwardMail " + Mailbox("INBOX") + " --param ID=" + id +
          " --param From=inboxuser@localhost --param To=outboxuser@localhost");
  ASSERT_EQ(forwarded["Status"], "success") << forwarded.output;
  EXPECT_EQ(ReadFile(cache + "list.cache"), listCache);
  EXPECT_EQ(FilesIn(cache), cacheFiles);  // no copies left behind

  std::string forwardId = DeliveredId("OUTBOX", "Fw: " + marker);
  ASSERT_FALSE(forwardId.empty()) << "the forward did not arrive";
  test::TempDir saved;
  GatewayAnswer copy = Receive("OUTBOX", forwardId, "--param Attachment=" + saved.path());
  EXPECT_EQ(copy["Subject"], "Fw: " + marker);
  EXPECT_EQ(copy["Attachment0"], "plan.pdf," + std::to_string(pdf.size()));
  EXPECT_EQ(copy["Attachment1"], "list.cache,10");
  EXPECT_TRUE(ReadFile(saved / "plan.pdf") == pdf);
  EXPECT_EQ(ReadFile(saved / "list.cache"), "not a list");
  EXPECT_NE(copy["Body"].find("\r\nPlan"), std::string::npos) << copy["Body"];
}

}  // namespace
}  // namespace corvane
