#pragma once

#include <string>
#include <utility>
#include <vector>

namespace corvane {

// An ordered list of byte texts: the message model's header lines, the SMTP
// client's extra header lines and offered authentication methods, a
// listing's server unique ids.
class StringList {
 public:
  void Append(std::string text) { items_.push_back(std::move(text)); }
  int Count() const { return static_cast<int>(items_.size()); }
  // The text at `index` (from 0), or null when there is none.
  const std::string* Get(int index) const;
  void Clear() { items_.clear(); }

 private:
  std::vector<std::string> items_;
};

}  // namespace corvane
