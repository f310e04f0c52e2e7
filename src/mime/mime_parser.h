#pragma once

#include <optional>
#include <string>
#include <vector>

#include "mime/header_field.h"
#include "mime/message_parts.h"
#include "mime/mime_codes.h"
#include "stream/data_source.h"

namespace corvane {

// Everything a message read from a data source yields for the message
// model.
struct ParsedMessage {
  // The message's own header fields in the order they stand, each value
  // unfolded and trimmed but otherwise raw: encoded words stay encoded and
  // 8-bit bytes stay as they are. Fields the table knows get its id and
  // text; any other field is custom, named "Name: ".
  std::vector<HeaderEntry> headers;
  // The charset of the message's Content-Type, else of its text body, else
  // of its HTML body; empty when none names one.
  std::string charset;
  std::optional<BodyText> textBody;
  std::optional<BodyText> htmlBody;
  std::vector<MessageAttachment> attachments;
};

// Reads all of `source` (opened for reading here and closed again) as one
// message: a whole message or just its header lines. Broken mail is read
// as far as it goes. kMimeOk; kMimeSourceOpenFailed, kMimeSourceReadFailed,
// or kMimeMalformed when the source holds nothing.
//
// Bodies: the first text/plain and the first text/html part that are not
// attachments, found depth-first through nested multiparts, with their
// transfer encoding undone. Attachments: every other leaf part (a part with
// a file name or an "attachment" disposition is never a body), and each
// forwarded message whole; files uuencoded inside the text body are
// attachments too and leave the body. Safe to run on several threads at
// once for different messages.
int ParseMessage(DataSource& source, ParsedMessage& out);

}  // namespace corvane
