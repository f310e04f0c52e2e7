#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Plain text from HTML: every text run that lies between a '>' and the next
// '<' is kept, cut to 2047 bytes, except the content of style and script
// elements (the run before "</style>" or "</script>"). The tags "</tr>",
// "</li>", "<br>", "</br>", "</p>" and "<br ...>" (any case) end a line with
// "\r\n"; "</td>" adds one space; other tags add nothing. Text before the
// first '>' and after the last tag is dropped. HTML without any tag comes back
// as it is. Entities stay encoded.
std::string HtmlToText(std::string_view html);

// The whole conversion of an HTML body for display: a body that does not
// start with '<' is first wrapped in "<html>...</html>" so its leading text
// survives, then HtmlToText, DecodeHtmlEntities, SqueezeSpaces and
// SqueezeBlankLines.
std::string HtmlBodyToText(std::string_view body);

}  // namespace corvane
