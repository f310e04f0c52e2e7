#include "mail/pattern.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace corvane {
namespace {

TEST(PatternTest, NumbersGroupsByOpeningParenthesisAndReportsUnsetOnes) {
  const Pattern pattern("((\\w+)@(\\w+))(\\.(\\w+))?");
  ASSERT_TRUE(pattern.ok());
  EXPECT_EQ(pattern.GroupCount(), 5);
  PatternMatch match(pattern);
  ASSERT_EQ(match.Find("to: joe@host, x"), MatchStatus::kMatched);
  EXPECT_EQ(match.begin(), 4u);
  EXPECT_EQ(match.end(), 12u);
  EXPECT_EQ(match.Group(0), "joe@host");
  EXPECT_EQ(match.Group(1), "joe@host");
  EXPECT_EQ(match.Group(2), "joe");
  EXPECT_EQ(match.Group(3), "host");
  EXPECT_EQ(match.Group(4), std::nullopt);
  EXPECT_EQ(match.Group(5), std::nullopt);
  EXPECT_EQ(match.Group(6), std::nullopt);
  EXPECT_EQ(match.Group(-1), std::nullopt);
}

TEST(PatternTest, SearchesFromTheStartAndGoesOnAfterEachMatch) {
  const Pattern pattern("\\d+");
  PatternMatch match(pattern);
  const std::string text = "a1 b22 c333";
  std::vector<std::string> found;
  for (size_t from = 0; match.Find(text, from) == MatchStatus::kMatched; from = match.end()) {
    found.emplace_back(*match.Group(0));
  }
  EXPECT_EQ(found, (std::vector<std::string>{"1", "22", "333"}));
  EXPECT_EQ(match.Find(text, text.size() + 1), MatchStatus::kNoMatch);
  EXPECT_EQ(match.Group(0), std::nullopt);
}

TEST(PatternTest, AnchoredPatternMatchesOnlyAtTheStartPosition) {
  const Pattern pattern("b+", Pattern::Anchor::kAtStart);
  PatternMatch match(pattern);
  EXPECT_EQ(match.Find("abbb", 0), MatchStatus::kNoMatch);
  ASSERT_EQ(match.Find("abbb", 1), MatchStatus::kMatched);
  EXPECT_EQ(match.Group(0), "bbb");
  // The end of the given subject bounds the match.
  ASSERT_EQ(match.Find(std::string_view("abbb").substr(0, 3), 1), MatchStatus::kMatched);
  EXPECT_EQ(match.Group(0), "bb");
}

TEST(PatternTest, TreatsBytesAsBytes) {
  const Pattern pattern("[^>]+");
  PatternMatch match(pattern);
  const std::string text = std::string("\xD6\xD0\0\xFF>", 5);
  ASSERT_EQ(match.Find(text), MatchStatus::kMatched);
  EXPECT_EQ(match.Group(0)->size(), 4u);
}

TEST(PatternTest, GivesUpWhenBacktrackingRunsOutOfSteps) {
  // Each 'a' may be taken by either branch: 2^40 ways to fail before the 'b'.
  const Pattern pattern("(a|a)+b");
  PatternMatch match(pattern);
  match.SetStepLimit(100'000);
  EXPECT_EQ(match.Find(std::string(40, 'a') + "!b"), MatchStatus::kFailed);
  EXPECT_EQ(match.Group(0), std::nullopt);
  ASSERT_EQ(match.Find("aab"), MatchStatus::kMatched);
  EXPECT_EQ(match.Group(0), "aab");
}

TEST(PatternTest, BrokenSourceNeverMatches) {
  const Pattern pattern("(unclosed");
  EXPECT_FALSE(pattern.ok());
  PatternMatch match(pattern);
  EXPECT_EQ(match.Find("(unclosed"), MatchStatus::kNoMatch);
}

}  // namespace
}  // namespace corvane
