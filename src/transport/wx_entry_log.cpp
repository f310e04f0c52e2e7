#include "transport/wx_entry_log.h"

#include <utility>

#include "transport/counted_string.h"

namespace corvane {
namespace {

std::string_view DataOf(std::string_view counted) {
  return CountedString::DataAt(counted.data(), counted.size()).value_or(std::string_view());
}

}  // namespace

void wxEntryLog::Record(unsigned tag, std::string_view countedName, std::string_view countedValue) {
  AddEntryText(tag, DataOf(countedName), DataOf(countedValue));
}

void wxEntryLog::AddEntryText(unsigned tag, std::optional<std::string_view> name,
                              std::optional<std::string_view> value) {
  if (!recording_ || tag > kMaxTag) return;
  entries_.push_back(static_cast<char>('0' + tag));
  CountedString::AppendTo(entries_, name.value_or(std::string_view()));
  CountedString::AppendTo(entries_, value.value_or(std::string_view()));
  ++count_;
}

std::string wxEntryLog::Serialize() {
  std::string out = std::move(entries_);
  Clear();
  return out;
}

void wxEntryLog::Clear() {
  entries_.clear();
  count_ = 0;
}

}  // namespace corvane
