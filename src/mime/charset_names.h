#pragma once

#include <string_view>

namespace corvane {

// Charset names compare without regard to ASCII case ("Utf-8" is "UTF-8");
// bytes outside A-Z compare as they are.
bool SameCharsetName(std::string_view a, std::string_view b);

}  // namespace corvane
