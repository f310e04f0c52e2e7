// A "Date" header's text read into a time, and that time shown as a list
// row's date. The time, written out as a Date header and read again, must
// come back the same.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "mail/header_display.h"
#include "mail/mail_date.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // One zone without summer time, so that every wall-clock time names
  // exactly one moment and the round trip below has one answer.
  setenv("TZ", "UTC", 1);
  tzset();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const int32_t time = corvane::ParseMailDate(text);
  corvane::FormatLocalMinute(time);
  if (time <= 0) return 0;
  const time_t seconds = time;
  struct tm local {};
  char written[64];
  if (localtime_r(&seconds, &local) == nullptr ||
      std::strftime(written, sizeof written, "%a, %d %b %Y %H:%M:%S +0000", &local) == 0) {
    return 0;
  }
  if (corvane::ParseMailDate(written) != time) {
    std::fprintf(stderr, "mail_date_fuzz: \"%s\" does not read back as %d\n", written, time);
    std::abort();
  }
  return 0;
}
