// Pop3Client against a real dovecot on loopback (tests/servers/pop3-server):
// plain POP3, implicit TLS on port 995 and STLS, on deterministic maildirs
// whose files are the truth every answer is checked against.
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "pop3/pop3_server_env.h"
#include "protocol/net_codes.h"
#include "protocol/pop3_client.h"
#include "stream/buffer_data_source.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using test::Pop3ServerEnv;
using test::ReadFile;
using test::TempDir;

using test::ScopedEnv;

// The file of the message whose UIDL is `uid` (its base name), in new/ or cur/.
std::string MessageFile(const std::string& maildir, const std::string& uid) {
  for (const char* sub : {"/new", "/cur"}) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(maildir + sub, error)) {
      std::string name = entry.path().filename();
      if (name == uid || name.rfind(uid + ":", 0) == 0) return entry.path();
    }
  }
  return {};
}

// The message ids of a maildir in the server's order: base names sorted by
// the delivery time they start with.
std::vector<std::string> MaildirIds(const std::string& maildir) {
  std::vector<std::string> ids;
  for (const char* sub : {"/new", "/cur"}) {
    for (const auto& entry : fs::directory_iterator(maildir + sub)) {
      std::string name = entry.path().filename();
      ids.push_back(name.substr(0, name.find(':')));
    }
  }
  auto time = [](const std::string& id) { return std::strtoll(id.c_str(), nullptr, 10); };
  std::sort(ids.begin(), ids.end(), [&](const std::string& a, const std::string& b) {
    return time(a) != time(b) ? time(a) < time(b) : a < b;
  });
  return ids;
}

// A stored message as POP3 carries it: a bare line feed becomes CRLF.
std::string WithCrlf(const std::string& text) {
  std::string out;
  out.reserve(text.size() + text.size() / 32);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n' && (i == 0 || text[i - 1] != '\r')) out += '\r';
    out += text[i];
  }
  return out;
}

// Every line that begins with "." gets one more, as on the wire.
std::string DotStuffed(const std::string& crlfText) {
  std::string out;
  bool lineStart = true;
  for (char c : crlfText) {
    if (lineStart && c == '.') out += '.';
    out += c;
    lineStart = c == '\n';
  }
  return out;
}

std::string HeaderBlock(const std::string& crlfText) {
  size_t end = crlfText.find("\r\n\r\n");
  return end == std::string::npos ? crlfText : crlfText.substr(0, end + 4);
}

// Where two texts first differ, or npos when they are equal; keeps a failed
// comparison of megabytes readable.
size_t FirstDifference(const std::string& a, const std::string& b) {
  auto [left, right] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  if (left == a.end() && right == b.end()) return std::string::npos;
  return static_cast<size_t>(left - a.begin());
}

bool HasLineLongerThan(const std::string& text, size_t length) {
  size_t start = 0;
  for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
    if (end - start > length) return true;
  }
  return false;
}

// A name no other test logs in with, to look for in the server's log.
std::string ProbeUser(const char* what) {
  return std::string("probe-") + what + "-" + std::to_string(getpid());
}

bool IsSecurityCode(int code) {
  return code >= kNetSecurityFirst && code <= kNetSecurityLast;
}

class DovecotPop3Test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(env_.ok()) << "no test dovecot: " << env_.path()
                           << " is missing; ctest starts one (fixture pop3_server), or run "
                              "tests/servers/pop3-server start";
  }

  // Logs in to the plain port as the mailbox of `role`.
  int LogIn(Pop3Client& client, const std::string& role, const char* host = "127.0.0.1") {
    Pop3ServerEnv::Account account = env_.Mailbox(role);
    client.SetPort(env_.Port("POP3_PORT"));
    return client.POP3Connect(host, account.user.c_str(), account.password.c_str());
  }

  // Logs in over TLS with the certificate checked against chain and host:
  // implicit TLS on port 995, STLS on any other.
  int LogInSecure(Pop3Client& client, const char* host, unsigned port, const std::string& user,
                  const std::string& password, int validation = 2) {
    client.SetPort(port);
    client.SetSecurityEnabled(true);
    client.SetCertValidation(validation);
    return client.POP3Connect(host, user.c_str(), password.c_str());
  }

  std::string DiskMessage(const std::string& role, const std::string& uid) {
    std::string file = MessageFile(env_.Mailbox(role).maildir, uid);
    EXPECT_FALSE(file.empty()) << "no file for " << uid;
    return file.empty() ? std::string() : ReadFile(file);
  }

  // The id of message `number` of the mailbox of `role`, from its maildir.
  std::string DiskId(const std::string& role, int number) {
    std::vector<std::string> ids = MaildirIds(env_.Mailbox(role).maildir);
    return number >= 1 && number <= static_cast<int>(ids.size()) ? ids[number - 1] : "";
  }

  std::string LogText() { return ReadFile(env_.Get("LOG_FILE")); }

  // True once `needle` shows in the server's log (within 10 s).
  bool LogShows(const std::string& needle) {
    for (int i = 0; i < 200; ++i) {
      if (LogText().find(needle) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }

  // Checks that no login attempt as `user` reached the server. A plain
  // attempt under another unused name made afterwards must show up first, so
  // the log is known to record attempts and to be read late enough.
  void ExpectNoLoginAttempt(const std::string& user) {
    std::string control = user + "-control";
    Pop3Client client;
    client.SetPort(env_.Port("POP3_PORT"));
    EXPECT_EQ(client.POP3Connect("127.0.0.1", control.c_str(), "wrong"), kNetPassFailed);
    ASSERT_TRUE(LogShows(control)) << "the log does not record login attempts";
    EXPECT_EQ(LogText().find(user + ","), std::string::npos) << user << " reached the server";
    EXPECT_EQ(LogText().find("<" + user + ">"), std::string::npos) << user << " reached the server";
  }

  Pop3ServerEnv env_{CORVANE_POP3_ENV_FILE};
};

// --- Logging in and out ---

TEST_F(DovecotPop3Test, LogsInAndQuits) {
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "SMALL"), 0) << client.LastResponse();
  EXPECT_TRUE(client.IsConnected());
  EXPECT_EQ(client.POP3Close(), 0);
  EXPECT_FALSE(client.IsConnected());
  int count = -1;
  EXPECT_EQ(client.GetNumMsgs(&count), kNetNoConnection);

  // The same object logs in again, also while it is still logged in.
  ASSERT_EQ(LogIn(client, "SMALL"), 0);
  ASSERT_EQ(LogIn(client, "EMPTY"), 0);
  EXPECT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, WrongPasswordIsRefusedAtPass) {
  Pop3Client client;
  client.SetPort(env_.Port("POP3_PORT"));
  std::string user = env_.Mailbox("SMALL").user;
  EXPECT_EQ(client.POP3Connect("127.0.0.1", user.c_str(), "not-the-password"), kNetPassFailed);
  EXPECT_EQ(client.LastResponse()[0], '-') << client.LastResponse();
  // The server takes any USER and refuses unknown users at PASS, too.
  EXPECT_EQ(client.POP3Connect("127.0.0.1", "no-such-user", "x"), kNetPassFailed);
}

// --- Mailbox state: STAT, LIST, UIDL ---

TEST_F(DovecotPop3Test, StatAndListMatchTheMaildir) {
  std::vector<std::string> ids = MaildirIds(env_.Mailbox("SMALL").maildir);
  ASSERT_EQ(ids.size(), 5u);
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "SMALL"), 0);
  int count = -1;
  ASSERT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 5);
  // Sizes count CRLF line ends, though the files end their lines in LF.
  for (int n = 1; n <= 5; ++n) {
    long size = -1;
    ASSERT_EQ(client.GetMsgSize(n, &size), 0) << n;
    EXPECT_EQ(size, static_cast<long>(WithCrlf(DiskMessage("SMALL", ids[n - 1])).size())) << n;
  }
  long size = -1;
  EXPECT_EQ(client.GetMsgSize(6, &size), kNetListFailed);
  EXPECT_EQ(size, -1);
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, UidlListsAThousandMessagesInOrder) {
  std::vector<std::string> ids = MaildirIds(env_.Mailbox("BULK").maildir);
  ASSERT_EQ(ids.size(), 1000u);
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "BULK"), 0);
  int count = -1;
  ASSERT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 1000);
  ASSERT_EQ(client.GetUIDL(-1), 0);
  const std::vector<Pop3Client::UidEntry>& list = client.UidList();
  ASSERT_EQ(list.size(), 1000u);
  int wrong = 0;
  while (wrong < 1000 && list[wrong].number == wrong + 1 && list[wrong].uid == ids[wrong]) ++wrong;
  EXPECT_EQ(wrong, 1000) << "first wrong entry: " << list[wrong % 1000].number << " "
                         << list[wrong % 1000].uid << ", expected " << ids[wrong % 1000];
  ASSERT_NE(client.GetUID(1000), nullptr);
  EXPECT_EQ(std::string(client.GetUID(1000)), ids[999]);
  EXPECT_EQ(client.GetUID(1001), nullptr);
  EXPECT_EQ(client.GetUID(0), nullptr);
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, UidlOfOneMessageAndOfAnEmptyMailbox) {
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "SMALL"), 0);
  ASSERT_EQ(client.GetUIDL(3), 0);
  ASSERT_EQ(client.UidList().size(), 1u);
  ASSERT_NE(client.GetUID(3), nullptr);
  EXPECT_EQ(std::string(client.GetUID(3)), DiskId("SMALL", 3));
  EXPECT_EQ(client.GetUID(1), nullptr);
  // A number the mailbox does not have is refused and leaves the list empty.
  EXPECT_EQ(client.GetUIDL(6), kNetUidlFailed);
  EXPECT_TRUE(client.UidList().empty());
  EXPECT_EQ(client.POP3Close(), 0);

  ASSERT_EQ(LogIn(client, "EMPTY"), 0);
  EXPECT_EQ(client.GetUIDL(-1), 0);
  EXPECT_TRUE(client.UidList().empty());
  EXPECT_EQ(client.GetUIDL(1), kNetUidlFailed);
  EXPECT_EQ(client.POP3Close(), 0);
}

// --- TOP ---

TEST_F(DovecotPop3Test, TopZeroGivesTheHeadersUpToTheBlankLine) {
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "SMALL"), 0);
  // The GB2312 subject and the multipart message.
  for (int n : {3, 4}) {
    std::string expected = HeaderBlock(WithCrlf(DiskMessage("SMALL", DiskId("SMALL", n))));
    ASSERT_EQ(client.OpenTop(n, 0), 0) << n;
    std::string got, last;
    char line[Pop3Client::kResponseSize];
    for (int length; (length = client.ReadTopLine(line, sizeof line)) > 0;) {
      last.assign(line, static_cast<size_t>(length));
      got += last;
    }
    EXPECT_EQ(got, expected) << n;
    EXPECT_EQ(last, "\r\n") << n;
    EXPECT_EQ(client.ReadTopLine(line, sizeof line), 0) << "after the end";
    EXPECT_EQ(client.CloseTop(), 0);
    EXPECT_EQ(client.ReadTopLine(line, sizeof line), -1) << "after CloseTop";
  }
  std::string subject = DiskMessage("SMALL", DiskId("SMALL", 3));
  EXPECT_NE(subject.find("Subject: \xb2\xe2\xca\xd4"), std::string::npos)
      << "the test mail should carry a raw GB2312 subject";
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, CloseTopDrainsAnUnfinishedListing) {
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "SMALL"), 0);
  ASSERT_EQ(client.OpenTop(1, 3), 0);
  char line[Pop3Client::kResponseSize];
  ASSERT_GT(client.ReadTopLine(line, sizeof line), 0);
  EXPECT_EQ(client.CloseTop(), 0);
  // The rest of the listing is gone: the next reply is STAT's own.
  int count = -1;
  EXPECT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 5);
  EXPECT_EQ(client.OpenTop(9, 0), kNetTopFailed);
  EXPECT_EQ(client.ReadTopLine(line, sizeof line), -1);
  EXPECT_EQ(client.POP3Close(), 0);
}

// --- RETR ---

TEST_F(DovecotPop3Test, RetrievesEverySmallMessageByteForByte) {
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "SMALL"), 0);
  TempDir scratch;
  for (int n = 1; n <= 5; ++n) {
    std::string expected = WithCrlf(DiskMessage("SMALL", DiskId("SMALL", n)));
    std::string file = scratch / ("message" + std::to_string(n));
    ASSERT_EQ(client.RetrieveToFile(n, file.c_str()), 0) << n;
    EXPECT_EQ(ReadFile(file), expected) << n;
  }
  // What the messages exercise: a line far longer than one reply line, and
  // lines that are nothing but dots.
  EXPECT_TRUE(HasLineLongerThan(DiskMessage("SMALL", DiskId("SMALL", 1)), 4000));
  std::string dots = WithCrlf(DiskMessage("SMALL", DiskId("SMALL", 2)));
  EXPECT_NE(dots.find("\r\n.\r\n..\r\n...\r\n"), std::string::npos);

  // Into a memory buffer as well.
  BufferDataSource buffer(64 * 1024);
  ASSERT_EQ(client.RetrieveToDataSource(2, buffer), 0);
  EXPECT_EQ(std::string(buffer.Data()), dots);
  EXPECT_EQ(client.RetrieveToFile(6, (scratch / "none").c_str()), kNetRetrFailed);
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, RetrievesTheTenMegabyteMessageByteForByte) {
  std::string expected = WithCrlf(DiskMessage("BIG", DiskId("BIG", 1)));
  ASSERT_GT(expected.size(), 10'000'000u);
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "BIG"), 0);
  long size = -1;
  ASSERT_EQ(client.GetMsgSize(1, &size), 0);
  EXPECT_EQ(size, static_cast<long>(expected.size()));
  TempDir scratch;
  std::string file = scratch / "big.eml";
  ASSERT_EQ(client.RetrieveToFile(1, file.c_str()), 0);
  std::string got = ReadFile(file);
  EXPECT_EQ(got.size(), expected.size());
  EXPECT_EQ(FirstDifference(got, expected), std::string::npos);
  // The session is still in step after ten megabytes.
  int count = -1;
  EXPECT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 1);
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, LineByLineKeepsTheDotStuffing) {
  std::string expected = DotStuffed(WithCrlf(DiskMessage("SMALL", DiskId("SMALL", 2))));
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "SMALL"), 0);
  ASSERT_EQ(client.OpenMsg(2), 0);
  std::string got;
  char line[Pop3Client::kResponseSize];
  for (int length; (length = client.ReadMsgLine(line, sizeof line)) > 0;) got.append(line, length);
  EXPECT_EQ(got, expected);
  EXPECT_EQ(client.CloseMsg(), 0);
  EXPECT_EQ(client.ReadMsgLine(line, sizeof line), -1);

  // Closing half way drops the rest, and the session goes on.
  ASSERT_EQ(client.OpenMsg(1), 0);
  ASSERT_GT(client.ReadMsgLine(line, sizeof line), 0);
  EXPECT_EQ(client.CloseMsg(), 0);
  int count = -1;
  EXPECT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 5);
  EXPECT_EQ(client.OpenMsg(6), kNetRetrFailed);
  EXPECT_EQ(client.POP3Close(), 0);
}

// --- DELE, RSET and QUIT ---

TEST_F(DovecotPop3Test, DeleteThenResetKeepsEveryMessage) {
  Pop3Client client;
  ASSERT_EQ(LogIn(client, "SMALL"), 0);
  ASSERT_EQ(client.DeleteMsg(1), 0);
  int count = -1;
  ASSERT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 4);
  TempDir scratch;
  EXPECT_EQ(client.RetrieveToFile(1, (scratch / "gone").c_str()), kNetRetrFailed);
  EXPECT_EQ(client.DeleteMsg(1), kNetDeleFailed) << "already deleted";
  EXPECT_EQ(client.DeleteMsg(6), kNetDeleFailed);
  ASSERT_EQ(client.ResetDelete(), 0);
  ASSERT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 5);
  ASSERT_EQ(client.POP3Close(), 0);

  ASSERT_EQ(LogIn(client, "SMALL"), 0);
  ASSERT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 5);
  EXPECT_EQ(client.POP3Close(), 0);
  EXPECT_FALSE(MessageFile(env_.Mailbox("SMALL").maildir, DiskId("SMALL", 1)).empty());
}

TEST_F(DovecotPop3Test, DeleteAndQuitRemovesTheMessage) {
  // A message of this test's own, delivered the maildir way (tmp/, then new/).
  std::string maildir = env_.Mailbox("SCRATCH").maildir;
  std::string id = "1900000000.M" + std::to_string(getpid()) + "P1.mailhost";
  std::string temporary = maildir + "/tmp/" + id;
  test::WriteFile(temporary, "From: probe@example.org\nSubject: delete me\n\nbye\n");
  // The server reads and removes it as the user mail.
  if (passwd* mail = getpwnam("mail"); mail != nullptr && geteuid() == 0) {
    ASSERT_EQ(chown(temporary.c_str(), mail->pw_uid, mail->pw_gid), 0);
  }
  fs::rename(temporary, maildir + "/new/" + id);
  std::vector<std::string> before = MaildirIds(maildir);
  ASSERT_GE(before.size(), 2u);

  Pop3Client client;
  ASSERT_EQ(LogIn(client, "SCRATCH"), 0);
  ASSERT_EQ(client.GetUIDL(-1), 0);
  int number = 0;
  for (const Pop3Client::UidEntry& entry : client.UidList()) {
    if (entry.uid == id) number = entry.number;
  }
  ASSERT_GT(number, 0) << id << " is not listed";
  ASSERT_EQ(client.DeleteMsg(number), 0);
  ASSERT_EQ(client.POP3Close(), 0);

  EXPECT_TRUE(MessageFile(maildir, id).empty()) << "QUIT did not remove " << id;
  ASSERT_EQ(LogIn(client, "SCRATCH"), 0);
  ASSERT_EQ(client.GetUIDL(-1), 0);
  EXPECT_EQ(client.UidList().size(), before.size() - 1);
  for (const Pop3Client::UidEntry& entry : client.UidList()) EXPECT_NE(entry.uid, id);
  EXPECT_EQ(client.POP3Close(), 0);
}

// --- TLS ---

TEST_F(DovecotPop3Test, ImplicitTlsWithATrustedCertificate) {
  ScopedEnv trust("SSL_CERT_FILE", env_.Get("CA_FILE"));
  Pop3ServerEnv::Account account = env_.Mailbox("SMALL");
  // The certificate names both the address and localhost.
  for (const char* host : {"127.0.0.1", "localhost"}) {
    Pop3Client client;
    ASSERT_EQ(LogInSecure(client, host, env_.Port("POP3S_PORT"), account.user, account.password), 0)
        << host;
    EXPECT_TRUE(client.IsSessionSecure());
    ASSERT_EQ(client.GetUIDL(-1), 0);
    ASSERT_EQ(client.UidList().size(), 5u);
    EXPECT_EQ(client.UidList()[4].uid, DiskId("SMALL", 5));
    EXPECT_EQ(client.POP3Close(), 0);
  }
}

TEST_F(DovecotPop3Test, ImplicitTlsRetrievesTheTenMegabyteMessage) {
  ScopedEnv trust("SSL_CERT_FILE", env_.Get("CA_FILE"));
  std::string expected = WithCrlf(DiskMessage("BIG", DiskId("BIG", 1)));
  Pop3ServerEnv::Account account = env_.Mailbox("BIG");
  Pop3Client client;
  ASSERT_EQ(
      LogInSecure(client, "127.0.0.1", env_.Port("POP3S_PORT"), account.user, account.password), 0);
  TempDir scratch;
  std::string file = scratch / "big.eml";
  ASSERT_EQ(client.RetrieveToFile(1, file.c_str()), 0);
  std::string got = ReadFile(file);
  EXPECT_EQ(got.size(), expected.size());
  EXPECT_EQ(FirstDifference(got, expected), std::string::npos);
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, UntrustedCertificateIsRefusedBeforeLogin) {
  ScopedEnv distrust("SSL_CERT_FILE", env_.Get("OTHER_CA_FILE"));
  std::string probe = ProbeUser("untrusted");
  Pop3Client client;
  int code = LogInSecure(client, "127.0.0.1", env_.Port("POP3S_PORT"), probe, "secret");
  EXPECT_TRUE(IsSecurityCode(code)) << code;
  EXPECT_FALSE(client.IsConnected());
  ExpectNoLoginAttempt(probe);

  // Without validation the same server is reached: trust was the only fault.
  Pop3ServerEnv::Account account = env_.Mailbox("EMPTY");
  EXPECT_EQ(
      LogInSecure(client, "127.0.0.1", env_.Port("POP3S_PORT"), account.user, account.password, 0),
      0);
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, AddressTheCertificateDoesNotNameIsRefused) {
  ScopedEnv trust("SSL_CERT_FILE", env_.Get("CA_FILE"));
  std::string altHost = env_.Get("POP3S_ALT_HOST");
  std::string probe = ProbeUser("wrong-host");
  Pop3Client client;
  int code = LogInSecure(client, altHost.c_str(), env_.Port("POP3S_PORT"), probe, "secret");
  EXPECT_TRUE(IsSecurityCode(code)) << code;
  EXPECT_FALSE(client.IsConnected());
  ExpectNoLoginAttempt(probe);

  // Checking the chain alone passes there: the name was the only fault.
  Pop3ServerEnv::Account account = env_.Mailbox("EMPTY");
  EXPECT_EQ(LogInSecure(client, altHost.c_str(), env_.Port("POP3S_PORT"), account.user,
                        account.password, 1),
            0);
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, StlsUpgradesThePlainPort) {
  ScopedEnv trust("SSL_CERT_FILE", env_.Get("CA_FILE"));
  Pop3ServerEnv::Account account = env_.Mailbox("SMALL");
  Pop3Client client;
  ASSERT_EQ(
      LogInSecure(client, "localhost", env_.Port("POP3_PORT"), account.user, account.password), 0)
      << client.LastResponse();
  EXPECT_TRUE(client.IsSessionSecure());
  int count = -1;
  ASSERT_EQ(client.GetNumMsgs(&count), 0);
  EXPECT_EQ(count, 5);
  TempDir scratch;
  std::string file = scratch / "dots.eml";
  ASSERT_EQ(client.RetrieveToFile(2, file.c_str()), 0);
  EXPECT_EQ(ReadFile(file), WithCrlf(DiskMessage("SMALL", DiskId("SMALL", 2))));
  EXPECT_EQ(client.POP3Close(), 0);
}

TEST_F(DovecotPop3Test, StlsWithAnUntrustedCertificateSendsNoCredentials) {
  ScopedEnv distrust("SSL_CERT_FILE", env_.Get("OTHER_CA_FILE"));
  std::string probe = ProbeUser("stls-untrusted");
  Pop3Client client;
  int code = LogInSecure(client, "127.0.0.1", env_.Port("POP3_PORT"), probe, "secret");
  EXPECT_TRUE(IsSecurityCode(code)) << code;
  EXPECT_FALSE(client.IsConnected());
  ExpectNoLoginAttempt(probe);
}

}  // namespace
}  // namespace corvane
