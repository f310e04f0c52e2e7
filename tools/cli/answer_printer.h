#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane::cli {

// Renders a decoded answer (the plain entry log) as an indented tree of nodes
// and fields, or as JSON. Bytes are printed as they came; JSON escapes bytes
// above 0x7f as \u00XX so that it stays valid whatever the answer's charset.
// With `splitRows` the tree shows a value made of counted strings (a listing
// row) as its parts joined by " | ".
std::string RenderAnswer(std::string_view entries, bool json, bool splitRows = false);

// The "Status" field of the answer's first node, if any.
std::optional<std::string> AnswerStatus(std::string_view entries);

}  // namespace corvane::cli
