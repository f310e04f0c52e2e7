// A retrieved message as the fuzz bytes, through everything ReceiveMail and
// ListMail do with one: loaded from its cache file, its headers shown in
// gb2312 and in utf-8, its date read, its body converted into each of them
// (an HTML-only body made plain text), the list row's subject shortened, and
// every attachment saved under its display name into a temporary directory.
// A saved attachment must land in that directory, at the size reported.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fuzz_check.h"
#include "mail/attachment_file_name.h"
#include "mail/header_display.h"
#include "mail/html_to_text.h"
#include "mail/mail_date.h"
#include "mail/text_helpers.h"
#include "mail/text_shortening.h"
#include "mime/charset_converter.h"
#include "mime/mail_message.h"
#include "stream/file_data_source.h"
#include "support/temp_dir.h"

namespace {

using corvane::MailMessage;

using corvane::fuzz::Check;

// The body as ReceiveMail renders it for a client in `target`.
void RenderBody(const MailMessage& message, const std::string& target) {
  const std::optional<corvane::BodyText>& text = message.TextBody();
  const std::optional<corvane::BodyText>& html = message.HtmlBody();
  const std::optional<corvane::BodyText>& body = text ? text : html;
  if (!body) return;
  std::string charset = body->charset;
  if (charset.empty()) {
    if (std::optional<std::string> type = message.JoinedHeaderValues(corvane::kFieldContentType)) {
      charset = corvane::ExtractCharset(*type).value_or("");
    }
  }
  std::optional<std::string> converted = corvane::ConvertCharset(charset, target, body->text);
  std::string rendered = converted ? std::move(*converted) : body->text;
  if (!text) corvane::HtmlBodyToText(rendered);
}

void RenderHeaders(const MailMessage& message, const std::string& target) {
  using corvane::HeaderFieldId;
  for (HeaderFieldId field : {corvane::kFieldFrom, corvane::kFieldTo, corvane::kFieldCc}) {
    corvane::DisplayHeaderOf(message, field, target);
  }
  std::string subject =
      corvane::DisplayHeaderOf(message, corvane::kFieldSubject, target).value_or("");
  // A list row's subject: at most the limit and the "..." behind it.
  Check(corvane::ShortenText(subject, 20) == static_cast<int>(subject.size()) &&
            subject.size() <= 20 + 3,
        "a shortened subject is longer than its limit");
  if (std::optional<std::string> date = message.JoinedHeaderValues(corvane::kFieldDate)) {
    corvane::FormatLocalMinute(corvane::ParseMailDate(*date));
  }
  message.HeaderValueByName("X-Priority: ", 0);
}

void SaveAttachments(const MailMessage& message, const std::string& target,
                     const std::string& directory) {
  std::filesystem::create_directory(directory);
  for (int i = 0; i < message.AttachmentCount(); ++i) {
    const std::string* rawName = message.AttachmentName(i);
    if (rawName == nullptr) continue;
    const std::string name = corvane::AttachmentFileName(*rawName, target);
    const std::string path = directory + "/" + name;
    const int64_t size = message.SaveAttachment(i, path);
    if (size < 0) continue;
    struct stat saved;
    Check(stat(path.c_str(), &saved) == 0 && S_ISREG(saved.st_mode) && saved.st_size == size,
          "an attachment's file does not hold the size reported");
  }
  // Nothing but the files themselves: no name leads elsewhere.
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    Check(entry.is_regular_file(), "an attachment made something other than a file");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  corvane::test::TempDir directory;
  Check(!directory.path().empty(), "no temporary directory");
  const std::string cached = directory / "message.txt";
  corvane::test::WriteFile(cached, std::string(reinterpret_cast<const char*>(data), size));

  MailMessage message;
  corvane::FileDataSource file(cached);
  if (message.Load(file) != 0) return 0;
  for (const std::string target : {"gb2312", "utf-8"}) {
    RenderHeaders(message, target);
    RenderBody(message, target);
    SaveAttachments(message, target, directory / ("attachments-" + target));
  }
  // Only what the run made itself.
  for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
    const std::string name = entry.path().filename();
    Check(name == "message.txt" || name.starts_with("attachments-"),
          "an attachment was saved outside its directory");
  }
  return 0;
}
