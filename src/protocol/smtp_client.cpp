#include "protocol/smtp_client.h"

#include <openssl/crypto.h>
#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "mime/mime_composer.h"
#include "protocol/command_text.h"
#include "protocol/mapped_file_data_source.h"
#include "protocol/net_codes.h"
#include "protocol/reply_field.h"
#include "protocol/sasl_encoding.h"
#include "service/decimal_text.h"
#include "service/limits.h"

namespace corvane {
namespace {

constexpr size_t kFoldLength = 250;
constexpr int kBodyLineRoom = 1001;  // lines of at most 1000 bytes
constexpr int kFullLineLimit = 999;
// Body bytes gathered before one send, so that a message of short lines
// does not cost a system call per line.
constexpr size_t kSendBatch = 64 * 1024;

bool IsSuccess(int code) {
  return code >= 200 && code <= 299;
}

bool EndsWithCrLf(std::string_view text) {
  return text.ends_with("\r\n");
}

int CodeOf(const char* line) {
  return ReadDecimal(ReplyField(line, " \r\n", 0));
}

// The header fields a transaction writes itself, and Bcc, which no copy
// may show.
bool WrittenPerTransaction(std::string_view field) {
  std::string_view name = field.substr(0, field.find(':'));
  for (const char* own : {"From", "To", "Cc", "Bcc", "Subject", "Date"}) {
    if (name.size() == std::strlen(own) && strncasecmp(name.data(), own, name.size()) == 0) {
      return true;
    }
  }
  return false;
}

// One whole line of `source` (any length) with its line end; false at the end.
bool ReadWholeLine(DataSource& source, std::string& line) {
  line.clear();
  char piece[4096];
  int n;
  while ((n = source.ReadLine(piece, sizeof piece)) > 0) {
    line.append(piece, static_cast<size_t>(n));
    if (piece[n - 1] == '\n') break;
  }
  return !line.empty();
}

// Splits a composed message into its header fields (each with its folds and
// final line end) and a source holding the rest, the body.
bool SplitComposed(DataSource& composed, std::vector<std::string>& fields, DataSource& body) {
  if (composed.Open(DataSource::kOpenRead) != 0) return false;
  std::string line;
  while (ReadWholeLine(composed, line) && line != "\r\n") {
    if ((line[0] == ' ' || line[0] == '\t') && !fields.empty()) {
      fields.back() += line;
    } else {
      fields.push_back(line);
    }
  }
  bool copied = body.Open(DataSource::kOpenWrite) == 0;
  std::vector<char> block(kSendBatch + 1);
  int n;
  while (copied && (n = composed.Read(block.data(), static_cast<int>(kSendBatch))) > 0) {
    copied = body.Write(block.data(), n) == n;
  }
  composed.Close();
  return body.Close() == 0 && copied;
}

// The addresses of every `id` field of `message`, split at line ends, tabs
// and commas.
std::vector<std::string> AddressesOf(const MailMessage& message, int32_t id) {
  std::vector<std::string> addresses;
  for (int i = 0; const std::string* value = message.HeaderValue(id, i); ++i) {
    for (int k = 0;; ++k) {
      std::string address = ReplyField(*value, "\r\n\t,", k);
      if (address.empty()) break;
      addresses.push_back(std::move(address));
    }
  }
  return addresses;
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

// Writes the DATA section in batches, a short send failing the transaction.
// All of it, headers too, goes out with CRLF line ends (a lone CR or LF
// becomes one) and each line that starts with "." gets another: nothing in a
// message can end the data early and have the rest read as commands.
class SmtpClient::DataWriter {
 public:
  explicit DataWriter(CNetClient& client) : client_(client) { batch_.reserve(kSendBatch * 2); }
  bool Add(std::string_view bytes) {
    while (!bytes.empty()) {
      const char c = bytes.front();
      if (c == '\r' || c == '\n') {
        if (c == '\r' || !afterCr_) batch_ += "\r\n";
        afterCr_ = c == '\r';
        atLineStart_ = true;
        bytes.remove_prefix(1);
        continue;
      }
      if (atLineStart_ && c == '.') batch_ += '.';
      // A plain loop: find_first_of calls memchr once for every byte here.
      size_t run = 1;
      while (run < bytes.size() && bytes[run] != '\r' && bytes[run] != '\n') ++run;
      batch_.append(bytes.data(), run);
      bytes.remove_prefix(run);
      atLineStart_ = afterCr_ = false;
    }
    return batch_.size() < kSendBatch || Flush();
  }
  // Ends a line that was cut short; nothing when one has just ended.
  bool EndLine() { return atLineStart_ || Add("\r\n"); }
  bool Flush() {
    bool sent = batch_.empty() || client_.Send(batch_.data(), static_cast<int>(batch_.size())) ==
                                      static_cast<int>(batch_.size());
    batch_.clear();
    return sent;
  }

 private:
  CNetClient& client_;
  std::string batch_;
  bool atLineStart_ = true;
  bool afterCr_ = false;
};

SmtpClient::SmtpClient() = default;

SmtpClient::~SmtpClient() {
  Forget(password_);
  Forget(userName_);
}

void SmtpClient::Forget(std::string& secret) {
  if (!secret.empty()) OPENSSL_cleanse(secret.data(), secret.size());
  secret.clear();
}

int SmtpClient::SetPort(unsigned port) {
  port_ = port;
  return 0;
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

int SmtpClient::ReadLine(int room, int timeoutSeconds) {
  line_[0] = '\0';
  return ReceiveLine(line_, std::min<int>(room, sizeof line_), timeoutSeconds);
}

bool SmtpClient::SendCommand(std::string_view command) {
  // An argument from outside (an address, a name) holding CR, LF or NUL would
  // end the line early, the rest reaching the server as a command of its own:
  // such a command is refused unsent, and fails as a refused command does.
  if (!IsSafeCommandArgument(command)) return false;
  std::string line(command);
  line += "\r\n";
  bool sent = Send(line.data(), static_cast<int>(line.size())) == static_cast<int>(line.size());
  Forget(line);  // it may carry a password
  return sent;
}

int SmtpClient::GetResponseCode(int timeoutSeconds) {
  if (ReadLine(kLineRoom, timeoutSeconds) < 3) return 0;
  for (int lines = 1; line_[3] == '-'; ++lines) {
    // A server that never ends its reply gets no more of our time: no reply.
    if (lines >= limits::kMaxReplyLines || ReadLine(kLineRoom, timeoutSeconds) < 3) return 0;
  }
  return ReadDecimal(ReplyField(line_, " ", 0));
}

int SmtpClient::SMTPConnect(const char* host, const char* localName) {
  authMethods_.Clear();
  startTlsOffered_ = false;
  if (host == nullptr || localName == nullptr) return OnError(kNetInvalidParameter);
  // Implicit TLS shakes hands as soon as the connection is up. A failed
  // handshake fails the send: there is no second try in the clear.
  SetSecurityEnabled(tls_ == SmtpTls::kImplicit);
  int result = Connect(port_, host, connectTimeOut_, 2, 1);
  if (IsAborted()) result = kNetAborted;
  if (result == kNetOk && !IsSuccess(GetResponseCode(responseTimeOut_))) {
    result = kNetConnectTimeout;
  }
  if (result == kNetOk) result = Greet(host, localName);
  if (result == kNetOk && useAuthentication_ && authMethods_.Count() > 0) {
    result = Authenticate();
  }
  return OnError(result);
}

int SmtpClient::Greet(const char* host, const char* localName) {
  if (!SendCommand(std::string("EHLO ") + localName) || ReadLine(kLineRoom, responseTimeOut_) < 3) {
    return kNetHelloFailed;
  }
  const bool success = IsSuccess(CodeOf(line_));
  if (line_[3] == '-') {
    if (!success) return kNetHelloFailed;
    int result = ParseExtensions();
    if (result != kNetOk) return result;
  } else if (!success) {
    // A server without EHLO offers no STARTTLS: only a session that must be
    // secured ends here.
    if (tls_ == SmtpTls::kRequired) return kNetSmtpNoStartTls;
    return SendCommand(std::string("HELO ") + localName) &&
                   IsSuccess(GetResponseCode(responseTimeOut_))
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
  if (!SendCommand("STARTTLS") || !IsSuccess(GetResponseCode(responseTimeOut_))) {
    return kNetHelloFailed;
  }
  SetSecurityEnabled(true);
  int result = CSecureSocketClient::SocketOnConnected(Socket(), host);
  if (result != kNetOk) return result;
  // What the server said in the clear may have been forged on the way: its
  // extensions are asked for again inside TLS, and only those count.
  authMethods_.Clear();
  startTlsOffered_ = false;
  if (!SendCommand(std::string("EHLO ") + localName) || ReadLine(kLineRoom, responseTimeOut_) < 3 ||
      !IsSuccess(CodeOf(line_))) {
    return kNetHelloFailed;
  }
  return ParseExtensions();
}

int SmtpClient::ParseExtensions() {
  for (int lines = 1;; ++lines) {
    if (ReplyField(line_, "- ", 0) != "250") return kNetHelloFailed;
    std::string name = ReplyField(line_, "- \r\n", 1);
    if (name == "STARTTLS") {
      startTlsOffered_ = true;
    } else if (name == "AUTH") {
      for (int i = 1;; ++i) {
        std::string method = ReplyField(line_, " \r\n", i);
        if (method.empty()) break;
        authMethods_.Append(std::move(method));
      }
    }
    // The reply ends where the socket runs dry, not at its "250 " line.
    if (!IsDataWaiting()) return kNetOk;
    if (lines >= limits::kMaxReplyLines) return kNetHelloFailed;  // an endless list
    if (ReadLine(kLineRoom, responseTimeOut_) < 1) return kNetHelloFailed;
  }
}

int SmtpClient::Authenticate() {
  bool cramMd5 = false, login = false;
  for (int i = 0; i < authMethods_.Count(); ++i) {
    const char* method = authMethods_.Get(i)->c_str();
    if (strcasecmp(method, "CRAM-MD5") == 0) {
      cramMd5 = true;
      break;
    }
    if (strcasecmp(method, "LOGIN") == 0) login = true;
  }
  if (cramMd5) return AuthCramMD5();
  if (login) return AuthLogin();
  return kNetFailed;
}

int SmtpClient::AuthCramMD5() {
  if (userName_.empty()) return OnError(kNetInvalidUser);
  if (password_.empty()) return OnError(kNetInvalidPassword);
  if (!SendCommand("AUTH CRAM-MD5") || ReadLine(kAuthLineRoom, responseTimeOut_) < 3) {
    return OnError(kNetInvalidResponse);
  }
  int code = CodeOf(line_);
  if (code == 504) return OnError(kNetNotSupported);
  if (code != 334) return OnError(kNetLoginFailed);
  std::string challenge = ReplyField(line_, " \r\n", 1).substr(0, kAuthLineRoom - 1);
  std::optional<std::string> answer = CramMd5Answer(userName_, password_, challenge);
  if (!answer) return OnError(kNetFailed);
  bool sent = SendCommand(*answer);
  Forget(*answer);
  return OnError(sent && GetResponseCode(responseTimeOut_) == 235 ? kNetOk : kNetLoginFailed);
}

int SmtpClient::AuthLogin() {
  if (userName_.empty()) return OnError(kNetInvalidUser);
  if (password_.empty()) return OnError(kNetInvalidPassword);
  int code = SendCommand("AUTH LOGIN") ? GetResponseCode(responseTimeOut_) : 0;
  if (code == 504) return OnError(kNetNotSupported);
  if (code != 334) return OnError(kNetLoginFailed);
  if (!SendCommand(Base64Encode(userName_)) || GetResponseCode(responseTimeOut_) != 334) {
    return OnError(kNetInvalidUser);
  }
  std::string password = Base64Encode(password_);
  bool sent = SendCommand(password);
  Forget(password);
  return OnError(sent && GetResponseCode(responseTimeOut_) == 235 ? kNetOk : kNetInvalidPassword);
}

int SmtpClient::SMTPClose() {
  extraHeaderLines_.Clear();
  if (Socket() != -1) SendCommand("QUIT");
  return OnError(CloseConnection());
}

bool SmtpClient::SendStatus(long, long) {
  return !IsAborted();
}

void SmtpClient::AppendAddressHeader(std::string& out, const char* name,
                                     const std::vector<std::string>& list) const {
  out += name;
  size_t running = 0;
  for (size_t i = 0; i < list.size(); ++i) {
    const std::string entry = FoldedHeaderValue(list[i]);
    size_t cost = entry.size() + 1;
    if (i > 0) {
      out += ',';
      if (running + cost > kFoldLength) {
        out += "\r\n\t";
        running = 0;
      }
    }
    out += entry;
    running += cost;
  }
  if (!list.empty()) out += "\r\n";
}

int SmtpClient::SendRecipient(std::string_view recipient, const MailMessage& message,
                              const std::vector<std::string>& toList,
                              const std::vector<std::string>& ccList, int bytesScale,
                              long& bytesSent, DataSource& bodySource, DataSource* fullSource,
                              int useFull) {
  if (!IsConnected()) return OnError(kNetNoConnection);
  const bool full = useFull > 0 && fullSource != nullptr;
  if (bodySource.Open(DataSource::kOpenRead) != 0) return OnError(kNetDataSourceOpenFailed);
  if (full && fullSource->Open(DataSource::kOpenRead) != 0) {
    bodySource.Close();
    return OnError(kNetDataSourceOpenFailed);
  }
  struct Closer {
    DataSource& body;
    DataSource* full;
    ~Closer() {
      body.Close();
      if (full != nullptr) full->Close();
    }
  } closer{bodySource, full ? fullSource : nullptr};

  int64_t size = bodySource.Seek(0, DataSource::kSeekEnd);
  bodySource.Seek(0, DataSource::kSeekStart);
  if (full) {
    size += fullSource->Seek(0, DataSource::kSeekEnd);
    fullSource->Seek(0, DataSource::kSeekStart);
  }
  const long total = static_cast<long>(size) * bytesScale;

  std::optional<std::string> to = BareAddress(recipient, kLineRoom - 1);
  if (!to) return OnError(kNetBadAddress);
  const std::string* fromField = message.HeaderValue(kFieldFrom, 0);
  if (fromField == nullptr) return OnError(kNetBufferTooShort);
  std::optional<std::string> from = BareAddress(*fromField, kLineRoom - 1);
  if (!from) return OnError(kNetBadAddress);

  if (!SendCommand("MAIL FROM:<" + *from + ">") || !IsSuccess(GetResponseCode(responseTimeOut_))) {
    return OnError(kNetNoServerResponse);
  }
  if (!SendCommand("RCPT TO:<" + *to + ">") || !IsSuccess(GetResponseCode(responseTimeOut_))) {
    return OnError(kNetRcptFailed);
  }
  if (!SendCommand("DATA") || GetResponseCode(responseTimeOut_) != 354) {
    return OnError(kNetDataFailed);
  }

  std::string headers = "From: " + FoldedHeaderValue(*fromField) + "\r\n";
  AppendAddressHeader(headers, "To: ", toList);
  const std::string* subject = message.HeaderValue(kFieldSubject, 0);
  if (subject == nullptr) return OnError(kNetBufferTooShort);
  headers += "Subject: " + FoldedHeaderValue(*subject) + "\r\n";
  char date[64];
  GetDateString(date, sizeof date);
  headers += std::string("Date: ") + date + "\r\n";
  if (!ccList.empty()) AppendAddressHeader(headers, "Cc: ", ccList);
  for (int i = 0; const std::string* line = extraHeaderLines_.Get(i); ++i) {
    headers += *line;
    if (!EndsWithCrLf(*line)) headers += "\r\n";
  }
  headers += "\r\n";
  DataWriter out(*this);
  if (!out.Add(headers)) return OnError(kNetSendFailed);

  int result = SendBody(out, bodySource, full ? fullSource : nullptr, useFull, bytesSent, total);
  if (result != kNetOk) return OnError(result);
  constexpr std::string_view kEnd = "\r\n.\r\n";
  Send(kEnd.data(), static_cast<int>(kEnd.size()));
  return OnError(IsSuccess(GetResponseCode(responseTimeOut_)) ? kNetOk : kNetNoServerResponse);
}

int SmtpClient::SendBody(DataWriter& out, DataSource& bodySource, DataSource* fullSource,
                         int useFull, long& bytesSent, long total) {
  const int pieceSize = std::max(1, GetMaxSend());
  std::vector<char> line(kBodyLineRoom);
  if (useFull > 0 && fullSource != nullptr) {
    const int room = std::min(pieceSize, kFullLineLimit) + 1;
    int n;
    while ((n = fullSource->ReadLine(line.data(), room)) > 0) {
      if (!out.Add(std::string_view(line.data(), static_cast<size_t>(n)))) return kNetSendFailed;
      bytesSent += n;
      if (!SendStatus(bytesSent, total) || IsAborted()) return kNetAborted;
    }
    return out.Flush() ? kNetOk : kNetSendFailed;
  }
  int n;
  while ((n = bodySource.ReadLine(line.data(), kBodyLineRoom)) > 0) {
    if (IsAborted()) return kNetAborted;
    for (int at = 0; at < n; at += pieceSize) {
      int piece = std::min(pieceSize, n - at);
      if (!out.Add(std::string_view(line.data() + at, static_cast<size_t>(piece)))) {
        return kNetSendFailed;
      }
      bytesSent += piece;
      if (!SendStatus(bytesSent, total)) return kNetAborted;
    }
    // A line longer than the room is sent as lines of its pieces.
    if (!out.EndLine()) return kNetSendFailed;
  }
  return out.Flush() ? kNetOk : kNetSendFailed;
}

int SmtpClient::SendMail(const MailMessage& message) {
  extraHeaderLines_.Clear();
  MappedFileDataSource composed(0, "composed message");
  int written = message.Write(composed);
  if (written != kMimeOk) return OnError(written);
  std::vector<std::string> fields;
  MappedFileDataSource body(0, "message body");
  if (!SplitComposed(composed, fields, body)) return OnError(kNetDataSourceOpenFailed);
  for (std::string& field : fields) {
    if (!WrittenPerTransaction(field)) extraHeaderLines_.Append(std::move(field));
  }

  const std::vector<std::string> toList = AddressesOf(message, kFieldTo);
  const std::vector<std::string> ccList = AddressesOf(message, kFieldCc);
  std::vector<std::string> recipients = toList;
  recipients.insert(recipients.end(), ccList.begin(), ccList.end());
  for (std::string& bcc : AddressesOf(message, kFieldBcc)) recipients.push_back(std::move(bcc));

  int result = kNetOk;
  long bytesSent = 0;
  for (const std::string& recipient : recipients) {
    if (IsAborted()) break;
    result = SendRecipient(recipient, message, toList, ccList, 1, bytesSent, body, nullptr, 0);
    if (result != kNetOk) break;
  }
  return result;
}

int SmtpClient::SendMailParts(const char* to, const char* from, const char* subject,
                              const char* body, const char* cc, const char* bcc,
                              const char* const* attachmentPaths, int count) {
  if (to == nullptr || from == nullptr || subject == nullptr || body == nullptr) {
    return OnError(kNetInvalidParameter);
  }
  MailMessage message;
  bool headersSet = message.AppendHeader(to, kFieldTo) == 1 &&
                    message.AppendHeader(from, kFieldFrom) == 1 &&
                    message.AppendHeader(subject, kFieldSubject) == 1 &&
                    (cc == nullptr || *cc == '\0' || message.AppendHeader(cc, kFieldCc) == 1) &&
                    (bcc == nullptr || *bcc == '\0' || message.AppendHeader(bcc, kFieldBcc) == 1);
  if (!headersSet) return OnError(kNetFailed);
  message.SetTextBody(body);
  for (int i = 0; attachmentPaths != nullptr && i < count; ++i) {
    if (attachmentPaths[i] != nullptr && message.AddAttachmentFile(attachmentPaths[i]) != 0) {
      return OnError(kNetAttachFailed);
    }
  }
  return SendMail(message);
}

int SmtpClient::GetAddress(const char* text, char* buffer, int size) {
  if (text == nullptr || buffer == nullptr || size < 1) return 1;
  std::optional<std::string> address = BareAddress(text, static_cast<size_t>(size - 1));
  if (!address) return 1;
  std::memcpy(buffer, address->data(), address->size());
  buffer[address->size()] = '\0';
  return 0;
}

int SmtpClient::GetDateString(char* buffer, int size) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  if (buffer == nullptr || size < 32) return 1;
  tzset();
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  // The zone's bias is seconds west of UTC, as the zone rules keep it.
  long bias = timezone;
  long hours = bias / 3600 - (local.tm_isdst > 0 ? 1 : 0);
  char sign = '-';
  if (hours <= 0) {
    sign = '+';
    hours = -hours;
  }
  long minutes = std::labs(bias % 3600) / 60;
  std::snprintf(buffer, static_cast<size_t>(size),
                "%s, %2.2d %s %d %2.2d:%2.2d:%2.2d %c%2.2ld%2.2ld", kDays[local.tm_wday],
                local.tm_mday, kMonths[local.tm_mon], local.tm_year + 1900, local.tm_hour,
                local.tm_min, local.tm_sec, sign, hours, minutes);
  return 0;
}

}  // namespace corvane
