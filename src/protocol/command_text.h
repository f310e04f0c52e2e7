#pragma once

#include <string_view>

namespace corvane {

// Whether outside text (a login, a path, a file name, an address) may be the
// argument of a protocol command line: a CR or LF in it would end the line
// early and what follows would reach the server as a command of its own; a
// NUL would cut it short. Such an argument is refused before anything is sent.
inline bool IsSafeCommandArgument(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

}  // namespace corvane
