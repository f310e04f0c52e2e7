#include "mime/charset_table.h"

#include <array>

#include "base/ascii_text.h"

namespace corvane {
namespace {

// clang-format off
constexpr std::array<CharsetInfo, 48> kCharsets = {{
    {"Utf-8", 65001, 1},
    {"Utf-7", 65000, 1},
    {"Windows-1250", 0, 1},
    {"cp1250", 0, 1},
    {"ISO-8859-1", 0, 1},
    {"Windows-1251", 1251, 204},
    {"cp1251", 1251, 204},
    {"ISO-8859-5", 28595, 204},
    {"cp866", 866, 204},
    {"koi8-r", 20866, 204},
    {"koi8-u", 21866, 238},
    {"Windows-1252", 1252, 0},
    {"cp1252", 1252, 0},
    {"ascii", 1252, 0},
    {"us-ascii", 1252, 0},
    {"Windows-1253", 1253, 161},
    {"cp1253", 1253, 161},
    {"ISO-8859-7", 28597, 161},
    {"Windows-1254", 1254, 162},
    {"cp1254", 1254, 162},
    {"ISO-8859-3", 28593, 162},
    {"ISO-8859-10", 1254, 162},
    {"ISO-8859-15", 28605, 162},
    {"Windows-1255", 1255, 177},
    {"cp1255", 1255, 177},
    {"ISO-8859-8", 28598, 177},
    {"Windows-1256", 1256, 178},
    {"cp1256", 1256, 178},
    {"ISO-8859-6", 28596, 178},
    {"Windows-1257", 1257, 186},
    {"cp1257", 1257, 186},
    {"ISO-8859-4", 28594, 186},
    {"Windows-1258", 1258, 163},
    {"cp1258", 1258, 163},
    {"ISO-8859-2", 28592, 238},
    {"ISO-8859-9", 28599, 238},
    {"ks_c_5601-1987", 949, 129},
    {"korean", 1361, 130},
    {"EUC-KR", 1361, 130},
    {"ISO-2022-KR", 50225, 130},
    {"BIG5", 950, 136},
    {"GB2312", 936, 134},
    {"chinese", 936, 134},
    {"HZ-GB-2312", 52936, 134},
    {"shift_jis", 932, 128},
    {"EUC-JP", 20932, 128},
    {"ISO-2022-JP", 50220, 128},
    {"X-EUC-TW", 874, 222},
}};
// clang-format on

}  // namespace

std::span<const CharsetInfo> CharsetTable() {
  return kCharsets;
}

const CharsetInfo* LookupCharset(std::string_view name) {
  for (const CharsetInfo& row : kCharsets) {
    if (SameText(row.name, name)) return &row;
  }
  return nullptr;
}

}  // namespace corvane
