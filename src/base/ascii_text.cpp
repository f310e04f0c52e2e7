#include "base/ascii_text.h"

namespace corvane {
namespace {

char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

bool SameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && StartsWithText(a, b);
}

bool StartsWithText(std::string_view text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (LowerCase(text[i]) != LowerCase(prefix[i])) return false;
  }
  return true;
}

void LowerAscii(std::string& text) {
  text.resize(UpToNul(text).size());
  for (char& c : text) c = LowerCase(c);
}

std::string_view UpToNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

bool AppendEscaped(std::string& out, std::string_view text, size_t limit) {
  for (unsigned char c : text) {
    const bool control = (c < 0x20 && c != '\t') || c == 0x7F;
    if (out.size() + (control ? 4 : 1) > limit) return false;
    if (control) {
      out += "\\x";
      out += "0123456789ABCDEF"[c >> 4];
      out += "0123456789ABCDEF"[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return true;
}

}  // namespace corvane
