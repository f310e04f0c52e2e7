#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Base64 of `bytes`, one line, no line break, padded with "=".
std::string Base64Encode(std::string_view bytes);

}  // namespace corvane
