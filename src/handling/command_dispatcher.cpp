#include "handling/command_dispatcher.h"

#include <algorithm>
#include <iterator>

#include "accounts/process_registry.h"
#include "base/process_log.h"
#include "base/service_settings.h"
#include "handling/config_mail.h"
#include "mail/mail_forwarder.h"
#include "mail/mail_lister.h"
#include "mail/mail_receiver.h"
#include "mail/mail_replier.h"
#include "mail/mail_sender.h"
#include "protocol/operation_deadline.h"
#include "transport/request_fields.h"
#include "transport/response_entries.h"

namespace corvane {
namespace {

using Operation = void (*)(RequestFields& request, wxEntryLog& answer);

// The registry the operations work on; none only while the gateway shuts
// down, when the request is answered as failed.
std::shared_ptr<AccountRegistry> RegistryOrFailure(wxEntryLog& answer, std::string_view reason) {
  std::shared_ptr<AccountRegistry> registry = g_accountRegistry.load();
  if (!registry) WriteFailure(answer, reason);
  return registry;
}

void RunSendMail(RequestFields& request, wxEntryLog& answer) {
  MailSender sender(request);
  sender.Send(answer);
}

void RunListMail(RequestFields& request, wxEntryLog& answer) {
  std::shared_ptr<AccountRegistry> registry =
      RegistryOrFailure(answer, "Connect pop3 server error");
  if (!registry) return;
  MailLister lister(request, *registry);
  if (lister.Open(answer) != 0) return;
  lister.GatherItems(g_settings.subjectLength);
  lister.WriteRows(answer);
  lister.UpdateKnownUids();
}

// The retrieval steps receive, reply and forward start with: the message
// fetched and rendered. False when the fetch failed (and was answered).
bool Retrieve(MailReceiver& receiver, wxEntryLog& answer) {
  receiver.SetMaxMessageBytes(int64_t{g_settings.maxMessageMb} * 1024 * 1024);
  if (receiver.Fetch(answer, g_settings.pop3Timeout) != 0) return false;
  receiver.Render();
  receiver.ConvertHtmlBody();
  return true;
}

void RunReceiveMail(RequestFields& request, wxEntryLog& answer) {
  std::shared_ptr<AccountRegistry> registry = RegistryOrFailure(answer, "Load pop3 message error");
  if (!registry) return;
  MailReceiver receiver(request, *registry);
  if (!receiver.DestinationAllowed(answer) || !Retrieve(receiver, answer)) return;
  receiver.SaveAttachments();
  receiver.ApplyDefaultBody(g_settings.defaultBody);
  receiver.WriteAnswer(answer);
  receiver.RecordKnownUid();
}

void RunReplyMail(RequestFields& request, wxEntryLog& answer) {
  std::shared_ptr<AccountRegistry> registry = RegistryOrFailure(answer, "Load pop3 message error");
  if (!registry) return;
  MailReceiver receiver(request, *registry);
  if (!Retrieve(receiver, answer)) return;
  MailReplier replier(request);
  replier.Merge(receiver.Rendered());
  replier.Send(answer);
}

void RunForwardMail(RequestFields& request, wxEntryLog& answer) {
  std::shared_ptr<AccountRegistry> registry = RegistryOrFailure(answer, "Load pop3 message error");
  if (!registry) return;
  MailReceiver receiver(request, *registry);
  if (!Retrieve(receiver, answer)) return;
  receiver.SaveAttachmentCopies();  // removed with the receiver, once sent
  MailForwarder forwarder(request);
  forwarder.Merge(receiver.Rendered(), receiver.AttachmentDirectory());
  forwarder.Send(answer);
}

void RunConfigMail(RequestFields& request, wxEntryLog& answer) {
  std::shared_ptr<AccountRegistry> registry = RegistryOrFailure(answer, "Account is not exist");
  if (!registry) return;
  ConfigMail(request, *registry, answer);
}

// Matched exactly, case included, first match wins. Each has the failure
// text it answers when its time runs out.
constexpr struct {
  const char* name;
  Operation run;
  const char* timedOut;
} kCommands[] = {
    {"SendMail", RunSendMail, "Send mail error"},
    {"ListMail", RunListMail, "Connect pop3 server error"},
    {"ReceiveMail", RunReceiveMail, "Load pop3 message error"},
    {"ReplyMail", RunReplyMail, "Send mail error"},
    {"ForwardMail", RunForwardMail, "Send mail error"},
    {"ConfigMail", RunConfigMail, "Account is not exist"},
};

}  // namespace

std::string CommandDispatcher::Dispatch(std::string_view bytes) const {
  RequestFields request(bytes.data(), bytes.size());
  std::optional<std::string> command = request.Request("Command");
  const char* commandText = command ? command->c_str() : "(null)";
  // "Proccess" (and "Unknow" below) are the log's and the clients' own
  // spellings, kept on purpose.
  WriteLog(kLogDebug, "[Corvane] Proccess command: %s ------------------------------\n",
           commandText);

  auto startAnswer = [&command](wxEntryLog& answer) {
    answer.Clear();
    answer.SetRecording(true);
    answer.AddEntryText(kEntryOpenRecord, "sysRESPONSE", "aResponse");
    answer.AddEntryText(kEntryField, "Command", command);
  };
  wxEntryLog answer;
  startAnswer(answer);
  if (!command) {
    WriteFailure(answer, "Request command is wrong");
  } else {
    const auto* found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                     [&](const auto& entry) { return *command == entry.name; });
    if (found != std::end(kCommands)) {
      OperationDeadline deadline(std::chrono::seconds(g_settings.operationTimeout));
      found->run(request, answer);
      // Whatever the operation made of its cut-short connections, the
      // client learns that it failed.
      if (OperationDeadline::Expired()) {
        startAnswer(answer);
        WriteFailure(answer, found->timedOut);
        WriteLog(kLogError, "%s did not end within %d seconds\n", commandText,
                 g_settings.operationTimeout);
      }
    } else {
      WriteFailure(answer, "Unknow command");
      WriteLog(kLogError, "Unknow command: %s\n", commandText);
    }
  }
  // GB2312: "request answered".
  WriteLog(kLogDebug, "\xCF\xEC\xD3\xA6\xC7\xEB\xC7\xF3\xCD\xEA\xB1\xCF Command: %s\n",
           commandText);
  answer.AddEntryText(kEntryCloseRecord, "0", std::nullopt);
  return answer.Serialize();
}

}  // namespace corvane
