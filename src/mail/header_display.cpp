#include "mail/header_display.h"

#include <ctime>

#include "mime/charset_converter.h"
#include "mime/encoded_words.h"

namespace corvane {

std::string DecodeHeaderForDisplay(std::string_view header, std::string_view targetCharset) {
  if (!HasEncodedWords(header)) return std::string(header);
  DecodedText decoded = DecodeEncodedWords(header);
  std::optional<std::string> converted =
      ConvertCharset(decoded.charset, targetCharset, decoded.text);
  return converted ? std::move(*converted) : std::move(decoded.text);
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
