#include "mail/text_shortening.h"

#include "mail/text_helpers.h"

namespace corvane {

int ShortenText(std::string& text, int limit) {
  text.resize(UpToNul(text).size());
  const auto length = static_cast<long long>(text.size());
  if (limit >= length - 3 || limit < 2) return static_cast<int>(length);
  int pending = 0;  // bytes of a two-byte character seen so far
  for (int i = 0; i < limit; ++i) {
    if (static_cast<unsigned char>(text[static_cast<size_t>(i)]) >= 0x80 && ++pending == 2) {
      pending = 0;
    }
  }
  const int cut = pending == 1 ? limit - 1 : limit;
  text.resize(static_cast<size_t>(cut));
  text += "...";
  return cut + 3;
}

}  // namespace corvane
