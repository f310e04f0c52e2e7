#pragma once

#include "mime/mail_message.h"
#include "protocol/data_source.h"

namespace corvane {

// Writes `message` into `target` (opened for writing here and closed again)
// as a complete message whose last line ends in CRLF:
// - the header list in its order, each field folded at whitespace to lines
//   of at most 78 characters where the value allows; a line break inside a
//   value is kept only as a fold, so no value can start a field of its own;
// - Date, Message-ID and MIME-Version when the list holds none;
// - without attachment files, the text body as the only part, under the
//   list's Content-Type when that is a text type, else
//   "text/plain; charset=\"<charset>\"";
// - with attachment files, multipart/mixed: the text body, then one base64
//   part per file in order, named after the file's base name (as RFC 2047
//   words in the message charset when the name has 8-bit bytes).
// The text body's transfer encoding is the lightest that carries it (7bit,
// quoted-printable or base64), its line ends CRLF. kMimeOk, or
// kMimeFileOpenFailed when an attachment cannot be read, kMimeTargetOpenFailed
// or kMimeTargetWriteFailed.
int ComposeMessage(const MailMessage& message, DataSource& target);

}  // namespace corvane
