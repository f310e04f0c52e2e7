// Pop3Client against a real dovecot on loopback (tests/servers/pop3-server)
// for what only a real server shows: its login, its listing of real
// maildirs byte for byte, a thousand messages, and TLS with its certificate.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "pop3/pop3_server_env.h"
#include "protocol/net_codes.h"
#include "protocol/pop3_client.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using namespace test;

// The files of a maildir in the server's order: by the delivery time their
// names start with.
std::vector<fs::path> MaildirFiles(const std::string& maildir) {
  std::vector<fs::path> files;
  for (const char* sub : {"/new", "/cur"}) {
    for (const auto& entry : fs::directory_iterator(maildir + sub)) files.push_back(entry.path());
  }
  auto time = [](const fs::path& file) {
    return std::strtoll(file.filename().c_str(), nullptr, 10);
  };
  std::sort(files.begin(), files.end(), [&](const fs::path& a, const fs::path& b) {
    return time(a) != time(b) ? time(a) < time(b) : a.filename() < b.filename();
  });
  return files;
}

// A message's id: its file's base name (pop3_uidl_format %f).
std::string IdOf(const fs::path& file) {
  std::string name = file.filename();
  return name.substr(0, name.find(':'));
}

// A stored message as POP3 carries it: a bare line feed becomes CRLF.
std::string WithCrlf(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out += '\r';
    out += text[i];
  }
  return out;
}

class DovecotPop3Test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(env_.ok()) << "no test dovecot: " << env_.path() << " is missing";
  }
  // Logs in as the mailbox of `role`: plain, or with the certificate checked
  // against chain and host (implicit TLS on port 995, STLS on any other).
  int LogIn(const std::string& role, bool secure = false, const char* host = "127.0.0.1",
            const char* port = "POP3_PORT") {
    Pop3ServerEnv::Account account = env_.Mailbox(role);
    client_.SetPort(env_.Port(port));
    client_.SetSecurityEnabled(secure);
    return client_.POP3Connect(host, account.user.c_str(), account.password.c_str());
  }
  // The message as the server gives it.
  std::string Retrieved(int number) {
    std::string file = scratch_ / "message";
    EXPECT_EQ(client_.RetrieveToFile(number, file.c_str()), 0) << number;
    return ReadFile(file);
  }

  Pop3ServerEnv env_{CORVANE_POP3_ENV_FILE};
  TempDir scratch_;
  Pop3Client client_;
};

TEST_F(DovecotPop3Test, LogsInAndRefusesAWrongPasswordAtPass) {
  ASSERT_EQ(LogIn("SMALL"), 0) << client_.LastResponse();
  ASSERT_EQ(LogIn("EMPTY"), 0);  // the same object again, while still logged in
  int count = -1;
  EXPECT_EQ(client_.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(client_.POP3Close(), 0);
  EXPECT_FALSE(client_.IsConnected());
  client_.SetPort(env_.Port("POP3_PORT"));
  std::string user = env_.Mailbox("SMALL").user;
  EXPECT_EQ(client_.POP3Connect("127.0.0.1", user.c_str(), "not-the-password"), kNetPassFailed);
  EXPECT_EQ(client_.LastResponse()[0], '-') << client_.LastResponse();
}

TEST_F(DovecotPop3Test, ListsSizesHeadersAndMessagesOfTheMaildirByteForByte) {
  std::vector<fs::path> files = MaildirFiles(env_.Mailbox("SMALL").maildir);
  ASSERT_EQ(files.size(), 5u);
  ASSERT_EQ(LogIn("SMALL"), 0);
  int count = -1;
  ASSERT_EQ(client_.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 5);
  for (int n = 1; n <= 5; ++n) {
    // Sizes count CRLF line ends, though the files end their lines in LF.
    std::string expected = WithCrlf(ReadFile(files[n - 1]));
    long size = -1;
    ASSERT_EQ(client_.GetMsgSize(n, &size), 0) << n;
    EXPECT_EQ(size, static_cast<long>(expected.size())) << n;
    EXPECT_EQ(Retrieved(n), expected) << n;
    ASSERT_EQ(client_.OpenTop(n, 0), 0) << n;
    std::string header;
    char line[Pop3Client::kResponseSize];
    for (int length; (length = client_.ReadTopLine(line, sizeof line)) > 0;)
      header.append(line, length);
    EXPECT_EQ(header, expected.substr(0, expected.find("\r\n\r\n") + 4)) << n;
    EXPECT_EQ(client_.CloseTop(), 0);
  }
  // What the messages exercise: a line far longer than one reply line, lines
  // of nothing but dots, a raw GB2312 subject.
  std::string first = ReadFile(files[0]);
  size_t longest = 0;
  for (size_t start = 0, end; (end = first.find('\n', start)) != std::string::npos;
       start = end + 1) {
    longest = std::max(longest, end - start);
  }
  EXPECT_GT(longest, 4000u);
  EXPECT_NE(WithCrlf(ReadFile(files[1])).find("\r\n.\r\n..\r\n...\r\n"), std::string::npos);
  EXPECT_NE(ReadFile(files[2]).find("Subject: \xb2\xe2\xca\xd4"), std::string::npos);
  ASSERT_EQ(client_.GetUIDL(3), 0);
  ASSERT_NE(client_.GetUID(3), nullptr);
  EXPECT_EQ(client_.GetUID(3), IdOf(files[2]));
  long size = -1;
  EXPECT_EQ(client_.GetMsgSize(6, &size), kNetListFailed);
  EXPECT_EQ(client_.GetUIDL(6), kNetUidlFailed);
  EXPECT_EQ(client_.OpenTop(6, 0), kNetTopFailed);
  EXPECT_EQ(client_.RetrieveToFile(6, (scratch_ / "none").c_str()), kNetRetrFailed);
  EXPECT_EQ(client_.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, ListsAThousandIdsInOrderAndTenMegabytesWhole) {
  std::vector<fs::path> files = MaildirFiles(env_.Mailbox("BULK").maildir);
  ASSERT_EQ(files.size(), 1000u);
  ASSERT_EQ(LogIn("BULK"), 0);
  ASSERT_EQ(client_.GetUIDL(-1), 0);
  ASSERT_EQ(client_.UidList().size(), 1000u);
  int wrong = 0;
  while (wrong < 1000 && client_.UidList()[wrong].number == wrong + 1 &&
         client_.UidList()[wrong].uid == IdOf(files[wrong])) {
    ++wrong;
  }
  EXPECT_EQ(wrong, 1000) << "first wrong entry: " << client_.UidList()[wrong % 1000].uid;
  EXPECT_EQ(client_.GetUID(1001), nullptr);

  std::string big = WithCrlf(ReadFile(MaildirFiles(env_.Mailbox("BIG").maildir)[0]));
  ASSERT_GT(big.size(), 10'000'000u);
  ASSERT_EQ(LogIn("BIG"), 0);
  EXPECT_TRUE(Retrieved(1) == big) << "the ten megabytes differ";
  int count = -1;
  EXPECT_EQ(client_.GetNumMsgs(&count), 0);  // still in step
  EXPECT_EQ(count, 1);
  EXPECT_EQ(client_.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, DeleteThenResetKeepsAndDeleteThenQuitRemoves) {
  // A message of this test's own, delivered the maildir way (tmp/, then new/)
  // and owned by the user the server reads as.
  std::string maildir = env_.Mailbox("SCRATCH").maildir;
  std::string id = "1900000000.M" + std::to_string(getpid()) + "P1.mailhost";
  WriteFile(maildir + "/tmp/" + id, "From: probe@example.org\nSubject: delete me\n\nbye\n");
  if (passwd* mail = getpwnam("mail"); mail != nullptr && geteuid() == 0) {
    ASSERT_EQ(chown((maildir + "/tmp/" + id).c_str(), mail->pw_uid, mail->pw_gid), 0);
  }
  fs::rename(maildir + "/tmp/" + id, maildir + "/new/" + id);
  size_t before = MaildirFiles(maildir).size();
  for (bool reset : {true, false}) {
    ASSERT_EQ(LogIn("SCRATCH"), 0);
    ASSERT_EQ(client_.GetUIDL(-1), 0);
    auto entry = std::find_if(client_.UidList().begin(), client_.UidList().end(),
                              [&id](const Pop3Client::UidEntry& e) { return e.uid == id; });
    ASSERT_NE(entry, client_.UidList().end()) << id << " is not listed";
    int number = entry->number;
    ASSERT_EQ(client_.DeleteMsg(number), 0);
    EXPECT_EQ(client_.DeleteMsg(number), kNetDeleFailed) << "already deleted";
    EXPECT_EQ(client_.RetrieveToFile(number, (scratch_ / "gone").c_str()), kNetRetrFailed);
    if (reset) {
      EXPECT_EQ(client_.ResetDelete(), 0);
    }
    ASSERT_EQ(client_.POP3Close(), 0);
    EXPECT_EQ(MaildirFiles(maildir).size(), reset ? before : before - 1);
  }
}

TEST_F(DovecotPop3Test, ImplicitTlsAndStlsWithTheServersCertificate) {
  ScopedEnv trust("SSL_CERT_FILE", env_.Get("CA_FILE"));
  std::vector<fs::path> files = MaildirFiles(env_.Mailbox("SMALL").maildir);
  struct Case {
    const char* host;
    const char* port;
  } cases[] = {
      {"127.0.0.1", "POP3S_PORT"}, {"localhost", "POP3S_PORT"}, {"localhost", "POP3_PORT"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.host) + " " + c.port);
    ASSERT_EQ(LogIn("SMALL", true, c.host, c.port), 0) << client_.LastResponse();
    EXPECT_TRUE(client_.IsSessionSecure());
    ASSERT_EQ(client_.GetUIDL(-1), 0);
    ASSERT_EQ(client_.UidList().size(), 5u);
    EXPECT_EQ(client_.UidList()[4].uid, IdOf(files[4]));
    EXPECT_EQ(Retrieved(2), WithCrlf(ReadFile(files[1])));
    EXPECT_EQ(client_.POP3Close(), 0);
  }
}

}  // namespace
}  // namespace corvane
