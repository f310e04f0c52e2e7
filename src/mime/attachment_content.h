#pragma once

#include <memory>
#include <string>

#include "mime/gmime_handle.h"
#include "mime/message_parts.h"

namespace corvane {

// The content of a part of a parsed message, kept alive by its own
// reference: a leaf part is decoded from its transfer encoding, a forwarded
// message is written out whole as it was received.
std::unique_ptr<AttachmentContent> MakePartContent(GMimeObject* part);

// Content that was decoded while the message was read (uuencoded blocks
// inside a text body).
std::unique_ptr<AttachmentContent> MakeBytesContent(std::string bytes);

}  // namespace corvane
