// ListMail and ReceiveMail through the real gateway against the private
// dovecot: rows and messages byte for byte in either charset, the caches,
// POP3S, attachments saved locally and uploaded to the private vsftpd.
#include <filesystem>

#include "gateway_mail/gateway_client.h"
#include "support/scoped_env.h"
#include "transport/counted_string.h"

namespace corvane {
namespace {

using test::CountOf;
using test::GatewayAnswer;

// The five values of a list row: id, sender, subject, date, attachment flag.
std::vector<std::string> RowValues(const std::string& row) {
  std::vector<std::string> values;
  for (size_t at = 0, size;
       at < row.size() && (size = CountedString::SizeAt(row.data() + at, row.size() - at));
       at += size)
    values.emplace_back(CountedString::DataAt(row.data() + at, row.size() - at).value_or(""));
  return values;
}

class ListMailTest : public test::GatewayTest {};
class ReceiveMailTest : public test::GatewayTest {
 protected:
  // The id of the corpus message made from tests/data/mail/<name>.eml.
  std::string CorpusId(const std::string& name) const {
    for (const auto& entry :
         std::filesystem::directory_iterator(pop3_.Mailbox("CORPUS").maildir + "/new"))
      if (entry.path().extension() == "." + name) return entry.path().filename();
    return "missing-" + name;
  }
};

TEST_F(ListMailTest, ColdListingFetchesEveryHeaderAndWarmOneNone) {
  GatewayAnswer cold = Ask("--req Command=ListMail" + Mailbox("BULK"));
  ASSERT_EQ(cold.Rows().size(), 1000u) << cold.output;
  EXPECT_EQ(
      RowValues(cold["Row0"]),
      (std::vector<std::string>{"1700000001.M1P4242.mailhost", "Monitor <monitor@example.org>",
                                "Status report 1", RowValues(cold["Row0"]).at(3), "0"}));
  EXPECT_EQ(RowValues(cold["Row999"])[2], "Status report 1000");
  const std::string cache = test::ReadFile(Cache("BULK") + "list.cache");
  EXPECT_TRUE(cache.starts_with("1000\r\n"));
  EXPECT_EQ(CountOf(cache, "\r\n"), 1u + 3 * 1000);
  const std::string known = test::ReadFile(Cache("BULK") + "mail.list");
  EXPECT_EQ(CountOf(known, ","), 999u);
  EXPECT_TRUE(known.ends_with("1700001000.M1000P4242.mailhost")) << known.substr(known.size() - 40);

  GatewayAnswer warm = Ask("--req Command=ListMail" + Mailbox("BULK"));
  EXPECT_EQ(warm.Rows(), cold.Rows());
  const std::string log = gateway_.LogText();
  EXPECT_EQ(CountOf(log, "Get mail "), 1000u) << "the warm listing read headers again";
  EXPECT_EQ(CountOf(log, "from cache UID: "), 1000u);
}

TEST_F(ListMailTest, RowsAreConvertedCachedAsBuiltAndTheSameOverPop3s) {
  GatewayAnswer answer =
      Ask("--req Command=ListMail" + Mailbox("CORPUS") + " --param Encode=utf-8");
  std::map<std::string, std::vector<std::string>> rows;
  for (const std::string& row : answer.Rows()) {
    std::vector<std::string> values = RowValues(row);
    rows[values[0].substr(values[0].rfind('.') + 1)] = values;
  }
  // GB2312 words into UTF-8; Big5 has no conversion to UTF-8 and stays.
  EXPECT_EQ(rows["alternative-gb2312-utf8"][1], "\xe5\xbc\xa0\xe4\xb8\x89 <zhang@example.com>");
  EXPECT_EQ(rows["big5-subject"][2], "\xb0\xea\xbby\xbd\xd2\xb5{");
  EXPECT_EQ(rows["attachment-rfc2231"][4], "1");
  // Another charset does not rebuild the cached rows.
  const std::string corpus = "--req Command=ListMail" + Mailbox("CORPUS");
  EXPECT_EQ(Ask(corpus + " --param Encode=gb2312").Rows(), answer.Rows());

  test::ScopedEnv trust("SSL_CERT_FILE", pop3_.Get("CA_FILE"));
  test::GatewayProcess trusting;
  ASSERT_TRUE(trusting.Start());
  const std::string small = "--req Command=ListMail" + Mailbox("SMALL", 995);
  GatewayAnswer secure = test::AskGateway(trusting.port(), small);
  EXPECT_EQ(secure.Rows().size(), 5u) << secure.output;
  EXPECT_EQ(secure.Rows(), Ask("--req Command=ListMail" + Mailbox("SMALL")).Rows());
}

TEST_F(ReceiveMailTest, MessagesRenderInGb2312OrUtf8) {
  struct Case {
    const char *name, *encode, *field;
    std::string value;
  };
  const Case cases[] = {
      {"alternative-gb2312-utf8", "gb2312", "From", "\xd5\xc5\xc8\xfd <zhang@example.com>"},
      // A UTF-8 word converted into GB2312 too.
      {"alternative-gb2312-utf8", "gb2312", "To",
       "li@example.net, \xc0\xee\xcb\xc4 <li4@example.net>"},
      // The text part wins over the HTML one and stays as written.
      {"alternative-gb2312-utf8", "gb2312", "Body",
       "\xc3\xf7\xcc\xec\xc9\xcf\xce\xe7\xbe\xc5\xb5\xe3\xbf\xaa\xbb\xe1\xa1\xa3\r\n"
       "\xc7\xeb\xd7\xbc\xca\xb1\xb2\xce\xbc\xd3\xa1\xa3\r\n"},
      {"alternative-gb2312-utf8", "utf-8", "Body",
       "\xe6\x98\x8e\xe5\xa4\xa9\xe4\xb8\x8a\xe5\x8d\x88\xe4\xb9\x9d\xe7\x82\xb9\xe5\xbc\x80\xe4"
       "\xbc\x9a\xe3\x80\x82\r\n"
       "\xe8\xaf\xb7\xe5\x87\x86\xe6\x97\xb6\xe5\x8f\x82\xe5\x8a\xa0\xe3\x80\x82\r\n"},
      // 國語課程 arrives simplified: 国语课程.
      {"big5-subject", "gb2312", "Subject", "\xb9\xfa\xd3\xef\xbf\xce\xb3\xcc"},
      // HTML alone becomes text after the conversion.
      {"html-only", "utf-8", "Body", "Hello\r\nWorld \xe4\xb8\xad\xe6\x96\x87\r\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + c.encode + " " + c.field);
    GatewayAnswer answer =
        Receive("CORPUS", CorpusId(c.name), std::string("--param Encode=") + c.encode);
    EXPECT_EQ(answer["Status"], "success") << answer.output;
    EXPECT_EQ(answer[c.field], c.value);
  }
}

TEST_F(ReceiveMailTest, ACachedMessageIsServedOnlyAfterALogin) {
  const std::string id = "1700000001.M1P4242.mailhost";
  GatewayAnswer first = Receive("SMALL", id);
  ASSERT_EQ(first["Status"], "success") << first.output;
  // The cache holds the message as the maildir does, its line ends as sent.
  const std::string onServer = test::ReadFile(pop3_.Mailbox("SMALL").maildir + "/new/" + id);
  EXPECT_EQ(test::ReadFile(Cache("SMALL") + id + ".txt").size(),
            onServer.size() + CountOf(onServer, "\n"));
  EXPECT_EQ(Receive("SMALL", id).fields, first.fields);
  EXPECT_EQ(
      CountOf(gateway_.LogText(), "Load mail from cache: " + Cache("SMALL") + id + ".txt success"),
      1u);
  GatewayAnswer wrong =
      Ask("--req Command=ReceiveMail" + Mailbox("SMALL", 0, "wrongpass") + " --param ID=" + id);
  EXPECT_EQ(wrong["Status"], "fail");
  EXPECT_EQ(wrong["Log"], "Load pop3 message error");
  EXPECT_FALSE(wrong.Has("Body"));
}

TEST_F(ReceiveMailTest, AttachmentsAreSavedLocallyOrUploadedToTheConfiguredFtpServer) {
  test::Pop3ServerEnv ftp(CORVANE_FTP_ENV_FILE, "CORVANE_FTP_ENV");
  ASSERT_NE(ftp.Port("FTP_BANNER_PORT"), 0u) << "no FTP test server: " << ftp.path();
  const std::string id = CorpusId("attachment-rfc2231");
  const std::string names[] = {"\xd6\xd0\xce\xc4\xb1\xa8\xb8\xe6.bin",
                               "report 2010.pdf"};  // 中文报告
  test::TempDir local;
  GatewayAnswer saved = Receive("CORPUS", id, "--param Attachment=" + local.path() + "/");
  for (int k = 0; k < 2; ++k) {
    EXPECT_EQ(saved["Attachment" + std::to_string(k)],
              names[k] + "," + std::to_string(std::filesystem::file_size(local / names[k])));
  }
  // Active and passive, one-line and multi-line greetings, and a wrong password.
  const std::tuple<const char*, bool, bool> cases[] = {
      {"FTP_PORT", false, true}, {"FTP_BANNER_PORT", true, true}, {"FTP_PORT", true, false}};
  for (const auto& [portKey, passive, right] : cases) {
    SCOPED_TRACE(std::string(portKey) + (passive ? " passive" : " active") +
                 (right ? "" : " refused"));
    const std::string directory = std::string("box-") + portKey + (passive ? "-p" : "-a");
    std::filesystem::remove_all(ftp.Get("FTP_ROOT") + "/" + directory);
    test::GatewayProcess gateway(
        "log_level=debug\n[Ftp]\nHost=" + ftp.Get("FTP_HOST") + "\nPort=" + ftp.Get(portKey) +
        "\nPassive=" + (passive ? "1" : "0") + "\nLogin=" + ftp.Get("FTP_USER") +
        "\nPwd=" + (right ? ftp.Get("FTP_PASS") : "not-the-password") + "\n");
    ASSERT_TRUE(gateway.Start());
    // The host of the address is never used: uploads go to the configured server.
    GatewayAnswer answer = test::AskGateway(
        gateway.port(), "--req Command=ReceiveMail" + Mailbox("CORPUS") + " --param ID=" + id +
                            " --param 'Attachment=ftp:\\\\files.example.org\\" + directory + "'");
    EXPECT_EQ(answer["Status"], "success") << answer.output;  // the message itself was read
    EXPECT_EQ(answer["Log"], right ? "" : "Upload attachment to ftp server error");
    for (int k = 0; k < 2; ++k) {
      const std::string stored = ftp.Get("FTP_ROOT") + "/" + directory + "/" + names[k];
      EXPECT_EQ(answer["Attachment" + std::to_string(k)],
                right ? saved["Attachment" + std::to_string(k)] : names[k] + ",-1");
      EXPECT_TRUE(right ? test::ReadFile(stored) == test::ReadFile(local / names[k])
                        : !std::filesystem::exists(stored));
    }
    // A failure names the server's reply.
    EXPECT_EQ(CountOf(gateway.LogText(), "Server: 530 Login incorrect.") > 0, !right);
  }
}

}  // namespace
}  // namespace corvane
