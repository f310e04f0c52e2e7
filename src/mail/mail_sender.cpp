#include "mail/mail_sender.h"

#include <sys/stat.h>

#include "base/confined_path.h"
#include "base/decimal_text.h"
#include "base/process_log.h"
#include "base/service_settings.h"
#include "mail/message_submission.h"
#include "mail/text_helpers.h"
#include "mime/encoded_words.h"
#include "protocol/net_error.h"
#include "transport/response_entries.h"

namespace corvane {
namespace {

constexpr char kMissingFieldText[] = "The parameter of request is not enough";
constexpr unsigned kSubmissionsPort = 465;

// The clients' escape for a line break.
std::optional<std::string> WithLineBreaks(std::optional<std::string> text) {
  if (!text) return text;
  constexpr std::string_view kEscape = "--#13--";
  for (size_t at = 0; (at = text->find(kEscape, at)) != std::string::npos; at += 2) {
    text->replace(at, kEscape.size(), "\r\n");
  }
  return text;
}

// 8-bit text as RFC 2047 words in `charset`; ASCII as it is.
std::string HeaderText(const std::string& text, const std::string& charset) {
  if (!HasEightBitBytes(text)) return text;
  std::string encoded;
  return EncodeWords(text, charset, 'B', encoded) == kEncodeOk ? encoded : text;
}

// Port 465 speaks TLS from the first byte, as 995 does for POP3; any other
// port secures the session as [Smtp] Tls says.
SmtpTls SmtpTlsFor(unsigned port) {
  if (port == kSubmissionsPort) return SmtpTls::kImplicit;
  switch (g_settings.smtpTls) {
    case SmtpTlsSetting::kOff:
      return SmtpTls::kOff;
    case SmtpTlsSetting::kRequired:
      return SmtpTls::kRequired;
    case SmtpTlsSetting::kAuto:
      break;
  }
  return SmtpTls::kAuto;
}

}  // namespace

MailSender::MailSender(RequestFields& request) {
  mail_.smtpHost = request.Request("Smtp");
  mail_.smtpPort = request.Request("SmtpPort").value_or(request.Request("Port").value_or("25"));
  mail_.login = request.Request("Login");
  mail_.password = request.Request("Pwd");
  mail_.authenticate = request.Request("Auth") == "true";
  mail_.from = request.Parameter("From");
  if (!mail_.from) mail_.from = mail_.login;
  mail_.name = request.Parameter("Name");
  mail_.to = request.Parameter("To");
  mail_.cc = request.Parameter("Cc");
  mail_.subject = WithLineBreaks(request.Parameter("Subject"));
  mail_.body = WithLineBreaks(request.Parameter("Body"));
  mail_.charset = request.Parameter("Encode").value_or("gb2312");
  mail_.priority = request.Parameter("Priority");
  mail_.receipt = request.Parameter("Receipt") == "true";
  // Checked before anything is read: /dev/zero or a huge file would
  // otherwise be read into memory before the send failed.
  const int64_t limit = int64_t{g_settings.maxAttachmentMb} * 1024 * 1024;
  int64_t total = 0;
  for (int i = 1; std::optional<std::string> path = request.ParameterAt("Attachments", i); ++i) {
    const std::optional<std::string> inside = ClientLocalPath(*path);
    struct stat file;
    const char* problem = nullptr;
    if (!inside) {
      problem = "is outside files_root";
    } else if (::stat(inside->c_str(), &file) != 0 || !S_ISREG(file.st_mode)) {
      problem = "is not a regular file";
    } else if (limit > 0 && (total += file.st_size) > limit) {
      problem = "takes the attachments past max_attachment_size";
    }
    if (problem && !mail_.refusedAttachment) {
      mail_.refusedAttachment = *path;
      mail_.refusal = problem;
    }
    mail_.attachments.push_back(std::move(*path));
  }
}

int MailSender::Compose(MailMessage& message) const {
  const std::string from = mail_.from.value_or("");
  message.SetCharset(mail_.charset);
  message.SetTextBody(mail_.body.value_or(""));
  message.AppendHeader(("text/plain; charset=\"" + mail_.charset + "\"").c_str(),
                       kFieldContentType);
  message.AppendHeader(mail_.to->c_str(), kFieldTo);
  if (mail_.cc) message.AppendHeader(mail_.cc->c_str(), kFieldCc);
  std::string sender = from;
  if (mail_.name) sender = HeaderText(*mail_.name, mail_.charset) + "<" + from + ">";
  message.AppendHeader(sender.c_str(), kFieldFrom);
  message.AppendHeader(HeaderText(mail_.subject.value_or(""), mail_.charset).c_str(),
                       kFieldSubject);
  if (mail_.priority) message.AppendHeader(mail_.priority->c_str(), kFieldCustom, "X-Priority:");
  if (mail_.receipt) {
    message.AppendHeader(from.c_str(), kFieldCustom, "Disposition-Notification-To:");
  }
  for (const std::string& path : mail_.attachments) {
    int result = message.AddAttachmentFile(path);
    if (result != 0) return result;
  }
  return 0;
}

void MailSender::Send(wxEntryLog& answer) {
  if (!mail_.smtpHost || !mail_.to) {
    WriteFailure(answer, kMissingFieldText);
    WriteLog(kLogError, "%s\n", kMissingFieldText);
    return;
  }
  if (mail_.refusedAttachment) {
    WriteFailure(answer, "Send mail error");
    WriteLog(kLogError, "Send mail ocurr error: attachment %s %s\n",
             mail_.refusedAttachment->c_str(), mail_.refusal.c_str());
    return;
  }
  if (mail_.authenticate) {
    client_.SetUserName(mail_.login ? mail_.login->c_str() : nullptr);
    client_.SetPassword(mail_.password ? mail_.password->c_str() : nullptr);
    client_.SetAuthentication(true);
  }
  const auto port = static_cast<unsigned>(ReadDecimal(mail_.smtpPort));
  client_.SetPort(port);
  client_.SetTls(SmtpTlsFor(port));
  int result = client_.SMTPConnect(mail_.smtpHost->c_str(), "localhost");
  if (result != 0) {
    WriteFailure(answer, "Connect to smtp server error");
    WriteLog(kLogError, "Connect %s smtp server error: %s\n", mail_.smtpHost->c_str(),
             CNetError::GetErrorString(result));
    client_.CloseConnection();
    return;
  }
  MailMessage message;
  result = Compose(message);
  WriteLog(kLogDebug, "Send mail to: %s\n", mail_.to->c_str());
  WriteLog(kLogDebug, "Subject: %s\n", mail_.subject.value_or("").c_str());
  if (result == 0) result = SubmitMessage(client_, message);
  if (result == 0) {
    WriteSuccess(answer);
    WriteLog(kLogDebug, "Send mail success\n");
  } else {
    WriteFailure(answer, "Send mail error");
    // "ocurr": the log text's own spelling, kept on purpose.
    WriteLog(kLogError, "Send mail ocurr error: %s\n", CNetError::GetErrorString(result));
  }
  client_.SMTPClose();
}

}  // namespace corvane
