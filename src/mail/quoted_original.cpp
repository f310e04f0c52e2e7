#include "mail/quoted_original.h"

namespace corvane {

std::string QuotationHeader(const RenderedMail& original) {
  // GB2312: twelve '-', "content of the original mail", thirteen '-'; then
  // "sender", "sent time", "recipient" and "subject".
  return std::string("------------\xD4\xAD\xD3\xCA\xBC\xFE\xC4\xDA\xC8\xDD-------------\r\n") +
         "\xB7\xA2\xBC\xFE\xC8\xCB: " + original.from.value_or("") + "\r\n" +
         "\xB7\xA2\xCB\xCD\xCA\xB1\xBC\xE4: " + original.date.value_or("") + "\r\n" +
         "\xCA\xD5\xBC\xFE\xC8\xCB: " + original.to.value_or("") + "\r\n" +
         "\xD6\xF7\xCC\xE2: " + original.subject.value_or("") + "\r\n";
}

void QuoteOriginal(std::optional<std::string>& body, const RenderedMail& original) {
  if (!original.body) return;
  std::string quoted = "\r\n\r\n" + QuotationHeader(original) + "\r\n" + *original.body;
  body = body ? *body + quoted : quoted;
}

}  // namespace corvane
