#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "transport/counted_string.h"
#include "transport/wx_entry_log.h"

namespace corvane::test {

using Fields = std::vector<std::pair<std::string, std::optional<std::string>>>;

// The container bytes of a request as a client sends them: its "sysREQUEST"
// fields, then its "sysPARAMETER" fields; a multi-valued field is one entry
// of its values joined by ",", and a second entry of the name replaces it.
inline std::string MailRequest(const Fields& request, const Fields& parameters,
                               const Fields& multiValued = {}) {
  wxEntryLog log;
  log.SetRecording(true);
  log.AddEntryText(1, "sysREQUEST", "aRequest");
  for (const auto& [name, value] : request) log.AddEntryText(2, name, value);
  log.AddEntryText(5, "0", std::nullopt);
  log.AddEntryText(1, "sysPARAMETER", "aParam");
  for (const auto& [name, value] : parameters) log.AddEntryText(2, name, value);
  for (const auto& [name, value] : multiValued) log.AddEntryText(3, name, value);
  log.AddEntryText(5, "0", std::nullopt);
  return log.Serialize();
}

// One recorded answer entry in its serialized form.
inline std::string Entry(int kind, const std::string& name, const std::string& value) {
  return std::to_string(kind) + CountedString::Encode(name) + CountedString::Encode(value);
}

// The entries every successful listing or retrieval starts with.
inline std::string SuccessHead() {
  return Entry(2, "Status", "success") + Entry(5, "0", "") + Entry(1, "sysPARAMETER", "aParam");
}

}  // namespace corvane::test
