#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// A parameter of a Content-Type or Content-Disposition field with its
// quoting, continuations ("name*0", "name*1") and percent-encoding undone.
// The value stays in the bytes the sender wrote; `charset` is the charset an
// extended value ("name*=gb2312''%D6%D0") names, empty for a plain value.
struct HeaderParameter {
  std::string value;
  std::string charset;
};

// The part of a field value before its parameters ("text/plain" of
// "text/plain; charset=gb2312"), trimmed.
std::string_view FieldMainValue(std::string_view fieldValue);

// The parameter `name` (any letter case) of a field value, or none. An
// extended or continued form wins over a plain one. Broken forms read as far
// as they go: an unclosed quote ends at the end of the field, an unquoted
// value may hold spaces, and 8-bit bytes are kept.
std::optional<HeaderParameter> FindHeaderParameter(std::string_view fieldValue,
                                                   std::string_view name);

}  // namespace corvane
