#include "mail/address_list.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "mail/pattern.h"

namespace corvane {
namespace {

TEST(ExtractAddressesTest, JoinsEveryAddressWithOneComma) {
  EXPECT_EQ(ExtractAddresses("ann@example.com; bob@mail.example.org", ""),
            "ann@example.com,bob@mail.example.org");
  EXPECT_EQ(ExtractAddresses("\"Smith, John\" <john.smith-jr@mail.sub.example-corp.co.uk>, "
                             "Jane <jane_doe99@x.net>",
                             "nobody@example.com"),
            "john.smith-jr@mail.sub.example-corp.co.uk,jane_doe99@x.net");
  EXPECT_EQ(ExtractAddresses("no address here, not even a@b", ""), "");
  EXPECT_EQ(ExtractAddresses("", ""), "");
}

TEST(ExtractAddressesTest, KeptAddressTakesACommaWhenAnotherFollowsInTheText) {
  const std::string to = "a@x.com, b@y.org, c@z.net";
  EXPECT_EQ(ExtractAddresses(to, "c@z.net"), "a@x.com,b@y.org,");
  EXPECT_EQ(ExtractAddresses(to, "a@x.com"), "b@y.org,c@z.net");
  EXPECT_EQ(ExtractAddresses(to, "b@y.org"), "a@x.com,c@z.net");
  EXPECT_EQ(ExtractAddresses("a@x.com, me@x.com, me@x.com", "me@x.com"), "a@x.com,");
  EXPECT_EQ(ExtractAddresses("me@x.com, me@x.com", "me@x.com"), "");
}

TEST(ExtractAddressesTest, LeavesOutWithoutRegardToCase) {
  EXPECT_EQ(ExtractAddresses("Me@Example.COM, you@example.com", "me@example.com"),
            "you@example.com");
  EXPECT_EQ(ExtractAddresses("you@example.com, Me@Example.COM", "ME@EXAMPLE.com"),
            "you@example.com,");
}

TEST(ExtractAddressesTest, TakesWhatThePatternAllows) {
  // Both ends of each side must be a letter or digit.
  EXPECT_EQ(ExtractAddresses("-x-@y.com", ""), "");
  EXPECT_EQ(ExtractAddresses("._john@x.com", ""), "john@x.com");
  EXPECT_EQ(ExtractAddresses("a@-b.com", ""), "");
  // The last label is two to nine letters; a longer run is cut and goes on.
  EXPECT_EQ(ExtractAddresses("a@b.abcdefghijk@c.de", ""), "a@b.abcdefghi,jk@c.de");
  EXPECT_EQ(ExtractAddresses("a@b.c", ""), "");
  EXPECT_EQ(ExtractAddresses("user@host.com.", ""), "user@host.com");
  EXPECT_EQ(ExtractAddresses("user@10.0.0.1", ""), "");
  EXPECT_EQ(ExtractAddresses("\xD6\xD0john@x.com\xCE\xC4", ""), "john@x.com");
}

// The same matches found the plain way: a search from each match's end, the
// engine trying every position. Fine for short texts only.
std::optional<std::vector<std::string>> ReferenceAddresses(const std::string& text) {
  static const Pattern pattern(
      "([0-9a-zA-Z]([-.\\w]*[0-9a-zA-Z])*@(([0-9a-zA-Z])+([-\\w]*[0-9a-zA-Z])*\\.)+[a-zA-Z]{2,9})");
  PatternMatch match(pattern);
  std::vector<std::string> found;
  for (size_t from = 0;; from = match.end()) {
    const MatchStatus status = match.Find(text, from);
    if (status == MatchStatus::kFailed) return std::nullopt;
    if (status == MatchStatus::kNoMatch) return found;
    found.emplace_back(*match.Group(1));
  }
}

TEST(ExtractAddressesTest, FindsWhatAPlainSearchFinds) {
  std::mt19937 random(19700101);
  const std::string pieces[] = {"a", "b7", "@", ".", "-", "_", " ", ",", "<", "com", "x.y", "\xB0"};
  int compared = 0;
  for (int round = 0; round < 5000; ++round) {
    std::string text;
    const int count = static_cast<int>(random() % 16);
    for (int i = 0; i < count; ++i) text += pieces[random() % std::size(pieces)];
    const std::optional<std::vector<std::string>> found = ReferenceAddresses(text);
    if (!found) continue;  // the plain search ran out of steps: nothing to compare
    std::string expected;
    for (size_t i = 0; i < found->size(); ++i) expected += (i ? "," : "") + (*found)[i];
    ASSERT_EQ(ExtractAddresses(text, ""), expected) << "text: " << text;
    ++compared;
  }
  EXPECT_GT(compared, 4900);
}

TEST(ExtractAddressesTest, HostileRunsCostLittleAndSpareTheAddressesAround) {
  // Runs on which the pattern backtracks exponentially before failing.
  const std::string hostile = std::string(40, 'a') + "@" + std::string(40, 'b') + ". ";
  EXPECT_EQ(ExtractAddresses(hostile + "x@y.com " + hostile, ""), "x@y.com");

  std::string many = "first@example.com ";
  while (many.size() < 1u << 20) many += std::string(24, 'c') + "@" + std::string(24, 'd') + "-.e ";
  many += "last@example.com";
  EXPECT_EQ(ExtractAddresses(many, ""), "first@example.com,last@example.com");
}

TEST(ExtractAddressesTest, FindsVeryLongAddresses) {
  const std::string local(200000, 'q');
  EXPECT_EQ(ExtractAddresses("<" + local + "@example.com>", ""), local + "@example.com");
  std::string labels;
  for (int i = 0; i < 20000; ++i) labels += "h" + std::to_string(i % 10) + ".";
  EXPECT_EQ(ExtractAddresses("<x@" + labels + "org>", ""), "x@" + labels + "org");
}

TEST(ExtractAddressesTest, GivesTheSameResultsOnManyThreadsAtOnce) {
  const std::string to = "\"A\" <a@x.com>, b@y.org, me@z.net";
  std::vector<std::string> results(8);
  std::vector<std::thread> threads;
  for (std::string& result : results) {
    threads.emplace_back([&result, &to] {
      for (int i = 0; i < 100; ++i) result = ExtractAddresses(to, "ME@z.net");
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& result : results) EXPECT_EQ(result, "a@x.com,b@y.org,");
}

TEST(JoinListTest, JoinsWithACommaOrCopiesTheSecond) {
  EXPECT_EQ(JoinList("", "from@x.com"), "from@x.com");
  EXPECT_EQ(JoinList("a@x.com", "from@x.com"), "a@x.com,from@x.com");
  // A list that ends in a comma keeps it: the reply-all recipients can hold two in a row.
  EXPECT_EQ(JoinList("a@x.com,", "from@x.com"), "a@x.com,,from@x.com");
  EXPECT_EQ(JoinList("a", ""), "a,");
}

}  // namespace
}  // namespace corvane
