// The FTP client against the private vsftpd, a server like the ones people
// run: a local user who must give a password, greeted with one line or with a
// multi-line banner, storing over active and passive data connections into a
// server that translates line ends of ASCII uploads.
#include <gtest/gtest.h>

#include <filesystem>

#include "pop3/pop3_server_env.h"
#include "protocol/ftp_client.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

TEST(FtpVsftpdTest, EveryByteArrivesAfterEitherGreetingActiveOrPassive) {
  test::Pop3ServerEnv ftp(CORVANE_FTP_ENV_FILE, "CORVANE_FTP_ENV");
  ASSERT_NE(ftp.Port("FTP_BANNER_PORT"), 0u) << "no FTP test server: " << ftp.path();
  test::TempDir local;
  std::string bytes = "CR LF\r\nlone LF\nlone CR\r";
  // Every byte value, over more than one piece of the data connection.
  while (bytes.size() <= static_cast<size_t>(FtpClient::kDataPieceSize) + 256) {
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
  }
  test::WriteFile(local / "every-byte.bin", bytes);

  for (const char* portKey : {"FTP_PORT", "FTP_BANNER_PORT"}) {
    for (bool passive : {false, true}) {
      SCOPED_TRACE(std::string(portKey) + (passive ? " passive" : " active"));
      const std::string name = std::string(portKey) + (passive ? "-passive.bin" : "-active.bin");
      const std::string stored = ftp.Get("FTP_ROOT") + "/" + ftp.Get("UPLOAD_DIR") + "/" + name;
      std::filesystem::remove(stored);
      FtpClient client;
      client.SetPort(ftp.Port(portKey));
      client.SetPassive(passive);
      ASSERT_EQ(client.FtpConnect("127.0.0.1", ftp.Get("FTP_USER").c_str(),
                                  ftp.Get("FTP_PASS").c_str(), ""),
                0)
          << client.LastResponse();
      ASSERT_EQ(client.ChangeDir(ftp.Get("UPLOAD_DIR").c_str()), 0);
      EXPECT_EQ(client.SendFile((local / "every-byte.bin").c_str(), name.c_str()), 0)
          << client.LastResponse();
      EXPECT_EQ(client.LastResponse().substr(0, 4), "226 ");
      client.FtpClose();
      EXPECT_TRUE(test::ReadFile(stored) == bytes) << "the stored file differs";
    }
  }

  FtpClient wrong;
  wrong.SetPort(ftp.Port("FTP_BANNER_PORT"));
  EXPECT_EQ(wrong.FtpConnect("127.0.0.1", ftp.Get("FTP_USER").c_str(), "not-the-password", ""), 63);
  EXPECT_EQ(wrong.LastResponse().substr(0, 4), "530 ");
}

}  // namespace
}  // namespace corvane
