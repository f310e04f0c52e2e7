#include "transport/counted_string.h"

#include <gtest/gtest.h>

#include <memory>

namespace corvane {
namespace {

// A heap copy of exactly `text`, so that a read past `available` is caught by
// the address sanitizer.
std::unique_ptr<char[]> Exact(std::string_view text) {
  auto copy = std::make_unique<char[]>(text.size());
  std::copy(text.begin(), text.end(), copy.get());
  return copy;
}

TEST(CountedStringTest, WritesTheShortestForm) {
  EXPECT_EQ(CountedString::Encode("abc"), "13abc");
  EXPECT_EQ(CountedString::Encode(""), "10");
  EXPECT_EQ(CountedString::Encode("123456789"), "19123456789");
  EXPECT_EQ(CountedString::Encode(std::string(10, 'x')), "210" + std::string(10, 'x'));
  EXPECT_EQ(CountedString::Encode(std::string(100, 'y')), "3100" + std::string(100, 'y'));
  EXPECT_EQ(CountedString::Encode(std::string_view("a\0b", 3)), std::string("13a\0b", 5));

  std::string out = "2";
  CountedString::AppendTo(out, "Command");
  CountedString::AppendTo(out, "");
  EXPECT_EQ(out, "217Command10");
}

TEST(CountedStringTest, ReadsWhatItWrites) {
  for (size_t size : {1u, 9u, 10u, 99u, 100u, 1000u, 20480u}) {
    const std::string data(size, 'z');
    const std::string encoded = CountedString::Encode(data) + "trailing";
    EXPECT_EQ(CountedString::SizeAt(encoded.data(), encoded.size()), encoded.size() - 8);
    const auto read = CountedString::DataAt(encoded.data(), encoded.size());
    ASSERT_TRUE(read) << size;
    EXPECT_EQ(*read, data);
  }
}

TEST(CountedStringTest, EmptyReadsAsAbsent) {
  EXPECT_EQ(CountedString::SizeAt("10", 2), 2u);
  EXPECT_FALSE(CountedString::DataAt("10", 2));
  EXPECT_EQ(CountedString::SizeAt("200", 3), 3u);
  EXPECT_FALSE(CountedString::DataAt("200", 3));
}

TEST(CountedStringTest, LengthMayCarryLeadingZeros) {
  const std::string text = "209123456789rest";
  EXPECT_EQ(CountedString::SizeAt(text.data(), text.size()), 12u);
  EXPECT_EQ(CountedString::DataAt(text.data(), text.size()), "123456789");
}

TEST(CountedStringTest, InvalidFirstByteHasNoSizeAndNoData) {
  for (std::string_view text : std::initializer_list<std::string_view>{"03abc", "a3abc", ":3abc",
                                                                       std::string_view("\0"
                                                                                        "3abc",
                                                                                        5)}) {
    EXPECT_EQ(CountedString::SizeAt(text.data(), text.size()), 0u);
    EXPECT_FALSE(CountedString::DataAt(text.data(), text.size()));
  }
  EXPECT_EQ(CountedString::SizeAt("13abc", 0), 0u);
  EXPECT_FALSE(CountedString::DataAt("13abc", 0));
  EXPECT_EQ(CountedString::SizeAt(nullptr, 0), 0u);
}

TEST(CountedStringTest, TruncatedInputIsNeverReadPastAvailable) {
  // Data cut short.
  auto cut = Exact("15ab");
  EXPECT_EQ(CountedString::SizeAt(cut.get(), 4), 4u);
  EXPECT_EQ(CountedString::DataAt(cut.get(), 4), "ab");

  // Length field cut short: only the digits there are read.
  auto shortLength = Exact("31");
  EXPECT_EQ(CountedString::SizeAt(shortLength.get(), 2), 2u);
  EXPECT_FALSE(CountedString::DataAt(shortLength.get(), 2));

  // Only the digit count byte.
  auto digitOnly = Exact("9");
  EXPECT_EQ(CountedString::SizeAt(digitOnly.get(), 1), 1u);
  EXPECT_FALSE(CountedString::DataAt(digitOnly.get(), 1));

  // A huge declared length over a small buffer.
  auto huge = Exact("9999999999xy");
  EXPECT_EQ(CountedString::SizeAt(huge.get(), 12), 12u);
  EXPECT_EQ(CountedString::DataAt(huge.get(), 12), "xy");
}

TEST(CountedStringTest, NonDigitEndsTheLengthField) {
  // Like every number the gateway reads, the length stops at a non-digit; the
  // field still takes its declared width.
  const std::string text = "21xhello";
  EXPECT_EQ(CountedString::SizeAt(text.data(), text.size()), 4u);
  EXPECT_EQ(CountedString::DataAt(text.data(), text.size()), "h");
}

TEST(CountedStringTest, StepsThroughAnEntry) {
  // Tag, name, value, then the next entry.
  std::string log = "2";
  CountedString::AppendTo(log, "Command");
  CountedString::AppendTo(log, "ListMail");
  log += "51010";
  const char* p = log.data() + 1;
  size_t left = log.size() - 1;
  EXPECT_EQ(CountedString::DataAt(p, left), "Command");
  const size_t nameSize = CountedString::SizeAt(p, left);
  p += nameSize;
  left -= nameSize;
  EXPECT_EQ(CountedString::DataAt(p, left), "ListMail");
  p += CountedString::SizeAt(p, left);
  EXPECT_EQ(*p, '5');
}

}  // namespace
}  // namespace corvane
