#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "transport/wx_entry_log.h"
#include "transport/wx_node.h"
#include "transport/wx_record_set.h"

namespace corvane {

// The record container of one request: an ordered list of record sets, the
// last of which is current, and an entry log. A request is read by adding an
// unnamed record set, parsing the deciphered bytes into it and finding its
// root nodes. Nodes handed out stay valid until the query is destroyed.
class wxQuery {
 public:
  wxQuery();
  ~wxQuery();
  wxQuery(const wxQuery&) = delete;
  wxQuery& operator=(const wxQuery&) = delete;

  // Prunes the "0"-prefixed fields of the current record set, clears the log,
  // then appends a new empty record set and makes it current.
  void AddRecordSet(std::optional<std::string_view> name = std::nullopt);

  // Applies an entry (name and value as counted strings) to the current
  // record set and records it while the log records; nothing without a
  // current record set.
  void AddEntry(unsigned tag, std::string_view countedName, std::string_view countedValue);

  // Replays a plain entry log into the current record set. Entries with a tag
  // other than "0".."6" are stepped over; a name or value running past
  // `length` is cut there. False when a path entry names a record set other
  // than the current one; the entries before it stay applied.
  bool Parse(const char* bytes, size_t length);
  bool Parse(std::string_view bytes) { return Parse(bytes.data(), bytes.size()); }

  // The recorded log; the log is empty afterwards.
  std::string Serialize() { return log_.Serialize(); }

  // A root of the current record set by name, then by value.
  wxNode* FindNode(std::string_view name);

  wxEntryLog& Log() { return log_; }
  wxRecordSet* CurrentRecordSet() {
    return recordSets_.empty() ? nullptr : recordSets_.back().get();
  }
  size_t RecordSetCount() const { return recordSets_.size(); }

 private:
  std::vector<std::unique_ptr<wxRecordSet>> recordSets_;
  wxEntryLog log_;
};

}  // namespace corvane
