// Throughput of the HTML body conversion (HtmlToText, DecodeHtmlEntities,
// SqueezeSpaces, SqueezeBlankLines) on a 1 MB mail body, beside a reference
// pass in the same process: a plain loop that copies the bytes outside tags,
// the least work any such conversion does. The figure that matters is the
// ratio. A second pair of runs shows that a body whose long stretches defeat
// the pattern still takes time in proportion to its size.
//
// Usage: html_to_text_bench [rounds]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "mail/html_entities.h"
#include "mail/html_to_text.h"
#include "mail/text_helpers.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kBodySize = 1u << 20;

// A newsletter-like body: a style sheet, paragraphs with entities and GB
// text, tables, lists and runs of spaces and blank lines.
std::string MailBody() {
  std::string body =
      "<html><head><style type=\"text/css\">p { margin: 0 } td { padding: 2px }</style>"
      "<script>var tracking = 1;</script></head><body>";
  for (int i = 0; body.size() < kBodySize; ++i) {
    body += "<p class=\"para\">Paragraph " + std::to_string(i) +
            ": &ldquo;\xD6\xD0\xCE\xC4 text&rdquo; &amp; more&nbsp;words, 5 &lt; 6.</p>\r\n"
            "<table><tr><td>cell a</td><td>cell b</td></tr></table>"
            "<ul><li>item one</li><li>item two</li></ul>        <br><br><br>\r\n"
            "<div><a href=\"http://example.com/" +
            std::to_string(i) + "\">link</a>&copy; &mdash; &reg;</div>\r\n";
  }
  return body + "</body></html>";
}

// Stretches with no tag in them, the input that makes a plain search retry
// every byte.
std::string StretchedBody(size_t size) {
  const size_t third = size / 3;
  return std::string(third, 'x') + ">" + std::string(third, 'y') + ">tail<br>" +
         std::string(third, 'z');
}

std::string StripTags(const std::string& html) {
  std::string text;
  text.reserve(html.size());
  bool inTag = false;
  for (const char c : html) {
    if (c == '<') {
      inTag = true;
    } else if (c == '>') {
      inTag = false;
    } else if (!inTag) {
      text += c;
    }
  }
  return text;
}

template <typename Convert>
double BestSeconds(int rounds, const std::string& input, Convert convert, size_t& sink) {
  double best = 1e30;
  for (int round = 0; round < rounds; ++round) {
    const auto start = Clock::now();
    const std::string out = convert(input);
    best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
    sink += out.size();
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const std::string body = MailBody();
  const std::string text = corvane::HtmlBodyToText(body);
  if (text.find("Paragraph 0: \xA1\xB0\xD6\xD0\xCE\xC4 text\xA1\xB1 & more words, 5 < 6.") ==
          std::string::npos ||
      text.find("tracking") != std::string::npos) {
    std::fprintf(stderr, "conversion gave an unexpected text\n");
    return 1;
  }

  size_t sink = 0;
  const double megabytes = static_cast<double>(body.size()) / 1e6;
  const double chain = BestSeconds(rounds, body, corvane::HtmlBodyToText, sink);
  const double htmlOnly = BestSeconds(rounds, body, corvane::HtmlToText, sink);
  const std::string tagless = corvane::HtmlToText(body);
  const double entities = BestSeconds(rounds, tagless, corvane::DecodeHtmlEntities, sink);
  const double squeeze = BestSeconds(
      rounds, tagless,
      [](std::string t) {
        corvane::SqueezeSpaces(t);
        corvane::SqueezeBlankLines(t);
        return t;
      },
      sink);
  const double reference = BestSeconds(rounds, body, StripTags, sink);

  std::printf("body %zu bytes, best of %d rounds\n", body.size(), rounds);
  std::printf("HtmlBodyToText (whole chain)      %8.1f MB/s\n", megabytes / chain);
  std::printf("  HtmlToText                      %8.1f MB/s\n", megabytes / htmlOnly);
  std::printf("  DecodeHtmlEntities              %8.1f MB/s\n",
              static_cast<double>(tagless.size()) / 1e6 / entities);
  std::printf("  SqueezeSpaces+SqueezeBlankLines %8.1f MB/s\n",
              static_cast<double>(tagless.size()) / 1e6 / squeeze);
  std::printf("reference tag-stripping loop      %8.1f MB/s\n", megabytes / reference);
  std::printf("chain time / reference time       %8.2f\n", chain / reference);

  const std::string small = StretchedBody(4 * kBodySize);
  const std::string large = StretchedBody(16 * kBodySize);
  const double smallSeconds = BestSeconds(rounds, small, corvane::HtmlToText, sink);
  const double largeSeconds = BestSeconds(rounds, large, corvane::HtmlToText, sink);
  std::printf("tagless stretches, 4 MB           %8.1f MB/s\n",
              static_cast<double>(small.size()) / 1e6 / smallSeconds);
  std::printf("tagless stretches, 16 MB          %8.1f MB/s\n",
              static_cast<double>(large.size()) / 1e6 / largeSeconds);
  std::printf("time ratio 16 MB / 4 MB           %8.2f (4 is linear)\n",
              largeSeconds / smallSeconds);
  std::printf("(checksum %zu)\n", sink);
  return 0;
}
