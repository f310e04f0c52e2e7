#include "mail/pattern.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

namespace corvane {

void Pattern::CodeFree::operator()(pcre2_code* code) const {
  pcre2_code_free(code);
}
void PatternMatch::MatchDataFree::operator()(pcre2_match_data* data) const {
  pcre2_match_data_free(data);
}
void PatternMatch::ContextFree::operator()(pcre2_match_context* context) const {
  pcre2_match_context_free(context);
}

Pattern::Pattern(std::string_view source, Anchor anchor) {
  const uint32_t options = anchor == Anchor::kAtStart ? PCRE2_ANCHORED : 0;
  int error = 0;
  PCRE2_SIZE errorOffset = 0;
  code_.reset(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(source.data()), source.size(), options,
                            &error, &errorOffset, nullptr));
  if (!code_) return;
  // Machine code matching is several times faster; where the platform has
  // none, the interpreter runs the same pattern.
  pcre2_jit_compile(code_.get(), PCRE2_JIT_COMPLETE);
  uint32_t groups = 0;
  pcre2_pattern_info(code_.get(), PCRE2_INFO_CAPTURECOUNT, &groups);
  groupCount_ = static_cast<int>(groups);
}

Pattern::~Pattern() = default;

PatternMatch::PatternMatch(const Pattern& pattern) : pattern_(pattern) {
  if (pattern.ok()) data_.reset(pcre2_match_data_create_from_pattern(pattern.code_.get(), nullptr));
  context_.reset(pcre2_match_context_create(nullptr));
  SetStepLimit(kDefaultStepLimit);
}

PatternMatch::~PatternMatch() = default;

void PatternMatch::SetStepLimit(uint32_t steps) {
  if (context_) pcre2_set_match_limit(context_.get(), steps);
}

MatchStatus PatternMatch::Find(std::string_view subject, size_t start) {
  matched_ = false;
  subject_ = subject;
  if (!data_ || !context_ || start > subject.size()) return MatchStatus::kNoMatch;
  const auto* bytes = reinterpret_cast<PCRE2_SPTR>(subject.data());
  int rc = pcre2_match(pattern_.code_.get(), bytes, subject.size(), start, 0, data_.get(),
                       context_.get());
  if (rc == PCRE2_ERROR_JIT_STACKLIMIT) {
    // Machine code runs on a small fixed stack; the interpreter keeps its
    // backtracking state on the heap and can go deeper.
    rc = pcre2_match(pattern_.code_.get(), bytes, subject.size(), start, PCRE2_NO_JIT, data_.get(),
                     context_.get());
  }
  if (rc == PCRE2_ERROR_NOMATCH) return MatchStatus::kNoMatch;
  if (rc < 0) return MatchStatus::kFailed;
  const PCRE2_SIZE* offsets = pcre2_get_ovector_pointer(data_.get());
  matched_ = true;
  begin_ = offsets[0];
  end_ = offsets[1];
  return MatchStatus::kMatched;
}

std::optional<std::string_view> PatternMatch::Group(int n) const {
  if (!matched_ || n < 0 || n > pattern_.GroupCount()) return std::nullopt;
  const PCRE2_SIZE* offsets = pcre2_get_ovector_pointer(data_.get());
  const PCRE2_SIZE first = offsets[2 * n];
  const PCRE2_SIZE last = offsets[2 * n + 1];
  if (first == PCRE2_UNSET) return std::nullopt;
  return subject_.substr(first, last - first);
}

}  // namespace corvane
