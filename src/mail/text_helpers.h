#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/ascii_text.h"

namespace corvane {

// Small routines on the byte texts of mail, in the message's own charset. A
// text ends at its first zero byte, as the C strings of the mail path do; the
// routines that change a text in place cut it there (UpToNul and LowerAscii
// of base/ascii_text.h are theirs too).

// Every run of five or more spaces becomes exactly five; shorter runs stay.
void SqueezeSpaces(std::string& text);

// Every run of line breaks that begins with "\r\n\r\n" becomes exactly
// "\r\n\r\n", so at most one blank line remains; "\r\n" and "\r\n\r" stay.
void SqueezeBlankLines(std::string& text);

// True when any byte is 0x80 or above.
bool HasEightBitBytes(std::string_view text);

// "first" followed by "second", or a copy of `first` when there is no second.
std::string ConcatNew(std::string_view first, std::optional<std::string_view> second);

// The charset named in a Content-Type text: between `charset="` and the next
// double quote, else everything after `charset=` to the end (parameters that
// follow included). The name is searched case-sensitively. None when there is
// no such parameter or its quote is not closed.
std::optional<std::string> ExtractCharset(std::string_view contentType);

}  // namespace corvane
