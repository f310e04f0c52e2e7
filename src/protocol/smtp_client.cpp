#include "protocol/smtp_client.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/ascii_text.h"
#include "base/decimal_text.h"
#include "base/limits.h"
#include "mime/mime_composer.h"
#include "protocol/command_text.h"
#include "protocol/net_codes.h"
#include "protocol/reply_field.h"
#include "protocol/sasl_encoding.h"

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
    if (SameText(name, own)) {
      return true;
    }
  }
  return false;
}

// The fields of a header block (each with its folds and final line end).
std::vector<std::string> HeaderFields(std::string_view block) {
  std::vector<std::string> fields;
  while (!block.empty()) {
    size_t end = block.find('\n');
    std::string_view line = block.substr(0, end == std::string_view::npos ? block.size() : end + 1);
    if ((line[0] == ' ' || line[0] == '\t') && !fields.empty()) {
      fields.back() += line;
    } else {
      fields.emplace_back(line);
    }
    block.remove_prefix(line.size());
  }
  return fields;
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
  // From here on a line longer than `limit` bytes goes out as lines of its
  // pieces (0: no limit), as a body read line by line from a file does.
  void LimitLines(size_t limit) { lineLimit_ = limit; }
  bool Add(std::string_view bytes) {
    while (!bytes.empty()) {
      const char c = bytes.front();
      if (c == '\r' || c == '\n') {
        if (c == '\r' || !afterCr_) batch_ += "\r\n";
        afterCr_ = c == '\r';
        atLineStart_ = true;
        lineLength_ = 0;
        bytes.remove_prefix(1);
        continue;
      }
      if (lineLimit_ > 0 && lineLength_ == lineLimit_) {
        batch_ += "\r\n";
        atLineStart_ = true;
        lineLength_ = 0;
      }
      if (atLineStart_ && c == '.') batch_ += '.';
      // A plain loop: find_first_of calls memchr once for every byte here.
      size_t run = 1;
      while (run < bytes.size() && bytes[run] != '\r' && bytes[run] != '\n') ++run;
      if (lineLimit_ > 0) run = std::min(run, lineLimit_ - lineLength_);
      batch_.append(bytes.data(), run);
      lineLength_ += run;
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
  size_t lineLength_ = 0;
  size_t lineLimit_ = 0;
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

  int result = OpenData(recipient, message);
  if (result != kNetOk) return OnError(result);
  DataWriter out(*this);
  result = WriteHeaders(out, message, toList, ccList);
  if (result != kNetOk) return OnError(result);

  result = SendBody(out, bodySource, full ? fullSource : nullptr, useFull, bytesSent, total);
  if (result != kNetOk) return OnError(result);
  return OnError(EndData());
}

int SmtpClient::OpenData(std::string_view recipient, const MailMessage& message) {
  std::optional<std::string> to = BareAddress(recipient, kLineRoom - 1);
  if (!to) return kNetBadAddress;
  const std::string* fromField = message.HeaderValue(kFieldFrom, 0);
  if (fromField == nullptr) return kNetBufferTooShort;
  std::optional<std::string> from = BareAddress(*fromField, kLineRoom - 1);
  if (!from) return kNetBadAddress;
  if (!SendCommand("MAIL FROM:<" + *from + ">") || !IsSuccess(GetResponseCode(responseTimeOut_))) {
    return kNetNoServerResponse;
  }
  if (!SendCommand("RCPT TO:<" + *to + ">") || !IsSuccess(GetResponseCode(responseTimeOut_))) {
    return kNetRcptFailed;
  }
  if (!SendCommand("DATA") || GetResponseCode(responseTimeOut_) != 354) return kNetDataFailed;
  return kNetOk;
}

int SmtpClient::WriteHeaders(DataWriter& out, const MailMessage& message,
                             const std::vector<std::string>& toList,
                             const std::vector<std::string>& ccList) {
  const std::string* fromField = message.HeaderValue(kFieldFrom, 0);
  const std::string* subject = message.HeaderValue(kFieldSubject, 0);
  if (fromField == nullptr || subject == nullptr) return kNetBufferTooShort;
  std::string headers = "From: " + FoldedHeaderValue(*fromField) + "\r\n";
  AppendAddressHeader(headers, "To: ", toList);
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
  return out.Add(headers) ? kNetOk : kNetSendFailed;
}

int SmtpClient::EndData() {
  constexpr std::string_view kEnd = "\r\n.\r\n";
  Send(kEnd.data(), static_cast<int>(kEnd.size()));
  return IsSuccess(GetResponseCode(responseTimeOut_)) ? kNetOk : kNetNoServerResponse;
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

// One copy of a composed message as the composer writes it: its header
// block is held until it ends and sorted into the fields each copy writes
// itself and the extra header lines; then the copy's own header block goes
// out, and the body behind it as it comes.
class SmtpClient::ComposedCopy {
 public:
  ComposedCopy(SmtpClient& client, DataWriter& out, const MailMessage& message,
               const std::vector<std::string>& toList, const std::vector<std::string>& ccList,
               long& bytesSent)
      : client_(client),
        out_(out),
        message_(message),
        toList_(toList),
        ccList_(ccList),
        bytesSent_(bytesSent) {}

  bool Take(std::string_view bytes) {
    if (inHeader_) {
      header_.append(bytes);
      // The block ends at its first empty line.
      for (size_t end; (end = header_.find('\n', scanned_)) != std::string::npos;) {
        if (end == scanned_ + 1 && header_[scanned_] == '\r') {
          std::string body = header_.substr(end + 1);
          header_.resize(scanned_);
          return StartBody() && Body(body);
        }
        scanned_ = end + 1;
      }
      return true;
    }
    return Body(bytes);
  }
  // After the last piece: kNetOk, or why the copy failed.
  int Finish() {
    if (inHeader_ && !StartBody()) return failure_;
    return out_.Flush() ? failure_ : kNetSendFailed;
  }
  int Failure() const { return failure_; }

 private:
  bool StartBody() {
    inHeader_ = false;
    client_.extraHeaderLines_.Clear();
    for (std::string& field : HeaderFields(header_)) {
      if (!WrittenPerTransaction(field)) client_.extraHeaderLines_.Append(std::move(field));
    }
    failure_ = client_.WriteHeaders(out_, message_, toList_, ccList_);
    out_.LimitLines(kBodyLineRoom - 1);
    return failure_ == kNetOk;
  }
  bool Body(std::string_view bytes) {
    if (bytes.empty()) return true;
    if (!out_.Add(bytes)) return Fail(kNetSendFailed);
    bytesSent_ += static_cast<long>(bytes.size());
    // The size of a message made as it goes is not known: the total is 0.
    return client_.SendStatus(bytesSent_, 0) || Fail(kNetAborted);
  }
  bool Fail(int code) {
    failure_ = code;
    return false;
  }

  SmtpClient& client_;
  DataWriter& out_;
  const MailMessage& message_;
  const std::vector<std::string>& toList_;
  const std::vector<std::string>& ccList_;
  long& bytesSent_;
  bool inHeader_ = true;
  std::string header_;
  size_t scanned_ = 0;
  int failure_ = kNetOk;
};

int SmtpClient::SendComposed(std::string_view recipient, const MailMessage& message,
                             const std::vector<std::string>& toList,
                             const std::vector<std::string>& ccList,
                             const MessageComposition& composition, long& bytesSent) {
  if (!IsConnected()) return OnError(kNetNoConnection);
  int result = OpenData(recipient, message);
  if (result != kNetOk) return OnError(result);
  DataWriter out(*this);
  ComposedCopy copy(*this, out, message, toList, ccList, bytesSent);
  int written = composition.WriteTo([&copy](std::string_view bytes) { return copy.Take(bytes); });
  if (written == kMimeOk) {
    result = copy.Finish();
    return OnError(result == kNetOk ? EndData() : result);
  }
  if (written == kMimeTargetWriteFailed) return OnError(copy.Failure());
  // A file that could not be read half-way: the message must not end as if
  // whole, so the connection goes without the final dot.
  CloseConnection();
  return OnError(written);
}

int SmtpClient::SendMail(const MailMessage& message) {
  extraHeaderLines_.Clear();
  // The message is written into the data section as it is composed, each
  // copy anew: nothing waits for the whole of it, and no copy of it is held.
  MessageComposition composition;
  int prepared = composition.Prepare(message);
  if (prepared != kMimeOk) return OnError(prepared);

  const std::vector<std::string> toList = AddressesOf(message, kFieldTo);
  const std::vector<std::string> ccList = AddressesOf(message, kFieldCc);
  std::vector<std::string> recipients = toList;
  recipients.insert(recipients.end(), ccList.begin(), ccList.end());
  for (std::string& bcc : AddressesOf(message, kFieldBcc)) recipients.push_back(std::move(bcc));

  int result = kNetOk;
  long bytesSent = 0;
  for (const std::string& recipient : recipients) {
    if (IsAborted()) break;
    result = SendComposed(recipient, message, toList, ccList, composition, bytesSent);
    if (result != kNetOk) break;
  }
  return result;
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
