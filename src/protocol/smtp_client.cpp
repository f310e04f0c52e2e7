#include "protocol/smtp_client.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/ascii_text.h"
#include "base/decimal_text.h"
#include "base/limits.h"
#include "protocol/command_text.h"
#include "protocol/net_codes.h"
#include "protocol/reply_field.h"
#include "protocol/sasl_encoding.h"

namespace corvane {
namespace {

bool IsSuccess(int code) {
  return code >= 200 && code <= 299;
}

int CodeOf(std::string_view line) {
  return ReadDecimal(ReplyField(line, " \r\n", 0));
}

// The bare address of a mailbox text, at most `room` bytes: from the first
// "<" outside double quotes to the next ">", else up to the first blank
// (blanks after a list's comma are not part of it). None for a text shorter
// than three bytes.
std::optional<std::string> BareAddress(std::string_view text, size_t room) {
  if (text.size() < 3) return std::nullopt;
  bool quoted = false;
  size_t open = std::string_view::npos;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"') quoted = !quoted;
    if (text[i] == '<' && !quoted) {
      open = i;
      break;
    }
  }
  std::string_view address;
  if (open != std::string_view::npos) {
    address = text.substr(open + 1);
    address = address.substr(0, address.find('>'));
  } else {
    size_t start = text.find_first_not_of(' ');
    address = start == std::string_view::npos ? std::string_view() : text.substr(start);
    address = address.substr(0, address.find(' '));
  }
  return std::string(address.substr(0, room));
}

}  // namespace

SmtpClient::SmtpClient() : CommandClient(25, 10) {}

SmtpClient::~SmtpClient() {
  Forget(password_);
  Forget(userName_);
}

void SmtpClient::SetUserName(const char* user) {
  if (user == nullptr || *user == '\0') return;
  Forget(userName_);
  userName_ = user;
}

void SmtpClient::SetPassword(const char* password) {
  if (password == nullptr || *password == '\0') return;
  Forget(password_);
  password_ = password;
}

int SmtpClient::GetResponseCode(int timeoutSeconds) {
  if (ReadReplyLine(kLineRoom, timeoutSeconds) < 3) return 0;
  // "NNN-" goes on, any other line of three bytes or more ends the reply.
  if (LastReplyLine()[3] == '-' && ReadReplyRest(
                                       [](std::string_view line) {
                                         if (line.size() < 3) return LineRole::kBroken;
                                         return line[3] == '-' ? LineRole::kMore : LineRole::kLast;
                                       },
                                       kLineRoom, timeoutSeconds) != ReplyEnd::kComplete) {
    return 0;
  }
  return ReadDecimal(ReplyField(LastReplyLine(), " ", 0));
}

int SmtpClient::SMTPConnect(const char* host, const char* localName) {
  authMethods_.clear();
  startTlsOffered_ = false;
  if (host == nullptr || localName == nullptr) return OnError(kNetInvalidParameter);
  // Implicit TLS shakes hands as soon as the connection is up. A failed
  // handshake fails the send: there is no second try in the clear.
  SetSecurityEnabled(tls_ == SmtpTls::kImplicit);
  int result = ConnectToServer(host);
  if (IsAborted()) result = kNetAborted;
  if (result == kNetOk && !IsSuccess(GetResponseCode(GetReplyTimeOut()))) {
    result = kNetConnectTimeout;
  }
  if (result == kNetOk) result = Greet(host, localName);
  if (result == kNetOk && useAuthentication_ && !authMethods_.empty()) {
    result = Authenticate();
  }
  return OnError(result);
}

int SmtpClient::Greet(const char* host, const char* localName) {
  if (!SendCommand(std::string("EHLO ") + localName) || ReadReplyLine(kLineRoom) < 3) {
    return kNetHelloFailed;
  }
  const bool success = IsSuccess(CodeOf(LastReplyLine()));
  if (LastReplyLine()[3] == '-') {
    if (!success) return kNetHelloFailed;
    int result = ParseExtensions();
    if (result != kNetOk) return result;
  } else if (!success) {
    // A server without EHLO offers no STARTTLS: only a session that must be
    // secured ends here.
    if (tls_ == SmtpTls::kRequired) return kNetSmtpNoStartTls;
    return SendCommand(std::string("HELO ") + localName) &&
                   IsSuccess(GetResponseCode(GetReplyTimeOut()))
               ? kNetOk
               : kNetHelloFailed;
  }
  if (tls_ == SmtpTls::kOff || tls_ == SmtpTls::kImplicit) return kNetOk;
  if (startTlsOffered_) return StartTls(host, localName);
  return tls_ == SmtpTls::kRequired ? kNetSmtpNoStartTls : kNetOk;
}

int SmtpClient::StartTls(const char* host, const char* localName) {
  // A refused upgrade, like a failed handshake, fails the send: nothing
  // (least of all a password) goes on in the clear once TLS was offered.
  if (!SendCommand("STARTTLS") || !IsSuccess(GetResponseCode(GetReplyTimeOut()))) {
    return kNetHelloFailed;
  }
  SetSecurityEnabled(true);
  int result = CSecureSocketClient::SocketOnConnected(Socket(), host);
  if (result != kNetOk) return result;
  // What the server said in the clear may have been forged on the way: its
  // extensions are asked for again inside TLS, and only those count.
  authMethods_.clear();
  startTlsOffered_ = false;
  if (!SendCommand(std::string("EHLO ") + localName) || ReadReplyLine(kLineRoom) < 3 ||
      !IsSuccess(CodeOf(LastReplyLine()))) {
    return kNetHelloFailed;
  }
  return ParseExtensions();
}

int SmtpClient::ParseExtensions() {
  for (int lines = 1;; ++lines) {
    if (ReplyField(LastReplyLine(), "- ", 0) != "250") return kNetHelloFailed;
    std::string name = ReplyField(LastReplyLine(), "- \r\n", 1);
    if (name == "STARTTLS") {
      startTlsOffered_ = true;
    } else if (name == "AUTH") {
      for (int i = 1;; ++i) {
        std::string method = ReplyField(LastReplyLine(), " \r\n", i);
        if (method.empty()) break;
        authMethods_.push_back(std::move(method));
      }
    }
    // The reply ends where the socket runs dry, not at its "250 " line.
    if (!IsDataWaiting()) return kNetOk;
    if (lines >= limits::kMaxReplyLines) return kNetHelloFailed;  // an endless list
    if (ReadReplyLine(kLineRoom) < 1) return kNetHelloFailed;
  }
}

int SmtpClient::Authenticate() {
  bool cramMd5 = false, login = false;
  for (const std::string& method : authMethods_) {
    if (SameText(method, "CRAM-MD5")) {
      cramMd5 = true;
      break;
    }
    if (SameText(method, "LOGIN")) login = true;
  }
  if (cramMd5) return AuthCramMD5();
  if (login) return AuthLogin();
  return kNetFailed;
}

int SmtpClient::AuthCramMD5() {
  if (userName_.empty()) return OnError(kNetInvalidUser);
  if (password_.empty()) return OnError(kNetInvalidPassword);
  if (!SendCommand("AUTH CRAM-MD5") || ReadReplyLine(kAuthLineRoom) < 3) {
    return OnError(kNetInvalidResponse);
  }
  int code = CodeOf(LastReplyLine());
  if (code == 504) return OnError(kNetNotSupported);
  if (code != 334) return OnError(kNetLoginFailed);
  std::string challenge = ReplyField(LastReplyLine(), " \r\n", 1).substr(0, kAuthLineRoom - 1);
  std::optional<std::string> answer = CramMd5Answer(userName_, password_, challenge);
  if (!answer) return OnError(kNetFailed);
  bool sent = SendCommand(*answer);
  Forget(*answer);
  return OnError(sent && GetResponseCode(GetReplyTimeOut()) == 235 ? kNetOk : kNetLoginFailed);
}

int SmtpClient::AuthLogin() {
  if (userName_.empty()) return OnError(kNetInvalidUser);
  if (password_.empty()) return OnError(kNetInvalidPassword);
  int code = SendCommand("AUTH LOGIN") ? GetResponseCode(GetReplyTimeOut()) : 0;
  if (code == 504) return OnError(kNetNotSupported);
  if (code != 334) return OnError(kNetLoginFailed);
  if (!SendCommand(Base64Encode(userName_)) || GetResponseCode(GetReplyTimeOut()) != 334) {
    return OnError(kNetInvalidUser);
  }
  std::string password = Base64Encode(password_);
  bool sent = SendCommand(password);
  Forget(password);
  return OnError(sent && GetResponseCode(GetReplyTimeOut()) == 235 ? kNetOk : kNetInvalidPassword);
}

int SmtpClient::SMTPClose() {
  if (Socket() != -1) SendCommand("QUIT");
  return OnError(CloseConnection());
}

bool SmtpClient::SendStatus(long, long) {
  return !IsAborted();
}

int SmtpClient::StartData(std::string_view from, std::string_view recipient) {
  if (!IsConnected()) return OnError(kNetNoConnection);
  std::optional<std::string> sender = BareAddress(from, kLineRoom - 1);
  std::optional<std::string> to = BareAddress(recipient, kLineRoom - 1);
  if (!sender || !to) return OnError(kNetBadAddress);
  if (!SendCommand("MAIL FROM:<" + *sender + ">") ||
      !IsSuccess(GetResponseCode(GetReplyTimeOut()))) {
    return OnError(kNetNoServerResponse);
  }
  if (!SendCommand("RCPT TO:<" + *to + ">") || !IsSuccess(GetResponseCode(GetReplyTimeOut()))) {
    return OnError(kNetRcptFailed);
  }
  if (!SendCommand("DATA") || GetResponseCode(GetReplyTimeOut()) != 354) {
    return OnError(kNetDataFailed);
  }
  return OnError(kNetOk);
}

int SmtpClient::EndData() {
  constexpr std::string_view kEnd = "\r\n.\r\n";
  Send(kEnd.data(), static_cast<int>(kEnd.size()));
  return OnError(IsSuccess(GetResponseCode(GetReplyTimeOut())) ? kNetOk : kNetNoServerResponse);
}

int SmtpClient::GetAddress(const char* text, char* buffer, int size) {
  if (text == nullptr || buffer == nullptr || size < 1) return 1;
  std::optional<std::string> address = BareAddress(text, static_cast<size_t>(size - 1));
  if (!address) return 1;
  std::memcpy(buffer, address->data(), address->size());
  buffer[address->size()] = '\0';
  return 0;
}

}  // namespace corvane
