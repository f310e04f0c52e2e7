#include "mail/mail_date.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace corvane {
namespace {

// The local calendar fields of a time value.
std::tm LocalFields(int32_t value) {
  const std::time_t time = value;
  std::tm fields{};
  localtime_r(&time, &fields);
  return fields;
}

void ExpectLocal(int32_t value, int year, int month, int day, int hour, int minute, int second) {
  ASSERT_GT(value, 0);
  const std::tm fields = LocalFields(value);
  EXPECT_EQ(fields.tm_year + 1900, year);
  EXPECT_EQ(fields.tm_mon + 1, month);
  EXPECT_EQ(fields.tm_mday, day);
  EXPECT_EQ(fields.tm_hour, hour);
  EXPECT_EQ(fields.tm_min, minute);
  EXPECT_EQ(fields.tm_sec, second);
}

TEST(ParseMailDateTest, ReadsTheDateAsLocalWallClockTime) {
  ExpectLocal(ParseMailDate("Tue, 5 Jan 2010 08:30 +0800"), 2010, 1, 5, 8, 30, 0);
  ExpectLocal(ParseMailDate("Sun, 31 Dec 2017 23:59:58 -0500"), 2017, 12, 31, 23, 59, 58);
  ExpectLocal(ParseMailDate("Mon, 01 Feb 2021 00:00:00"), 2021, 2, 1, 0, 0, 0);
  ExpectLocal(ParseMailDate("Fri, 9 Jul 2004 14:05:09 GMT"), 2004, 7, 9, 14, 5, 9);
}

TEST(ParseMailDateTest, IgnoresTheZone) {
  const int32_t local = ParseMailDate("Wed, 14 Apr 2010 10:20:30");
  EXPECT_EQ(ParseMailDate("Wed, 14 Apr 2010 10:20:30 +0800"), local);
  EXPECT_EQ(ParseMailDate("Wed, 14 Apr 2010 10:20:30 -0700"), local);
  EXPECT_EQ(ParseMailDate("Wed, 14 Apr 2010 10:20:30 +0000 (UTC)"), local);
}

TEST(ParseMailDateTest, FindsTheDateAnywhereInTheText) {
  ExpectLocal(ParseMailDate("Date: received Thu, 24 Jun 2010 16:45:00 +0800 (CST)"), 2010, 6, 24,
              16, 45, 0);
}

TEST(ParseMailDateTest, GivesZeroForTextThatDoesNotParse) {
  EXPECT_EQ(ParseMailDate(std::nullopt), 0);
  EXPECT_EQ(ParseMailDate(""), 0);
  EXPECT_EQ(ParseMailDate("5 Jan 2010 08:30 +0800"), 0);
  EXPECT_EQ(ParseMailDate("Tue, 5 Jan 2010 8:30 +0800"), 0);
  EXPECT_EQ(ParseMailDate("tue, 5 jan 2010 08:30"), 0);
  EXPECT_EQ(ParseMailDate("Tue,5 Jan 2010 08:30"), 0);
  EXPECT_EQ(ParseMailDate("Tue, 5 Jan 10 08:30"), 0);
  EXPECT_EQ(ParseMailDate("Tue, 5 January 2010 08:30"), 0);
  EXPECT_EQ(ParseMailDate(std::string("Tue, 5 Jan\0 2010 08:30", 22)), 0);
}

TEST(ParseMailDateTest, GivesMinusOneForADateBeyond32Bits) {
  EXPECT_EQ(ParseMailDate("Fri, 31 Dec 2060 10:00:00 +0000"), -1);
}

TEST(ParseMailDateTest, SearchesALongHeaderToTheEnd) {
  const std::string header = std::string(5u << 20, 'x') + " Sat, 3 Mar 2012 03:04:05";
  ExpectLocal(ParseMailDate(header), 2012, 3, 3, 3, 4, 5);
}

}  // namespace
}  // namespace corvane
