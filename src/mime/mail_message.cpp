#include "mime/mail_message.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/ascii_text.h"
#include "mime/mime_codes.h"
#include "mime/mime_composer.h"
#include "mime/mime_parser.h"

namespace corvane {
namespace {

bool Selects(int32_t id, const HeaderEntry& entry) {
  return id == kFieldAll || entry.id == id;
}

}  // namespace

MailMessage::MailMessage() = default;
MailMessage::~MailMessage() = default;
MailMessage::MailMessage(MailMessage&&) noexcept = default;
MailMessage& MailMessage::operator=(MailMessage&&) noexcept = default;

int MailMessage::AppendHeader(const char* data, int32_t id, const char* customName) {
  const char* text = HeaderFieldText(id);
  if (data == nullptr || text == nullptr || (id == kFieldCustom && customName == nullptr)) {
    return 0;
  }
  HeaderEntry entry;
  entry.id = id;
  entry.data = data;
  if (id == kFieldCustom) {
    entry.name = customName;
    if (entry.name.empty() || entry.name.back() != ' ') entry.name += ' ';
  } else {
    entry.name = text;
  }
  headers_.push_back(std::move(entry));
  return 1;
}

int MailMessage::RemoveHeaders(int32_t id, const char* customName) {
  std::erase_if(headers_, [&](const HeaderEntry& entry) {
    if (id == kFieldCustom) return customName == nullptr || SameText(entry.name, customName);
    return Selects(id, entry);
  });
  return 1;
}

int MailMessage::CountHeaders(int32_t id) const {
  return static_cast<int>(
      std::count_if(headers_.begin(), headers_.end(),
                    [id](const HeaderEntry& entry) { return Selects(id, entry); }));
}

const std::string* MailMessage::HeaderValue(int32_t id, int index) const {
  for (const HeaderEntry& entry : headers_) {
    if (Selects(id, entry) && index-- == 0) return &entry.data;
  }
  return nullptr;
}

int MailMessage::JoinHeaderValues(int32_t id, char* buffer, int size) const {
  if (buffer == nullptr || size < 1) return 0;
  buffer[0] = '\0';
  size_t length = 0;
  bool found = false;
  for (const HeaderEntry& entry : headers_) {
    if (!Selects(id, entry)) continue;
    found = true;
    // The data reads as zero-terminated, as the field stores it.
    size_t piece = std::strlen(entry.data.c_str());
    if (length + piece >= static_cast<size_t>(size)) return 0;
    std::memcpy(buffer + length, entry.data.c_str(), piece + 1);
    length += piece;
  }
  return found ? 1 : 0;
}

std::optional<std::string> MailMessage::JoinedHeaderValues(int32_t id, int size) const {
  if (size < 1) return std::nullopt;
  std::string buffer(static_cast<size_t>(size), '\0');
  if (JoinHeaderValues(id, buffer.data(), size) == 0) return std::nullopt;
  buffer.resize(std::strlen(buffer.c_str()));
  return buffer;
}

const std::string* MailMessage::HeaderValueByName(const char* name, int index) const {
  if (name == nullptr) return nullptr;
  for (const HeaderEntry& entry : headers_) {
    if (SameText(entry.name, name) && index-- == 0) return &entry.data;
  }
  return nullptr;
}

const std::string* MailMessage::CustomHeaderName(int index) const {
  for (const HeaderEntry& entry : headers_) {
    if (entry.id == kFieldCustom && index-- == 0) return &entry.name;
  }
  return nullptr;
}

int MailMessage::Load(DataSource& source) {
  ParsedMessage parsed;
  int result = ParseMessage(source, parsed);
  *this = MailMessage();
  if (result != kMimeOk) return result;
  headers_ = std::move(parsed.headers);
  charset_ = std::move(parsed.charset);
  textBody_ = std::move(parsed.textBody);
  htmlBody_ = std::move(parsed.htmlBody);
  attachments_ = std::move(parsed.attachments);
  return kMimeOk;
}

const std::string* MailMessage::AttachmentName(int index) const {
  if (index < 0 || index >= AttachmentCount()) return nullptr;
  const auto& name = attachments_[static_cast<size_t>(index)].name;
  return name ? &*name : nullptr;
}

int64_t MailMessage::SaveAttachment(int index, const std::string& path) const {
  if (index < 0 || index >= AttachmentCount()) return -1;
  return attachments_[static_cast<size_t>(index)].content->SaveTo(path);
}

void MailMessage::SetCharset(std::string charset) {
  charset_ = std::move(charset);
  if (textBody_) textBody_->charset = charset_;
}

void MailMessage::SetTextBody(std::string text) {
  textBody_ = BodyText{std::move(text), charset_};
}

int MailMessage::AddAttachmentFile(std::string path) {
  if (path.empty()) return kMimeAttachFailed;
  attachmentFiles_.push_back(std::move(path));
  return 0;
}

int MailMessage::Write(DataSource& target) const {
  return ComposeMessage(*this, target);
}

}  // namespace corvane
