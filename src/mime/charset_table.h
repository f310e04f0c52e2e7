#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace corvane {

// One known charset: its name as mail declares it, the Windows code page its
// texts are in (0 for the system's default ANSI code page) and the font
// character-set number clients use to display it.
struct CharsetInfo {
  std::string_view name;
  uint32_t codePage;
  uint8_t charSet;
};

// The known charsets, in lookup order. Some rows deliberately carry values
// other than the name's usual code page; clients rely on them as they are.
std::span<const CharsetInfo> CharsetTable();

// The first row whose name equals `name` without regard to ASCII case, or
// null when the charset is unknown. Rows live for the whole process, so a
// message may keep the pointer.
const CharsetInfo* LookupCharset(std::string_view name);

}  // namespace corvane
