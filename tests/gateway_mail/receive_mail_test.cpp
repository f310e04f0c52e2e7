// ReceiveMail through the real gateway and corvane-cli against the private
// dovecot: rendering into GB2312 and UTF-8, the message cache, attachments.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "gateway_mail/gateway_client.h"
#include "pop3/pop3_server_env.h"
#include "support/gateway_process.h"

namespace corvane {
namespace {

using test::AskGateway;
using test::GatewayAnswer;
using test::GatewayProcess;

// The attachment of the small mailbox's fourth message, as make-maildir wrote it.
std::string AgendaBytes() {
  std::string bytes = "%PDF-1.4\n% agenda\n";
  for (int i = 1; i <= 40; ++i) {
    bytes += std::to_string(i) + " 0 obj << /Item " + std::to_string(i) + " >> endobj\n";
  }
  return bytes + "%%EOF\n";
}

constexpr char kAgendaId[] = "1700000004.M4P4242.mailhost";

class ReceiveMailTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(env_.ok()) << "no POP3 test server: " << env_.path();
    ASSERT_TRUE(gateway_.Start());
  }

  std::string Mailbox(const std::string& role, const std::string& password = "") const {
    test::Pop3ServerEnv::Account account = env_.Mailbox(role);
    return "--req Pop3=127.0.0.1 --req Port=" + std::to_string(env_.Port("POP3_PORT")) +
           " --req Login=" + account.user +
           " --req Pwd=" + (password.empty() ? account.password : password);
  }
  // The id of the corpus message made from tests/data/mail/<name>.eml.
  std::string CorpusId(const std::string& name) const {
    for (const auto& entry :
         std::filesystem::directory_iterator(env_.Mailbox("CORPUS").maildir + "/new")) {
      std::string file = entry.path().filename();
      if (file.size() > name.size() && file.substr(file.size() - name.size() - 1) == "." + name) {
        return file;
      }
    }
    return "missing-" + name;
  }
  GatewayAnswer Receive(const std::string& role, const std::string& id,
                        const std::string& extra = "") {
    return AskGateway(gateway_.port(), "--req Command=ReceiveMail " + Mailbox(role) +
                                           " --param ID=" + id + " " + extra);
  }
  std::string CacheDirectory(const std::string& role) const {
    return gateway_.dir() / ("cache/" + env_.Mailbox(role).user +
                             "@127.0.0.1:" + std::to_string(env_.Port("POP3_PORT")) + "/");
  }

  test::Pop3ServerEnv env_{CORVANE_POP3_ENV_FILE};
  GatewayProcess gateway_{"log_level=debug\n"};
};

TEST_F(ReceiveMailTest, Gb2312AndUtf8AlternativeRendersInEitherCharset) {
  std::string id = CorpusId("alternative-gb2312-utf8");
  GatewayAnswer gb = Receive("CORPUS", id, "--param Encode=gb2312");
  ASSERT_EQ(gb.status, 0) << gb.output;
  EXPECT_EQ(gb["From"], "\xd5\xc5\xc8\xfd <zhang@example.com>");
  EXPECT_EQ(gb["Subject"], "\xbb\xe1\xd2\xe9\xcd\xa8\xd6\xaa");
  // The UTF-8 word of the To header is converted into GB2312 too.
  EXPECT_EQ(gb["To"], "li@example.net, \xc0\xee\xcb\xc4 <li4@example.net>");
  EXPECT_EQ(gb["Priority"], "3");
  EXPECT_EQ(gb["Date"].size(), 16u);
  // The text/plain part wins over the HTML one and stays as written.
  EXPECT_EQ(gb["Body"],
            "\xc3\xf7\xcc\xec\xc9\xcf\xce\xe7\xbe\xc5\xb5\xe3\xbf\xaa\xbb\xe1\xa1\xa3\r\n"
            "\xc7\xeb\xd7\xbc\xca\xb1\xb2\xce\xbc\xd3\xa1\xa3\r\n");
  EXPECT_FALSE(gb.Has("Cc"));

  GatewayAnswer utf8 = Receive("CORPUS", id, "--param Encode=utf-8");
  ASSERT_EQ(utf8.status, 0) << utf8.output;
  EXPECT_EQ(utf8["Subject"], "\xe4\xbc\x9a\xe8\xae\xae\xe9\x80\x9a\xe7\x9f\xa5");
  EXPECT_EQ(utf8["Body"],
            "\xe6\x98\x8e\xe5\xa4\xa9\xe4\xb8\x8a\xe5\x8d\x88\xe4\xb9\x9d\xe7\x82\xb9\xe5\xbc\x80"
            "\xe4\xbc\x9a\xe3\x80\x82\r\n\xe8\xaf\xb7\xe5\x87\x86\xe6\x97\xb6\xe5\x8f\x82\xe5\x8a"
            "\xa0\xe3\x80\x82\r\n");
}

TEST_F(ReceiveMailTest, Big5BecomesSimplifiedGb2312) {
  GatewayAnswer gb = Receive("CORPUS", CorpusId("big5-subject"), "--param Encode=gb2312");
  ASSERT_EQ(gb.status, 0) << gb.output;
  // 國語課程 arrives as 国语课程.
  EXPECT_EQ(gb["Subject"], "\xb9\xfa\xd3\xef\xbf\xce\xb3\xcc");
  EXPECT_EQ(gb["Body"], "\xb9\xfa\xd3\xef\xbf\xce\xb3\xcc\r\n");
}

TEST_F(ReceiveMailTest, HtmlOnlyBodyBecomesTextAfterConversion) {
  GatewayAnswer utf8 = Receive("CORPUS", CorpusId("html-only"), "--param Encode=utf-8");
  ASSERT_EQ(utf8.status, 0) << utf8.output;
  // Not starting with '<', so wrapped: the leading "Hello" survives.
  EXPECT_EQ(utf8["Body"], "Hello\r\nWorld \xe4\xb8\xad\xe6\x96\x87\r\n");
  GatewayAnswer gb = Receive("CORPUS", CorpusId("html-only"));
  EXPECT_EQ(gb["Body"], "Hello\r\nWorld \xd6\xd0\xce\xc4\r\n");
}

TEST_F(ReceiveMailTest, AttachmentsAreSavedUnderTheirDecodedNames) {
  test::TempDir target;
  GatewayAnswer answer =
      Receive("SMALL", kAgendaId, "--param Attachment=" + static_cast<std::string>(target.path()));
  ASSERT_EQ(answer.status, 0) << answer.output;
  std::string expected = AgendaBytes();
  EXPECT_EQ(answer["Attachment0"], "agenda.pdf," + std::to_string(expected.size()));
  EXPECT_EQ(test::ReadFile(target / "agenda.pdf"), expected);

  GatewayAnswer named =
      Receive("CORPUS", CorpusId("attachment-rfc2231"),
              "--param Attachment=" + static_cast<std::string>(target.path()) + "/");
  ASSERT_EQ(named.status, 0) << named.output;
  std::string name = "\xd6\xd0\xce\xc4\xb1\xa8\xb8\xe6.bin";  // 中文报告.bin in GB2312
  ASSERT_TRUE(std::filesystem::exists(target / name));
  EXPECT_EQ(named["Attachment0"],
            name + "," + std::to_string(std::filesystem::file_size(target / name)));
  EXPECT_GT(std::filesystem::file_size(target / name), 0u);
}

TEST_F(ReceiveMailTest, CachedMessageIsServedOnlyAfterALogin) {
  std::string id = "1700000001.M1P4242.mailhost";
  GatewayAnswer first = Receive("SMALL", id);
  ASSERT_EQ(first.status, 0) << first.output;
  std::string cached = CacheDirectory("SMALL") + id + ".txt";
  // The cache holds the message exactly as the maildir does (line ends as sent).
  std::string onServer = test::ReadFile(env_.Mailbox("SMALL").maildir + "/new/" + id);
  std::string inCache = test::ReadFile(cached);
  EXPECT_EQ(inCache.size(), onServer.size() + std::count(onServer.begin(), onServer.end(), '\n'));

  GatewayAnswer again = Receive("SMALL", id);
  EXPECT_EQ(again.fields, first.fields);
  EXPECT_NE(gateway_.LogText().find("Load mail from cache: " + cached + " success"),
            std::string::npos);

  GatewayAnswer wrong =
      AskGateway(gateway_.port(), "--req Command=ReceiveMail " + Mailbox("SMALL", "wrongpass") +
                                      " --param ID=" + id);
  EXPECT_EQ(wrong["Status"], "fail");
  EXPECT_EQ(wrong["Log"], "Load pop3 message error");
  EXPECT_FALSE(wrong.Has("Body"));
  EXPECT_TRUE(std::filesystem::exists(cached));
}

TEST_F(ReceiveMailTest, ReceivedIdJoinsTheKnownList) {
  std::string id = "1700000002.M2P4242.mailhost";
  ASSERT_EQ(Receive("SMALL", id).status, 0);
  EXPECT_EQ(test::ReadFile(CacheDirectory("SMALL") + "mail.list"), id);
}

TEST_F(ReceiveMailTest, FailuresAnswerWithTheirTexts) {
  GatewayAnswer unknown = Receive("SMALL", "no-such-id");
  EXPECT_EQ(unknown["Log"], "Load pop3 message error");
  EXPECT_NE(gateway_.LogText().find("The mail is not found from UID: no-such-id"),
            std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(CacheDirectory("SMALL") + "no-such-id.txt"));

  GatewayAnswer noId = AskGateway(gateway_.port(), "--req Command=ReceiveMail " + Mailbox("SMALL"));
  EXPECT_EQ(noId["Log"], "The parameter of request is not enough");
}

TEST_F(ReceiveMailTest, AttachmentsAddressedToFtpArriveOnTheConfiguredServer) {
  test::Pop3ServerEnv ftp(CORVANE_FTP_ENV_FILE, "CORVANE_FTP_ENV");
  ASSERT_NE(ftp.Port("FTP_BANNER_PORT"), 0u) << "no FTP test server: " << ftp.path();
  // The two attachments as a local save writes them.
  const std::string id = CorpusId("attachment-rfc2231");
  test::TempDir local;
  GatewayAnswer saved = Receive("CORPUS", id, "--param Attachment=" + local.path());
  ASSERT_EQ(saved.status, 0) << saved.output;
  const std::string names[] = {"\xd6\xd0\xce\xc4\xb1\xa8\xb8\xe6.bin", "report 2010.pdf"};

  struct Case {
    const char* portKey;
    bool passive;
    std::string password;  // empty: the right one
  };
  const Case cases[] = {{"FTP_PORT", false, ""},
                        {"FTP_BANNER_PORT", true, ""},
                        {"FTP_PORT", true, "not-the-password"}};
  for (const Case& c : cases) {
    const bool right = c.password.empty();
    SCOPED_TRACE(std::string(c.portKey) + (c.passive ? " passive " : " active ") + c.password);
    const std::string directory = std::string("box-") + c.portKey + (c.passive ? "-p" : "-a");
    std::filesystem::remove_all(ftp.Get("FTP_ROOT") + "/" + directory);
    GatewayProcess gateway("log_level=debug\n[Ftp]\nHost=" + ftp.Get("FTP_HOST") +
                           "\nPort=" + ftp.Get(c.portKey) + "\nPassive=" + (c.passive ? "1" : "0") +
                           "\nLogin=" + ftp.Get("FTP_USER") +
                           "\nPwd=" + (right ? ftp.Get("FTP_PASS") : c.password) + "\n");
    ASSERT_TRUE(gateway.Start());
    // The host of the address is never used: uploads go to the configured
    // server, into the directory made there.
    GatewayAnswer answer = AskGateway(
        gateway.port(), "--req Command=ReceiveMail " + Mailbox("CORPUS") + " --param ID=" + id +
                            " --param 'Attachment=ftp:\\\\files.example.org\\" + directory + "'");
    ASSERT_EQ(answer.status, 0) << answer.output;
    EXPECT_EQ(answer["Status"], "success");  // the message itself was read
    EXPECT_EQ(answer.Has("Log"), !right);
    if (!right) {
      EXPECT_EQ(answer["Log"], "Upload attachment to ftp server error");
    }
    for (int k = 0; k < 2; ++k) {
      const std::string stored = ftp.Get("FTP_ROOT") + "/" + directory + "/" + names[k];
      if (right) {
        EXPECT_EQ(answer["Attachment" + std::to_string(k)],
                  saved["Attachment" + std::to_string(k)]);
        EXPECT_TRUE(test::ReadFile(stored) == test::ReadFile(local / names[k])) << stored;
      } else {
        EXPECT_EQ(answer["Attachment" + std::to_string(k)], names[k] + ",-1");
        EXPECT_FALSE(std::filesystem::exists(stored));
      }
    }
    // No local copy is left behind: only the cached message and the known ids.
    std::set<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(
             gateway.dir() / ("cache/" + env_.Mailbox("CORPUS").user +
                              "@127.0.0.1:" + std::to_string(env_.Port("POP3_PORT")))))
      left.insert(entry.path().filename());
    EXPECT_EQ(left, (std::set<std::string>{id + ".txt", "mail.list"}));
    // A store is known to have worked only from the server's final reply; a
    // failure names the server's answer.
    const std::string log = gateway.LogText();
    EXPECT_EQ(log.find("[Error]") == std::string::npos, right) << log;
    if (!right) {
      EXPECT_NE(log.find("Server: 530 Login incorrect."), std::string::npos) << log;
    }
  }
}

}  // namespace
}  // namespace corvane
