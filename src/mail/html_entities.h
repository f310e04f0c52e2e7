#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Decodes the few HTML entities that mail bodies commonly carry, row by row
// in a fixed order: "&mdash;" "&quot;" "&copy;" "&reg" "&nbsp;" "&nbsp"
// "&#8220" "&#8221" "&ldquo;" "&rdquo;" "&lsquo;" "&rsquo;" "&lt;" "&gt;"
// "&amp;". A row applies only when the original text holds its entity, and
// then replaces every occurrence in the text decoded so far. "&amp;" comes
// last, so "&amp;lt;" ends as the literal "&lt;"; "&reg", "&#8220" and
// "&#8221" take no semicolon, so one that follows stays. Quotation marks
// always become their GB 2312 bytes. No other entity is decoded. The result is
// never longer than the text.
std::string DecodeHtmlEntities(std::string_view html);

}  // namespace corvane
