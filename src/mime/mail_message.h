#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "mime/header_field.h"
#include "mime/message_parts.h"
#include "mime/mime_codes.h"
#include "stream/data_source.h"

namespace corvane {

// A mail message in memory: its header list, filled from a retrieved
// message and queried for the list and message views, or filled by the
// sending operations and written out as a complete message.
//
// Header data is stored exactly as given. A loaded message keeps its field
// values raw (unfolded, encoded words still encoded); DecodeEncodedWords
// turns them into bytes and a charset for display.
class MailMessage {
 public:
  // The buffer size the mail operations join header values into.
  static constexpr int kJoinBufferSize = 4095;

  MailMessage();
  ~MailMessage();
  MailMessage(MailMessage&&) noexcept;
  MailMessage& operator=(MailMessage&&) noexcept;
  // Not copyable: attachments decode from content the message owns.
  MailMessage(const MailMessage&) = delete;
  MailMessage& operator=(const MailMessage&) = delete;

  // --- Header list ---

  // Appends a field holding a copy of `data`. Its name is the table text of
  // `id`, or for kFieldCustom `customName` with one space appended unless it
  // already ends in one. 0 when `data` is null, when `id` is kFieldCustom
  // without a name, or when `id` is outside 0-21; else 1.
  int AppendHeader(const char* data, int32_t id, const char* customName = nullptr);
  // kFieldAll removes every field; another id every field with that id;
  // kFieldCustom with a name every field of that name (any letter case), and
  // without one every field at all. Always 1.
  int RemoveHeaders(int32_t id, const char* customName = nullptr);
  // Fields with that id; kFieldAll counts all.
  int CountHeaders(int32_t id) const;
  // The data of field `index` (from 0) among those with that id (among all
  // for kFieldAll), or null.
  const std::string* HeaderValue(int32_t id, int index) const;
  // Writes the data of every field with that id (every field for kFieldAll)
  // into `buffer`, joined with nothing between, NUL-terminated. 0 when the
  // buffer is null, `size` is below 1, no field has that id, or the joined
  // length reaches `size` (the fields copied before that one stay in the
  // buffer); else 1.
  int JoinHeaderValues(int32_t id, char* buffer, int size) const;
  // The same join into a string, or none where the buffer form fails.
  std::optional<std::string> JoinedHeaderValues(int32_t id, int size = kJoinBufferSize) const;
  // The data of field `index` among those whose whole stored name equals
  // `name` in any letter case (a custom name with its trailing space), or
  // null.
  const std::string* HeaderValueByName(const char* name, int index) const;
  // The name of custom field `index` (from 0), or null.
  const std::string* CustomHeaderName(int index) const;
  const std::vector<HeaderEntry>& Headers() const { return headers_; }

  // --- A message read from a data source ---

  // Replaces the whole message with the one in `source` (see ParseMessage
  // for what is read and how). 0, or a result code with the message left
  // empty.
  int Load(DataSource& source);

  // The message's charset name as written (its Content-Type's, else its
  // bodies'), empty when none is named; for composition, the charset of the
  // text body.
  const std::string& Charset() const { return charset_; }
  // The text/plain and text/html bodies, transfer-decoded, in their own
  // charsets; none when the message has no such body.
  const std::optional<BodyText>& TextBody() const { return textBody_; }
  const std::optional<BodyText>& HtmlBody() const { return htmlBody_; }

  int AttachmentCount() const { return static_cast<int>(attachments_.size()); }
  // The name of attachment `index` in header form (RFC 2047 words still
  // encoded), or null when it has none or there is no such attachment.
  const std::string* AttachmentName(int index) const;
  // Decodes attachment `index` into the file at `path`. Its size in bytes,
  // or -1 when there is no such attachment or the file cannot be written.
  int64_t SaveAttachment(int index, const std::string& path) const;

  // --- Composition ---

  // The charset of the text body and of the words EncodeWords makes for it.
  void SetCharset(std::string charset);
  // The text/plain body, bytes in the message's charset.
  void SetTextBody(std::string text);
  // Adds a file to attach, by path; it is read when the message is written.
  // 0, or kMimeAttachFailed (nothing added) for an empty path.
  int AddAttachmentFile(std::string path);
  const std::vector<std::string>& AttachmentFiles() const { return attachmentFiles_; }
  // Writes the complete message into `target` (opened for writing here and
  // closed again); see ComposeMessage. kMimeOk or a result code.
  int Write(DataSource& target) const;

 private:
  std::vector<HeaderEntry> headers_;
  std::string charset_;
  std::optional<BodyText> textBody_;
  std::optional<BodyText> htmlBody_;
  std::vector<MessageAttachment> attachments_;
  std::vector<std::string> attachmentFiles_;
};

}  // namespace corvane
