#include "mime/string_list.h"

namespace corvane {

const std::string* StringList::Get(int index) const {
  if (index < 0 || index >= Count()) return nullptr;
  return &items_[static_cast<size_t>(index)];
}

}  // namespace corvane
