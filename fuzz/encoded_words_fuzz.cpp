// Encoded words from a header: detection and decoding of arbitrary text, the
// display form in gb2312 and utf-8, and encoding the decoded bytes again,
// which must decode back to them.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "fuzz_check.h"
#include "mail/header_display.h"
#include "mime/encoded_words.h"

namespace {

using corvane::fuzz::Check;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  corvane::HasEncodedWords(text);
  const corvane::DecodedText decoded = corvane::DecodeEncodedWords(text);
  for (const char* target : {"gb2312", "utf-8"}) {
    const std::string shown = corvane::DecodeHeaderForDisplay(text, target);
    Check(shown.find_first_of(std::string_view("\r\n\t\0", 4)) == std::string::npos,
          "a displayed header is not one line");
  }
  // Words for the decoded bytes in a charset that keeps any byte sequence
  // whole, and in the words' own charset.
  for (std::string_view charset :
       {std::string_view("iso-8859-1"), std::string_view(decoded.charset)}) {
    for (char encoding : {'B', 'Q'}) {
      std::string words;
      if (corvane::EncodeWords(decoded.text, charset, encoding, words) != corvane::kEncodeOk) {
        continue;
      }
      const corvane::DecodedText again = corvane::DecodeEncodedWords(words);
      if (charset == "iso-8859-1") {
        Check(again.text == decoded.text, "encoded words do not decode back");
      }
    }
  }
  return 0;
}
