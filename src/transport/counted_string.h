#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// The counted string that frames every name and value of the record container,
// every record of a record file and the request server's frames: one digit
// "1".."9" telling how many length digits follow, the decimal length, then the
// raw bytes. "abc" is written "13abc"; an absent or empty text is written "10".
struct CountedString {
  // The encoded form, always in the shortest decimal form.
  static std::string Encode(std::string_view data);

  // Appends the encoded form of `data` to `out`.
  static void AppendTo(std::string& out, std::string_view data);

  // Size in bytes of the counted string starting at `bytes` (digit, length
  // digits and data), reading no further than `available` bytes. A first byte
  // that is not "1".."9" makes an invalid string whose size reads as 0.
  static size_t SizeAt(const char* bytes, size_t available);

  // The data of the counted string at `bytes`; absent when it is invalid or its
  // length is 0 (an empty string reads as absent). Length digits may carry
  // leading zeros ("209" reads as 9). Data running past `available` is cut.
  static std::optional<std::string_view> DataAt(const char* bytes, size_t available);
};

}  // namespace corvane
