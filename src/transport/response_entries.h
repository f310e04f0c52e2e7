#pragma once

#include <string_view>

#include "transport/wx_entry_log.h"

namespace corvane {

// Entries every answer carries: "Status" "success", or "Status" "fail" with
// the reason in "Log".
void WriteSuccess(wxEntryLog& answer);
void WriteFailure(wxEntryLog& answer, std::string_view reason);

}  // namespace corvane
