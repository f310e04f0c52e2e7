#include "transport/counted_string.h"

#include <algorithm>

namespace corvane {
namespace {

struct Header {
  size_t headerSize;  // digit count byte plus the length digits
  size_t dataLength;  // as declared
};

// Reads the digit count and the length field. Length digits read up to the
// first non-digit, like every other number in a request; a length field cut by
// `available` reads from the digits that are there.
std::optional<Header> ReadHeader(const char* bytes, size_t available) {
  if (bytes == nullptr || available == 0 || bytes[0] < '1' || bytes[0] > '9') return std::nullopt;
  const size_t digits = static_cast<size_t>(bytes[0] - '0');
  const size_t present = std::min(digits, available - 1);
  size_t length = 0;
  for (size_t i = 1; i <= present && bytes[i] >= '0' && bytes[i] <= '9'; ++i) {
    length = length * 10 + static_cast<size_t>(bytes[i] - '0');
  }
  return Header{1 + digits, length};
}

}  // namespace

std::string CountedString::Encode(std::string_view data) {
  std::string out;
  AppendTo(out, data);
  return out;
}

void CountedString::AppendTo(std::string& out, std::string_view data) {
  const std::string length = std::to_string(data.size());
  out.reserve(out.size() + 1 + length.size() + data.size());
  out.push_back(static_cast<char>('0' + length.size()));
  out.append(length);
  out.append(data);
}

size_t CountedString::SizeAt(const char* bytes, size_t available) {
  const std::optional<Header> header = ReadHeader(bytes, available);
  if (!header) return 0;
  // Never more than is there, so that stepping over a truncated string stops
  // at the end of the buffer instead of past it.
  return std::min(header->headerSize + header->dataLength, available);
}

std::optional<std::string_view> CountedString::DataAt(const char* bytes, size_t available) {
  const std::optional<Header> header = ReadHeader(bytes, available);
  if (!header || header->dataLength == 0 || header->headerSize >= available) return std::nullopt;
  const size_t length = std::min(header->dataLength, available - header->headerSize);
  return std::string_view(bytes + header->headerSize, length);
}

}  // namespace corvane
