#pragma once

#include <string_view>

namespace corvane {

// Whether `text` is well-formed UTF-8: no stray continuation bytes, no
// overlong forms, no surrogates, nothing past U+10FFFF.
bool IsUtf8(std::string_view text);

}  // namespace corvane
