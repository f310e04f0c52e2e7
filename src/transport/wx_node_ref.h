#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "transport/wx_node.h"

namespace corvane {

class wxQuery;

// Reads values from one node of a query. Field values that are themselves
// path expressions naming another value ("sysREQUEST.Login") read as that
// value. Path expressions:
//   path.name          the value of field `name` of the node the path names
//   path.name[i]       value i (from 1) of the multi-valued field `name`
//   path.method(arg)   a row-cursor method of a node whose value is "wxQUERY":
//                      First(), Next(), Count() or Field(column)
// where `path` is a root name followed by child names, all separated by ".".
class wxNodeRef {
 public:
  // Results of Evaluate are cut to this many bytes.
  static constexpr size_t kMaxResult = 511;

  wxNodeRef(wxQuery& query, wxNode* node) : query_(query), node_(node) {}

  explicit operator bool() const { return node_ != nullptr; }
  wxNode* Node() const { return node_; }

  // The value of the field `fieldName`, as zero-terminated text; nothing when
  // the node or the field is missing or the value is absent.
  std::optional<std::string> GetValue(std::string_view fieldName);
  // Value `index` (from 1) of the multi-valued field `fieldName`; nothing for
  // an index below 1 or past the last value, or for an absent value.
  std::optional<std::string> GetValueAt(std::string_view fieldName, int index);
  // How many values the multi-valued field `fieldName` holds (0 if missing).
  size_t ValueCount(std::string_view fieldName) const;
  // The bytes of the binary field `fieldName`, whole.
  std::optional<std::string> GetBinary(std::string_view fieldName) const;

  // The first child whose name or value is `name`; failing that, the root
  // named by the value of a field called `name`.
  wxNode* FindChild(std::string_view name);

  // Resolves a path expression (see above); nothing when it does not resolve
  // or holds no ".".
  std::optional<std::string> Evaluate(std::string_view expression);

 private:
  std::optional<std::string> ValueOf(std::string_view fieldName, int depth);
  std::optional<std::string> ValueAt(std::string_view fieldName, int index, int depth);
  std::optional<std::string> Resolve(std::string_view expression, int depth);
  std::optional<std::string> CallMethod(std::string_view method, std::string_view argument);
  // A stored value, resolved when it is itself a path expression.
  std::optional<std::string> Expand(const std::optional<std::string>& stored, int depth);

  wxQuery& query_;
  wxNode* node_;
};

}  // namespace corvane
