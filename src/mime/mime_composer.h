#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "mime/mail_message.h"
#include "mime/text_sink.h"
#include "stream/data_source.h"

namespace corvane {

// `value` made fit to follow "Name: " on a header line: NULs are dropped, and
// when it holds line breaks (CR, LF, or runs of them) its blank lines go and
// each break becomes one fold, CRLF and a space (the line's own blank when it
// starts with one); a break at either end leaves nothing. So whatever the
// text, it can neither start a field of its own nor end the header block.
std::string FoldedHeaderValue(std::string_view value);

// Writes `message` into `target` (opened for writing here and closed again)
// as a complete message whose last line ends in CRLF:
// - the header list in its order, each field folded at whitespace to lines
//   of at most 78 characters where the value allows; a line break inside a
//   value (or a parameter value: charset, attachment name) is kept only as a
//   fold and NULs are dropped (FoldedHeaderValue), so no value can start a
//   field of its own;
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

// The same message written as it is made: Prepare builds its parts and opens
// its attachment files (kMimeOk, or kMimeFileOpenFailed); WriteTo writes it
// whole to a sink, each time it is called, reading and encoding each file as
// its part goes out, so the message is never held whole. WriteTo gives
// kMimeOk, kMimeTargetWriteFailed when the sink stopped it, or
// kMimeFileOpenFailed when a file could not be read (or nothing is prepared).
class MessageComposition {
 public:
  MessageComposition();
  ~MessageComposition();
  MessageComposition(const MessageComposition&) = delete;
  MessageComposition& operator=(const MessageComposition&) = delete;

  int Prepare(const MailMessage& message);
  int WriteTo(const TextSink& sink) const;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

}  // namespace corvane
