#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "mime/mail_message.h"

namespace corvane {

// A header as the client shows it: encoded words decoded and converted from
// their charset into `targetCharset` (the decoded bytes stay when no
// conversion applies); a header without encoded words byte for byte. Either
// way the text is one line: cut at a NUL, CR, LF and TAB turned into spaces.
std::string DecodeHeaderForDisplay(std::string_view header, std::string_view targetCharset);

// The joined values of a header field for display, none when the message
// has no such field.
std::optional<std::string> DisplayHeaderOf(const MailMessage& message, HeaderFieldId field,
                                           std::string_view targetCharset);

// A time value as local "%Y-%m-%d %H:%M", the date form of lists and messages.
std::string FormatLocalMinute(int32_t time);

}  // namespace corvane
