#pragma once

#include <string>

namespace corvane {

// Shortens a subject to `limit` bytes followed by "...", and gives the new
// length. A text of at most limit + 3 bytes, or a limit below 2, stays as it
// is. Where the cut would split a two-byte character (the bytes of 0x80 and
// above before it, counted in pairs, leave one over), it moves one byte back;
// in `utf8` text (when it is UTF-8: a header passed on unconverted may not
// be) it moves back to the start of the character it would split.
int ShortenText(std::string& text, int limit, bool utf8 = false);

}  // namespace corvane
