#include "handling/command_dispatcher.h"

#include "handling/config_mail.h"
#include "handling/process_registry.h"
#include "handling/request_fields.h"
#include "service/process_log.h"
#include "transport/response_entries.h"

namespace corvane {
namespace {

constexpr unsigned kOpenNode = 1;
constexpr unsigned kField = 2;
constexpr unsigned kCloseNode = 5;

using Operation = void (*)(RequestFields& request, wxEntryLog& answer);

void RunConfigMail(RequestFields& request, wxEntryLog& answer) {
  std::shared_ptr<AccountRegistry> registry = g_accountRegistry.load();
  if (!registry) {
    // Only while the gateway is shutting down.
    WriteFailure(answer, "Account is not exist");
    return;
  }
  ConfigMail(request, *registry, answer);
}

// Matched exactly, case included, first match wins.
constexpr struct {
  const char* name;
  Operation run;
} kCommands[] = {
    {"ConfigMail", RunConfigMail},
};

}  // namespace

std::string CommandDispatcher::Dispatch(std::string_view bytes) const {
  RequestFields request(bytes.data(), bytes.size());
  std::optional<std::string> command = request.Request("Command");
  const char* commandText = command ? command->c_str() : "(null)";
  WriteLog(kLogDebug, "[Corvane] Proccess command: %s ------------------------------\n",
           commandText);

  wxEntryLog answer;
  answer.SetRecording(true);
  answer.AddEntryText(kOpenNode, "sysRESPONSE", "aResponse");
  answer.AddEntryText(kField, "Command", command);
  if (!command) {
    WriteFailure(answer, "Request command is wrong");
  } else {
    Operation run = nullptr;
    for (const auto& entry : kCommands) {
      if (*command == entry.name) {
        run = entry.run;
        break;
      }
    }
    if (run) {
      run(request, answer);
    } else {
      WriteFailure(answer, "Unknow command");
      WriteLog(kLogError, "Unknow command: %s\n", commandText);
    }
  }
  // GB2312: "request answered".
  WriteLog(kLogDebug, "\xCF\xEC\xD3\xA6\xC7\xEB\xC7\xF3\xCD\xEA\xB1\xCF Command: %s\n",
           commandText);
  answer.AddEntryText(kCloseNode, "0", std::nullopt);
  return answer.Serialize();
}

}  // namespace corvane
