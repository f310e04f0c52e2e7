#include "transport/wx_query.h"

#include <algorithm>

#include "transport/counted_string.h"

namespace corvane {
namespace {

// The counted string at `bytes`, cut at `available` if it claims more.
std::string_view CountedAt(const char* bytes, size_t available) {
  if (available == 0) return {};
  return {bytes, std::min(CountedString::SizeAt(bytes, available), available)};
}

// A path entry's name must begin with the name of the record set it is for.
bool NamesRecordSet(std::string_view countedName, const std::string& recordSetName) {
  auto name = CountedString::DataAt(countedName.data(), countedName.size());
  return name && name->substr(0, recordSetName.size()) == recordSetName;
}

}  // namespace

wxQuery::wxQuery() = default;
wxQuery::~wxQuery() = default;

void wxQuery::AddRecordSet(std::optional<std::string_view> name) {
  if (wxRecordSet* current = CurrentRecordSet()) current->RemoveScratchFields();
  log_.Clear();
  recordSets_.push_back(std::make_unique<wxRecordSet>(name));
}

void wxQuery::AddEntry(unsigned tag, std::string_view countedName, std::string_view countedValue) {
  wxRecordSet* current = CurrentRecordSet();
  if (!current || tag > wxEntryLog::kMaxTag) return;
  current->Apply(tag, countedName, countedValue);
  log_.Record(tag, countedName, countedValue);
}

bool wxQuery::Parse(const char* bytes, size_t length) {
  size_t position = 0;
  while (position < length) {
    unsigned tag = static_cast<unsigned char>(bytes[position]) - unsigned{'0'};
    ++position;
    std::string_view name = CountedAt(bytes + position, length - position);
    position += name.size();
    std::string_view value = CountedAt(bytes + position, length - position);
    position += value.size();
    if (tag > wxEntryLog::kMaxTag) continue;
    wxRecordSet* current = CurrentRecordSet();
    if (tag == wxRecordSet::kPath && current && current->HasName() &&
        !NamesRecordSet(name, current->Name())) {
      return false;
    }
    AddEntry(tag, name, value);
  }
  return true;
}

wxNode* wxQuery::FindNode(std::string_view name) {
  wxRecordSet* current = CurrentRecordSet();
  return current ? current->FindNode(name) : nullptr;
}

}  // namespace corvane
