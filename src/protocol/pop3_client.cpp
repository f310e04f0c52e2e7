#include "protocol/pop3_client.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/ascii_text.h"
#include "base/decimal_text.h"
#include "base/limits.h"
#include "protocol/command_text.h"
#include "protocol/net_codes.h"
#include "protocol/reply_field.h"
#include "stream/file_data_source.h"

namespace corvane {
namespace {

constexpr int kNoConnection = kNetNoConnection;
constexpr int kNoResponse = kNetNoServerResponse;
constexpr int kAborted = kNetAborted;
// "A file write error occurred.": the message did not reach its destination whole.
constexpr int kFileWriteError = 30;

// The listing's end: a line that begins with "." and is at most ".\r\n".
// The terminating line of a multi-line reply: "." and its line end.
bool EndsListing(const char* line, int length) {
  return line[0] == '.' && length <= 3 && line[length - 1] == '\n';
}

bool EndsInLineFeed(const char* piece, int length) {
  return length > 0 && piece[length - 1] == '\n';
}

}  // namespace

Pop3Client::Pop3Client() : CommandClient(110, 10) {}

Pop3Client::~Pop3Client() = default;

bool Pop3Client::ReadReply(int room) {
  // The rest of an overlong status line is not the listing's first line.
  if (ReadReplyLine(room) < 1 || !SkipRestOfLine(GetReplyTimeOut())) return false;
  lineStart_ = true;
  return true;
}

int Pop3Client::ReadListingPiece(char* buffer, int max, int timeoutSeconds, bool& ended,
                                 bool unstuff) {
  ended = false;
  const bool starts = lineStart_;
  int length = ReceiveLine(buffer, max, timeoutSeconds);
  if (length < 1) return length;
  lineStart_ = EndsInLineFeed(buffer, length);
  // Only the start of a line may end the reply or carry a stuffed dot: a
  // piece after one without its LF is the middle of a long line.
  if (!starts || buffer[0] != '.') return length;
  if (EndsListing(buffer, length)) {
    ended = true;
    return 0;
  }
  if (!unstuff) return length;
  std::memmove(buffer, buffer + 1, static_cast<size_t>(length));  // the terminator too
  return length - 1;
}

int Pop3Client::SocketOnConnected(int socket, const char* host) {
  greetingRead_ = false;
  if (!GetSecurityEnabled()) return 0;
  if (GetPort() == 995) return CSecureSocketClient::SocketOnConnected(socket, host);
  // STLS: greeting and upgrade in the clear, then the handshake.
  SetSecurityEnabled(false);
  bool greeted = ReadReply() && ReplyPositive();
  bool upgraded = greeted && SendCommand("STLS") && ReadReply() && ReplyPositive();
  SetSecurityEnabled(true);
  if (!greeted) return kNetConnectFailed;
  if (!upgraded) return kNetPop3NoTls;
  greetingRead_ = true;
  return CSecureSocketClient::SocketOnConnected(socket, host);
}

int Pop3Client::POP3Connect(const char* host, const char* user, const char* password) {
  POP3Close();
  DropAhead();
  statCount_ = -1;
  if (!IsSafeCommandArgument(user) || !IsSafeCommandArgument(password)) {
    return OnError(kNetInvalidParameter);
  }
  int result = ConnectToServer(host);
  if (result != 0) return OnError(result);
  // After STLS the greeting has been read already.
  if (!greetingRead_ && (!ReadReply() || !ReplyPositive())) return OnError(kNetConnectTimeout);
  SendCommand(std::string("USER ") + user);
  if (!ReadReply() || !ReplyPositive()) return OnError(kNetUserFailed);
  if (IsAborted()) return OnError(kAborted);
  SendCommand(std::string("PASS ") + password);
  return OnError(ReadReply() && ReplyPositive() ? 0 : kNetPassFailed);
}

int Pop3Client::POP3Close() {
  DropAhead();
  if (IsConnected()) {
    SendCommand("QUIT");
    // No answer to QUIT: the socket is left as it is.
    if (!ReadReply()) return OnError(kNoResponse);
  }
  return OnError(CloseConnection());
}

int Pop3Client::Command(const char* text, int negativeCode) {
  if (!IsConnected()) return kNoConnection;
  if (ahead_.empty()) {
    SendCommand(text);
  } else if (!TakeAhead(text)) {
    return kNoConnection;
  }
  if (!ReadReply()) return kNoResponse;
  return ReplyPositive() ? kNetOk : negativeCode;
}

int Pop3Client::GetNumMsgs(int* count) {
  int result = Command("STAT", kNetStatFailed);
  if (result == 0) {
    std::string field = ReplyField(LastReplyLine(), " ", 1);
    if (field.empty()) {
      result = kNetInvalidResponse;
    } else {
      statCount_ = std::clamp(ReadDecimal(field), 0, limits::kMaxMessages);
      if (count != nullptr) *count = statCount_;
    }
  }
  return OnError(result);
}

int Pop3Client::GetMsgSize(int number, long* size) {
  char command[32];
  std::snprintf(command, sizeof command, "LIST %d", number);
  int result = Command(command, kNetListFailed);
  if (result == 0) {
    std::string field = ReplyField(LastReplyLine(), " ()", 2);
    if (field.empty()) {
      result = kNetInvalidResponse;
    } else if (size != nullptr) {
      *size = ReadDecimal(field);
    }
  }
  return OnError(result);
}

int Pop3Client::RetrieveToDataSource(int number, DataSource& dest) {
  if (!IsConnected()) return OnError(kNoConnection);
  if (dest.Open(DataSource::kOpenWrite) != 0) return OnError(kNetFileOpenFailed);
  char command[32];
  std::snprintf(command, sizeof command, "RETR %d", number);
  SendCommand(command);
  if (!ReadReply(kResponseSize)) {
    dest.Close();
    return OnError(kNoResponse);
  }
  if (!ReplyPositive()) {
    dest.Close();
    return OnError(kNetRetrFailed);
  }
  char line[kResponseSize];
  long total = 0;
  bool writeFailed = false;
  int result = kAborted;
  while (!IsAborted()) {
    bool ended = false;
    int length = ReadListingPiece(line, sizeof line, GetReplyTimeOut(), ended);
    if (ended) {
      result = kNetOk;
      break;
    }
    if (length < 1) {
      result = kNetTimeout;
      break;
    }
    total += length;
    if (maxRetrieveBytes_ > 0 && total > maxRetrieveBytes_) {
      result = kNetBodyTooLong;
      break;
    }
    if (!RetrieveStatus(total)) break;
    if (dest.Write(line, length) != length) writeFailed = true;
  }
  dest.Close();
  // A message that did not reach the destination whole is no message.
  if (result == 0 && writeFailed) result = kFileWriteError;
  return OnError(result);
}

int Pop3Client::RetrieveToFile(int number, const char* fileName) {
  FileDataSource file(fileName, 4096);
  return RetrieveToDataSource(number, file);
}

int Pop3Client::OpenMsg(int number) {
  char command[32];
  std::snprintf(command, sizeof command, "RETR %d", number);
  int result = Command(command, kNetRetrFailed);
  if (result == 0) {
    messageOpen_ = true;
    messageDone_ = false;
  }
  return OnError(result);
}

int Pop3Client::ReadOpenLine(bool open, bool& done, char* buffer, int max) {
  if (!open) return -1;
  if (done) return 0;
  int length = ReadListingPiece(buffer, max, 0, done, false);
  if (done) return 0;
  return length < 1 ? -1 : length;
}

int Pop3Client::CloseOpen(bool& open, bool& done) {
  if (!open) return 0;
  if (!IsConnected()) return OnError(kNoConnection);
  int result = kNetOk;
  char line[kResponseSize];
  while (!done) {
    if (IsAborted()) {
      result = kAborted;
      break;
    }
    int length = ReadListingPiece(line, sizeof line, GetReplyTimeOut(), done);
    if (length < 1) break;
  }
  open = done = false;
  return OnError(result);
}

int Pop3Client::ReadMsgLine(char* buffer, int max) {
  return ReadOpenLine(messageOpen_, messageDone_, buffer, max);
}

int Pop3Client::CloseMsg() {
  return CloseOpen(messageOpen_, messageDone_);
}

int Pop3Client::OpenTop(int number, int lines) {
  char command[48];
  std::snprintf(command, sizeof command, "TOP %d %d", number, lines);
  int result = Command(command, kNetTopFailed);
  if (result == 0) {
    topOpen_ = true;
    topDone_ = false;
  }
  return OnError(result);
}

int Pop3Client::ReadTopLine(char* buffer, int max) {
  return ReadOpenLine(topOpen_, topDone_, buffer, max);
}

int Pop3Client::CloseTop() {
  return CloseOpen(topOpen_, topDone_);
}

int Pop3Client::GetUIDL(int number) {
  uids_.clear();
  uidIndex_.clear();
  char command[32];
  if (number < 1) {
    std::snprintf(command, sizeof command, "UIDL");
  } else {
    std::snprintf(command, sizeof command, "UIDL %d", number);
  }
  int result = Command(command, kNetUidlFailed);
  if (result != 0) return OnError(result);

  constexpr const char* kSeparators = " \r\n";
  if (number >= 1) {
    std::string uid = ReplyField(LastReplyLine(), kSeparators, 2);
    if (uid.empty()) return OnError(kNetInvalidResponse);
    uid.resize(std::min<size_t>(uid.size(), kMaxUidLength));
    AddUid(number, std::move(uid));
    return OnError(kNetOk);
  }
  char line[kResponseSize];
  for (;;) {
    if (IsAborted()) return OnError(kAborted);
    const bool starts = lineStart_;
    bool ended = false;
    int length = ReadListingPiece(line, sizeof line, GetReplyTimeOut(), ended);
    if (ended) return OnError(kNetOk);
    if (length < 1) return OnError(kNetTimeout);
    if (!starts) continue;  // the rest of an overlong line
    std::string messageNumber = ReplyField(line, kSeparators, 0);
    std::string uid = ReplyField(line, kSeparators, 1);
    if (messageNumber.empty() || uid.empty()) return OnError(kNetInvalidResponse);
    uid.resize(std::min<size_t>(uid.size(), kMaxUidLength));
    // No more ids than the mailbox has messages: the rest is read, not kept.
    if (static_cast<int>(uids_.size()) < (statCount_ >= 0 ? statCount_ : limits::kMaxMessages)) {
      AddUid(ReadDecimal(messageNumber), std::move(uid));
    }
  }
}

bool Pop3Client::AskPipelining() {
  if (Command("CAPA", kNetInvalidResponse) != 0) return false;
  bool pipelining = false;
  char line[kResponseSize];
  for (int pieces = 0; pieces < limits::kMaxReplyLines; ++pieces) {
    const bool starts = lineStart_;
    bool ended = false;
    int length = ReadListingPiece(line, sizeof line, GetReplyTimeOut(), ended);
    if (ended) return pipelining;
    if (length < 1) break;
    std::string_view name(line, static_cast<size_t>(length));
    name = name.substr(0, name.find_first_of(" \r\n"));
    pipelining = pipelining || (starts && SameText(name, "PIPELINING"));
  }
  CloseConnection();
  return false;
}

void Pop3Client::SendTopsAhead(const std::vector<int>& numbers, int lines) {
  for (int number : numbers) {
    queued_.push_back("TOP " + std::to_string(number) + " " + std::to_string(lines));
  }
  TakeAhead({});
}

bool Pop3Client::TakeAhead(const std::string& text) {
  if (!text.empty()) {
    if (ahead_.empty() || ahead_.front() != text) {
      DropAhead();
      CloseConnection();
      return false;
    }
    ahead_.pop_front();
  }
  // Topped up in halves, so that a window's worth goes out in few writes.
  if (ahead_.size() > kPipelineWindow / 2 || queued_.empty()) return true;
  std::vector<std::string> batch;
  while (!queued_.empty() && ahead_.size() < kPipelineWindow) {
    batch.push_back(queued_.front());
    ahead_.push_back(std::move(queued_.front()));
    queued_.pop_front();
  }
  SendCommands(batch);
  return true;
}

void Pop3Client::DropAhead() {
  ahead_.clear();
  queued_.clear();
}

void Pop3Client::AddUid(int number, std::string uid) {
  uidIndex_.emplace(number, uids_.size());  // the first entry of a number counts
  uids_.push_back({number, std::move(uid)});
}

const char* Pop3Client::GetUID(int number) const {
  auto found = uidIndex_.find(number);
  return found == uidIndex_.end() ? nullptr : uids_[found->second].uid.c_str();
}

int Pop3Client::DeleteMsg(int number) {
  char command[32];
  std::snprintf(command, sizeof command, "DELE %d", number);
  return OnError(Command(command, kNetDeleFailed));
}

int Pop3Client::ResetDelete() {
  return OnError(Command("RSET", kNetRsetFailed));
}

bool Pop3Client::RetrieveStatus(long) {
  return true;
}

}  // namespace corvane
