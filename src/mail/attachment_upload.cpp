#include "mail/attachment_upload.h"

#include "base/process_log.h"
#include "protocol/command_text.h"
#include "protocol/ftp_client.h"
#include "protocol/net_codes.h"
#include "protocol/net_error.h"

namespace corvane {
namespace {

// A failure's text and the server's last reply, which names the cause
// ("530 Login incorrect."); the log writer escapes its control bytes.
std::string FailureText(int code, const std::string& reply) {
  std::string text = CNetError::GetErrorString(code);
  if (!reply.empty()) text += " Server: " + reply;
  return text;
}

}  // namespace

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

int UploadToFtp(const FtpServer& server, const std::string& localPath,
                const std::string& remoteName, const std::optional<std::string>& remoteDirectory) {
  // A name or directory holding a line break or NUL is refused before any
  // connection: it would reach the server cut short or as a second command.
  if (!IsSafeCommandArgument(remoteName) ||
      (remoteDirectory && !IsSafeCommandArgument(*remoteDirectory))) {
    WriteLog(kLogError, "Upload file %s refused: control bytes in its ftp name or directory\n",
             localPath.c_str());
    return -1;
  }
  FtpClient ftp;
  ftp.SetPort(server.port);
  ftp.SetPassive(server.passive);
  int result =
      ftp.FtpConnect(server.host.c_str(), server.user.c_str(), server.password.c_str(), "");
  if (result != kNetOk) {
    WriteLog(kLogError, "Connect ftp server %s error: %s\n", server.host.c_str(),
             FailureText(result, ftp.LastResponse()).c_str());
    return -1;
  }
  if (remoteDirectory && ftp.ChangeDir(remoteDirectory->c_str()) != kNetOk) {
    result = ftp.MakeDir(remoteDirectory->c_str());
    if (result != kNetOk) {
      WriteLog(kLogError, "Make directory %s on ftp server %s error: %s\n",
               remoteDirectory->c_str(), server.host.c_str(),
               FailureText(result, ftp.LastResponse()).c_str());
      ftp.FtpClose();
      return -1;
    }
    ftp.ChangeDir(remoteDirectory->c_str());
  }
  result = ftp.SendFile(localPath.c_str(), remoteName.c_str());
  const std::string reply = ftp.LastResponse();
  ftp.FtpClose();
  if (result == kNetOk) return 0;
  WriteLog(kLogError, "Upload file %s to ftp server %s error: %s\n", localPath.c_str(),
           server.host.c_str(), FailureText(result, reply).c_str());
  return -1;
}

}  // namespace corvane
