// The real gateway end to end through corvane-cli against the private
// dovecot, exim and vsftpd: one flow per mail command, the new-mail notice
// with a real notification program, and what outside text cannot do on the way.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>

#include "pop3/pop3_server_env.h"
#include "support/command_output.h"
#include "support/gateway_process.h"
#include "support/scoped_env.h"
#include "transport/counted_string.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using test::GatewayProcess;
using test::ReadFile;
using test::ScopedEnv;

// One answer as corvane-cli printed it with --json: every field by name, bytes
// as sent (the values of a multi-valued field joined with ","); none is "".
struct Answer : std::map<std::string, std::string> {
  int status = -1;
  std::string output;
  std::vector<std::string> Rows() {  // "Row0", "Row1", ... in order
    std::vector<std::string> rows;
    for (size_t k = 0; count("Row" + std::to_string(k)); ++k)
      rows.push_back(at("Row" + std::to_string(k)));
    return rows;
  }
};

std::string FromBase64(const std::string& text) {
  const std::string digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  uint32_t bits = 0;
  int count = 0;
  for (char c : text) {
    if (c == '=') break;
    bits = bits << 6 | static_cast<uint32_t>(digits.find(c));
    if ((count += 6) >= 8) out += static_cast<char>(bits >> (count -= 8) & 0xFF);
  }
  return out;
}

// The cli's flat JSON: a string followed by ':' is a key, any other one a
// value of the last key (within [] one of its values); a value that is not
// UTF-8 comes as {"base64":"..."}; "\u00XX" is one byte.
Answer ParseAnswer(int status, const std::string& json) {
  Answer answer;
  answer.status = status, answer.output = json;
  std::string key;
  bool inArray = false, encoded = false;
  for (size_t i = 0; (i = json.find_first_of("\"[]", i)) != std::string::npos;) {
    if (json[i] != '"') {
      inArray = json[i++] == '[';
      continue;
    }
    std::string token;
    for (++i; i < json.size() && json[i] != '"'; ++i) {
      if (json.compare(i, 2, "\\u") == 0) {
        token += static_cast<char>(std::stoi(json.substr(i + 2, 4), nullptr, 16));
        i += 5;
      } else {
        token += json[i] == '\\' ? json[++i] : json[i];
      }
    }
    if (++i < json.size() && json[i] == ':') {
      encoded = token == "base64";
      if (!encoded) key = token;
    } else {
      answer[key] +=
          (inArray && answer.count(key) ? "," : "") + (encoded ? FromBase64(token) : token);
      encoded = false;
    }
  }
  return answer;
}

Answer AskGateway(int port, const std::string& arguments) {
  test::CommandOutput run = test::RunCommand(std::string("'") + CORVANE_CLI + "' --port " +
                                             std::to_string(port) + " --json " + arguments);
  return ParseAnswer(run.status, run.output);
}

// A shell word for a value that may hold blanks or quotes.
std::string Quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

size_t CountOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = 0; (at = text.find(needle, at)) != std::string::npos; ++at) ++count;
  return count;
}

// Waits up to 30 s for `done`.
bool WaitFor(const std::function<bool()>& done) {
  for (int i = 0; i < 300 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  return done();
}

// The delivered messages (in a maildir's new or cur) under `root` holding `marker`.
std::vector<std::string> FilesHolding(const std::string& root, const std::string& marker) {
  std::vector<std::string> found;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(root, error);
       it != fs::recursive_directory_iterator(); it.increment(error)) {
    const std::string folder = it->path().parent_path().filename();
    if ((folder == "new" || folder == "cur") && it->is_regular_file() &&
        ReadFile(it->path()).find(marker) != std::string::npos)
      found.push_back(it->path());
  }
  return found;
}

// A text no other test (or earlier run) uses.
std::string UniqueMarker(const std::string& what) {
  return what + "-" + std::to_string(::getpid()) + "-" +
         std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
}

// A gateway on its own program directory, logging at debug level, and the
// private dovecot's mailboxes by role.
class GatewayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(pop3_.ok()) << "no POP3 test server: " << pop3_.path();
    ASSERT_TRUE(gateway_.Start());
  }
  // The request fields naming `role`'s mailbox.
  std::string Mailbox(const std::string& role) const {
    return " --req Pop3=127.0.0.1 --req Port=" + pop3_.Get("POP3_PORT") +
           " --req Login=" + pop3_.Mailbox(role).user +
           " --req Pwd=" + pop3_.Mailbox(role).password;
  }
  Answer Ask(const std::string& arguments) const { return AskGateway(gateway_.port(), arguments); }
  Answer Receive(const std::string& role, const std::string& id, const std::string& more = "",
                 int port = 0) const {
    return AskGateway(port ? port : gateway_.port(), "--req Command=ReceiveMail" + Mailbox(role) +
                                                         " --param ID=" + id + " " + more);
  }
  // The gateway's cache directory of `role`'s mailbox.
  std::string Cache(const std::string& role) const {
    return gateway_.dir() /
           ("cache/" + pop3_.Mailbox(role).user + "@127.0.0.1:" + pop3_.Get("POP3_PORT") + "/");
  }
  // The message in `role`'s maildir holding `marker`, once delivered (empty when it did not come).
  std::string Delivered(const std::string& role, const std::string& marker) const {
    std::vector<std::string> files;
    WaitFor([&] { return !(files = FilesHolding(pop3_.Mailbox(role).maildir, marker)).empty(); });
    return files.empty() ? std::string() : files[0];
  }
  std::string DeliveredId(const std::string& role, const std::string& marker) const {
    const std::string name = fs::path(Delivered(role, marker)).filename();
    return name.substr(0, name.find(':'));  // its POP3 id
  }

  test::Pop3ServerEnv pop3_{CORVANE_POP3_ENV_FILE};
  GatewayProcess gateway_{"log_level=debug\n"};
};

using ListMailTest = GatewayTest;

TEST_F(ListMailTest, RowsAreConvertedAndCachedAsBuilt) {
  Answer utf8 = Ask("--req Command=ListMail" + Mailbox("CORPUS") + " --param Encode=utf-8");
  const std::vector<std::string> rows = utf8.Rows();
  auto row = [&](const std::string& name) {  // id, sender, subject, date, attachment flag
    auto found = std::find_if(rows.begin(), rows.end(), [&](const std::string& r) {
      return r.find("." + name) != std::string::npos;
    });
    return found == rows.end() ? std::string() : *found;
  };
  // GB2312 words into UTF-8; Big5 has no conversion to UTF-8 and stays.
  EXPECT_NE(row("alternative-gb2312-utf8")
                .find(CountedString::Encode("\xe5\xbc\xa0\xe4\xb8\x89 <zhang@example.com>")),
            std::string::npos);
  EXPECT_NE(row("big5-subject").find(CountedString::Encode("\xb0\xea\xbby\xbd\xd2\xb5{")),
            std::string::npos);
  EXPECT_TRUE(row("attachment-rfc2231").ends_with(CountedString::Encode("1")));
  // Another charset does not rebuild the cached rows: no header is read twice.
  EXPECT_EQ(Ask("--req Command=ListMail" + Mailbox("CORPUS") + " --param Encode=gb2312").Rows(),
            utf8.Rows());
  EXPECT_EQ(CountOf(gateway_.LogText(), "Get mail "), rows.size());
  EXPECT_EQ(CountOf(gateway_.LogText(), "from cache UID: "), rows.size());
}

class ReceiveMailTest : public GatewayTest {
 protected:
  // The id of the corpus message made from tests/data/mail/<name>.eml.
  std::string CorpusId(const std::string& name) const {
    for (const auto& entry : fs::directory_iterator(pop3_.Mailbox("CORPUS").maildir + "/new"))
      if (entry.path().extension() == "." + name) return entry.path().filename();
    return "missing-" + name;
  }
};

TEST_F(ReceiveMailTest, AttachmentsAreSavedLocallyOrUploadedToTheConfiguredFtpServer) {
  test::Pop3ServerEnv ftp(CORVANE_FTP_ENV_FILE, "CORVANE_FTP_ENV");
  ASSERT_NE(ftp.Port("FTP_BANNER_PORT"), 0u) << "no FTP test server: " << ftp.path();
  const std::string id = CorpusId("attachment-rfc2231");
  const std::string names[] = {"\xd6\xd0\xce\xc4\xb1\xa8\xb8\xe6.bin", "report 2010.pdf"};
  test::TempDir local;
  Answer saved = Receive("CORPUS", id, "--param Attachment=" + local.path() + "/");
  for (int k = 0; k < 2; ++k)
    EXPECT_EQ(saved["Attachment" + std::to_string(k)],
              names[k] + "," + std::to_string(fs::file_size(local / names[k])));
  // Active and passive, one-line and multi-line greetings.
  for (const auto& [portKey, passive] : {std::pair{"FTP_PORT", false}, {"FTP_BANNER_PORT", true}}) {
    const std::string directory = std::string("box-") + portKey + (passive ? "-p" : "-a");
    SCOPED_TRACE(directory);
    fs::remove_all(ftp.Get("FTP_ROOT") + "/" + directory);
    GatewayProcess gateway("[Ftp]\nHost=" + ftp.Get("FTP_HOST") + "\nPort=" + ftp.Get(portKey) +
                           "\nPassive=" + (passive ? "1" : "0") + "\nLogin=" + ftp.Get("FTP_USER") +
                           "\nPwd=" + ftp.Get("FTP_PASS") + "\n");
    ASSERT_TRUE(gateway.Start());
    // The host of the address is never used: uploads go to the configured server.
    Answer answer =
        Receive("CORPUS", id, "--param 'Attachment=ftp:\\\\files.example.org\\" + directory + "'",
                gateway.port());
    EXPECT_EQ(answer["Status"], "success") << answer.output;
    for (int k = 0; k < 2; ++k) {
      EXPECT_EQ(answer["Attachment" + std::to_string(k)], saved["Attachment" + std::to_string(k)]);
      EXPECT_TRUE(ReadFile(ftp.Get("FTP_ROOT") + "/" + directory + "/" + names[k]) ==
                  ReadFile(local / names[k]));
    }
  }
}

// An IMAP mailbox (143 with STARTTLS, 993 with TLS) answers as its POP3 twin:
// the same rows but for their ids, the same message read, nothing marked
// seen; an INBOX rebuilt under a new UIDVALIDITY rebuilds the list cache.
TEST_F(ReceiveMailTest, AnImapMailboxAnswersAsItsPop3Twin) {
  ScopedEnv trust("SSL_CERT_FILE", pop3_.Get("CA_FILE"));
  GatewayProcess gateway("log_level=debug\n");
  ASSERT_TRUE(gateway.Start());
  const auto account = pop3_.Mailbox("CORPUS");
  auto imap = [&](const std::string& port) {
    return " --req Pop3=127.0.0.1 --req Port=" + port + " --req Login=" + account.user +
           " --req Pwd=" + account.password;
  };
  // Rows without their ids, by the rest of them.
  auto rest = [](std::vector<std::string> rows) {
    std::map<std::string, std::string> byRest;  // the rest -> the id
    for (const std::string& row : rows) {
      const size_t idSize = CountedString::SizeAt(row.data(), row.size());
      byRest[row.substr(idSize)] = *CountedString::DataAt(row.data(), row.size());
    }
    return byRest;
  };
  const auto pop3Rows =
      rest(AskGateway(gateway.port(),
                      "--req Command=ListMail" + Mailbox("CORPUS") + " --param Encode=utf-8")
               .Rows());
  const std::string pop3Id = CorpusId("attachment-rfc2231");
  Answer pop3Read = Receive("CORPUS", pop3Id, "", gateway.port());
  ASSERT_EQ(pop3Read["Status"], "success") << pop3Read.output;
  for (const std::string port : {"143", "993"}) {
    SCOPED_TRACE(port);
    Answer listed =
        AskGateway(gateway.port(), "--req Command=ListMail" + imap(port) + " --param Encode=utf-8");
    const auto imapRows = rest(listed.Rows());
    ASSERT_EQ(imapRows.size(), pop3Rows.size()) << listed.output;
    std::string imapId;
    for (const auto& [row, id] : pop3Rows) {
      ASSERT_TRUE(imapRows.count(row)) << row;
      if (id == pop3Id) imapId = imapRows.at(row);
    }
    Answer read = AskGateway(gateway.port(),
                             "--req Command=ReceiveMail" + imap(port) + " --param ID=" + imapId);
    for (const char* field :
         {"Status", "From", "To", "Subject", "Date", "Body", "Attachment0", "Attachment1"}) {
      EXPECT_EQ(read[field], pop3Read[field]) << field << ": " << read.output;
    }
  }
  for (const auto& entry : fs::recursive_directory_iterator(account.maildir)) {
    EXPECT_EQ(entry.path().filename().string().find(":2,S"), std::string::npos) << entry.path();
  }
  // A new UIDVALIDITY: every id changes, and every header is read again.
  const size_t readBefore = CountOf(gateway.LogText(), "Get mail ");
  const std::string root = fs::path(pop3_.path()).parent_path();
  ASSERT_EQ(
      test::RunCommand("doveadm -c '" + root + "/dovecot.conf' mailbox update -u " + account.user +
                       " --uid-validity " + std::to_string(4242 + getpid()) + " INBOX")
          .status,
      0);
  const auto rebuilt = rest(
      AskGateway(gateway.port(), "--req Command=ListMail" + imap("143") + " --param Encode=utf-8")
          .Rows());
  ASSERT_EQ(rebuilt.size(), pop3Rows.size());
  EXPECT_EQ(CountOf(gateway.LogText(), "Get mail ") - readBefore, rebuilt.size());
}

class SendMailTest : public GatewayTest {
 protected:
  void SetUp() override {
    ASSERT_FALSE(smtp_.Get("SMTP_PORT").empty()) << "no SMTP test server: " << smtp_.path();
    GatewayTest::SetUp();
  }
  // A SendMail request through exim's `portKey` as its user, to `to`.
  std::string Send(const std::string& to, const std::string& portKey = "SMTP_PORT",
                   const std::string& auth = "true") const {
    return "--req Command=SendMail --req Smtp=127.0.0.1 --req SmtpPort=" + smtp_.Get(portKey) +
           " --req Login=" + smtp_.Get("SMTP_USER") + " --req Pwd=" + smtp_.Get("SMTP_PASS") +
           " --req Auth=" + auth + " --param To=" + to;
  }
  // `role`'s mailbox, sending through exim without authentication.
  std::string Account(const std::string& role) const {
    return Mailbox(role) + " --req Smtp=127.0.0.1 --req SmtpPort=" + smtp_.Get("SMTP_PORT");
  }
  // How exim received the copy holding `marker`: " with esmtpsa " for TLS and AUTH.
  std::string ReceivedBy(const std::string& role, const std::string& marker) const {
    const std::string copy = ReadFile(Delivered(role, marker));
    return copy.substr(0, copy.find("\n\t(envelope-from"));
  }

  test::Pop3ServerEnv smtp_{CORVANE_SMTP_ENV_FILE, "CORVANE_SMTP_ENV"};
  // exim offers TLS and [Smtp] Tls=auto takes it: the gateway trusts the test CA.
  ScopedEnv trust_{"SSL_CERT_FILE", smtp_.Get("CA_FILE")};
};

TEST_F(SendMailTest, Gb2312MailOverEachKindOfTlsArrivesAndReadsBackByteForByte) {
  const std::string body = "\xc3\xf7\xcc\xec\xbf\xaa\xbb\xe1\xa1\xa3\r\n.\xb5\xda\xb6\xfe\xd0\xd0";
  // STARTTLS then CRAM-MD5; AUTH LOGIN offered only once TLS is up; TLS from the first byte.
  for (const char* portKey : {"SMTP_PORT", "SMTP_LOGIN_PORT", "SMTPS_PORT"}) {
    SCOPED_TRACE(portKey);
    const std::string marker = UniqueMarker(portKey);
    const std::string subject = "\xbb\xe1\xd2\xe9\xcd\xa8\xd6\xaa " + marker;
    Answer sent =
        Ask(Send("inboxuser@localhost", portKey) +
            " --param From=outboxuser@localhost --param Name=" + Quoted("\xd5\xc5\xc8\xfd") +
            " --param Subject=" + Quoted(subject) + " --param Body=" + Quoted(body) +
            " --param Priority=" + marker);
    ASSERT_EQ(sent["Status"], "success") << sent.output << gateway_.LogText();
    const std::string id = DeliveredId("INBOX", marker);
    ASSERT_FALSE(id.empty()) << "not delivered";
    EXPECT_NE(ReceivedBy("INBOX", marker).find(" with esmtpsa "), std::string::npos);
    const auto rows = Ask("--req Command=ListMail" + Mailbox("INBOX")).Rows();
    EXPECT_TRUE(std::any_of(rows.begin(), rows.end(), [&](const std::string& row) {
      return row.starts_with(CountedString::Encode(id));
    }));
    Answer read = Receive("INBOX", id);
    EXPECT_EQ(std::tuple(read["Subject"], read["From"], read["To"], read["Priority"]),
              std::tuple(subject, "\xd5\xc5\xc8\xfd<outboxuser@localhost>", "inboxuser@localhost",
                         marker));
    EXPECT_EQ(read["Body"].substr(0, body.size()), body);  // the dot line unharmed by stuffing
  }
}

TEST_F(SendMailTest, CertificatesAndTlsSettingsDecideWhetherMailGoesAtAll) {
  struct Case {
    const char *what, *config, *trustedCa, *portKey;
    const char* logged;  // the cause in the log; empty: the mail goes, in the clear
  };
  const Case cases[] = {
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
    ScopedEnv trust("SSL_CERT_FILE", pop3_.Get(c.trustedCa));
    GatewayProcess gateway("log_level=debug\n[Smtp]\n" + std::string(c.config) + "\n");
    ASSERT_TRUE(gateway.Start());
    const std::string sender = UniqueMarker("s");
    Answer answer = AskGateway(gateway.port(), Send("inboxuser@localhost", c.portKey) +
                                                   " --param From=" + sender +
                                                   "@localhost --param Subject=" + sender);
    if (!*c.logged) {
      EXPECT_EQ(answer["Status"], "success") << answer.output << gateway.LogText();
      EXPECT_NE(ReceivedBy("INBOX", sender).find(" with esmtpa "), std::string::npos);
      continue;
    }
    EXPECT_EQ(answer["Status"], "fail");
    EXPECT_EQ(answer["Log"], "Connect to smtp server error");
    EXPECT_NE(gateway.LogText().find(c.logged), std::string::npos) << gateway.LogText();
    // Nothing got as far as a message.
    EXPECT_EQ(ReadFile(smtp_.Get("MAIN_LOG")).find("<= " + sender), std::string::npos);
  }
}

TEST_F(SendMailTest, ReplyQuotesTheOriginalAndASmuggledSubjectStaysOneMessage) {
  // The original's Subject decodes to the end of a message and a second
  // transaction; the reply carries it inside its own Subject, and exim sees
  // no other command: its log never names the smuggled text.
  const std::string token = UniqueMarker("smuggled");
  const std::string words = "=?utf-8?Q?Hi=0D=0A.=0D=0AMAIL_FROM:<x-" + token +
                            "@example.org>=0D=0ARCPT_TO:<victim-" + token +
                            "@example.org>=0D=0ADATA=0D=0ASubject:_" + token + "=0D=0A?=";
  ASSERT_EQ(Ask(Send("inboxuser@localhost") +
                " --param From=outboxuser@localhost --param Subject=" + Quoted(words) +
                " --param Body=Lunch?")["Status"],
            "success");
  const std::string id = DeliveredId("INBOX", token), answer = UniqueMarker("agreed");
  ASSERT_FALSE(id.empty()) << "not delivered";
  Answer replied = Ask("--req Command=ReplyMail" + Account("INBOX") + " --param ID=" + id +
                       " --param Quote=true --param Body=" + answer);
  ASSERT_EQ(replied["Status"], "success") << replied.output;
  const std::string replyId = DeliveredId("OUTBOX", answer);
  ASSERT_FALSE(replyId.empty()) << "the reply did not reach the original sender whole";
  EXPECT_NE(ReceivedBy("OUTBOX", token).find(" with esmtps "), std::string::npos);
  Answer reply = Receive("OUTBOX", replyId);
  EXPECT_TRUE(reply["Subject"].starts_with("Reply: Hi")) << reply["Subject"];
  EXPECT_NE(reply["Subject"].find("RCPT TO:<victim-" + token + "@example.org>"), std::string::npos);
  // The answer, then the quotation header ("original mail") and the original text.
  EXPECT_TRUE(reply["Body"].starts_with(
      answer + "\r\n\r\n------------\xD4\xAD\xD3\xCA\xBC\xFE\xC4\xDA\xC8\xDD"));
  EXPECT_NE(reply["Body"].find("\r\n\r\nLunch?"), std::string::npos) << reply["Body"];
  EXPECT_EQ(ReadFile(smtp_.Get("MAIN_LOG")).find(token), std::string::npos);
}

TEST_F(SendMailTest, AttachmentsReachEveryRecipientAndAForwardCarriesThemLeavingTheCache) {
  // The last file is named like the mailbox's list cache: the copy made for
  // the forward must not replace it.
  test::TempDir files;
  std::string binary, paths;
  for (int i = 0; i < 300 * 1024; ++i) binary += static_cast<char>(i * 131 >> 5);
  const std::pair<std::string, std::string> attachments[] = {{"notes.txt", "first\nsecond\n.\n"},
                                                             {"noise.bin", binary},
                                                             {"empty.dat", ""},
                                                             {"list.cache", "not a list"}};
  for (const auto& [name, bytes] : attachments) {
    test::WriteFile(files / name, bytes);
    paths += (paths.empty() ? "" : ",") + files / name;
  }
  // "Auth" other than "true": no AUTH at all, which this server allows.
  const std::string marker = UniqueMarker("to be forwarded");
  ASSERT_EQ(Ask(Send("inboxuser@localhost,outboxuser@localhost", "SMTP_PORT", "yes") +
                " --param Subject=" + Quoted(marker) +
                " --param Body=Plan --mparam Attachments=" + Quoted(paths))["Status"],
            "success");
  EXPECT_NE(ReceivedBy("OUTBOX", marker).find(" with esmtps "), std::string::npos);
  const std::string id = DeliveredId("INBOX", marker);
  ASSERT_EQ(Ask("--req Command=ListMail" + Mailbox("INBOX"))["Status"], "success");
  auto arrived = [&](const std::string& role, const std::string& messageId) {
    test::TempDir saved;
    Answer read = Receive(role, messageId, "--param Attachment=" + saved.path());
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
    for (const auto& entry : fs::directory_iterator(Cache("INBOX")))
      contents[entry.path().filename()] = ReadFile(entry.path());
    return contents;
  };
  const auto before = cacheFiles();
  Answer forwarded = Ask("--req Command=ForwardMail" + Account("INBOX") + " --param ID=" + id +
                         " --param From=inboxuser@localhost --param To=outboxuser@localhost");
  ASSERT_EQ(forwarded["Status"], "success") << forwarded.output;
  EXPECT_TRUE(cacheFiles() == before) << "the cache changed";
  Answer copy = arrived("OUTBOX", DeliveredId("OUTBOX", "Fw: " + marker));
  EXPECT_EQ(copy["Subject"], "Fw: " + marker);
  EXPECT_NE(copy["Body"].find("\r\nPlan"), std::string::npos) << copy["Body"];
}

// Adds a line of its arguments, each ended by a NUL, to "calls" beside itself;
// printf never lets an argument be read as shell text.
constexpr char kNotifyScript[] =
    "#!/bin/sh\ncalls=\"$(dirname \"$0\")/calls\"\nprintf '%s\\0' \"$@\" >> \"$calls\"\n"
    "echo >> \"$calls\"\n";

// The new-mail check, announced through a notification program that lives in
// the gateway's directory.
class CheckMailTest : public GatewayTest {
 protected:
  void SetUp() override {
    const std::string notify = gateway_.dir() / "notify", config = gateway_.dir() / "config.ini";
    test::WriteFile(notify, kNotifyScript);
    fs::permissions(notify, fs::perms::owner_all);
    test::WriteFile(config, ReadFile(config) + "[Pushmail]\nInterval=1\nSender=" + notify + "\n");
    GatewayTest::SetUp();
  }
  // Adds (or updates) an account of mobile 13800000000: the NOTIFY mailbox,
  // or `login` with the password "pw".
  void Register(unsigned port, const std::string& polling = "start", const std::string& login = "",
                const std::string& config = "append") {
    const test::Pop3ServerEnv::Account account = pop3_.Mailbox("NOTIFY");
    Answer answer =
        Ask("--req Command=ConfigMail --req Pop3=127.0.0.1 --req Port=" + std::to_string(port) +
            " --req Login=" + (login.empty() ? account.user : login) +
            " --req Pwd=" + (login.empty() ? account.password : "pw") +
            " --req Mobile=13800000000 --param Config=" + config + " --param Polling=" + polling);
    ASSERT_EQ(answer.status, 0) << answer.output;
  }
  // The arguments of every call of the notification program so far.
  std::vector<std::vector<std::string>> Calls() const { return CallsOf(gateway_); }
  static std::vector<std::vector<std::string>> CallsOf(const GatewayProcess& gateway) {
    std::vector<std::vector<std::string>> calls;
    const std::string text = ReadFile(gateway.dir() / "calls");
    for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
         start = end + 1)
      for (size_t at = start, nul; (nul = text.find('\0', at)) < end; at = nul + 1)
        (at == start ? calls.emplace_back() : calls.back()).push_back(text.substr(at, nul - at));
    return calls;
  }
  // True once the log shows `count` checks of the NOTIFY mailbox (the last one begun).
  bool Checked(size_t count) {
    return WaitFor(
        [&] { return CountOf(gateway_.LogText(), "Check mail account: " + Key()) >= count; });
  }
  std::string Key() const { return pop3_.Mailbox("NOTIFY").user + "@127.0.0.1\n"; }

  ScopedEnv utc_{"TZ", "UTC"};
};

TEST_F(CheckMailTest, OnlyTheUnknownMessageIsAnnouncedWithItsTextAsPlainArguments) {
  ASSERT_EQ(gateway_.Stop(), 0);  // started again with two of the three messages known
  const std::string cache = Cache("NOTIFY");
  fs::create_directories(cache);
  test::WriteFile(cache + "mail.list", "1700000001.M1P4242.mailhost,1700000002.M2P4242.mailhost");
  ASSERT_TRUE(gateway_.Start());
  Register(pop3_.Port("POP3_PORT"));
  // A second check has begun: the first is over, and announced once.
  ASSERT_TRUE(Checked(2)) << gateway_.LogText();
  EXPECT_EQ(Calls(), (std::vector<std::vector<std::string>>{
                         {"13800000000", "\xd5\xc5\xc8\xfd <zhang@example.com>", "2023-11-14 22:13",
                          "Quote \"this\"; $(touch pwned) `touch pwned2` it's new"}}));
  EXPECT_EQ(ReadFile(cache + "mail.list"),
            "1700000001.M1P4242.mailhost,1700000002.M2P4242.mailhost,1700000003.M3P4242.mailhost");
}

TEST_F(CheckMailTest, AnAccountWithPollingOffHoldsThePassUntilItIsOn) {
  // Added first and switched off: a pass begun after both were added waits on it.
  Register(pop3_.Port("POP3_PORT"), "stop", "held@example.org");
  const size_t added = gateway_.LogText().size();
  Register(pop3_.Port("POP3_PORT"));
  ASSERT_TRUE(WaitFor(
      [&] { return gateway_.LogText().find("Start check mail", added) != std::string::npos; }));
  const std::string held = gateway_.LogText();
  Register(pop3_.Port("POP3_PORT"), "start", "held@example.org", "update");
  ASSERT_TRUE(Checked(1)) << gateway_.LogText();
  const std::string log = gateway_.LogText();
  // Nothing was checked while held; then the held account, then the other.
  EXPECT_EQ(CountOf(held, "Check mail account: "), 0u) << held;
  EXPECT_LT(log.find("Check mail account: held@example.org\n"),
            log.find("Check mail account: " + Key()))
      << log;
  EXPECT_EQ(CountOf(log.substr(0, log.find("Check mail account: ")), "Start check mail"),
            CountOf(held, "Start check mail"))
      << "a new pass began while one was held";
}

// Registered over IMAP (143, STARTTLS), an account is watched in IDLE: a
// message exim delivers is announced at once, long before the next pass
// (Interval=600), and only once.
TEST_F(CheckMailTest, AnImapAccountIsAnnouncedAsMailArrives) {
  test::Pop3ServerEnv smtp(CORVANE_SMTP_ENV_FILE, "CORVANE_SMTP_ENV");
  ASSERT_FALSE(smtp.Get("SMTP_PORT").empty()) << "no SMTP test server: " << smtp.path();
  ScopedEnv trust("SSL_CERT_FILE", pop3_.Get("CA_FILE"));
  GatewayProcess gateway("log_level=debug\n");
  const std::string notify = gateway.dir() / "notify", config = gateway.dir() / "config.ini";
  test::WriteFile(notify, kNotifyScript);
  fs::permissions(notify, fs::perms::owner_all);
  test::WriteFile(config, ReadFile(config) + "[Pushmail]\nInterval=600\nSender=" + notify + "\n");
  ASSERT_TRUE(gateway.Start());
  const auto account = pop3_.Mailbox("WATCH");
  Answer registered = AskGateway(gateway.port(),
                                 "--req Command=ConfigMail --req Pop3=127.0.0.1 "
                                 "--req Port=143 --req Login=" +
                                     account.user + " --req Pwd=" + account.password +
                                     " --req Mobile=139 --param Config=append "
                                     "--param Polling=start");
  ASSERT_EQ(registered.status, 0) << registered.output;
  // Once the watch waits in IDLE, a message arrives.
  ASSERT_TRUE(WaitFor([&] {
    return gateway.LogText().find("Watch mail account in IDLE: " + account.user) !=
           std::string::npos;
  })) << gateway.LogText();
  const std::string marker = UniqueMarker("idle");
  Answer sent = AskGateway(gateway.port(),
                           "--req Command=SendMail --req Smtp=127.0.0.1 "
                           "--req SmtpPort=" +
                               smtp.Get("SMTP_PORT") + " --req Login=" + smtp.Get("SMTP_USER") +
                               " --req Pwd=" + smtp.Get("SMTP_PASS") +
                               " --req Auth=true --param To=" + account.user +
                               "@localhost --param Subject=" + marker + " --param Body=hi");
  ASSERT_EQ(sent["Status"], "success") << sent.output;
  auto announced = [&] {
    size_t count = 0;
    for (const auto& call : CallsOf(gateway)) count += call.size() == 4 && call[3] == marker;
    return count;
  };
  ASSERT_TRUE(WaitFor([&] { return announced() > 0; })) << gateway.LogText();
  EXPECT_EQ(CountOf(gateway.LogText(), "Start check mail"), 1u) << "announced by a pass";
  EXPECT_EQ(announced(), 1u);
  EXPECT_EQ(gateway.Stop(), 0);
}

}  // namespace
}  // namespace corvane
