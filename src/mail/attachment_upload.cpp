#include "mail/attachment_upload.h"

#include "protocol/command_text.h"
#include "protocol/ftp_client.h"
#include "protocol/net_codes.h"
#include "service/process_log.h"

namespace corvane {

std::optional<std::string> FtpPathOfUrl(std::string& destination) {
  if (destination.find("ftp://") == std::string::npos &&
      destination.find("ftp:\\") == std::string::npos) {
    return std::nullopt;
  }
  for (size_t i = destination.size(); i > 1; --i) {
    if (destination[i - 1] == '\\') destination[i - 1] = '/';
  }
  size_t scheme = destination.find("ftp://");
  if (scheme == std::string::npos) return destination;
  size_t path = destination.find('/', scheme + 6);
  if (path == std::string::npos) return destination;
  return destination.substr(path);
}

int UploadToFtp(const std::string& host, const std::string& user, const std::string& password,
                const std::string& localPath, const std::string& remoteName,
                const std::optional<std::string>& remoteDirectory, unsigned port) {
  // A name or directory holding a line break or NUL is refused before any
  // connection: it would reach the server cut short or as a second command.
  if (!IsSafeCommandArgument(remoteName) ||
      (remoteDirectory && !IsSafeCommandArgument(*remoteDirectory))) {
    WriteLog(kLogError, "Upload file %s refused: control bytes in its ftp name or directory\n",
             localPath.c_str());
    return -1;
  }
  FtpClient ftp;
  ftp.SetServerPort(port);
  if (ftp.FtpConnect(host.c_str(), user.c_str(), password.c_str(), "") != kNetOk) {
    WriteLog(kLogError, "Connect ftp server %s error\n", host.c_str());
    return -1;
  }
  if (remoteDirectory && ftp.ChangeDir(remoteDirectory->c_str()) != kNetOk) {
    if (ftp.MakeDir(remoteDirectory->c_str()) != kNetOk) {
      ftp.FtpClose();
      return -1;
    }
    ftp.ChangeDir(remoteDirectory->c_str());
  }
  if (ftp.SendFile(localPath.c_str(), remoteName.c_str()) == kNetOk) {
    ftp.FtpClose();
    return 0;
  }
  ftp.FtpClose();
  WriteLog(kLogError, "Upload file %s to ftp server %s error\n", localPath.c_str(), host.c_str());
  return -1;
}

}  // namespace corvane
