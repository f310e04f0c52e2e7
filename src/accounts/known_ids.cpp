#include "accounts/known_ids.h"

namespace corvane {

KnownIds::KnownIds(const std::vector<std::string>& ids) {
  for (const std::string& id : ids) Add(id);
}

bool KnownIds::Add(const std::string& id) {
  if (!index_.insert(id).second) return false;
  ids_.push_back(id);
  return true;
}

size_t KnownIds::RemoveIf(const std::function<bool(const std::string&)>& gone) {
  std::vector<std::string> kept;
  kept.reserve(ids_.size());
  size_t removed = 0;
  for (std::string& id : ids_) {
    if (!gone(id)) {
      kept.push_back(std::move(id));
      continue;
    }
    index_.erase(id);
    ++removed;
  }
  ids_ = std::move(kept);
  return removed;
}

}  // namespace corvane
