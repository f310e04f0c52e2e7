#include "mail/html_to_text.h"

#include "mail/html_entities.h"
#include "mail/pattern.h"
#include "mail/text_helpers.h"

namespace corvane {
namespace {

constexpr size_t kMaxTextRun = 2047;
constexpr size_t kMaxTag = 1023;

// A text run and the tag after it: group 1 lies between a '>' and a '<',
// group 2 is the tag up to the next '>'. Tried only at the search position
// (see HtmlToText).
const Pattern& TextAndTagPattern() {
  static const Pattern pattern("[^>]*>([^>]*)<([^>]+)", Pattern::Anchor::kAtStart);
  return pattern;
}

bool EndsLine(std::string_view tag) {
  return tag == "/tr" || tag == "/li" || tag == "br" || tag == "/br" || tag == "/p" ||
         tag.starts_with("br ");
}

}  // namespace

std::string HtmlToText(std::string_view html) {
  html = UpToNul(html);
  PatternMatch match(TextAndTagPattern());
  std::string text;
  std::string tag;
  bool matchedAny = false;
  size_t start = 0;
  // Every attempt starting before or at the first '>' after `start` reaches
  // that same '>' and continues alike, so when the attempt at `start` fails
  // the search goes on behind that '>'. Trying each position in between, as a
  // plain search would, makes a long line quadratic.
  for (size_t close = html.find('>'); close != std::string_view::npos;
       close = html.find('>', start)) {
    if (match.Find(html, start) != MatchStatus::kMatched) {
      start = close + 1;
      continue;
    }
    matchedAny = true;
    const std::string_view run = match.Group(1).value_or("");
    tag.assign(match.Group(2).value_or("").substr(0, kMaxTag));
    LowerAscii(tag);
    if (!run.empty() && tag != "/style" && tag != "/script") {
      text.append(run.substr(0, kMaxTextRun));
    }
    if (EndsLine(tag)) {
      text += "\r\n";
    } else if (tag == "/td") {
      text += ' ';
    }
    start = match.end();
  }
  if (!matchedAny) return std::string(html);
  return text;
}

std::string HtmlBodyToText(std::string_view body) {
  body = UpToNul(body);
  std::string text;
  if (body.starts_with('<')) {
    text = HtmlToText(body);
  } else {
    std::string wrapped;
    wrapped.reserve(body.size() + 13);
    wrapped.append("<html>").append(body).append("</html>");
    text = HtmlToText(wrapped);
  }
  text = DecodeHtmlEntities(text);
  SqueezeSpaces(text);
  SqueezeBlankLines(text);
  return text;
}

}  // namespace corvane
