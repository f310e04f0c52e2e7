// Pop3Client against a real dovecot on loopback (tests/servers/pop3-server)
// for what only a real server shows: its login, real maildirs byte for byte,
// a thousand ids, deletes on disk, and TLS with its certificate.
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
  auto key = [](const fs::path& file) {
    return std::pair(std::strtoll(file.filename().c_str(), nullptr, 10), file.filename());
  };
  std::sort(files.begin(), files.end(), [&](auto& a, auto& b) { return key(a) < key(b); });
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
  void SetUp() override { ASSERT_TRUE(env_.ok()) << "no test dovecot: " << env_.path(); }
  // Logs in as the mailbox of `role`: plain, or with the certificate checked
  // against chain and host (implicit TLS on port 995, STLS on any other).
  int LogIn(const std::string& role, bool secure = false, const char* host = "127.0.0.1",
            const char* port = "POP3_PORT") {
    Pop3ServerEnv::Account account = env_.Mailbox(role);
    client_.SetPort(env_.Port(port));
    client_.SetSecurityEnabled(secure);
    return client_.POP3Connect(host, account.user.c_str(), account.password.c_str());
  }
  // The UIDL listing as "number id" lines.
  std::string Listing() {
    std::string out;
    EXPECT_EQ(client_.GetUIDL(-1), 0);
    for (const auto& e : client_.UidList()) out += std::to_string(e.number) + " " + e.uid + "\n";
    return out;
  }
  static std::string ListingOf(const std::vector<fs::path>& files) {
    std::string out;
    for (size_t i = 0; i < files.size(); ++i)
      out += std::to_string(i + 1) + " " + IdOf(files[i]) + "\n";
    return out;
  }

  Pop3ServerEnv env_{CORVANE_POP3_ENV_FILE};
  TempDir scratch_;
  Pop3Client client_;
};

TEST_F(DovecotPop3Test, LogsInAndListsTheMaildirByteForBytePlainAndOverTls) {
  std::string user = env_.Mailbox("SMALL").user;
  client_.SetPort(env_.Port("POP3_PORT"));
  EXPECT_EQ(client_.POP3Connect("127.0.0.1", user.c_str(), "not-the-password"), kNetPassFailed);
  EXPECT_EQ(client_.LastResponse()[0], '-') << client_.LastResponse();
  std::vector<fs::path> files = MaildirFiles(env_.Mailbox("SMALL").maildir);
  ASSERT_EQ(files.size(), 5u);
  ScopedEnv trust("SSL_CERT_FILE", env_.Get("CA_FILE"));
  // Plain, implicit TLS by address and by name, and STLS.
  const std::pair<const char*, const char*> ways[] = {{"127.0.0.1", "POP3_PORT"},
                                                      {"127.0.0.1", "POP3S_PORT"},
                                                      {"localhost", "POP3S_PORT"},
                                                      {"localhost", "POP3_PORT"}};
  for (const auto& [host, port] : ways) {
    SCOPED_TRACE(std::string(host) + " " + port);
    bool secure = std::string(host) == "localhost" || std::string(port) == "POP3S_PORT";
    ASSERT_EQ(LogIn("EMPTY"), 0) << client_.LastResponse();
    ASSERT_EQ(LogIn("SMALL", secure, host, port), 0);  // the same object, still logged in
    EXPECT_EQ(client_.IsSessionSecure(), secure);
    int count = -1;
    ASSERT_EQ(client_.GetNumMsgs(&count), 0);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(Listing(), ListingOf(files));
    for (int n = 1; n <= 6; ++n) {  // sizes count CRLF line ends, the files have LF
      std::string expected = n <= 5 ? WithCrlf(ReadFile(files[n - 1])) : "";
      long size = -1;
      EXPECT_EQ(client_.GetMsgSize(n, &size), n <= 5 ? 0 : kNetListFailed);
      EXPECT_EQ(size, n <= 5 ? static_cast<long>(expected.size()) : -1) << n;
      std::string file = scratch_ / std::to_string(n);
      EXPECT_EQ(client_.RetrieveToFile(n, file.c_str()), n <= 5 ? 0 : kNetRetrFailed);
      EXPECT_EQ(n <= 5 ? ReadFile(file) : "", expected) << n;
    }
    EXPECT_EQ(client_.POP3Close(), 0);
    EXPECT_FALSE(client_.IsConnected());
  }
}

TEST_F(DovecotPop3Test, ListsAThousandIdsInOrder) {
  std::vector<fs::path> files = MaildirFiles(env_.Mailbox("BULK").maildir);
  ASSERT_EQ(files.size(), 1000u);
  ASSERT_EQ(LogIn("BULK"), 0);
  EXPECT_TRUE(Listing() == ListingOf(files)) << "the thousand ids differ";
  EXPECT_EQ(client_.GetUID(1001), nullptr);
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
    EXPECT_EQ(reset ? client_.ResetDelete() : 0, 0);
    ASSERT_EQ(client_.POP3Close(), 0);
    EXPECT_EQ(MaildirFiles(maildir).size(), reset ? before : before - 1);
  }
}

}  // namespace
}  // namespace corvane
