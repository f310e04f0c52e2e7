#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace corvane {

// The time of a "Date" header, in seconds since 1970-01-01 00:00 UTC. The
// date is searched anywhere in the text in the form "Tue, 5 Jan 2010 08:30:15
// +0800" (weekday and comma required, seconds optional) and read as wall-clock
// time in this machine's own time zone: the written zone is ignored, so a date
// from another zone comes out shifted by the difference. 0 when there is no
// text or no such date; -1 when the date has no time value in 32 bits.
int32_t ParseMailDate(std::optional<std::string_view> text);

// The local time as a Date header value with its zone offset, "Tue, 03 Mar
// 2009 14:05:09 +0800", into `buffer` of `size` bytes. 1 when `size` is
// below 32, else 0.
int GetDateString(char* buffer, int size);

}  // namespace corvane
