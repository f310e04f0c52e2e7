#include "protocol/command_client.h"

#include <openssl/crypto.h>

#include "base/limits.h"
#include "protocol/command_text.h"

namespace corvane {
namespace {

bool EndsInLineFeed(std::string_view line) {
  return !line.empty() && line.back() == '\n';
}

}  // namespace

CommandClient::CommandClient(unsigned port, int replyTimeOutSeconds)
    : port_(port), replyTimeOut_(replyTimeOutSeconds) {}

int CommandClient::SetPort(unsigned port) {
  port_ = port;
  return 0;
}

int CommandClient::SetReplyTimeOut(int seconds) {
  if (seconds <= 0) return 1;
  replyTimeOut_ = seconds;
  return 0;
}

int CommandClient::ConnectToServer(const char* host) {
  return Connect(port_, host, connectTimeOut_, 2, 1);
}

bool CommandClient::SendCommand(std::string_view command) {
  return SendCommands({std::string(command)});
}

bool CommandClient::SendCommands(const std::vector<std::string>& commands) {
  std::string lines;
  for (const std::string& command : commands) {
    if (!IsSafeCommandArgument(command)) return false;
    lines += command + "\r\n";
  }
  const bool sent =
      Send(lines.data(), static_cast<int>(lines.size())) == static_cast<int>(lines.size());
  Forget(lines);
  return sent;
}

void CommandClient::Forget(std::string& secret) {
  if (!secret.empty()) OPENSSL_cleanse(secret.data(), secret.size());
  secret.clear();
}

int CommandClient::ReadReplyLine(int room, int timeoutSeconds) {
  std::string buffer(static_cast<size_t>(std::max(room, 2)), '\0');
  int length = ReceiveLine(buffer.data(), room, timeoutSeconds);
  line_.assign(buffer.data(), static_cast<size_t>(std::max(length, 0)));
  return std::max(length, 0);
}

CommandClient::ReplyEnd CommandClient::ReadReplyRest(
    const std::function<LineRole(std::string_view)>& role, int room, int timeoutSeconds,
    const std::function<void(std::string_view)>& each) {
  // A server that never ends its reply gets no more of our time or memory.
  for (int lines = 1; lines < limits::kMaxReplyLines; ++lines) {
    if (ReadReplyLine(room, timeoutSeconds) < 1) return ReplyEnd::kMissing;
    const LineRole kind = role(line_);
    if (kind == LineRole::kBroken) return ReplyEnd::kMissing;
    if (each) each(line_);
    if (kind == LineRole::kLast) return ReplyEnd::kComplete;
  }
  return ReplyEnd::kEndless;
}

bool CommandClient::SkipRestOfLine(int timeoutSeconds) {
  if (EndsInLineFeed(line_)) return true;
  char rest[1024];
  for (size_t skipped = line_.size(); skipped <= limits::kMaxReplyLineBytes;) {
    if (IsAborted()) return false;
    int more = ReceiveLine(rest, sizeof rest, timeoutSeconds);
    if (more < 1) return false;
    if (rest[more - 1] == '\n') return true;
    skipped += static_cast<size_t>(more);
  }
  return false;
}

}  // namespace corvane
