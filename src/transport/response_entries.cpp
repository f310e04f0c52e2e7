#include "transport/response_entries.h"

namespace corvane {
namespace {
constexpr unsigned kFieldEntry = 2;
}

void WriteSuccess(wxEntryLog& answer) {
  answer.AddEntryText(kFieldEntry, "Status", "success");
}

void WriteFailure(wxEntryLog& answer, std::string_view reason) {
  answer.AddEntryText(kFieldEntry, "Status", "fail");
  answer.AddEntryText(kFieldEntry, "Log", reason);
}

}  // namespace corvane
