#include "transport/wx_node.h"

#include <algorithm>

namespace corvane {
namespace {

std::optional<std::string> Own(std::optional<std::string_view> text) {
  if (!text || text->empty()) return std::nullopt;
  return std::string(*text);
}

// Exact-byte name match used when entries are applied; absent matches absent.
bool SameBytes(const std::optional<std::string>& stored, std::optional<std::string_view> name) {
  bool nameAbsent = !name || name->empty();
  if (!stored || nameAbsent) return !stored && nameAbsent;
  return *stored == *name;
}

template <typename Item>
Item* FindExact(std::vector<Item>& items, std::optional<std::string_view> name) {
  for (Item& item : items) {
    if (SameBytes(item.name, name)) return &item;
  }
  return nullptr;
}

template <typename Item>
const Item* FindText(const std::vector<Item>& items, std::string_view name) {
  for (const Item& item : items) {
    if (ReadsLike(item.name, name)) return &item;
  }
  return nullptr;
}

}  // namespace

wxNode::wxNode(wxNode* parent, std::optional<std::string_view> name,
               std::optional<std::string_view> value)
    : parent_(parent),
      depth_(parent ? parent->depth_ + 1 : 0),
      name_(Own(name)),
      value_(Own(value)) {}

void wxNode::SetField(std::optional<std::string_view> name, std::optional<std::string_view> value) {
  if (Field* field = FindExact(fields_, name)) {
    field->value = Own(value);
  } else {
    fields_.push_back(Field{Own(name), Own(value)});
  }
}

void wxNode::SetMultiValue(std::optional<std::string_view> name,
                           std::optional<std::string_view> text) {
  MultiField* field = FindExact(multiFields_, name);
  if (!field) field = &multiFields_.emplace_back(MultiField{Own(name), {}});
  field->values.clear();
  if (!text || text->empty()) return;
  std::string_view rest = *text;
  while (true) {
    size_t comma = rest.find(',');
    field->values.push_back(Own(rest.substr(0, comma)));
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
}

bool wxNode::AppendBinary(std::optional<std::string_view> name, std::string_view bytes) {
  BinaryField* field = FindExact(binaryFields_, name);
  if (!field) field = &binaryFields_.emplace_back(BinaryField{Own(name), wxByteStream()});
  return field->stream.Append(bytes);
}

size_t wxNode::RemoveScratchFields() {
  return std::erase_if(fields_,
                       [](const Field& field) { return field.name && field.name->front() == '0'; });
}

const wxNode::Field* wxNode::FindField(std::string_view name) const {
  return FindText(fields_, name);
}

const wxNode::MultiField* wxNode::FindMultiField(std::string_view name) const {
  return FindText(multiFields_, name);
}

wxByteStream* wxNode::FindBinary(std::string_view name) {
  for (BinaryField& field : binaryFields_) {
    if (ReadsLike(field.name, name)) return &field.stream;
  }
  return nullptr;
}

wxNode* wxNode::FindChildNamed(std::string_view name) const {
  for (wxNode* child : children_) {
    if (ReadsLike(child->name_, name) || ReadsLike(child->value_, name)) return child;
  }
  return nullptr;
}

}  // namespace corvane
