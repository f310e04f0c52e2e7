#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace corvane {

// A text body of a message after its transfer encoding is undone: the bytes
// in the charset its part declares (no charset conversion), and that
// charset as written, empty when the part names none.
struct BodyText {
  std::string text;
  std::string charset;
};

// The encoded content of one attachment, decoded on demand.
class AttachmentContent {
 public:
  virtual ~AttachmentContent() = default;
  // Decodes the content into the file at `path`, created or emptied first.
  // The decoded size in bytes, or -1 when the file cannot be written.
  virtual int64_t SaveTo(const std::string& path) const = 0;
};

// One attachment of a loaded message.
struct MessageAttachment {
  // The name as a header would carry it: RFC 2047 words stay encoded, and a
  // name given with a charset in the RFC 2231 form comes back as one encoded
  // word in that charset, so one display decoding serves every kind. None
  // when the part has no name.
  std::optional<std::string> name;
  std::string contentType;  // "application/pdf", lower case
  std::unique_ptr<AttachmentContent> content;
};

}  // namespace corvane
