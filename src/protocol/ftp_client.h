#pragma once

#include <optional>
#include <string>
#include <vector>

#include "protocol/command_client.h"
#include "stream/data_source.h"

namespace corvane {

// Puts files on an FTP server: read the greeting, log in (USER, PASS, ACCT
// as the server asks) and set binary type, change or make a directory, store
// a file over an active (PORT) or passive (EPSV, else PASV) data connection,
// quit. Either way the data connection is only ever with the control
// connection's server. Every operation returns a result code (0 success); an
// argument holding CR, LF or NUL, or too long for a command line, is refused
// (kNetInvalidParameter) unsent.
class FtpClient : public CommandClient {
 public:
  static constexpr int kMaxLine = 261;
  static constexpr int kFirstDataPort = 10000;
  static constexpr int kLastDataPort = 32000;
  static constexpr int kDataPortAttempts = 128;
  static constexpr int kDataAcceptSeconds = 5;
  // A file goes over the data connection in pieces this large: it carries
  // nothing else, and small pieces cost a system call each.
  static constexpr int kDataPieceSize = 64 * 1024;

  FtpClient();
  ~FtpClient() override;

  int FtpConnect(const char* host, const char* user, const char* password, const char* account);
  int ChangeDir(const char* path);
  int MakeDir(const char* path);
  int SendFile(const char* localPath, const char* remoteName);
  int StoreFromDataSource(DataSource& source, const char* remoteName);
  // Sends "Quit" and closes both connections without waiting for an answer.
  int FtpClose();

  int SetTransferType(int kind);       // 0 "TYPE A", 1 "TYPE I"
  int SetTransferMode(int kind);       // 0 "MODE S", 1 "MODE B", 2 "MODE C"
  int SetTransferStructure(int kind);  // 0 "STRU F", 1 "STRU R", 2 "STRU P"

  // The code of the next reply (a multi-line reply is read whole), 0 when
  // none arrived.
  int GetReplyCode();

  // Passive transfers: the client connects to the port the server offers,
  // for servers behind NAT or firewalls. Active (PORT) by default.
  void SetPassive(bool passive) { passive_ = passive; }
  int DataPort() const { return dataPort_; }
  void SetDataPort(int port) { dataPort_ = port; }
  // The last reply line, without its line end.
  std::string LastResponse() const;
  // The lines after the first of the last multi-line reply.
  const std::vector<std::string>& ReplyLines() const { return replyLines_; }

 private:
  // `command` followed by `argument`, or none when the argument holds CR, LF
  // or NUL or the line would not fit kMaxLine with its line end.
  static std::optional<std::string> CommandLine(std::string_view command,
                                                std::string_view argument = {});
  // Sends a command and maps its reply: 38 none, 0 for 200..299, else 10.
  int SimpleCommand(std::string_view command, std::string_view argument = {});
  int OpenDataPort();
  // Listens on a data port and offers it with PORT; kNetOk, or the failure.
  int OfferActiveDataPort();
  // Asks for a passive port (EPSV, then PASV) and connects to it on the
  // control connection's server; kNetOk, or the failure.
  int ConnectPassiveDataPort();
  // Waits up to `seconds` for the server's own connection to the data port;
  // kNetOk, or kNetTimeout.
  int AcceptServerDataConnection(int seconds);

  CNetClient dataConnection_;
  bool connected_ = false;
  bool passive_ = false;
  int dataPort_;
  std::vector<std::string> replyLines_;
};

}  // namespace corvane
