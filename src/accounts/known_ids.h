#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

namespace corvane {

// A mailbox's known message ids, each once, in the order they became known,
// with a look-up that does not walk them: a check may meet 100,000 ids.
class KnownIds {
 public:
  KnownIds() = default;
  explicit KnownIds(const std::vector<std::string>& ids);

  bool Contains(const std::string& id) const { return index_.count(id) > 0; }
  // Appends the id unless it is known; whether it was added.
  bool Add(const std::string& id);
  // Removes, keeping the order of the rest, every id `gone` says; how many.
  size_t RemoveIf(const std::function<bool(const std::string&)>& gone);

  const std::vector<std::string>& Ids() const { return ids_; }

 private:
  std::vector<std::string> ids_;
  std::unordered_set<std::string> index_;
};

}  // namespace corvane
