#include "protocol/ftp_passive_reply.h"

#include <cctype>

namespace corvane {
namespace {

// A decimal number of at most `maxDigits` digits at the front of `text`,
// which it consumes; none when no digit is there.
std::optional<unsigned> TakeNumber(std::string_view& text, size_t maxDigits) {
  size_t digits = 0;
  unsigned value = 0;
  while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) {
    if (++digits > maxDigits) return std::nullopt;
    value = value * 10 + static_cast<unsigned>(text[digits - 1] - '0');
  }
  if (digits == 0) return std::nullopt;
  text.remove_prefix(digits);
  return value;
}

bool Take(std::string_view& text, char c) {
  if (text.empty() || text.front() != c) return false;
  text.remove_prefix(1);
  return true;
}

std::optional<unsigned> ValidPort(std::optional<unsigned> port) {
  if (!port || *port == 0 || *port > 65535) return std::nullopt;
  return port;
}

// "(<d><d><d>port<d>)", <d> any printable character but a digit.
std::optional<unsigned> ExtendedPort(std::string_view reply) {
  size_t open = reply.find('(');
  if (open == std::string_view::npos || reply.size() < open + 2) return std::nullopt;
  std::string_view rest = reply.substr(open + 1);
  const char delimiter = rest.front();
  if (std::isdigit(static_cast<unsigned char>(delimiter)) || delimiter < '!' || delimiter > '~') {
    return std::nullopt;
  }
  if (!Take(rest, delimiter) || !Take(rest, delimiter) || !Take(rest, delimiter)) {
    return std::nullopt;
  }
  std::optional<unsigned> port = TakeNumber(rest, 5);
  if (!Take(rest, delimiter) || !Take(rest, ')')) return std::nullopt;
  return ValidPort(port);
}

// Six numbers 0..255 joined by commas, starting at the first digit after the
// code; servers differ on the parentheses around them.
std::optional<unsigned> ClassicPort(std::string_view reply) {
  if (reply.size() < 4) return std::nullopt;
  size_t first = reply.find_first_of("0123456789", 4);
  if (first == std::string_view::npos) return std::nullopt;
  std::string_view rest = reply.substr(first);
  unsigned numbers[6];
  for (int i = 0; i < 6; ++i) {
    if (i > 0 && !Take(rest, ',')) return std::nullopt;
    std::optional<unsigned> number = TakeNumber(rest, 3);
    if (!number || *number > 255) return std::nullopt;
    numbers[i] = *number;
  }
  return ValidPort(numbers[4] * 256 + numbers[5]);
}

}  // namespace

std::optional<unsigned> PassiveDataPort(int code, std::string_view reply) {
  if (code == 229) return ExtendedPort(reply);
  if (code == 227) return ClassicPort(reply);
  return std::nullopt;
}

}  // namespace corvane
