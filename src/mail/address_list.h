#pragma once

#include <string>
#include <string_view>

namespace corvane {

// The e-mail addresses found in free text (a To or Cc header, say), in order,
// without those equal to `leaveOut` (compared without regard to ASCII case).
// Each address kept is followed by "," when another address follows it in the
// text, whether or not that one is kept: leaving out the last address leaves a
// trailing comma, leaving out the first leaves no leading one. Empty when the
// text holds no address.
std::string ExtractAddresses(std::string_view text, std::string_view leaveOut);

// "first,second", or `second` alone when `first` is empty.
std::string JoinList(std::string_view first, std::string_view second);

}  // namespace corvane
