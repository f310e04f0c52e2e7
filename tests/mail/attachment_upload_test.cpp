// FTP destinations of attachments and their upload, against scripted peers.
#include "mail/attachment_upload.h"

#include <gtest/gtest.h>

#include "support/scripted_peer.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::Expect;
using test::ScriptedPeer;
using test::Send;

TEST(FtpPathOfUrlTest, DirectoryAfterTheHost) {
  std::string url = "ftp://files.example.org/incoming/mail";
  EXPECT_EQ(FtpPathOfUrl(url), "/incoming/mail");

  std::string backslashed = "ftp:\\\\files.example.org\\inbox";
  EXPECT_EQ(FtpPathOfUrl(backslashed), "/inbox");
  EXPECT_EQ(backslashed, "ftp://files.example.org/inbox");  // changed in place

  std::string embedded = "save to ftp://host/a/b";
  EXPECT_EQ(FtpPathOfUrl(embedded), "/a/b");
}

TEST(FtpPathOfUrlTest, NoPathGivesTheWholeTextAndOtherDestinationsNothing) {
  std::string bare = "ftp://host";
  EXPECT_EQ(FtpPathOfUrl(bare), "ftp://host");
  std::string local = "C:\\attachments\\";
  EXPECT_EQ(FtpPathOfUrl(local), std::nullopt);
  EXPECT_EQ(local, "C:\\attachments\\");  // untouched
  std::string upper = "FTP://host/dir";
  EXPECT_EQ(FtpPathOfUrl(upper), std::nullopt);
  std::string leading = "\\ftp://host\\dir";
  EXPECT_EQ(FtpPathOfUrl(leading), "/dir");
  EXPECT_EQ(leading, "\\ftp://host/dir");  // the first character is never turned
}

class UploadToFtpTest : public ::testing::Test {
 protected:
  std::vector<test::Step> Login() {
    return {Send("220 ready\r\n"), Expect("USER up\r\n"), Send("230 in\r\n"),
            Expect("TYPE I\r\n"),  Send("200 ok\r\n"),    Expect("MODE S\r\n"),
            Send("200 ok\r\n"),    Expect("STRU F\r\n"),  Send("200 ok\r\n")};
  }
  std::vector<test::Step> With(std::vector<test::Step> more) {
    std::vector<test::Step> script = Login();
    for (auto& step : more) script.push_back(std::move(step));
    return script;
  }
  static FtpServer At(unsigned port) { return {"127.0.0.1", "up", "pw", port}; }
  test::TempDir dir_;
};

TEST_F(UploadToFtpTest, MissingDirectoryIsMadeBeforeTheStore) {
  test::WriteFile(dir_ / "a.txt", "attachment\r\n");
  ScriptedPeer peer(With({Expect("CWD /box\r\n"), Send("550 no\r\n"), Expect("MKD /box\r\n"),
                          Send("257 made\r\n"), Expect("CWD /box\r\n"), Send("250 ok\r\n"),
                          test::Do([](test::PeerSession& session, std::string& error) {
                            std::string line;
                            if (!session.ReadLine(line, 5000) || line.rfind("PORT ", 0) != 0) {
                              error = "no PORT: " + line;
                              return false;
                            }
                            return session.Write("500 no data port today\r\n");
                          }),
                          Expect("Quit\r\n")}));
  // The store is refused at PORT, so the upload fails after the directory
  // steps, and still ends with Quit.
  EXPECT_EQ(UploadToFtp(At(peer.port()), dir_ / "a.txt", "a.txt", "/box"), -1);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(UploadToFtpTest, DirectoryThatCannotBeMadeAbandonsTheUpload) {
  ScriptedPeer peer(With({Expect("CWD ftp://host\r\n"), Send("550 no\r\n"),
                          Expect("MKD ftp://host\r\n"), Send("550 no\r\n"), Expect("Quit\r\n")}));
  EXPECT_EQ(UploadToFtp(At(peer.port()), dir_ / "a.txt", "a.txt", "ftp://host"), -1);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received().find("STOR"), std::string::npos);
}

TEST_F(UploadToFtpTest, NamesAndDirectoriesWithControlBytesAreRefusedBeforeConnecting) {
  test::WriteFile(dir_ / "a.txt", "attachment\r\n");
  struct Case {
    std::string name;
    std::optional<std::string> directory;
  };
  const std::vector<Case> cases = {
      {std::string("a.txt\0\r\nDELE x", 14), std::nullopt},
      {"a.txt\r\nDELE x", std::nullopt},
      {"a.txt", std::string("/box\0/..", 8)},
      {"a.txt", "/box\nRMD /"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.name) + " in " + testing::PrintToString(c.directory));
    ScriptedPeer peer(Login(), 200);
    EXPECT_EQ(UploadToFtp(At(peer.port()), dir_ / "a.txt", c.name, c.directory), -1);
    peer.Finish();
    EXPECT_EQ(peer.Connections(), 0);
  }
}

TEST_F(UploadToFtpTest, UnreachableServerFails) {
  unsigned closedPort = 0;
  {
    test::ScriptedPeer gone({});
    closedPort = gone.port();
  }
  EXPECT_EQ(UploadToFtp(At(closedPort), dir_ / "a.txt", "a.txt", std::nullopt), -1);
}

}  // namespace
}  // namespace corvane
