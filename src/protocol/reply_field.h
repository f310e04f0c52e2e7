#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Field `index` (from 0) of a server reply split at any of `separators`,
// runs of separators counting as one; empty when there is no such field.
inline std::string ReplyField(std::string_view text, const char* separators, int index) {
  for (int i = 0;; ++i) {
    size_t start = text.find_first_not_of(separators);
    if (start == std::string_view::npos) return {};
    text.remove_prefix(start);
    size_t end = text.find_first_of(separators);
    if (i == index) return std::string(text.substr(0, end));
    if (end == std::string_view::npos) return {};
    text.remove_prefix(end);
  }
}

}  // namespace corvane
