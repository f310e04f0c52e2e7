#include "protocol/ftp_client.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

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

FtpClient::FtpClient() : dataPort_(static_cast<int>(MonotonicMs() % 20000) + kFirstDataPort) {}

FtpClient::~FtpClient() = default;

std::optional<std::string> FtpClient::CommandLine(const char* format, const char* argument) {
  if (argument != nullptr && !IsSafeCommandArgument(argument)) return std::nullopt;
  char command[kMaxLine] = {};
  int length = std::snprintf(command, sizeof command, format, argument ? argument : "");
  if (length < 0 || length >= static_cast<int>(sizeof command)) return std::nullopt;
  return std::string(command, static_cast<size_t>(length));
}

int FtpClient::SendLine(const std::string& line) {
  return Send(line.data(), static_cast<int>(line.size()));
}

int FtpClient::GetReplyCode() {
  char line[kMaxLine + 1];
  auto readLine = [&]() -> bool {
    int timeout = std::max(GetReceiveTimeOut() / 1000, 1);
    if (ReceiveLine(line, sizeof line, timeout) < 1) return false;
    line[std::strcspn(line, "\r\n")] = '\0';
    lastResponse_ = line;
    return true;
  };
  if (!readLine()) return 0;
  int code = ReadDecimal(std::string_view(line, std::min<size_t>(3, std::strlen(line))));
  if (line[0] != '\0' && line[1] != '\0' && line[2] != '\0' && line[3] == '-') {
    // A multi-line reply ends at a line with the same three digits and a blank.
    const std::string end = std::string(line, 3) + " ";
    for (int lines = 1;; ++lines) {
      // A server that never ends its reply gets no more of our memory or time.
      if (lines > limits::kMaxReplyLines) return 0;
      if (!readLine()) break;
      if (replyLines_.size() < static_cast<size_t>(limits::kMaxReplyLines)) {
        replyLines_.push_back(lastResponse_);
      }
      if (lastResponse_.compare(0, 4, end) == 0) break;
    }
  }
  return code;
}

int FtpClient::FtpConnect(const char* host, const char* user, const char* password,
                          const char* account) {
  FtpClose();
  replyLines_.clear();
  std::optional<std::string> userLine = CommandLine("USER %s\r\n", user);
  std::optional<std::string> passLine = CommandLine("PASS %s\r\n", password);
  std::optional<std::string> acctLine = CommandLine("ACCT %s\r\n", account);
  if (!userLine || !passLine || !acctLine) return OnError(kNetInvalidParameter);
  int result = Connect(serverPort_, host, connectTimeOut_);
  if (result != kNetOk) return OnError(result);
  connected_ = true;

  // The greeting is read before USER, as every server expects (taken as
  // USER's reply, it put every later reply one command late). A "120" asks
  // to wait for the "220" that follows.
  int code = GetReplyCode();
  if (code == 120) code = GetReplyCode();
  if (code == 0) return OnError(kNetNoResponse);
  if (!Between(code, 200, 299)) return OnError(kNetConnectFailed);
  SendLine(*userLine);
  code = GetReplyCode();
  if (code == 0) return OnError(kNetNoResponse);
  if (!Between(code, 200, 399)) return OnError(kNetUserRejected);
  if (Between(code, 300, 399)) {
    SendLine(*passLine);
    code = GetReplyCode();
    if (code == 0) return OnError(kNetNoResponse);
    if (!Between(code, 200, 399)) return OnError(kNetPassRejected);
    if (Between(code, 300, 399)) {
      SendLine(*acctLine);
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

int FtpClient::SimpleCommand(const char* format, const char* argument) {
  std::optional<std::string> line = CommandLine(format, argument);
  if (!line) return OnError(kNetInvalidParameter);
  SendLine(*line);
  int code = GetReplyCode();
  if (code == 0) return OnError(kNetNoResponse);
  return OnError(Between(code, 200, 299) ? kNetOk : kNetRequestDenied);
}

int FtpClient::ChangeDir(const char* path) {
  return SimpleCommand("CWD %s\r\n", path);
}

int FtpClient::MakeDir(const char* path) {
  return SimpleCommand("MKD %s\r\n", path);
}

int FtpClient::SetTransferType(int kind) {
  return SimpleCommand(kind == 1 ? "TYPE I\r\n" : "TYPE A\r\n", nullptr);
}

int FtpClient::SetTransferMode(int kind) {
  static constexpr const char* kModes[] = {"MODE S\r\n", "MODE B\r\n", "MODE C\r\n"};
  return SimpleCommand(kModes[kind >= 0 && kind <= 2 ? kind : 0], nullptr);
}

int FtpClient::SetTransferStructure(int kind) {
  static constexpr const char* kStructures[] = {"STRU F\r\n", "STRU R\r\n", "STRU P\r\n"};
  return SimpleCommand(kStructures[kind >= 0 && kind <= 2 ? kind : 0], nullptr);
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
  std::snprintf(command, sizeof command, "PORT %s,%d,%d\r\n", address.c_str(), dataPort_ / 256,
                dataPort_ % 256);
  Send(command, static_cast<int>(std::strlen(command)));
  if (++dataPort_ > kLastDataPort || dataPort_ < 0) dataPort_ = kFirstDataPort;
  return Between(GetReplyCode(), 200, 299) ? kNetOk : kNetPortFailed;
}

int FtpClient::ConnectPassiveDataPort() {
  std::optional<unsigned> port;
  for (const char* command : {"EPSV\r\n", "PASV\r\n"}) {
    SendLine(command);
    const int code = GetReplyCode();
    if (code == 0) return kNetNoResponse;
    port = PassiveDataPort(code, lastResponse_);
    if (port) break;
  }
  if (!port) return kNetDataPortUnavailable;
  return dataConnection_.Connect(*port, GetRemoteAddress(), connectTimeOut_);
}

int FtpClient::StoreFromDataSource(DataSource& source, const char* remoteName) {
  std::optional<std::string> storLine = CommandLine("STOR %s\r\n", remoteName);
  if (remoteName == nullptr || !storLine) return OnError(kNetInvalidParameter);
  int result = passive_ ? ConnectPassiveDataPort() : OfferActiveDataPort();
  if (result != kNetOk) {
    dataConnection_.CloseConnection();
    return OnError(result);
  }
  if (IsAborted()) {
    dataConnection_.CloseConnection();
    return OnError(kNetAborted);
  }
  SendLine(*storLine);
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
  if (Socket() != -1) Send("Quit\r\n", 6);
  CloseConnection();
  dataConnection_.CloseConnection();
  connected_ = false;
  return OnError(kNetOk);
}

}  // namespace corvane
