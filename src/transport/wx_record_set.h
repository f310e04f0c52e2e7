#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "transport/wx_node.h"

namespace corvane {

// One named record set of a query: a forest of nodes built by applying
// entries, with an index of every node in the order it was opened. Entries
// act on the current node; "Begin"/"End" marks save and restore it.
class wxRecordSet {
 public:
  // Entry kinds, as the tag digit of each entry.
  enum Tag : unsigned {
    kPath = 0,
    kOpenNode = 1,
    kField = 2,
    kMultiField = 3,
    kBinaryField = 4,
    kCloseNode = 5,
    kMark = 6,
  };

  struct IndexEntry {
    uint32_t depth;
    std::unique_ptr<wxNode> node;
  };

  explicit wxRecordSet(std::optional<std::string_view> name = std::nullopt);
  ~wxRecordSet();
  wxRecordSet(const wxRecordSet&) = delete;
  wxRecordSet& operator=(const wxRecordSet&) = delete;

  // The name given at creation or taken from the first path entry, as
  // zero-terminated text; empty while the set has none.
  const std::string& Name() const { return name_; }
  bool HasName() const { return !name_.empty(); }

  // Applies one entry whose name and value are counted strings. Tags above 6
  // are ignored, and so are field, close and binary entries with no current
  // node.
  void Apply(unsigned tag, std::string_view countedName, std::string_view countedValue);

  // A root whose name reads as `name`, else a root whose value does.
  wxNode* FindNode(std::string_view name) const;
  // Among the children of `node`, the first whose name or value reads as
  // `name`; failing that, the node named by the value of the first field of
  // `node` called `name` that names a root.
  wxNode* FindChild(const wxNode* node, std::string_view name) const;
  // Follows a dotted path: the first part names a root, each further part a
  // child; empty parts are skipped. None when a step fails.
  wxNode* ResolvePath(std::string_view path) const;

  // Removes the "0"-prefixed fields of every node.
  void RemoveScratchFields();

  wxNode* CurrentNode() const { return current_; }
  wxNode* SavedNode() const { return saved_; }
  const std::vector<wxNode*>& Roots() const { return roots_; }
  const std::vector<IndexEntry>& Index() const { return index_; }
  uint32_t IndexCount() const { return static_cast<uint32_t>(index_.size()); }

 private:
  void OpenNode(std::optional<std::string_view> name, std::optional<std::string_view> value);
  void Mark(std::string_view mark);

  std::string name_;
  // Owns every node, so that tearing down even a very deep tree never recurses.
  std::vector<IndexEntry> index_;
  std::vector<wxNode*> roots_;
  // The last node opened at each depth, for "Begin".
  std::vector<wxNode*> lastAtDepth_;
  wxNode* current_ = nullptr;
  wxNode* saved_ = nullptr;
};

}  // namespace corvane
