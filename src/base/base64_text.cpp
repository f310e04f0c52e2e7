#include "base/base64_text.h"

#include <algorithm>
#include <cstdint>

namespace corvane {

std::string Base64Encode(std::string_view bytes) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve(4 * ((bytes.size() + 2) / 3));
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t n = std::min<size_t>(3, bytes.size() - i);
    uint32_t group = 0;
    for (size_t k = 0; k < 3; ++k) {
      group = group << 8 | (k < n ? static_cast<unsigned char>(bytes[i + k]) : 0u);
    }
    for (size_t k = 0; k < 4; ++k) out += k <= n ? kDigits[group >> (18 - 6 * k) & 63] : '=';
  }
  return out;
}

}  // namespace corvane
