#include "mail/mail_date.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "mail/pattern.h"
#include "mail/text_helpers.h"

namespace corvane {
namespace {

constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

const Pattern& DatePattern() {
  static const Pattern pattern(
      "(Mon|Tue|Wed|Thu|Fri|Sat|Sun), (\\d{1,2}) "
      "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) (\\d{4}) "
      "(\\d{2})\\:(\\d{2}):?(\\d{2})? ?([\\+-])?(\\d{4})?");
  return pattern;
}

// The groups hold at most four digits, so this cannot overflow.
int DigitsValue(std::optional<std::string_view> digits) {
  int value = 0;
  for (const char c : digits.value_or("")) value = value * 10 + (c - '0');
  return value;
}

}  // namespace

int32_t ParseMailDate(std::optional<std::string_view> text) {
  if (!text) return 0;
  PatternMatch match(DatePattern());
  if (match.Find(UpToNul(*text)) != MatchStatus::kMatched) return 0;
  const std::string_view month = match.Group(3).value_or("");
  const auto monthIndex =
      static_cast<int>(std::find(kMonths.begin(), kMonths.end(), month) - kMonths.begin());

  std::tm fields{};
  fields.tm_year = DigitsValue(match.Group(4)) - 1900;
  fields.tm_mon = monthIndex;
  fields.tm_mday = DigitsValue(match.Group(2));
  fields.tm_hour = DigitsValue(match.Group(5));
  fields.tm_min = DigitsValue(match.Group(6));
  fields.tm_sec = DigitsValue(match.Group(7));
  fields.tm_isdst = -1;  // the library decides whether summer time applies
  const std::time_t value = std::mktime(&fields);
  if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max()) {
    return -1;
  }
  return static_cast<int32_t>(value);
}

int GetDateString(char* buffer, int size) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  if (buffer == nullptr || size < 32) return 1;
  tzset();
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  // The zone's bias is seconds west of UTC, as the zone rules keep it.
  long bias = timezone;
  long hours = bias / 3600 - (local.tm_isdst > 0 ? 1 : 0);
  char sign = '-';
  if (hours <= 0) {
    sign = '+';
    hours = -hours;
  }
  long minutes = std::labs(bias % 3600) / 60;
  std::snprintf(
      buffer, static_cast<size_t>(size), "%s, %2.2d %s %d %2.2d:%2.2d:%2.2d %c%2.2ld%2.2ld",
      kDays[local.tm_wday], local.tm_mday, kMonths[static_cast<size_t>(local.tm_mon)].data(),
      local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec, sign, hours, minutes);
  return 0;
}

}  // namespace corvane
