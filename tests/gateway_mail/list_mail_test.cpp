// ListMail through the real gateway and corvane-cli against the private
// dovecot: rows, ordering, the list cache and the known-id list.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "gateway_mail/gateway_client.h"
#include "pop3/pop3_server_env.h"
#include "protocol/pop3_client.h"
#include "support/gateway_process.h"
#include "support/scoped_env.h"
#include "transport/counted_string.h"

namespace corvane {
namespace {

using test::AskGateway;
using test::CountOf;
using test::GatewayAnswer;
using test::GatewayProcess;

// The five values of a list row: id, sender, subject, date, attachment flag.
std::vector<std::string> RowValues(const std::string& row) {
  std::vector<std::string> values;
  size_t at = 0;
  while (at < row.size()) {
    size_t size = CountedString::SizeAt(row.data() + at, row.size() - at);
    if (size == 0) break;
    values.emplace_back(CountedString::DataAt(row.data() + at, row.size() - at).value_or(""));
    at += size;
  }
  return values;
}

class ListMailTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(env_.ok()) << "no POP3 test server: " << env_.path();
    ASSERT_TRUE(gateway_.Start());
  }

  std::string Mailbox(const std::string& role, unsigned port = 0) const {
    test::Pop3ServerEnv::Account account = env_.Mailbox(role);
    return "--req Pop3=127.0.0.1 --req Port=" +
           std::to_string(port ? port : env_.Port("POP3_PORT")) + " --req Login=" + account.user +
           " --req Pwd=" + account.password;
  }
  GatewayAnswer List(const std::string& role, const std::string& extra = "") {
    return AskGateway(gateway_.port(), "--req Command=ListMail " + Mailbox(role) + " " + extra);
  }
  std::string CacheDirectory(const std::string& role) const {
    return gateway_.dir() / ("cache/" + env_.Mailbox(role).user +
                             "@127.0.0.1:" + std::to_string(env_.Port("POP3_PORT")) + "/");
  }

  test::Pop3ServerEnv env_{CORVANE_POP3_ENV_FILE};
  GatewayProcess gateway_{"log_level=debug\n"};
};

std::vector<std::string> Ids(const GatewayAnswer& answer) {
  std::vector<std::string> ids;
  for (const std::string& row : answer.Rows()) ids.push_back(RowValues(row).at(0));
  return ids;
}

TEST_F(ListMailTest, ColdListingFetchesEveryHeaderAndWarmOneNone) {
  GatewayAnswer cold = List("BULK");
  ASSERT_EQ(cold.status, 0) << cold.output;
  ASSERT_EQ(cold.Rows().size(), 1000u);
  std::vector<std::string> first = RowValues(cold["Row0"]);
  ASSERT_EQ(first.size(), 5u);
  EXPECT_EQ(first[0], "1700000001.M1P4242.mailhost");
  EXPECT_EQ(first[1], "Monitor <monitor@example.org>");
  EXPECT_EQ(first[2], "Status report 1");
  EXPECT_EQ(first[4], "0");
  EXPECT_EQ(RowValues(cold["Row999"])[2], "Status report 1000");
  std::string log = gateway_.LogText();
  EXPECT_EQ(CountOf(log, "Get mail "), 1000u);
  EXPECT_EQ(CountOf(log, "from cache"), 0u);

  std::string cache = test::ReadFile(CacheDirectory("BULK") + "list.cache");
  EXPECT_EQ(cache.substr(0, 6), "1000\r\n");
  EXPECT_EQ(CountOf(cache, "\r\n"), 1u + 3 * 1000);
  std::string known = test::ReadFile(CacheDirectory("BULK") + "mail.list");
  EXPECT_EQ(CountOf(known, ","), 999u);
  EXPECT_EQ(known.back(), 't');  // no separator or line end after the last id

  GatewayAnswer warm = List("BULK");
  ASSERT_EQ(warm.status, 0) << warm.output;
  EXPECT_EQ(warm.Rows(), cold.Rows());
  log = gateway_.LogText();
  EXPECT_EQ(CountOf(log, "Get mail "), 1000u) << "the warm listing read headers again";
  EXPECT_EQ(CountOf(log, "from cache UID: "), 1000u);
}

TEST_F(ListMailTest, OnlyASecondOrderValueOfDescSortsNewestFirst) {
  std::vector<std::string> serverOrder = Ids(List("SMALL"));
  ASSERT_EQ(serverOrder.size(), 5u);
  std::vector<std::string> newestFirst(serverOrder.rbegin(), serverOrder.rend());

  EXPECT_EQ(Ids(List("SMALL", "--mparam Order=Date,Desc")), newestFirst);
  EXPECT_EQ(Ids(List("SMALL", "--param Order=Desc")), serverOrder);
  EXPECT_EQ(Ids(List("SMALL", "--mparam Order=Date,desc")), serverOrder);
  EXPECT_EQ(Ids(List("SMALL", "--mparam Order=Date,Asc")), serverOrder);
}

TEST_F(ListMailTest, RowsCarryDecodedSenderSubjectDateAndAttachmentFlag) {
  GatewayAnswer answer = List("CORPUS", "--param Encode=utf-8");
  ASSERT_EQ(answer.status, 0) << answer.output;
  std::map<std::string, std::vector<std::string>> byName;
  for (const std::string& row : answer.Rows()) {
    std::vector<std::string> values = RowValues(row);
    byName[values[0].substr(values[0].rfind('.') + 1)] = values;
  }
  // Encoded words decoded and converted: GB2312 to UTF-8.
  EXPECT_EQ(byName["alternative-gb2312-utf8"][1], "\xe5\xbc\xa0\xe4\xb8\x89 <zhang@example.com>");
  EXPECT_EQ(byName["alternative-gb2312-utf8"][2],
            "\xe4\xbc\x9a\xe8\xae\xae\xe9\x80\x9a\xe7\x9f\xa5");
  // multipart/alternative is not flagged; multipart/mixed with parameters is.
  EXPECT_EQ(byName["alternative-gb2312-utf8"][4], "0");
  EXPECT_EQ(byName["attachment-rfc2231"][4], "1");
  // Big5 has no conversion to UTF-8: the decoded bytes stay.
  EXPECT_EQ(byName["big5-subject"][2], "\xb0\xea\xbby\xbd\xd2\xb5{");
  EXPECT_EQ(byName["html-only"][2], "HTML only");
  EXPECT_EQ(byName["html-only"][3].size(), 16u);  // "YYYY-MM-DD HH:MM"

  // Rows are cached as built: another charset does not rebuild them.
  GatewayAnswer again = List("CORPUS", "--param Encode=gb2312");
  EXPECT_EQ(again.Rows(), answer.Rows());
}

TEST_F(ListMailTest, CliShowsRowsAsTheirPartsOnlyWhenAsked) {
  const std::string request =
      "--req Command=ListMail " + Mailbox("SMALL") + " --mparam Order=Date,Desc";
  GatewayAnswer rows = test::RunCli(gateway_.port(), "--rows " + request);
  ASSERT_EQ(rows.status, 0) << rows.output;
  EXPECT_NE(rows.output.find("  Row0 = 1700000005.M5P4242.mailhost | Erin Evans <erin@example.org>"
                             " | Newsletter f\xfcr November | "),
            std::string::npos)
      << rows.output;
  EXPECT_NE(rows.output.find("  Row1 = 1700000004.M4P4242.mailhost | Dana Diaz <dana@example.org>"
                             " | Agenda attached | "),
            std::string::npos);
  EXPECT_NE(rows.output.find(" | 1\n  Row2 = "), std::string::npos);       // the flag comes last
  EXPECT_NE(rows.output.find("  Status = success\n"), std::string::npos);  // not a row: as it is

  GatewayAnswer plain = test::RunCli(gateway_.port(), request);
  EXPECT_EQ(plain.output.find(" | "), std::string::npos);
  EXPECT_NE(plain.output.find("  Row0 = 2271700000005.M5P4242.mailhost229Erin Evans"),
            std::string::npos);
}

TEST_F(ListMailTest, Pop3sOnPort995GivesTheSameRows) {
  std::vector<std::string> plain = List("SMALL").Rows();
  GatewayAnswer secure =
      AskGateway(gateway_.port(), "--req Command=ListMail " + Mailbox("SMALL", 995));
  // This gateway does not trust the test CA: the handshake fails.
  EXPECT_EQ(secure["Status"], "fail");
  EXPECT_EQ(secure["Log"], "Connect pop3 server error");

  test::ScopedEnv trust("SSL_CERT_FILE", env_.Get("CA_FILE"));
  GatewayProcess trusting;
  ASSERT_TRUE(trusting.Start());
  GatewayAnswer trusted =
      AskGateway(trusting.port(), "--req Command=ListMail " + Mailbox("SMALL", 995));
  ASSERT_EQ(trusted.status, 0) << trusted.output;
  EXPECT_EQ(trusted.Rows(), plain);
}

TEST_F(ListMailTest, AMessageLeavingTheServerLeavesEveryCache) {
  GatewayAnswer before = List("DROP");
  ASSERT_EQ(before.Rows().size(), 3u) << before.output;
  std::string gone = RowValues(before["Row1"])[0];
  test::Pop3ServerEnv::Account drop = env_.Mailbox("DROP");
  GatewayAnswer received = AskGateway(
      gateway_.port(), "--req Command=ReceiveMail " + Mailbox("DROP") + " --param ID=" + gone);
  ASSERT_EQ(received.status, 0) << received.output;
  std::string cachedText = CacheDirectory("DROP") + gone + ".txt";
  ASSERT_TRUE(std::filesystem::exists(cachedText));

  Pop3Client client;
  client.SetPort(env_.Port("POP3_PORT"));
  ASSERT_EQ(client.POP3Connect("127.0.0.1", drop.user.c_str(), drop.password.c_str()), 0);
  ASSERT_EQ(client.DeleteMsg(2), 0);
  ASSERT_EQ(client.POP3Close(), 0);

  GatewayAnswer after = List("DROP");
  ASSERT_EQ(after.Rows().size(), 2u) << after.output;
  EXPECT_EQ(CountOf(after.output, gone), 0u);
  std::string cache = test::ReadFile(CacheDirectory("DROP") + "list.cache");
  EXPECT_EQ(cache.substr(0, 3), "2\r\n");
  EXPECT_EQ(CountOf(cache, gone), 0u);
  std::string known = test::ReadFile(CacheDirectory("DROP") + "mail.list");
  EXPECT_EQ(CountOf(known, gone), 0u);
  EXPECT_EQ(CountOf(known, ","), 1u);
  EXPECT_FALSE(std::filesystem::exists(cachedText));
  EXPECT_NE(gateway_.LogText().find("Delete cache message file: " + cachedText), std::string::npos);
}

TEST_F(ListMailTest, AnEmptyMailboxAnswersSuccessWithoutRows) {
  GatewayAnswer answer = List("EMPTY");
  EXPECT_EQ(answer.status, 0) << answer.output;
  EXPECT_TRUE(answer.Rows().empty());
  EXPECT_FALSE(std::filesystem::exists(CacheDirectory("EMPTY") + "list.cache"));
}

TEST_F(ListMailTest, FailuresAnswerWithTheirTexts) {
  GatewayAnswer wrong =
      AskGateway(gateway_.port(), "--req Command=ListMail --req Pop3=127.0.0.1 --req Port=" +
                                      std::to_string(env_.Port("POP3_PORT")) +
                                      " --req Login=testuser --req Pwd=nottheone");
  EXPECT_EQ(wrong["Status"], "fail");
  EXPECT_EQ(wrong["Log"], "Connect pop3 server error");
  EXPECT_NE(gateway_.LogText().find("[Error] testuser connect pop3 server error: "),
            std::string::npos);

  GatewayAnswer missing = AskGateway(
      gateway_.port(), "--req Command=ListMail --req Pop3=127.0.0.1 --req Login=testuser");
  EXPECT_EQ(missing["Log"], "The parameter of request is not enough");

  // Nothing listens there: answered at once, not after a time-out.
  GatewayAnswer dead = AskGateway(
      gateway_.port(), "--req Command=ListMail --req Pop3=127.0.0.1 --req Port=" +
                           std::to_string(test::FreePort()) + " --req Login=a --req Pwd=b");
  EXPECT_EQ(dead["Log"], "Connect pop3 server error");
}

TEST_F(ListMailTest, ATraversalLoginOrHostLeavesTheFileSystemUntouched) {
  // Everything under the gateway's directory but its log: a refused login
  // makes nothing, and a path a login names is never walked.
  auto snapshot = [&] {
    std::set<std::string> paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(gateway_.dir().path())) {
      if (entry.path().parent_path().filename() != "log") paths.insert(entry.path());
    }
    return paths;
  };
  const std::set<std::string> before = snapshot();
  const std::string port = std::to_string(env_.Port("POP3_PORT"));
  for (const char* mailbox : {"--req Pop3=127.0.0.1 --req Login=x@/../../.. --req Pwd=pw",
                              "--req Pop3=127.0.0.1 --req Login=../../.. --req Pwd=pw",
                              "--req Pop3=h/../../.. --req Login=testuser --req Pwd=pw"}) {
    GatewayAnswer answer = AskGateway(
        gateway_.port(), "--req Command=ListMail --req Port=" + port + " " + std::string(mailbox));
    EXPECT_EQ(answer["Log"], "Connect pop3 server error") << mailbox;
  }
  EXPECT_EQ(snapshot(), before);
}

}  // namespace
}  // namespace corvane
