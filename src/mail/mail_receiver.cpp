#include "mail/mail_receiver.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include "base/confined_path.h"
#include "base/process_log.h"
#include "base/program_paths.h"
#include "base/service_settings.h"
#include "mail/attachment_file_name.h"
#include "mail/attachment_upload.h"
#include "mail/cached_message.h"
#include "mail/header_display.h"
#include "mail/html_to_text.h"
#include "mail/known_uids.h"
#include "mail/mail_date.h"
#include "mail/text_helpers.h"
#include "mail/text_shortening.h"
#include "mime/charset_converter.h"
#include "protocol/net_codes.h"
#include "protocol/net_error.h"
#include "stream/file_data_source.h"
#include "transport/response_entries.h"

namespace corvane {
namespace {

constexpr int kMissingField = 100;
constexpr char kMissingFieldText[] = "The parameter of request is not enough";

bool FileExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

int LoadMessageFile(MailMessage& message, const std::string& path) {
  FileDataSource file(path);
  return message.Load(file);
}

const char* OrNull(const std::optional<BodyText>& body) {
  return body ? body->charset.c_str() : "(null)";
}

}  // namespace

MailReceiver::MailReceiver(RequestFields& request, const AccountRegistry& registry)
    : registry_(registry),
      mailbox_(MailboxLogin::FromRequest(request)),
      session_(MailboxSession::For(mailbox_)) {
  targetCharset_ = request.Parameter("Encode").value_or("gb2312");
  uid_ = request.Parameter("ID");
  destination_ = request.Parameter("Attachment");
}

MailReceiver::~MailReceiver() {
  if (connected_) session_->Close();
}

bool MailReceiver::DestinationAllowed(wxEntryLog& answer) {
  if (!destination_ || FtpPathOfUrl(*destination_)) return true;
  if (auto inside = ClientLocalPath(*destination_)) {
    destination_ = std::move(inside);
    return true;
  }
  WriteFailure(answer, "Load pop3 message error");
  WriteLog(kLogError, "Attachment directory %s is outside files_root\n", destination_->c_str());
  return false;
}

int MailReceiver::Fetch(wxEntryLog& answer, int pop3TimeoutSeconds) {
  if (!mailbox_.Complete() || !uid_) {
    WriteFailure(answer, kMissingFieldText);
    WriteLog(kLogError, "%s\n", kMissingFieldText);
    return kMissingField;
  }
  int result = session_->Open(mailbox_);
  if (result == 0) {
    connected_ = true;
    session_->SetReplyTimeOut(pop3TimeoutSeconds);
    cacheDirectory_ = mailbox_.CacheDirectory(registry_.ProgramDirectory());
    EnsureDirectory(cacheDirectory_);
    std::string cachedPath = CachedMessagePath(cacheDirectory_, *uid_);
    if (FileExists(cachedPath) && LoadMessageFile(message_, cachedPath) == 0) {
      WriteLog(kLogDebug, "Load mail from cache: %s success\n", cachedPath.c_str());
    } else {
      result = FetchFromServer(cachedPath);
    }
    session_->Close();
    connected_ = false;
  }
  if (result != 0) {
    WriteFailure(answer, "Load pop3 message error");
    WriteLog(kLogError, "%s Load pop3 message error: %s\n", mailbox_.login->c_str(),
             CNetError::GetErrorString(result));
  }
  return result;
}

int MailReceiver::FetchFromServer(const std::string& cachedPath) {
  // Retrieved under a name of its own and renamed when complete, so the
  // cache never holds a cut-short message, not even after a crash, and two
  // retrievals of the same message do not write into one file.
  std::string partPath = cachedPath + ".XXXXXX";
  int fd = mkstemp(partPath.data());
  if (fd < 0) return kNetFileOpenFailed;
  close(fd);
  int result = session_->Retrieve(*uid_, partPath, maxMessageBytes_);
  if (result != 0) {
    std::remove(partPath.c_str());
    return result;
  }
  if (std::rename(partPath.c_str(), cachedPath.c_str()) != 0) {
    std::remove(partPath.c_str());
    return kNetDataSourceWriteFailed;
  }
  return LoadMessageFile(message_, cachedPath);
}

std::optional<std::string> MailReceiver::DisplayHeader(HeaderFieldId field) const {
  return DisplayHeaderOf(message_, field, targetCharset_);
}

void MailReceiver::Render() {
  rendered_.from = DisplayHeader(kFieldFrom);
  rendered_.to = DisplayHeader(kFieldTo);
  rendered_.cc = DisplayHeader(kFieldCc);
  rendered_.subject = DisplayHeader(kFieldSubject);
  if (std::optional<std::string> date = message_.JoinedHeaderValues(kFieldDate)) {
    rendered_.date = FormatLocalMinute(ParseMailDate(*date));
  }
  if (const std::string* priority = message_.HeaderValueByName("X-Priority: ", 0)) {
    rendered_.priority = *priority;
  }
  WriteLog(kLogDebug, "The mail from: %s\n", rendered_.from.value_or("(null)").c_str());
  WriteLog(kLogDebug, "Subject: %s\n", rendered_.subject.value_or("(null)").c_str());

  const std::optional<BodyText>& text = message_.TextBody();
  const std::optional<BodyText>& html = message_.HtmlBody();
  WriteLog(kLogDebug, "Text Charset: %s\n", OrNull(text));
  WriteLog(kLogDebug, "Html Charset: %s\n", OrNull(html));
  const std::optional<BodyText>& body = text ? text : html;
  if (!body) return;
  std::string charset = body->charset;
  if (charset.empty()) {
    std::optional<std::string> contentType = message_.JoinedHeaderValues(kFieldContentType);
    WriteLog(kLogDebug, "Content-type: %s\n", contentType.value_or("(null)").c_str());
    if (contentType) charset = ExtractCharset(*contentType).value_or("");
  }
  std::optional<std::string> converted = ConvertCharset(charset, targetCharset_, body->text);
  rendered_.body = converted ? std::move(*converted) : body->text;
}

void MailReceiver::ConvertHtmlBody() {
  if (message_.TextBody() || !message_.HtmlBody() || !rendered_.body) return;
  WriteLog(kLogDebug, "Convert html body to text\n");
  rendered_.body = HtmlBodyToText(*rendered_.body);
}

void MailReceiver::SaveAttachments() {
  if (message_.AttachmentCount() == 0 || !destination_) return;
  std::string destination = *destination_;
  ftpDirectory_ = FtpPathOfUrl(destination);
  if (ftpDirectory_) {
    SaveAttachmentsInto(ScratchPath());
    return;
  }
  char last = destination.empty() ? '\0' : destination.back();
  if (last != '/' && last != '\\') destination += '/';
  SaveAttachmentsInto(std::move(destination), true);
}

void MailReceiver::SaveAttachmentCopies() {
  if (message_.AttachmentCount() == 0) return;
  SaveAttachmentsInto(ScratchPath());
}

const std::string& MailReceiver::ScratchPath() {
  if (!scratch_) scratch_.emplace(cacheDirectory_);
  return scratch_->Path();
}

void MailReceiver::SaveAttachmentsInto(std::string directory, bool clients) {
  attachmentDirectory_ = std::move(directory);
  for (int i = 0; i < message_.AttachmentCount(); ++i) {
    const std::string* rawName = message_.AttachmentName(i);
    if (rawName == nullptr) continue;
    std::string name = AttachmentFileName(*rawName, targetCharset_);
    std::string path = attachmentDirectory_ + name;
    WriteLog(kLogDebug, "Save attachment file %s in local directory\n", path.c_str());
    const bool inside = !clients || ClientLocalPath(path);
    if (!inside) WriteLog(kLogError, "Attachment file %s is outside files_root\n", path.c_str());
    int64_t size = inside ? message_.SaveAttachment(i, path) : -1;
    rendered_.attachments.push_back({std::move(name), size});
  }
}

void MailReceiver::ApplyDefaultBody(const std::optional<std::string>& defaultBody) {
  if (rendered_.body || !defaultBody) return;
  rendered_.body = *defaultBody;
}

bool MailReceiver::UploadAttachments() {
  if (!ftpDirectory_) return true;
  const FtpServer server{g_settings.ftpHost.value_or(""), g_settings.ftpLogin.value_or(""),
                         g_settings.ftpPassword.value_or(""),
                         static_cast<unsigned>(g_settings.ftpPort), g_settings.ftpPassive};
  bool all = true;
  for (RenderedMail::Attachment& attachment : rendered_.attachments) {
    std::string path = attachmentDirectory_ + attachment.name;
    WriteLog(kLogDebug, "Upload attachment file %s to ftp server %s\n", path.c_str(),
             g_settings.ftpHost ? server.host.c_str() : "(null)");
    if (UploadToFtp(server, path, attachment.name, ftpDirectory_) != 0) {
      attachment.size = -1;
      all = false;
    }
    std::remove(path.c_str());
  }
  return all;
}

void MailReceiver::WriteAnswer(wxEntryLog& answer) {
  const bool uploaded = UploadAttachments();
  WriteSuccess(answer);
  // The message itself was read; the client still learns that its files are
  // not where it asked for them.
  if (!uploaded) answer.AddEntryText(kEntryField, "Log", "Upload attachment to ftp server error");
  WriteParameterRecord(answer);
  const std::pair<const char*, const std::optional<std::string>*> fields[] = {
      {"From", &rendered_.from},         {"To", &rendered_.to},     {"Cc", &rendered_.cc},
      {"Subject", &rendered_.subject},   {"Date", &rendered_.date}, {"Body", &rendered_.body},
      {"Priority", &rendered_.priority},
  };
  for (const auto& [name, value] : fields) {
    if (*value) answer.AddEntryText(kEntryField, name, **value);
  }
  for (size_t k = 0; k < rendered_.attachments.size(); ++k) {
    const RenderedMail::Attachment& attachment = rendered_.attachments[k];
    answer.AddEntryText(kEntryListItem, "Attachment" + std::to_string(k),
                        attachment.name + "," + std::to_string(attachment.size));
  }
}

void MailReceiver::RecordKnownUid() {
  corvane::RecordKnownUid(registry_, mailbox_.Key(), cacheDirectory_, *uid_);
}

}  // namespace corvane
