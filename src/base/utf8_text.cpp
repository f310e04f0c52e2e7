#include "base/utf8_text.h"

#include <cstdint>

namespace corvane {

bool IsUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80   ? 1
                          : lead < 0xC2 ? 0
                          : lead < 0xE0 ? 2
                          : lead < 0xF0 ? 3
                          : lead < 0xF5 ? 4
                                        : 0;
    if (length == 0 || i + length > text.size()) return false;
    uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      code = code << 6 | (next & 0x3F);
    }
    constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
      return false;
    }
    i += length;
  }
  return true;
}

}  // namespace corvane
