#pragma once

#include <optional>
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
  // Sends it; fails with "Send mail error", sending nothing, when an
  // attachment of the message could not be saved.
  void Send(wxEntryLog& answer);
  const OutgoingMail& Mail() const { return sender_.Mail(); }
  // The files attached from the retrieved message.
  const std::vector<std::string>& AttachedFiles() const { return sender_.Mail().attachments; }

 private:
  MailSender sender_;
  std::optional<std::string> lostAttachment_;
};

}  // namespace corvane
