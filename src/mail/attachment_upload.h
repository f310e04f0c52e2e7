#pragma once

#include <optional>
#include <string>

namespace corvane {

// The directory an "Attachment" destination names when it is an FTP address
// ("ftp://host/dir" or "ftp:\\host\dir"): the path after the host, or the
// whole text when there is none; nothing for any other destination.
// Backslashes in the text are turned into slashes in place (all but one at
// the very start). The host part is never used: uploads go to the
// configured FTP server.
std::optional<std::string> FtpPathOfUrl(std::string& destination);

// The FTP server attachments go to, as configured.
struct FtpServer {
  std::string host;
  std::string user;
  std::string password;
  unsigned port = 21;
  bool passive = false;
};

// Uploads a local file under `remoteName` into `remoteDirectory` (made when
// missing) on the FTP server; 0, or -1 after logging what failed with the
// server's last reply.
int UploadToFtp(const FtpServer& server, const std::string& localPath,
                const std::string& remoteName, const std::optional<std::string>& remoteDirectory);

}  // namespace corvane
