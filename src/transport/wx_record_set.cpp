#include "transport/wx_record_set.h"

#include "transport/counted_string.h"

namespace corvane {
namespace {

std::optional<std::string_view> DataOf(std::string_view counted) {
  return CountedString::DataAt(counted.data(), counted.size());
}

}  // namespace

wxRecordSet::wxRecordSet(std::optional<std::string_view> name)
    : name_(UpToNul(name.value_or(std::string_view()))) {}

wxRecordSet::~wxRecordSet() = default;

void wxRecordSet::Apply(unsigned tag, std::string_view countedName, std::string_view countedValue) {
  std::optional<std::string_view> name = DataOf(countedName);
  std::optional<std::string_view> value = DataOf(countedValue);
  switch (tag) {
    case kPath:
      if (!HasName() && name) name_ = UpToNul(*name);
      current_ = value ? ResolvePath(*value) : nullptr;
      return;
    case kOpenNode:
      OpenNode(name, value);
      return;
    case kMark:
      if (name) Mark(*name);
      return;
    default:
      break;
  }
  if (!current_) return;
  switch (tag) {
    case kField:
      current_->SetField(name, value);
      break;
    case kMultiField:
      current_->SetMultiValue(name, value);
      break;
    case kBinaryField:
      current_->AppendBinary(name, value.value_or(std::string_view()));
      break;
    case kCloseNode:
      current_->Close();
      current_ = current_->Parent();
      break;
    default:
      break;
  }
}

void wxRecordSet::OpenNode(std::optional<std::string_view> name,
                           std::optional<std::string_view> value) {
  auto node = std::make_unique<wxNode>(current_, name, value);
  wxNode* opened = node.get();
  if (current_) {
    current_->AddChild(opened);
  } else {
    roots_.push_back(opened);
  }
  uint32_t depth = opened->Depth();
  index_.push_back(IndexEntry{depth, std::move(node)});
  if (lastAtDepth_.size() <= depth) lastAtDepth_.resize(depth + 1, nullptr);
  lastAtDepth_[depth] = opened;
  current_ = opened;
}

void wxRecordSet::Mark(std::string_view mark) {
  mark = UpToNul(mark);
  if (mark == "Begin") {
    // The index only grows, so the last node opened at a depth is also the
    // last one in the index at that depth.
    saved_ = current_;
    current_ = current_ ? lastAtDepth_[current_->Depth()] : nullptr;
  } else if (mark == "End") {
    current_ = saved_;
    saved_ = nullptr;
  }
}

wxNode* wxRecordSet::FindNode(std::string_view name) const {
  for (wxNode* root : roots_) {
    if (ReadsLike(root->Name(), name)) return root;
  }
  for (wxNode* root : roots_) {
    if (ReadsLike(root->Value(), name)) return root;
  }
  return nullptr;
}

wxNode* wxRecordSet::FindChild(const wxNode* node, std::string_view name) const {
  if (!node) return nullptr;
  if (wxNode* child = node->FindChildNamed(name)) return child;
  // The first field that reads as the name, as a field look-up finds: names
  // that differ only past a NUL must not make every step of a path try each.
  for (const wxNode::Field& field : node->Fields()) {
    if (ReadsLike(field.name, name)) return field.value ? FindNode(*field.value) : nullptr;
  }
  return nullptr;
}

wxNode* wxRecordSet::ResolvePath(std::string_view path) const {
  path = UpToNul(path);
  wxNode* node = nullptr;
  bool first = true;
  while (true) {
    size_t dot = path.find('.');
    std::string_view part = path.substr(0, dot);
    if (!part.empty()) {
      node = first ? FindNode(part) : FindChild(node, part);
      if (!node) return nullptr;
      first = false;
    }
    if (dot == std::string_view::npos) break;
    path.remove_prefix(dot + 1);
  }
  return node;
}

void wxRecordSet::RemoveScratchFields() {
  for (IndexEntry& entry : index_) entry.node->RemoveScratchFields();
}

}  // namespace corvane
