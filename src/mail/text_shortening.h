#pragma once

#include <string>

namespace corvane {

// Shortens a subject to `limit` bytes followed by "...", and gives the new
// length. A text of at most limit + 3 bytes, or a limit below 2, stays as it
// is. Where the cut would split a two-byte character (the bytes of 0x80 and
// above before it, counted in pairs, leave one over), it moves one byte back.
int ShortenText(std::string& text, int limit);

}  // namespace corvane
