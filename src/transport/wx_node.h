#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/ascii_text.h"
#include "transport/wx_byte_stream.h"

namespace corvane {

// Container names and values are looked up as zero-terminated text: the bytes
// up to the first zero byte, if any.
// True when `stored` is present and reads, as zero-terminated text, like
// `wanted`. An absent name or value never matches.
inline bool ReadsLike(const std::optional<std::string>& stored, std::string_view wanted) {
  return stored && UpToNul(*stored) == UpToNul(wanted);
}

// One node of a record set: a name and a value, single-valued fields (unique
// by name), multi-valued fields, binary fields and child nodes, each kept in
// the order it was first added. Names and values are the decoded data of the
// entries' counted strings; an absent one (length 0) is std::nullopt. The
// record set owns every node; the parent and child links are plain pointers.
class wxNode {
 public:
  struct Field {
    std::optional<std::string> name;
    std::optional<std::string> value;
  };
  struct MultiField {
    std::optional<std::string> name;
    std::vector<std::optional<std::string>> values;
  };
  struct BinaryField {
    std::optional<std::string> name;
    wxByteStream stream;
  };

  wxNode(wxNode* parent, std::optional<std::string_view> name,
         std::optional<std::string_view> value);
  wxNode(const wxNode&) = delete;
  wxNode& operator=(const wxNode&) = delete;

  wxNode* Parent() const { return parent_; }
  // Number of ancestors; 0 for a root.
  uint32_t Depth() const { return depth_; }
  const std::optional<std::string>& Name() const { return name_; }
  const std::optional<std::string>& Value() const { return value_; }
  bool IsClosed() const { return closed_; }
  void Close() { closed_ = true; }

  // Entry application. Names match here on their exact bytes.
  // Gives the field named `name` the new value, or appends the pair.
  void SetField(std::optional<std::string_view> name, std::optional<std::string_view> value);
  // Replaces the values of the multi-valued field `name` (appended if new) by
  // the pieces of `text` split at each ","; an empty piece is an absent value
  // and an absent text gives no values.
  void SetMultiValue(std::optional<std::string_view> name, std::optional<std::string_view> text);
  // Appends `bytes` to the binary field `name` (appended if new). False when
  // the field's stream refused them.
  bool AppendBinary(std::optional<std::string_view> name, std::string_view bytes);
  void AddChild(wxNode* child) { children_.push_back(child); }
  // Drops every single-valued field whose name begins with "0": scratch
  // values that must not outlive their record set. Returns how many went.
  size_t RemoveScratchFields();

  // Lookups by zero-terminated name; the first match in insertion order.
  const Field* FindField(std::string_view name) const;
  const MultiField* FindMultiField(std::string_view name) const;
  wxByteStream* FindBinary(std::string_view name);
  // The first child whose name or value reads as `name`.
  wxNode* FindChildNamed(std::string_view name) const;

  const std::vector<Field>& Fields() const { return fields_; }
  const std::vector<MultiField>& MultiFields() const { return multiFields_; }
  const std::vector<BinaryField>& BinaryFields() const { return binaryFields_; }
  const std::vector<wxNode*>& Children() const { return children_; }
  uint32_t FieldCount() const { return static_cast<uint32_t>(fields_.size()); }
  uint32_t MultiFieldCount() const { return static_cast<uint32_t>(multiFields_.size()); }
  uint32_t ChildCount() const { return static_cast<uint32_t>(children_.size()); }

 private:
  wxNode* parent_;
  uint32_t depth_;
  std::optional<std::string> name_;
  std::optional<std::string> value_;
  std::vector<Field> fields_;
  std::vector<MultiField> multiFields_;
  std::vector<BinaryField> binaryFields_;
  std::vector<wxNode*> children_;
  bool closed_ = false;
};

}  // namespace corvane
