#include "mime/charset_names.h"

namespace corvane {
namespace {

char LowerAsciiLetter(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool SameCharsetName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (LowerAsciiLetter(a[i]) != LowerAsciiLetter(b[i])) return false;
  }
  return true;
}

}  // namespace corvane
