#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

// The pattern engine's handles, kept out of this header.
struct pcre2_real_code_8;
struct pcre2_real_match_data_8;
struct pcre2_real_match_context_8;

namespace corvane {

// A compiled regular expression with Perl-like syntax. Compile once and keep
// it (a function-local static makes the first use safe from any thread); one
// pattern serves any number of threads, each with its own PatternMatch.
class Pattern {
 public:
  enum class Anchor {
    kSearch,   // a match may start anywhere from the start position on
    kAtStart,  // a match must start exactly at the start position
  };

  explicit Pattern(std::string_view source, Anchor anchor = Anchor::kSearch);
  ~Pattern();
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  // False when the source did not compile; such a pattern never matches.
  bool ok() const { return code_ != nullptr; }
  int GroupCount() const { return groupCount_; }

 private:
  friend class PatternMatch;
  struct CodeFree {
    void operator()(pcre2_real_code_8* code) const;
  };
  std::unique_ptr<pcre2_real_code_8, CodeFree> code_;
  int groupCount_ = 0;
};

enum class MatchStatus {
  kMatched,
  kNoMatch,
  kFailed,  // the engine gave up: the step limit was reached, or another error
};

// One thread's matching state for a pattern: the match found last and the
// limit that bounds how long one attempt may backtrack.
class PatternMatch {
 public:
  // The engine's own default; enough for every pattern that does not
  // backtrack exponentially.
  static constexpr uint32_t kDefaultStepLimit = 10'000'000;

  explicit PatternMatch(const Pattern& pattern);
  ~PatternMatch();
  PatternMatch(const PatternMatch&) = delete;
  PatternMatch& operator=(const PatternMatch&) = delete;

  // Bounds the backtracking steps of each later Find.
  void SetStepLimit(uint32_t steps);

  // Looks for the first match in `subject` that starts at or after `start`
  // (or exactly at `start` for a kAtStart pattern). The subject must outlive
  // the use of Group.
  MatchStatus Find(std::string_view subject, size_t start = 0);

  // Where the last match begins and ends in the subject.
  size_t begin() const { return begin_; }
  size_t end() const { return end_; }
  // Group `n` of the last match (0 is the whole match), or none when the group
  // did not take part in it.
  std::optional<std::string_view> Group(int n) const;

 private:
  struct MatchDataFree {
    void operator()(pcre2_real_match_data_8* data) const;
  };
  struct ContextFree {
    void operator()(pcre2_real_match_context_8* context) const;
  };
  const Pattern& pattern_;
  std::unique_ptr<pcre2_real_match_data_8, MatchDataFree> data_;
  std::unique_ptr<pcre2_real_match_context_8, ContextFree> context_;
  std::string_view subject_;
  bool matched_ = false;
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace corvane
