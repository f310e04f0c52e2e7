#include "base/decimal_text.h"

#include <limits>

namespace corvane {

int32_t ReadDecimal(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\n' ||
                             text[i] == '\r' || text[i] == '\v' || text[i] == '\f')) {
    ++i;
  }
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  int64_t value = 0;
  constexpr int64_t kLimit = int64_t{std::numeric_limits<int32_t>::max()} + 1;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > kLimit) value = kLimit;
  }
  if (negative) return static_cast<int32_t>(-value);
  return static_cast<int32_t>(value > kLimit - 1 ? kLimit - 1 : value);
}

}  // namespace corvane
