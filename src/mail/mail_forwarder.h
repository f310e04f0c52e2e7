#pragma once

#include <string>
#include <vector>

#include "mail/mail_receiver.h"
#include "mail/mail_sender.h"

namespace corvane {

// "ForwardMail": a retrieved message passed on to the request's recipients,
// quoted in the body, with its attachments attached again from where the
// retrieval saved them.
class MailForwarder {
 public:
  explicit MailForwarder(RequestFields& request) : sender_(request) {}

  // Subject, body and attachments from the retrieved message, whose
  // attachments were saved into `attachmentDirectory` ("/" at the end).
  void Merge(const RenderedMail& original, const std::string& attachmentDirectory);
  void Send(wxEntryLog& answer) { sender_.Send(answer); }
  const OutgoingMail& Mail() const { return sender_.Mail(); }
  // The files attached from the retrieved message.
  const std::vector<std::string>& AttachedFiles() const { return sender_.Mail().attachments; }

 private:
  MailSender sender_;
};

}  // namespace corvane
