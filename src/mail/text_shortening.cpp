#include "mail/text_shortening.h"

#include "base/utf8_text.h"
#include "mail/text_helpers.h"

namespace corvane {

int ShortenText(std::string& text, int limit, bool utf8) {
  text.resize(UpToNul(text).size());
  const auto length = static_cast<long long>(text.size());
  if (limit >= length - 3 || limit < 2) return static_cast<int>(length);
  int pending = 0;  // bytes of a two-byte character seen so far
  for (int i = 0; i < limit; ++i) {
    if (static_cast<unsigned char>(text[static_cast<size_t>(i)]) >= 0x80 && ++pending == 2) {
      pending = 0;
    }
  }
  int cut = pending == 1 ? limit - 1 : limit;
  if (utf8 && IsUtf8(text)) {
    // A continuation byte (10xxxxxx) is never where a character starts.
    cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(text[static_cast<size_t>(cut)]) & 0xC0) == 0x80) {
      --cut;
    }
  }
  text.resize(static_cast<size_t>(cut));
  text += "...";
  return cut + 3;
}

}  // namespace corvane
