#pragma once

#include <cstdint>
#include <string_view>

namespace corvane {

// Reads a number the way configuration values, request fields and protocol
// replies are read throughout the gateway: leading blanks skipped, an optional
// sign, then decimal digits up to the first non-digit. Text that does not start
// with a number reads as 0; values beyond 32 bits saturate.
int32_t ReadDecimal(std::string_view text);

}  // namespace corvane
