// A "Date" header's text read into a time, and that time shown as a list
// row's date.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "mail/header_display.h"
#include "mail/mail_date.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  corvane::FormatLocalMinute(corvane::ParseMailDate(text));
  return 0;
}
