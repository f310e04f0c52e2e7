#pragma once

#include <string>
#include <string_view>

namespace corvane {

// A header as the client shows it: encoded words decoded and converted from
// their charset into `targetCharset` (the decoded bytes stay when no
// conversion applies); a header without encoded words byte for byte.
std::string DecodeHeaderForDisplay(std::string_view header, std::string_view targetCharset);

// A time value as local "%Y-%m-%d %H:%M", the date form of lists and messages.
std::string FormatLocalMinute(int32_t time);

}  // namespace corvane
