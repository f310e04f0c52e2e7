#pragma once

#include "accounts/account_registry.h"
#include "transport/request_fields.h"
#include "transport/wx_entry_log.h"

namespace corvane {

// "ConfigMail": appends, updates or deletes an account of the registry and
// rewrites the profile file after every change.
void ConfigMail(RequestFields& request, AccountRegistry& registry, wxEntryLog& answer);

}  // namespace corvane
