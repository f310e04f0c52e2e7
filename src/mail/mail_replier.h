#pragma once

#include "mail/mail_receiver.h"
#include "mail/mail_sender.h"

namespace corvane {

// "ReplyMail": an answer to a retrieved message, from the login, to its
// sender (and with "Replies" "all" to its other recipients too), quoting it
// when "Quote" is "true".
class MailReplier {
 public:
  explicit MailReplier(RequestFields& request);

  // Addresses, subject and body from the retrieved message.
  void Merge(const RenderedMail& original);
  void Send(wxEntryLog& answer) { sender_.Send(answer); }
  const OutgoingMail& Mail() const { return sender_.Mail(); }

 private:
  MailSender sender_;
  bool replyAll_ = false;
  bool quote_ = false;
};

}  // namespace corvane
