#pragma once

#include <string_view>

#include "transport/wx_entry_log.h"

namespace corvane {

// Entry kinds of an answer container.
enum AnswerEntryKind : unsigned {
  kEntryOpenRecord = 1,
  kEntryField = 2,
  kEntryListItem = 3,
  kEntryCloseRecord = 5,
};

// Entries every answer carries: "Status" "success", or "Status" "fail" with
// the reason in "Log".
void WriteSuccess(wxEntryLog& answer);
void WriteFailure(wxEntryLog& answer, std::string_view reason);
// Closes the response record and opens the "sysPARAMETER" record that
// carries an operation's results.
void WriteParameterRecord(wxEntryLog& answer);

}  // namespace corvane
