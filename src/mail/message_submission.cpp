#include "mail/message_submission.h"

#include <string>
#include <string_view>
#include <vector>

#include "base/ascii_text.h"
#include "mail/mail_date.h"
#include "mime/mime_codes.h"
#include "mime/mime_composer.h"
#include "protocol/net_codes.h"
#include "protocol/reply_field.h"
#include "protocol/smtp_data_writer.h"

namespace corvane {
namespace {

constexpr size_t kFoldLength = 250;
constexpr size_t kBodyLineLimit = 1000;

// The header fields a copy writes itself, and Bcc, which no copy may show.
bool WrittenPerCopy(std::string_view field) {
  std::string_view name = field.substr(0, field.find(':'));
  for (const char* own : {"From", "To", "Cc", "Bcc", "Subject", "Date"}) {
    if (SameText(name, own)) return true;
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

// "To: " or "Cc: " and the list, a fold before an entry that would bring the
// line past 250 characters.
void AppendAddressHeader(std::string& out, const char* name, const std::vector<std::string>& list) {
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

// The To and Cc lists every copy of a message writes.
struct Addressing {
  std::vector<std::string> to, cc;
};

// One copy of a composed message as the composer writes it: its header
// block is held until it ends and sorted into the fields each copy writes
// itself and the others; then the copy's own header block goes out, and the
// body behind it as it comes.
class ComposedCopy {
 public:
  ComposedCopy(SmtpClient& client, const MailMessage& message, const Addressing& lists)
      : client_(client), out_(client), message_(message), lists_(lists) {}

  bool Take(std::string_view bytes) {
    if (!inHeader_) return Body(bytes);
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
  // After the last piece: 0, or why the copy failed.
  int Finish() {
    if (inHeader_ && !StartBody()) return failure_;
    return out_.Flush() ? failure_ : kNetSendFailed;
  }
  int Failure() const { return failure_; }

 private:
  bool StartBody() {
    inHeader_ = false;
    const std::string* from = message_.HeaderValue(kFieldFrom, 0);
    const std::string* subject = message_.HeaderValue(kFieldSubject, 0);
    if (from == nullptr || subject == nullptr) return Fail(kNetBufferTooShort);
    std::string headers = "From: " + FoldedHeaderValue(*from) + "\r\n";
    AppendAddressHeader(headers, "To: ", lists_.to);
    headers += "Subject: " + FoldedHeaderValue(*subject) + "\r\n";
    char date[64];
    GetDateString(date, sizeof date);
    headers += std::string("Date: ") + date + "\r\n";
    if (!lists_.cc.empty()) AppendAddressHeader(headers, "Cc: ", lists_.cc);
    for (std::string& field : HeaderFields(header_)) {
      if (!WrittenPerCopy(field)) headers += field;
    }
    headers += "\r\n";
    if (!out_.Add(headers)) return Fail(kNetSendFailed);
    out_.LimitLines(kBodyLineLimit);
    return true;
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
  SmtpDataWriter out_;
  const MailMessage& message_;
  const Addressing& lists_;
  bool inHeader_ = true;
  std::string header_;
  size_t scanned_ = 0;
  long bytesSent_ = 0;
  int failure_ = kNetOk;
};

int SubmitCopy(SmtpClient& client, std::string_view recipient, const MailMessage& message,
               const Addressing& lists, const MessageComposition& composition) {
  const std::string* from = message.HeaderValue(kFieldFrom, 0);
  if (from == nullptr) return kNetBufferTooShort;
  int result = client.StartData(*from, recipient);
  if (result != kNetOk) return result;
  ComposedCopy copy(client, message, lists);
  int written = composition.WriteTo([&copy](std::string_view bytes) { return copy.Take(bytes); });
  if (written == kMimeOk) {
    result = copy.Finish();
    return result == kNetOk ? client.EndData() : result;
  }
  if (written == kMimeTargetWriteFailed) return copy.Failure();
  // A file that could not be read half-way: the message must not end as if
  // whole, so the connection goes without the final dot.
  client.CloseConnection();
  return written;
}

}  // namespace

int SubmitMessage(SmtpClient& client, const MailMessage& message) {
  // Each copy is written into the data as it is composed: nothing waits for
  // the whole of it, and no copy of it is held.
  MessageComposition composition;
  int result = composition.Prepare(message);
  if (result != kMimeOk) return result;
  Addressing lists{AddressesOf(message, kFieldTo), AddressesOf(message, kFieldCc)};
  std::vector<std::string> recipients = lists.to;
  recipients.insert(recipients.end(), lists.cc.begin(), lists.cc.end());
  for (std::string& bcc : AddressesOf(message, kFieldBcc)) recipients.push_back(std::move(bcc));
  for (const std::string& recipient : recipients) {
    if (client.IsAborted()) break;
    result = SubmitCopy(client, recipient, message, lists, composition);
    if (result != kNetOk) break;
  }
  return result;
}

}  // namespace corvane
