#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// Mail texts reach clients in GB 2312 (code page 936) or UTF-8. These convert
// between the charsets that mail brings and those two. A text is read up to
// its first zero byte, as the C strings it comes from end there. "None" means
// no conversion was made and the caller keeps its text as it is.

// Converts `text` from charset `from` to charset `to` (names compared without
// regard to ASCII case). Exactly five pairs convert: utf-8 -> gb2312,
// gb2312 -> utf-8, big5 -> gb2312 (traditional characters then simplified),
// hz-gb-2312 -> gb2312 and utf-7 -> gb2312. Equal names and every other pair
// give none. Invalid input bytes become the converters' substitutes, never a
// failure.
std::optional<std::string> ConvertCharset(std::string_view from, std::string_view to,
                                          std::string_view text);

// Converts `text` from Windows code page `codePage` to GB (code page 936).
// None when `codePage` is 936 or is not one of 950, 52936, 65000, 65001.
std::optional<std::string> ConvertToGb(std::string_view text, uint32_t codePage);

// Maps the traditional Chinese characters of a GB text to their simplified
// forms; other characters stay as they are. A text that cannot be mapped comes
// back unchanged.
std::string TraditionalToSimplified(std::string_view gbText);

}  // namespace corvane
