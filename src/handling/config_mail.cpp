#include "handling/config_mail.h"

#include <strings.h>

#include "service/decimal_text.h"
#include "service/process_log.h"
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
  // A line break or NUL would write forged rows into the profile file.
  for (const auto* field : {&pop3, &login, &password, &mobile}) {
    if ((*field)->find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
      WriteFailure(answer, "Error config parameter");
      return;
    }
  }
  const int32_t portNumber = ReadDecimal(port.value_or("110"));
  const int32_t pollingFlag = *polling == "stop" ? 0 : 1;
  const std::string key = AccountKey(*login, *pop3);

  if (strcasecmp(action->c_str(), "append") == 0) {
    auto account = std::make_shared<Account>();
    account->login = *login;
    account->pop3Host = *pop3;
    account->password = *password;
    account->port = portNumber;
    account->mobile = *mobile;
    account->polling = pollingFlag;
    if (!registry.Add(std::move(account))) {
      WriteFailure(answer, "Account is already exist");
      WriteLog(kLogInfo, "Account %s is already exist\n", key.c_str());
      return;
    }
  } else if (strcasecmp(action->c_str(), "update") == 0) {
    auto account = registry.Find(key);
    if (!account) {
      WriteFailure(answer, "Account is not exist");
      return;
    }
    {
      std::lock_guard guard(account->lock);
      account->password = *password;
      account->port = portNumber;
      account->mobile = *mobile;
      account->polling = pollingFlag;
    }
    registry.PlaceCache(*account);
  } else if (strcasecmp(action->c_str(), "delete") == 0) {
    if (!registry.Remove(key)) {
      WriteFailure(answer, "Account is not exist");
      return;
    }
  } else {
    WriteFailure(answer, "Error config parameter");
    return;
  }
  registry.Save();
  WriteSuccess(answer);
}

}  // namespace corvane
