#include "mime/header_field.h"

#include <array>

#include "base/ascii_text.h"

namespace corvane {
namespace {

// Indexed by HeaderFieldId.
constexpr std::array<const char*, 22> kFieldTexts = {
    "All Fields ",    // 0
    "Message-ID:",    // 1
    "To:",            // 2
    "Cc:",            // 3
    "Bcc:",           // 4
    "From:",          // 5
    "Subject:",       // 6
    "Received:",      // 7
    "In-Reply-To:",   // 8
    "Keywords:",      // 9
    "Comments:",      // 10
    "Date:",          // 11
    "Reply-To:",      // 12
    "References:",    // 13
    "Newsgroups:",    // 14
    "Xref:",          // 15
    "X-Mailer:",      // 16
    "X-Newsreader:",  // 17
    "MIME-Version:",  // 18
    "Thread-Topic:",  // 19
    "Content-Type:",  // 20
    "Custom",         // 21
};

}  // namespace

const char* HeaderFieldText(int32_t id) {
  if (id < 0 || id >= static_cast<int32_t>(kFieldTexts.size())) return nullptr;
  return kFieldTexts[static_cast<size_t>(id)];
}

HeaderFieldId HeaderFieldIdOfName(std::string_view name) {
  for (int32_t id = kFieldMessageId; id < kFieldCustom; ++id) {
    std::string_view text = kFieldTexts[static_cast<size_t>(id)];
    text.remove_suffix(1);  // the colon
    if (SameText(text, name)) {
      return static_cast<HeaderFieldId>(id);
    }
  }
  return kFieldCustom;
}

}  // namespace corvane
