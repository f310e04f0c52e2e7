#pragma once

#include <optional>
#include <string>
#include <vector>

#include "mime/mail_message.h"
#include "protocol/smtp_client.h"
#include "transport/request_fields.h"
#include "transport/wx_entry_log.h"

namespace corvane {

// What one sending request asks for. Reply and forward adjust it from the
// retrieved message before it is sent.
struct OutgoingMail {
  std::optional<std::string> smtpHost;
  std::string smtpPort;
  std::optional<std::string> login, password;
  bool authenticate = false;
  std::optional<std::string> from;  // the sender address
  std::optional<std::string> name;  // the sender's display name
  std::optional<std::string> to, cc;
  std::optional<std::string> subject, body;
  std::string charset;
  std::optional<std::string> priority;
  bool receipt = false;
  std::vector<std::string> attachments;  // paths on this machine, in order
  // The first file of the request that may not be attached (outside
  // [Application] files_root, not a regular file, or past
  // max_attachment_size), and why: the send fails before it connects.
  std::optional<std::string> refusedAttachment;
  std::string refusal;
};

// "SendMail": one plain-text message, with files attached, submitted through
// the account's SMTP server. The client sees "Status" and, on failure, one of
// three fixed texts in "Log".
class MailSender {
 public:
  // Reads the request; "--#13--" in the subject and body becomes CR LF.
  explicit MailSender(RequestFields& request);
  MailSender(const MailSender&) = delete;
  MailSender& operator=(const MailSender&) = delete;

  OutgoingMail& Mail() { return mail_; }
  const OutgoingMail& Mail() const { return mail_; }
  // Connects, composes, submits and closes; answers into `answer`.
  void Send(wxEntryLog& answer);

 private:
  // The message to submit, or none with the failing result code.
  int Compose(MailMessage& message) const;

  OutgoingMail mail_;
  SmtpClient client_;
};

}  // namespace corvane
