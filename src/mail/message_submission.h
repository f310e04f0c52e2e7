#pragma once

#include "mime/mail_message.h"
#include "protocol/smtp_client.h"

namespace corvane {

// Submits `message` through `client`, connected and greeted: one MAIL FROM /
// RCPT TO / DATA transaction for each To, then Cc, then Bcc address, stopping
// at the first failure, so that each address gets its own copy and a Bcc
// address never shows in a header. Each copy is composed as it goes out:
// its own From, To (folded at 250 characters), Subject, Date and Cc lines,
// the composer's other header fields, then the body, all of it dot-stuffed.
// 0, a result code (net_codes.h), or the composer's code when an attachment
// cannot be read.
int SubmitMessage(SmtpClient& client, const MailMessage& message);

}  // namespace corvane
