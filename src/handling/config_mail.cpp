#include "handling/config_mail.h"

#include <functional>

#include "base/ascii_text.h"
#include "base/decimal_text.h"
#include "base/limits.h"
#include "base/process_log.h"
#include "transport/response_entries.h"

namespace corvane {

void ConfigMail(RequestFields& request, AccountRegistry& registry, wxEntryLog& answer) {
  auto pop3 = request.Request("Pop3");
  auto port = request.Request("Port");
  auto login = request.Request("Login");
  auto password = request.Request("Pwd");
  auto mobile = request.Request("Mobile");
  auto action = request.Parameter("Config");
  auto polling = request.Parameter("Polling");
  if (!pop3 || !login || !password || !mobile || !action || !polling) {
    WriteFailure(answer, "The parameter of request is not enough");
    return;
  }
  // A line break or NUL would write forged rows into the profile file, and
  // a comma would move the fields of its row when the file is read again.
  for (const auto* field : {&pop3, &login, &password, &mobile}) {
    if ((*field)->find_first_of(std::string_view("\r\n\0,", 4)) != std::string::npos ||
        (*field)->size() > limits::kMaxAccountFieldBytes) {
      WriteFailure(answer, "Error config parameter");
      return;
    }
  }
  const int32_t portNumber = ReadDecimal(port.value_or("110"));
  const int32_t pollingFlag = *polling == "stop" ? 0 : 1;
  const std::string key = AccountKey(*login, *pop3);

  // Undoes the change in memory when the profile cannot be saved: a client
  // told "fail" must find nothing changed, now or after a restart.
  std::function<void()> undo;
  if (SameText(*action, "append")) {
    // Held to the bound give or take the appends running at this moment.
    if (registry.Count() >= limits::kMaxAccounts) {
      WriteFailure(answer, "Save account file error");
      WriteLog(kLogError, "Account %s not added: %zu accounts already\n", key.c_str(),
               registry.Count());
      return;
    }
    auto account = std::make_shared<Account>();
    account->login = *login;
    account->pop3Host = *pop3;
    account->password = *password;
    account->port = portNumber;
    account->mobile = *mobile;
    account->polling = pollingFlag;
    if (!registry.Add(std::move(account))) {
      // "is already exist", "is not exist": the clients' texts, spelling kept.
      WriteFailure(answer, "Account is already exist");
      WriteLog(kLogInfo, "Account %s is already exist\n", key.c_str());
      return;
    }
    undo = [&registry, key] { registry.Remove(key); };
  } else if (SameText(*action, "update")) {
    auto account = registry.Find(key);
    if (!account) {
      WriteFailure(answer, "Account is not exist");
      return;
    }
    auto change = [&registry, account](std::string newPassword, int32_t newPort,
                                       std::string newMobile, int32_t newPolling) {
      {
        std::lock_guard guard(account->lock);
        account->password = std::move(newPassword);
        account->port = newPort;
        account->mobile = std::move(newMobile);
        account->polling = newPolling;
      }
      registry.PlaceCache(*account);
    };
    {
      std::lock_guard guard(account->lock);
      undo = [change, oldPassword = account->password, oldPort = account->port,
              oldMobile = account->mobile, oldPolling = account->polling] {
        change(oldPassword, oldPort, oldMobile, oldPolling);
      };
    }
    change(*password, portNumber, *mobile, pollingFlag);
  } else if (SameText(*action, "delete")) {
    auto account = registry.Find(key);
    if (!account || !registry.Remove(key)) {
      WriteFailure(answer, "Account is not exist");
      return;
    }
    undo = [&registry, account] { registry.Add(account); };
  } else {
    WriteFailure(answer, "Error config parameter");
    return;
  }
  if (registry.Save() != 0) {
    undo();
    WriteFailure(answer, "Save account file error");
    return;
  }
  WriteSuccess(answer);
}

}  // namespace corvane
