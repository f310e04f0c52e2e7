#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Text helpers for protocol names, keys and file contents. Case is compared
// and changed for the ASCII letters only, whatever the locale, so 8-bit text
// (GB2312, UTF-8) is never touched.

// Equal but for the case of ASCII letters.
bool SameText(std::string_view a, std::string_view b);
// `text` begins with `prefix`, but for the case of ASCII letters.
bool StartsWithText(std::string_view text, std::string_view prefix);
// Lowers the ASCII letters of `text`, in place; the text ends at its first
// NUL, as a C string does.
void LowerAscii(std::string& text);
// `text` up to its first NUL byte: what a C string of it reads as.
std::string_view UpToNul(std::string_view text);
// Appends `text` to `out` with every control byte but TAB written as "\xHH",
// so that outside text can neither start a line nor move a terminal, while
// `out` stays within `limit` bytes; false when not all of it fitted.
bool AppendEscaped(std::string& out, std::string_view text, size_t limit = std::string::npos);

}  // namespace corvane
