#include "mail/text_helpers.h"

namespace corvane {

void SqueezeSpaces(std::string& text) {
  text.resize(UpToNul(text).size());
  constexpr size_t kKept = 5;
  size_t out = 0;
  size_t run = 0;
  for (const char c : text) {
    run = c == ' ' ? run + 1 : 0;
    if (run > kKept) continue;
    text[out++] = c;
  }
  text.resize(out);
}

void SqueezeBlankLines(std::string& text) {
  text.resize(UpToNul(text).size());
  const std::string_view kBlankLine = "\r\n\r\n";
  size_t out = 0;
  bool dropping = false;
  for (const char c : text) {
    const bool lineBreak = c == '\r' || c == '\n';
    if (dropping && lineBreak) continue;
    dropping = false;
    text[out++] = c;
    // The four bytes just kept end a blank line: every CR and LF right after
    // them goes. Those four can never overlap an earlier blank line, since
    // the byte after every earlier one was neither CR nor LF.
    if (c == '\n' && out >= kBlankLine.size() &&
        std::string_view(text).substr(out - kBlankLine.size(), kBlankLine.size()) == kBlankLine) {
      dropping = true;
    }
  }
  text.resize(out);
}

bool HasEightBitBytes(std::string_view text) {
  for (const char c : UpToNul(text)) {
    if (static_cast<unsigned char>(c) >= 0x80) return true;
  }
  return false;
}

std::string ConcatNew(std::string_view first, std::optional<std::string_view> second) {
  std::string joined(UpToNul(first));
  if (second) joined += UpToNul(*second);
  return joined;
}

std::optional<std::string> ExtractCharset(std::string_view contentType) {
  contentType = UpToNul(contentType);
  const std::string_view kQuoted = "charset=\"";
  if (const size_t at = contentType.find(kQuoted); at != std::string_view::npos) {
    const size_t begin = at + kQuoted.size();
    const size_t close = contentType.find('"', begin);
    if (close == std::string_view::npos) return std::nullopt;
    return std::string(contentType.substr(begin, close - begin));
  }
  const std::string_view kBare = "charset=";
  if (const size_t at = contentType.find(kBare); at != std::string_view::npos) {
    return std::string(contentType.substr(at + kBare.size()));
  }
  return std::nullopt;
}

}  // namespace corvane
