#include "mail/mail_forwarder.h"

#include "mail/quoted_original.h"

namespace corvane {

void MailForwarder::Merge(const RenderedMail& original, const std::string& attachmentDirectory) {
  OutgoingMail& mail = sender_.Mail();
  if (!mail.subject) mail.subject = "Fw: " + original.subject.value_or("");
  QuoteOriginal(mail.body, original);
  // Only the retrieved message's own attachments go on, never files of the
  // request.
  mail.attachments.clear();
  for (const RenderedMail::Attachment& attachment : original.attachments) {
    if (attachment.size >= 0) mail.attachments.push_back(attachmentDirectory + attachment.name);
  }
}

}  // namespace corvane
