#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/net_client.h"

namespace corvane {

// The command/reply layer the POP3, SMTP and FTP clients are written on: the
// server's port and the connect time-out, command lines out, reply lines in
// within a time-out and a room, the last of them kept, and replies of
// several lines read to the end their protocol's rule gives, but never past
// limits::kMaxReplyLines lines. Each protocol's file holds only its commands
// and its reply rules.
class CommandClient : public CNetClient {
 public:
  // Always 0.
  int SetPort(unsigned port);
  unsigned GetPort() const { return port_; }
  // Seconds a reply line may take, when above 0 (returns 0); else 1.
  int SetReplyTimeOut(int seconds);
  int GetReplyTimeOut() const { return replyTimeOut_; }
  // The last reply line read, its line end kept; empty before any.
  const std::string& LastReplyLine() const { return line_; }

 protected:
  // How a reply of several lines goes on after one of its lines.
  enum class LineRole { kMore, kLast, kBroken };
  // How reading the rest of a reply ended.
  enum class ReplyEnd { kComplete, kMissing, kEndless };

  CommandClient(unsigned port, int replyTimeOutSeconds);

  // Connects to `host` on the port, within the connect time-out (seconds).
  int ConnectToServer(const char* host);
  int GetConnectTimeOut() const { return connectTimeOut_; }
  // Sends `command` and CRLF in one write; false when it was not sent whole,
  // or not at all because it holds CR, LF or NUL: it would not stay one line,
  // and what follows would reach the server as a command of its own. The
  // line is wiped once sent (it may carry a password).
  bool SendCommand(std::string_view command);
  // The same for several commands at once, in one write (pipelining); false
  // when any of them may not be sent, and then none is.
  bool SendCommands(const std::vector<std::string>& commands);
  // Reads one reply line of at most `room` - 1 bytes (a longer one comes in
  // pieces) as the last line: its length, 0 when nothing came within
  // `timeoutSeconds` (0 or less: the socket's own time-out).
  int ReadReplyLine(int room, int timeoutSeconds);
  // The same within the reply time-out.
  int ReadReplyLine(int room) { return ReadReplyLine(room, replyTimeOut_); }
  // Reads the lines after a reply's first (the last line read) until `role`
  // calls one the last, that one included; each is handed to `each` when
  // given. kMissing when a line did not come or `role` calls it broken;
  // kEndless, no reply, when the reply goes past limits::kMaxReplyLines.
  ReplyEnd ReadReplyRest(const std::function<LineRole(std::string_view)>& role, int room,
                         int timeoutSeconds,
                         const std::function<void(std::string_view)>& each = nullptr);
  // Overwrites `secret` (a password, a line that carried one) and empties it.
  static void Forget(std::string& secret);
  // Reads and drops the rest of a last line cut at its room; false when it
  // did not come, or goes on past limits::kMaxReplyLineBytes.
  bool SkipRestOfLine(int timeoutSeconds);

 private:
  unsigned port_;
  int connectTimeOut_ = 5;
  int replyTimeOut_;
  std::string line_;
};

}  // namespace corvane
