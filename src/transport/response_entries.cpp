#include "transport/response_entries.h"

namespace corvane {
void WriteSuccess(wxEntryLog& answer) {
  answer.AddEntryText(kEntryField, "Status", "success");
}

void WriteFailure(wxEntryLog& answer, std::string_view reason) {
  answer.AddEntryText(kEntryField, "Status", "fail");
  answer.AddEntryText(kEntryField, "Log", reason);
}

void WriteParameterRecord(wxEntryLog& answer) {
  answer.AddEntryText(kEntryCloseRecord, "0", std::nullopt);
  answer.AddEntryText(kEntryOpenRecord, "sysPARAMETER", "aParam");
}

}  // namespace corvane
