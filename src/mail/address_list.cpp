#include "mail/address_list.h"

#include <cstdint>
#include <vector>

#include "mail/pattern.h"
#include "mail/text_helpers.h"

namespace corvane {
namespace {

// The nested repetitions of the address pattern backtrack exponentially on
// long runs that fail to be an address: a last domain label of n letters
// costs about 4^n steps. The first few attempts that run out of steps may take
// up to 2,000,000 (a last label of 18 letters); after that every attempt gets
// 5,000 (10 letters), so hostile text costs little more than its length.
constexpr uint32_t kGenerousStepLimit = 2'000'000;
constexpr uint32_t kTightStepLimit = 5'000;
constexpr int kGenerousFailures = 4;

// Tried only at a chosen start (see FindAddresses).
const Pattern& AddressPattern() {
  static const Pattern pattern(
      "([0-9a-zA-Z]([-.\\w]*[0-9a-zA-Z])*@(([0-9a-zA-Z])+([-\\w]*[0-9a-zA-Z])*\\.)+[a-zA-Z]{2,9})",
      Pattern::Anchor::kAtStart);
  return pattern;
}

bool IsAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// What the pattern allows on either side of the '@': [-.\w].
bool IsAddressByte(char c) {
  return IsAlphanumeric(c) || c == '_' || c == '-' || c == '.';
}

bool SameAddress(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

// The matches of the address pattern in `text`, each search going on after
// the previous match, found the way a leftmost search would find them but
// with one attempt per '@'. Every byte of a match is an address byte except
// its one '@', so a match that starts anywhere between `from` and the next
// '@' starts at the first letter or digit there and ends before the first
// non-address byte after the '@'. When that single attempt fails, no start
// up to the '@' can succeed.
std::vector<std::string_view> FindAddresses(std::string_view text) {
  std::vector<std::string_view> addresses;
  PatternMatch match(AddressPattern());
  int generousFailures = 0;
  size_t from = 0;
  while (from < text.size()) {
    size_t at = from;
    while (at < text.size() && IsAddressByte(text[at])) ++at;
    if (at == text.size()) break;
    if (text[at] != '@') {
      from = at + 1;
      continue;
    }
    size_t first = from;
    while (first < at && !IsAlphanumeric(text[first])) ++first;
    size_t domainEnd = at + 1;
    while (domainEnd < text.size() && IsAddressByte(text[domainEnd])) ++domainEnd;
    if (first < at) {
      match.SetStepLimit(generousFailures < kGenerousFailures ? kGenerousStepLimit
                                                              : kTightStepLimit);
      const MatchStatus status = match.Find(text.substr(0, domainEnd), first);
      if (status == MatchStatus::kMatched) {
        addresses.push_back(match.Group(1).value_or(""));
        from = match.end();
        continue;
      }
      // Text the engine gave up on counts as holding no address.
      if (status == MatchStatus::kFailed) ++generousFailures;
    }
    from = at + 1;
  }
  return addresses;
}

}  // namespace

std::string ExtractAddresses(std::string_view text, std::string_view leaveOut) {
  text = UpToNul(text);
  leaveOut = UpToNul(leaveOut);
  const std::vector<std::string_view> addresses = FindAddresses(text);
  std::string list;
  for (size_t i = 0; i < addresses.size(); ++i) {
    if (SameAddress(addresses[i], leaveOut)) continue;
    list.append(addresses[i]);
    if (i + 1 < addresses.size()) list += ',';
  }
  return list;
}

std::string JoinList(std::string_view first, std::string_view second) {
  first = UpToNul(first);
  second = UpToNul(second);
  if (first.empty()) return std::string(second);
  std::string joined;
  joined.reserve(first.size() + 1 + second.size());
  joined.append(first).append(",").append(second);
  return joined;
}

}  // namespace corvane
