#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "accounts/account_registry.h"
#include "mail/mailbox_connection.h"
#include "mail/mailbox_session.h"
#include "mail/scratch_directory.h"
#include "mime/mail_message.h"
#include "transport/request_fields.h"
#include "transport/wx_entry_log.h"

namespace corvane {

// A message as the client reads it: display texts in the client's charset.
struct RenderedMail {
  std::optional<std::string> from, to, cc, subject, date, body, priority;
  struct Attachment {
    std::string name;  // the file name it was saved under
    // Bytes decoded; -1 when it could not be written, or uploaded.
    int64_t size = 0;
  };
  std::vector<Attachment> attachments;
};

// "ReceiveMail": one message as plain text. The whole message is kept as
// "<id>.txt" in the mailbox's cache directory and served from there later,
// but only after the POP3 login has succeeded: the login is the
// authorisation. The dispatcher calls Fetch, then (when it gave 0) Render,
// ConvertHtmlBody, SaveAttachments, ApplyDefaultBody, WriteAnswer and
// RecordKnownUid.
class MailReceiver {
 public:
  MailReceiver(RequestFields& request, const AccountRegistry& registry);
  ~MailReceiver();
  MailReceiver(const MailReceiver&) = delete;
  MailReceiver& operator=(const MailReceiver&) = delete;

  // False, with the failure answer, when "Attachment" names a local
  // directory outside [Application] files_root; asked before Fetch.
  bool DestinationAllowed(wxEntryLog& answer);
  // Logs in and loads the message from the cache or the server, with the
  // receive time-out `pop3TimeoutSeconds` (doubled from 2 MB, tripled from
  // 3 MB). 0, 100 when a required field is missing, or a result code; a
  // failure is answered here.
  int Fetch(wxEntryLog& answer, int pop3TimeoutSeconds);
  // A message larger than this many bytes (by its LIST size, or by what
  // arrives) is not fetched: Fetch fails. 0 or less: no limit.
  void SetMaxMessageBytes(int64_t bytes) { maxMessageBytes_ = bytes; }
  // Header fields for display and the body converted to the target charset.
  void Render();
  // An HTML-only body becomes plain text.
  void ConvertHtmlBody();
  // Decodes the named attachments into the "Attachment" directory, or into
  // a scratch directory inside the cache directory when it is an FTP
  // address (uploaded by WriteAnswer).
  void SaveAttachments();
  // Decodes the named attachments into a scratch directory inside the cache
  // directory, whatever the request's "Attachment" says, for a forward to
  // attach again; they go with this object.
  void SaveAttachmentCopies();
  void ApplyDefaultBody(const std::optional<std::string>& defaultBody);
  // Writes the success answer; uploads FTP-bound attachments first and
  // deletes their local copies, whether or not the upload worked. A failed
  // upload lists its attachment with -1 and puts "Log" in the response.
  void WriteAnswer(wxEntryLog& answer);
  // Adds the id to the mailbox's known-id list.
  void RecordKnownUid();

  const MailMessage& Message() const { return message_; }
  const RenderedMail& Rendered() const { return rendered_; }
  RenderedMail& Rendered() { return rendered_; }
  // Where the attachments were saved ("/" at the end), empty before saving.
  const std::string& AttachmentDirectory() const { return attachmentDirectory_; }

 private:
  int FetchFromServer(const std::string& cachedPath);
  std::optional<std::string> DisplayHeader(HeaderFieldId field) const;
  // `clients`: the directory is the one the request named, so each file
  // must stay inside files_root too (a link in its place could lead out).
  void SaveAttachmentsInto(std::string directory, bool clients = false);
  // Uploads the attachments to the configured FTP server when the request
  // named one; false when any of them did not arrive.
  bool UploadAttachments();
  const std::string& ScratchPath();

  const AccountRegistry& registry_;
  MailboxLogin mailbox_;
  std::string targetCharset_;
  std::optional<std::string> uid_;
  std::optional<std::string> destination_;
  std::string cacheDirectory_;
  std::unique_ptr<MailboxSession> session_;
  bool connected_ = false;
  int64_t maxMessageBytes_ = 0;
  MailMessage message_;
  RenderedMail rendered_;
  std::string attachmentDirectory_;
  std::optional<std::string> ftpDirectory_;
  std::optional<ScratchDirectory> scratch_;
};

}  // namespace corvane
