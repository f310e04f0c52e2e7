#include "mail/html_entities.h"

#include <array>

#include "mail/text_helpers.h"

namespace corvane {
namespace {

struct Entity {
  std::string_view name;
  std::string_view text;
};

// The order matters: see the header.
constexpr std::array<Entity, 15> kEntities = {{
    {"&mdash;", "-"},
    {"&quot;", "\""},
    {"&copy;", "(C)"},
    {"&reg", "(R)"},
    {"&nbsp;", " "},
    {"&nbsp", " "},
    {"&#8220", "\xA1\xB0"},  // left double quotation mark in GB 2312
    {"&#8221", "\xA1\xB1"},  // right double quotation mark
    {"&ldquo;", "\xA1\xB0"},
    {"&rdquo;", "\xA1\xB1"},
    {"&lsquo;", "\xA1\xAE"},  // left single quotation mark
    {"&rsquo;", "\xA1\xAF"},  // right single quotation mark
    {"&lt;", "<"},
    {"&gt;", ">"},
    {"&amp;", "&"},
}};

// Every occurrence of `name` in `text`, left to right, becomes `replacement`.
std::string ReplaceAll(std::string_view text, std::string_view name, std::string_view replacement) {
  std::string out;
  out.reserve(text.size());
  size_t from = 0;
  for (size_t at = text.find(name); at != std::string_view::npos; at = text.find(name, from)) {
    out.append(text, from, at - from);
    out.append(replacement);
    from = at + name.size();
  }
  out.append(text, from);
  return out;
}

}  // namespace

std::string DecodeHtmlEntities(std::string_view html) {
  const std::string_view original = UpToNul(html);
  std::string decoded(original);
  for (const Entity& entity : kEntities) {
    if (original.find(entity.name) == std::string_view::npos) continue;
    decoded = ReplaceAll(decoded, entity.name, entity.text);
  }
  return decoded;
}

}  // namespace corvane
