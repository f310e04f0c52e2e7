#include "transport/wx_node_ref.h"

#include <algorithm>
#include <cstdint>

#include "base/decimal_text.h"
#include "transport/counted_string.h"
#include "transport/wx_query.h"

namespace corvane {
namespace {

// Values may name values that name values; a chain longer than this (or a
// loop) is left unresolved instead of recursing without end.
constexpr int kMaxExpansion = 16;

constexpr std::string_view kQueryType = "wxQUERY";
constexpr std::string_view kRowsType = "wxRECORDSET";
constexpr std::string_view kCursorField = "t_Pointer";

std::string RowName(int64_t row) {
  return "Row" + std::to_string(row);
}

std::optional<std::string> Flag(bool on) {
  return std::string(on ? "1" : "0");
}

// The `column`th (from 1) counted string of a row's text.
std::optional<std::string> Column(std::string_view row, int column) {
  if (column < 1) return std::nullopt;
  for (int at = 1; !row.empty(); ++at) {
    size_t size = CountedString::SizeAt(row.data(), row.size());
    if (size == 0) break;
    if (at == column) {
      auto data = CountedString::DataAt(row.data(), row.size());
      if (!data) return std::nullopt;
      return std::string(UpToNul(*data));
    }
    row.remove_prefix(std::min(size, row.size()));
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> wxNodeRef::GetValue(std::string_view fieldName) {
  return ValueOf(fieldName, 0);
}

std::optional<std::string> wxNodeRef::GetValueAt(std::string_view fieldName, int index) {
  return ValueAt(fieldName, index, 0);
}

size_t wxNodeRef::ValueCount(std::string_view fieldName) const {
  const wxNode::MultiField* field = node_ ? node_->FindMultiField(fieldName) : nullptr;
  return field ? field->values.size() : 0;
}

std::optional<std::string> wxNodeRef::GetBinary(std::string_view fieldName) const {
  wxByteStream* stream = node_ ? node_->FindBinary(fieldName) : nullptr;
  if (!stream) return std::nullopt;
  return stream->Contents();
}

wxNode* wxNodeRef::FindChild(std::string_view name) {
  if (!node_) return nullptr;
  if (wxRecordSet* records = query_.CurrentRecordSet()) return records->FindChild(node_, name);
  return node_->FindChildNamed(name);
}

std::optional<std::string> wxNodeRef::Evaluate(std::string_view expression) {
  return Resolve(expression, 0);
}

std::optional<std::string> wxNodeRef::ValueOf(std::string_view fieldName, int depth) {
  const wxNode::Field* field = node_ ? node_->FindField(fieldName) : nullptr;
  if (!field) return std::nullopt;
  return Expand(field->value, depth);
}

std::optional<std::string> wxNodeRef::ValueAt(std::string_view fieldName, int index, int depth) {
  const wxNode::MultiField* field = node_ ? node_->FindMultiField(fieldName) : nullptr;
  if (!field || index < 1 || static_cast<size_t>(index) > field->values.size()) {
    return std::nullopt;
  }
  return Expand(field->values[index - 1], depth);
}

std::optional<std::string> wxNodeRef::Expand(const std::optional<std::string>& stored, int depth) {
  if (!stored) return std::nullopt;
  std::string_view text = UpToNul(*stored);
  if (depth < kMaxExpansion && text.find('.') != std::string_view::npos) {
    if (auto resolved = Resolve(text, depth + 1)) return resolved;
  }
  return std::string(text);
}

std::optional<std::string> wxNodeRef::Resolve(std::string_view expression, int depth) {
  expression = UpToNul(expression);
  size_t dot = expression.rfind('.');
  wxRecordSet* records = query_.CurrentRecordSet();
  if (dot == std::string_view::npos || !records) return std::nullopt;
  wxNodeRef target(query_, records->ResolvePath(expression.substr(0, dot)));
  if (!target) return std::nullopt;

  std::string_view tail = expression.substr(dot + 1);
  size_t open = tail.find_first_of("[(");
  std::optional<std::string> result;
  if (open == std::string_view::npos) {
    result = target.ValueOf(tail, depth);
  } else {
    size_t close = tail.find(tail[open] == '[' ? ']' : ')', open + 1);
    if (close == std::string_view::npos) return std::nullopt;
    std::string_view name = tail.substr(0, open);
    std::string_view inside = tail.substr(open + 1, close - open - 1);
    if (tail[open] == '[') {
      result = target.ValueAt(name, ReadDecimal(inside), depth);
    } else if (ReadsLike(target.node_->Value(), kQueryType)) {
      result = target.CallMethod(name, inside);
    }
  }
  if (result && result->size() > kMaxResult) result->resize(kMaxResult);
  return result;
}

std::optional<std::string> wxNodeRef::CallMethod(std::string_view method,
                                                 std::string_view argument) {
  const wxNode* rows = node_->FindChildNamed(kRowsType);
  auto hasRow = [rows](int64_t row) {
    return row >= 0 && rows && rows->FindField(RowName(row)) != nullptr;
  };
  auto cursor = [this] {
    const wxNode::Field* field = node_->FindField(kCursorField);
    return int64_t{field && field->value ? ReadDecimal(*field->value) : 0};
  };
  if (method == "First") {
    node_->SetField(kCursorField, "1");
    return Flag(hasRow(0));
  }
  if (method == "Next") {
    int64_t next = cursor() + 1;
    node_->SetField(kCursorField, std::to_string(next));
    return Flag(hasRow(next - 1));
  }
  if (method == "Count") {
    int64_t count = 0;
    while (hasRow(count)) ++count;
    return std::to_string(count);
  }
  if (method == "Field") {
    int64_t row = cursor() - 1;
    if (!hasRow(row)) return std::nullopt;
    const wxNode::Field* field = rows->FindField(RowName(row));
    return field->value ? Column(*field->value, ReadDecimal(argument)) : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace corvane
