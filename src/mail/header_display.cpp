#include "mail/header_display.h"

#include <algorithm>
#include <ctime>

#include "base/ascii_text.h"
#include "mime/charset_converter.h"
#include "mime/encoded_words.h"

namespace corvane {
namespace {

// Header text is a sender's: an encoded word may carry any byte, and a raw
// value keeps its folds. Cut at the first NUL, with CR, LF and TAB as spaces,
// it can become a list row, a reply's subject or a notice argument without
// starting a line of its own anywhere.
std::string OneLine(std::string text) {
  text.resize(UpToNul(text).size());
  for (char& c : text) {
    if (c == '\r' || c == '\n' || c == '\t') c = ' ';
  }
  return text;
}

}  // namespace

std::string DecodeHeaderForDisplay(std::string_view header, std::string_view targetCharset) {
  if (!HasEncodedWords(header)) return OneLine(std::string(header));
  DecodedText decoded = DecodeEncodedWords(header);
  std::optional<std::string> converted =
      ConvertCharset(decoded.charset, targetCharset, decoded.text);
  return OneLine(converted ? std::move(*converted) : std::move(decoded.text));
}

std::optional<std::string> DisplayHeaderOf(const MailMessage& message, HeaderFieldId field,
                                           std::string_view targetCharset) {
  std::optional<std::string> value = message.JoinedHeaderValues(field);
  if (!value) return std::nullopt;
  return DecodeHeaderForDisplay(*value, targetCharset);
}

std::string FormatLocalMinute(int32_t time) {
  time_t seconds = time;
  struct tm local {};
  char text[128] = {};
  if (localtime_r(&seconds, &local) != nullptr) {
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local);
  }
  return text;
}

}  // namespace corvane
