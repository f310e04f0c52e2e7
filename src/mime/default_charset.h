#pragma once

#include <string>
#include <string_view>

namespace corvane {

// The charset a new message starts with: "cp" and the Windows ANSI code page
// of the user's locale ("cp936" for zh_CN, "cp950" for zh_TW, "cp1252" for
// en_US, ...), or "us-ascii" for a locale without one, such as C or POSIX.
// The locale is the first set of LC_ALL, LC_CTYPE and LANG.
std::string DefaultCharset();

// The same for a locale name of the form language[_territory][.codeset][@modifier].
std::string DefaultCharsetForLocale(std::string_view locale);

}  // namespace corvane
