#include "request_builder.h"

#include "transport/wx_entry_log.h"

namespace corvane::cli {

std::string BuildRequest(const CliOptions& options) {
  wxEntryLog log;
  log.SetRecording(true);
  log.AddEntryText(1, "sysREQUEST", "aRequest");
  for (const auto& [name, value] : options.requestFields) log.AddEntryText(2, name, value);
  log.AddEntryText(5, "0", std::nullopt);
  if (!options.parameterFields.empty() || !options.multiFields.empty()) {
    log.AddEntryText(1, "sysPARAMETER", "aParam");
    for (const auto& [name, value] : options.parameterFields) log.AddEntryText(2, name, value);
    for (const auto& [name, value] : options.multiFields) log.AddEntryText(3, name, value);
    log.AddEntryText(5, "0", std::nullopt);
  }
  return log.Serialize();
}

}  // namespace corvane::cli
