#include "protocol/ftp_client.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/ascii_text.h"
#include "base/decimal_text.h"
#include "base/limits.h"
#include "protocol/command_text.h"
#include "protocol/ftp_passive_reply.h"
#include "protocol/net_codes.h"
#include "protocol/socket_wait.h"
#include "stream/file_data_source.h"

namespace corvane {
namespace {

bool Between(int code, int low, int high) {
  return code >= low && code <= high;
}

}  // namespace

FtpClient::FtpClient()
    : CommandClient(21, 30), dataPort_(static_cast<int>(MonotonicMs() % 20000) + kFirstDataPort) {}

FtpClient::~FtpClient() = default;

std::optional<std::string> FtpClient::CommandLine(std::string_view command,
                                                  std::string_view argument) {
  std::string line(command);
  line += argument;
  // Cut to fit, a line would lose its line end and run into the next one.
  if (!IsSafeCommandArgument(argument) || line.size() + 2 >= kMaxLine) return std::nullopt;
  return line;
}

std::string FtpClient::LastResponse() const {
  std::string_view line = UpToNul(LastReplyLine());
  return std::string(line.substr(0, line.find_first_of("\r\n")));
}

int FtpClient::GetReplyCode() {
  const int timeout = std::max(GetReceiveTimeOut() / 1000, 1);
  if (ReadReplyLine(kMaxLine + 1, timeout) < 1) return 0;
  const std::string first = LastResponse();
  const int code = ReadDecimal(std::string_view(first).substr(0, 3));
  if (first.size() > 3 && first[3] == '-') {
    // A multi-line reply ends at a line with the same three digits and a
    // blank; one whose line does not come keeps the code of its first.
    const std::string end = first.substr(0, 3) + " ";
    replyLines_.clear();  // the lines of the last multi-line reply only
    const ReplyEnd reply = ReadReplyRest(
        [&end](std::string_view line) {
          return line.starts_with(end) ? LineRole::kLast : LineRole::kMore;
        },
        kMaxLine + 1, timeout, [this](std::string_view) { replyLines_.push_back(LastResponse()); });
    if (reply == ReplyEnd::kEndless) return 0;
  }
  return code;
}

int FtpClient::FtpConnect(const char* host, const char* user, const char* password,
                          const char* account) {
  FtpClose();
  replyLines_.clear();
  std::optional<std::string> userLine = CommandLine("USER ", user ? user : "");
  std::optional<std::string> passLine = CommandLine("PASS ", password ? password : "");
  std::optional<std::string> acctLine = CommandLine("ACCT ", account ? account : "");
  if (!userLine || !passLine || !acctLine) return OnError(kNetInvalidParameter);
  int result = ConnectToServer(host);
  if (result != kNetOk) return OnError(result);
  connected_ = true;

  // The greeting is read before USER, as every server expects (taken as
  // USER's reply, it put every later reply one command late). A "120" asks
  // to wait for the "220" that follows.
  int code = GetReplyCode();
  if (code == 120) code = GetReplyCode();
  if (code == 0) return OnError(kNetNoResponse);
  if (!Between(code, 200, 299)) return OnError(kNetConnectFailed);
  SendCommand(*userLine);
  code = GetReplyCode();
  if (code == 0) return OnError(kNetNoResponse);
  if (!Between(code, 200, 399)) return OnError(kNetUserRejected);
  if (Between(code, 300, 399)) {
    SendCommand(*passLine);
    code = GetReplyCode();
    if (code == 0) return OnError(kNetNoResponse);
    if (!Between(code, 200, 399)) return OnError(kNetPassRejected);
    if (Between(code, 300, 399)) {
      SendCommand(*acctLine);
      code = GetReplyCode();
      if (code == 0) return OnError(kNetNoResponse);
      if (!Between(code, 200, 399)) return OnError(kNetAcctRejected);
    }
  }
  // Binary: attachments must arrive byte for byte, and servers that store
  // ASCII translate line ends.
  SetTransferType(1);
  SetTransferMode(0);
  SetTransferStructure(0);
  return OnError(kNetOk);
}

int FtpClient::SimpleCommand(std::string_view command, std::string_view argument) {
  std::optional<std::string> line = CommandLine(command, argument);
  if (!line) return OnError(kNetInvalidParameter);
  SendCommand(*line);
  int code = GetReplyCode();
  if (code == 0) return OnError(kNetNoResponse);
  return OnError(Between(code, 200, 299) ? kNetOk : kNetRequestDenied);
}

int FtpClient::ChangeDir(const char* path) {
  if (path == nullptr) return OnError(kNetInvalidParameter);
  return SimpleCommand("CWD ", path);
}

int FtpClient::MakeDir(const char* path) {
  if (path == nullptr) return OnError(kNetInvalidParameter);
  return SimpleCommand("MKD ", path);
}

int FtpClient::SetTransferType(int kind) {
  return SimpleCommand(kind == 1 ? "TYPE I" : "TYPE A");
}

int FtpClient::SetTransferMode(int kind) {
  static constexpr const char* kModes[] = {"MODE S", "MODE B", "MODE C"};
  return SimpleCommand(kModes[kind >= 0 && kind <= 2 ? kind : 0]);
}

int FtpClient::SetTransferStructure(int kind) {
  static constexpr const char* kStructures[] = {"STRU F", "STRU R", "STRU P"};
  return SimpleCommand(kStructures[kind >= 0 && kind <= 2 ? kind : 0]);
}

int FtpClient::OpenDataPort() {
  for (int attempt = 0; attempt < kDataPortAttempts; ++attempt) {
    if (dataConnection_.WaitForConnect(static_cast<unsigned>(dataPort_), 1) == kNetOk) {
      return kNetOk;
    }
    ++dataPort_;  // busy: offer the next one
  }
  return kNetDataPortFailed;
}

int FtpClient::AcceptServerDataConnection(int seconds) {
  const int64_t deadline = MonotonicMs() + int64_t{seconds} * 1000;
  const std::string server = GetRemoteAddress();
  for (;;) {
    const int64_t left = deadline - MonotonicMs();
    if (left <= 0) return kNetTimeout;
    if (dataConnection_.WaitForAccept(static_cast<int>((left + 999) / 1000)) != 0) {
      return kNetTimeout;
    }
    // A connection from anyone but the server is closed unread: whoever races
    // to the offered port gets neither the file nor a say in it.
    if (dataConnection_.AcceptConnection(server.c_str()) == kNetOk) return kNetOk;
  }
}

int FtpClient::OfferActiveDataPort() {
  int result = OpenDataPort();
  if (result != kNetOk) return result;
  std::string address = GetLocalAddress();
  std::replace(address.begin(), address.end(), '.', ',');
  char command[kMaxLine];
  std::snprintf(command, sizeof command, "PORT %s,%d,%d", address.c_str(), dataPort_ / 256,
                dataPort_ % 256);
  SendCommand(command);
  if (++dataPort_ > kLastDataPort || dataPort_ < 0) dataPort_ = kFirstDataPort;
  return Between(GetReplyCode(), 200, 299) ? kNetOk : kNetPortFailed;
}

int FtpClient::ConnectPassiveDataPort() {
  std::optional<unsigned> port;
  for (const char* command : {"EPSV", "PASV"}) {
    SendCommand(command);
    const int code = GetReplyCode();
    if (code == 0) return kNetNoResponse;
    port = PassiveDataPort(code, LastResponse());
    if (port) break;
  }
  if (!port) return kNetDataPortUnavailable;
  return dataConnection_.Connect(*port, GetRemoteAddress(), GetConnectTimeOut());
}

int FtpClient::StoreFromDataSource(DataSource& source, const char* remoteName) {
  if (remoteName == nullptr) return OnError(kNetInvalidParameter);
  std::optional<std::string> storLine = CommandLine("STOR ", remoteName);
  if (!storLine) return OnError(kNetInvalidParameter);
  int result = passive_ ? ConnectPassiveDataPort() : OfferActiveDataPort();
  if (result != kNetOk) {
    dataConnection_.CloseConnection();
    return OnError(result);
  }
  if (IsAborted()) {
    dataConnection_.CloseConnection();
    return OnError(kNetAborted);
  }
  SendCommand(*storLine);
  // Only a mark that the transfer starts lets it start: a 2xx here is not a
  // store (and would leave the final reply unread).
  const int opening = GetReplyCode();
  if (opening != 125 && opening != 150) {
    dataConnection_.CloseConnection();
    return OnError(kNetStorFailed);
  }
  if (!passive_ && AcceptServerDataConnection(kDataAcceptSeconds) != kNetOk) {
    dataConnection_.CloseConnection();
    return OnError(kNetDataPortFailed);
  }
  result = dataConnection_.SendFromDataSource(source, kDataPieceSize);
  dataConnection_.CloseConnection();
  if (result != kNetOk) {
    GetReplyCode();
    return OnError(result);
  }
  // Stored only when the server says so at the end.
  const int stored = GetReplyCode();
  return OnError(stored == 226 || stored == 250 ? kNetOk : kNetConnectTerminated);
}

int FtpClient::SendFile(const char* localPath, const char* remoteName) {
  FileDataSource file(localPath, 4096);
  int result = StoreFromDataSource(file, remoteName);
  file.Close();
  return result;
}

int FtpClient::FtpClose() {
  // "Quit" in mixed case, as this client has always sent it.
  if (Socket() != -1) SendCommand("Quit");
  CloseConnection();
  dataConnection_.CloseConnection();
  connected_ = false;
  return OnError(kNetOk);
}

}  // namespace corvane
