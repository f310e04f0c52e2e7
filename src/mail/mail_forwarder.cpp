#include "mail/mail_forwarder.h"

#include "base/process_log.h"
#include "mail/quoted_original.h"
#include "transport/response_entries.h"

namespace corvane {

void MailForwarder::Merge(const RenderedMail& original, const std::string& attachmentDirectory) {
  OutgoingMail& mail = sender_.Mail();
  if (!mail.subject) mail.subject = "Fw: " + original.subject.value_or("");
  QuoteOriginal(mail.body, original);
  // Only the retrieved message's own attachments go on, never files of the
  // request.
  mail.attachments.clear();
  mail.refusedAttachment.reset();
  for (const RenderedMail::Attachment& attachment : original.attachments) {
    if (attachment.size >= 0) {
      mail.attachments.push_back(attachmentDirectory + attachment.name);
    } else {
      lostAttachment_ = attachment.name;
    }
  }
}

void MailForwarder::Send(wxEntryLog& answer) {
  // A forward that would go out without one of the message's attachments
  // fails, as one whose attachment cannot be read does; it is not sent short.
  if (lostAttachment_) {
    WriteFailure(answer, "Send mail error");
    // Worded like SendMail's failure line, "ocurr" included.
    WriteLog(kLogError, "Send mail ocurr error: attachment %s could not be saved\n",
             lostAttachment_->c_str());
    return;
  }
  sender_.Send(answer);
}

}  // namespace corvane
