// The text utilities: entities, HTML to text, squeezing, shortening, dates,
// the pattern engine and address lists, each as one table of edge cases.
#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <vector>

#include "mail/address_list.h"
#include "mail/attachment_file_name.h"
#include "mail/header_display.h"
#include "mail/html_entities.h"
#include "mail/html_to_text.h"
#include "mail/mail_date.h"
#include "mail/pattern.h"
#include "mail/text_helpers.h"
#include "mail/text_shortening.h"
#include "support/scoped_env.h"

namespace corvane {
namespace {

using Cases = std::vector<std::pair<std::string, std::string>>;

// Every input against its expected output.
template <typename Function>
void ExpectEach(Function function, const Cases& cases) {
  for (const auto& [input, output] : cases) {
    EXPECT_EQ(function(input), output) << "input: " << testing::PrintToString(input);
  }
}

TEST(TextTest, HtmlEntitiesOfTheTableAreDecodedOnceAndOthersKept) {
  ExpectEach(
      DecodeHtmlEntities,
      {{"&quot;Tom&quot; &mdash; &copy; 2010 &lt;tag&gt; a&amp;b", "\"Tom\" - (C) 2010 <tag> a&b"},
       {"&amp;lt; &amp;amp; &amp;quot; &quot;", "&lt; &amp; &quot; \""},
       {"&nbsp;&nbsp a&nbspb&nbsp;;", "   a b ;"},
       // Entities named without their semicolon leave it in place.
       {"&reg; Brand&reg", "(R); Brand(R)"},
       {"&#8220;x&#8221", "\xA1\xB0;x\xA1\xB1"},
       {"&ldquo;q&rdquo; &lsquo;s&rsquo;", "\xA1\xB0q\xA1\xB1 \xA1\xAEs\xA1\xAF"},
       {"&eacute; &#169; &apos; &AMP; &Lt; & ; &amp", "&eacute; &#169; &apos; &AMP; &Lt; & ; &amp"},
       {std::string("&lt;\0&gt;", 9), "<"},
       {"", ""}});
}

TEST(TextTest, HtmlToTextKeepsTheRunsBetweenTagsAndBreaksLines) {
  ExpectEach(HtmlToText,
             {{"<p>one<BR clear=all>two</p><br />", "one\r\ntwo\r\n\r\n"},
              {"<ul><li>a</li><li>b</LI></ul>", "a\r\nb\r\n"},
              {"<x>a</br>b<br/>c<brx>d<br\tclear>e</x>", "a\r\nbcde"},
              {"<tr><TD>1</TD><td>2</td></tr>", "1 2 \r\n"},
              {"<b>x<STYLE type=\"text/css\">.a{}</Style>y<script>z</SCRIPT>!</b>", "xy!"},
              {"<b>x<style>.a{}</style >y</b>", "x.a{}y"},
              // Text before the first '>' and after the last tag goes.
              {"lead<b>bold</b>tail", "bold"},
              {"<b>unclosed<i", "unclosed"},
              {"<p>1 < 2<br>", "1 < 2\r\n"},
              {"<b>&lt;\xD6\xD0&nbsp;</b>", "&lt;\xD6\xD0&nbsp;"},
              // Without any tag the text stays as it is.
              {"a > b and c > d", "a > b and c > d"},
              {"x><>", "x><>"},
              {"", ""},
              {"<p>" + std::string(5000, 'r') + "</p><p>" + std::string(2047, 's') + "</p>",
               std::string(2047, 'r') + "\r\n" + std::string(2047, 's') + "\r\n"},
              {std::string("<p>a<br>\0b<br>", 14), "a\r\n"}});
}

TEST(TextTest, HtmlToTextTakesLinearTimeOnTwentyMegabyteLines) {
  const std::string sentence = "Seventy bytes or so of ordinary text between two of the tags, ";
  std::string html = "<html>", expected;
  while (html.size() < 20u << 20) {
    html += sentence + "<b>bold</b><td>cell</td>";
    expected += sentence + "boldcell ";
  }
  EXPECT_EQ(HtmlToText(html + "</html>"), expected);
  // Long stretches in which no match can start are not retried at each byte.
  const std::string x(10u << 20, 'x');
  EXPECT_EQ(HtmlToText(x + ">" + x + ">tail<br>" + x), "tail\r\n");
  EXPECT_EQ(HtmlToText(x + ">" + x), x + ">" + x);
}

TEST(TextTest, HtmlBodyWrapsPlainStartsDecodesAndSqueezes) {
  ExpectEach(HtmlBodyToText,
             {{"Dear Sir,<p>text</p>bye", "Dear Sir,text\r\nbye"},
              {"<p>text</p>bye", "text\r\n"},
              {"no markup at all", "no markup at all"},
              {"<html><body>A&nbsp;&amp;&nbsp;B<br><br><br><br>x          y&lt;z&gt;</body>",
               "A & B\r\n\r\nx     y<z>"},
              {"<p>&amp;lt;</p>", "&lt;\r\n"},
              {"", ""}});
}

TEST(TextTest, HeaderTextForDisplayAndAttachmentNamesStayOnOneLineInOneDirectory) {
  auto display = [](const std::string& header) { return DecodeHeaderForDisplay(header, "utf-8"); };
  ExpectEach(display, {{"=?utf-8?Q?Hi=0D=0A3=0D=0Abank?=", "Hi  3  bank"},
                       {"=?utf-8?Q?cut=00forged?= more", "cut"},
                       {"raw\r\n\tfold\tx", "raw   fold x"},
                       {std::string("raw\0cut", 7), "raw"},
                       {"=?gb2312?B?1cXI/Q==?=", "\xE5\xBC\xA0\xE4\xB8\x89"}});
  auto file = [](const std::string& name) { return AttachmentFileName(name, "utf-8"); };
  ExpectEach(file, {{"../../escape.bin", ".._.._escape.bin"},
                    {"..\\..\\e.bin", ".._.._e.bin"},
                    {"..", "_"},
                    {".", "_"},
                    {"", "_"},
                    {"...", "..."},
                    {"=?utf-8?Q?a=0D=0ASTOR_x=7F?=", "a  STOR x"},
                    {"\001b\037", "b"},
                    {std::string(300, 'n'), std::string(259, 'n')}});
}

TEST(TextTest, SqueezingKeepsFiveSpacesAndOneBlankLine) {
  auto spaces = [](std::string text) {
    SqueezeSpaces(text);
    return text;
  };
  ExpectEach(spaces, {{"a     b", "a     b"},
                      {"a      b", "a     b"},
                      {std::string(20, ' ') + "x" + std::string(7, ' '), "     x     "},
                      {"x \t\t\t\t\t\t y", "x \t\t\t\t\t\t y"},
                      {std::string("a      \0      ", 14), "a     "}});
  auto lines = [](std::string text) {
    SqueezeBlankLines(text);
    return text;
  };
  ExpectEach(lines, {{"a\r\n\r\n\r\n\r\nb", "a\r\n\r\nb"},
                     {"a\r\n\r\n\n\r\r\n\nb\r\n\r\n\r\n", "a\r\n\r\nb\r\n\r\n"},
                     {"a\r\n\r\nb\r\n\r\n\r\nc", "a\r\n\r\nb\r\n\r\nc"},
                     {"a\r\n\rb\n\n\n\nc\r\r\r\rd", "a\r\n\rb\n\n\n\nc\r\r\r\rd"},
                     {"a\n\r\r\n\r\n\r\nb", "a\n\r\r\n\r\nb"},
                     {std::string("a\r\n\r\n\0\r\n", 7), "a\r\n\r\n"}});
}

TEST(TextTest, EightBitBytesConcatAndCharset) {
  for (const std::string& text :
       {std::string(), std::string("plain ~\x7F"), std::string("a\0\xD6", 3)}) {
    EXPECT_FALSE(HasEightBitBytes(text));
  }
  for (const char* text : {"\x80", "ends with \xFF"}) EXPECT_TRUE(HasEightBitBytes(text));
  EXPECT_EQ(ConcatNew("first", std::nullopt), "first");
  EXPECT_EQ(ConcatNew(std::string("a\0b", 3), std::string("c\0d", 3)), "ac");
  const std::vector<std::pair<std::string, std::optional<std::string>>> charsets = {
      {"text/html; charset=\"UTF-8\"; format=flowed", "UTF-8"},
      {"text/plain; charset=\"\"", ""},
      {"text/plain; charset=\"gb2312", std::nullopt},
      {"text/plain; charset=gb2312; format=flowed", "gb2312; format=flowed"},
      {"text/plain; charset=", ""},
      {"text/plain; Charset=gb2312", std::nullopt},
      {std::string("text/plain\0; charset=big5", 25), std::nullopt}};
  for (const auto& [type, charset] : charsets) EXPECT_EQ(ExtractCharset(type), charset) << type;
}

TEST(TextTest, ShorteningCutsAtTheLimitBetweenCharactersAndAddsDots) {
  // A cut never splits a two-byte character; a lone 8-bit byte pairs with
  // the next one, even across ASCII.
  const struct {
    std::string text;
    int limit;
    std::string shortened;
  } cases[] = {{"0123456789", 7, "0123456789"},
               {"0123456789", 6, "012345..."},
               {"0123456789", 2, "01..."},
               {"0123456789", 1, "0123456789"},
               {"0123456789", -4, "0123456789"},
               {"", 5, ""},
               {"abcd\326\320wxyz", 5, "abcd..."},
               {"abcd\326\320wxyz", 6, "abcd\326\320..."},
               {"\241bcd\260\241xyzw", 5, "\241bcd\260..."},
               {"\241bcdefghij", 6, "\241bcde..."}};
  for (const auto& c : cases) {
    std::string text = c.text;
    EXPECT_EQ(ShortenText(text, c.limit), static_cast<int>(c.shortened.size())) << c.text;
    EXPECT_EQ(text, c.shortened) << c.text << " to " << c.limit;
  }
}

TEST(TextTest, MailDatesAreLocalWallClockTimesWhateverTheirZone) {
  {
    // Summer time all year: a date read without it would be an hour off.
    test::ScopedEnv zone("TZ", "XST5XDT,J1/0,J365/25");
    tzset();
    const std::vector<std::pair<std::string, int32_t>> dates = {
        {"Tue, 5 Jan 2010 08:30 +0800", 1262694600},
        {"Sat, 30 Dec 2017 23:59:58 -0500", 1514692798},
        {"Fri, 9 Jul 2004 14:05:09 GMT", 1089396309},
        {"Mon, 01 Feb 2021 00:00:00", 1612152000},
        {"Date: received Thu, 24 Jun 2010 16:45:00 +0800 (CST)", 1277412300},
        {std::string(5u << 20, 'x') + " Sat, 3 Mar 2012 03:04:05", 1330758245},
        {"Fri, 31 Dec 2060 10:00:00 +0000", -1},  // beyond 32 bits
        {"", 0},
        {"5 Jan 2010 08:30 +0800", 0},
        {"Tue, 5 Jan 2010 8:30 +0800", 0},
        {"Tue, 5 January 2010 08:30", 0},
        {std::string("Tue, 5 Jan\0 2010 08:30", 22), 0}};
    for (const auto& [text, value] : dates)
      EXPECT_EQ(ParseMailDate(text), value) << text.substr(0, 60);
    EXPECT_EQ(ParseMailDate(std::nullopt), 0);
  }

  // The Date line's offset follows the bias and summer time.
  const std::pair<const char*, const char*> zones[] = {{"CST-8", "+0800"},
                                                       {"UTC0", "+0000"},
                                                       {"IST-5:30", "+0530"},
                                                       {"NST3:30", "-0330"},
                                                       {"XST5XDT,J1/0,J365/25", "-0400"}};
  for (const auto& [rule, offset] : zones) {
    test::ScopedEnv other("TZ", rule);
    char buffer[32];
    ASSERT_EQ(GetDateString(buffer, sizeof buffer), 0);
    EXPECT_EQ(std::string(buffer).size(), 31u) << buffer;
    EXPECT_TRUE(std::string(buffer).ends_with(offset)) << rule << ": " << buffer;
  }
  char small[31];
  EXPECT_EQ(GetDateString(small, sizeof small), 1);
  tzset();
}

TEST(TextTest, PatternGroupsAndStepLimit) {
  const Pattern pattern("((\\w+)@(\\w+))(\\.(\\w+))?");
  ASSERT_TRUE(pattern.ok());
  EXPECT_EQ(pattern.GroupCount(), 5);
  PatternMatch match(pattern);
  ASSERT_EQ(match.Find("to: joe@host, x"), MatchStatus::kMatched);
  EXPECT_EQ(match.begin(), 4u);
  EXPECT_EQ(match.end(), 12u);
  const std::optional<std::string_view> groups[] = {"joe@host",   "joe@host",   "joe",       "host",
                                                    std::nullopt, std::nullopt, std::nullopt};
  for (int n = 0; n < 7; ++n) EXPECT_EQ(match.Group(n), groups[n]) << n;
  EXPECT_EQ(match.Group(-1), std::nullopt);
  EXPECT_EQ(match.Find("a@b", 4), MatchStatus::kNoMatch);
  EXPECT_EQ(PatternMatch(Pattern("x*")).Find("ab", 2), MatchStatus::kMatched);  // at the end
  EXPECT_EQ(match.Group(0), std::nullopt);

  // Each 'a' may be taken by either branch: 2^40 ways to fail before the 'b'.
  const Pattern hostile("(a|a)+b");
  PatternMatch limited(hostile);
  limited.SetStepLimit(100'000);
  EXPECT_EQ(limited.Find(std::string(40, 'a') + "!b"), MatchStatus::kFailed);
  EXPECT_EQ(limited.Group(0), std::nullopt);
  ASSERT_EQ(limited.Find("aab"), MatchStatus::kMatched);
  const Pattern broken("(unclosed");
  EXPECT_FALSE(broken.ok());
  EXPECT_EQ(PatternMatch(broken).Find("(unclosed"), MatchStatus::kNoMatch);
}

TEST(TextTest, AddressListsJoinWithCommasAndLeaveOutTheLoginInAnyCase) {
  const struct {
    std::string text, leaveOut, list;
  } cases[] = {{"\"Smith, J\" <john.smith-jr@mail.sub.example-corp.co.uk>, Jane <jane_doe99@x.net>",
                "nobody@example.com", "john.smith-jr@mail.sub.example-corp.co.uk,jane_doe99@x.net"},
               // A kept address takes a comma when another follows in the text.
               {"a@x.com, b@y.org, c@z.net", "c@z.net", "a@x.com,b@y.org,"},
               {"a@x.com, b@y.org, c@z.net", "a@x.com", "b@y.org,c@z.net"},
               {"a@x.com, b@y.org, c@z.net", "B@Y.org", "a@x.com,c@z.net"},
               {"a@x.com, Me@x.COM, me@x.com", "me@x.com", "a@x.com,"},
               {std::string("a@x.com\0b@y.org", 15), std::string("a@x.com\0z", 9), ""},
               // Both ends of each side are letters or digits; the last label has two
               // to nine letters, and a longer run is cut and goes on.
               {"-x-@y.com a@-b.com a@b.c user@10.0.0.1 none@", "", ""},
               {"._john@x.com. a@b.abcdefghijk@c.de", "", "john@x.com,a@b.abcdefghi,jk@c.de"},
               {"\xD6\xD0john@x.com\xCE\xC4", "", "john@x.com"},
               {"", "", ""}};
  for (const auto& c : cases) EXPECT_EQ(ExtractAddresses(c.text, c.leaveOut), c.list) << c.text;
  EXPECT_EQ(JoinList("", "from@x.com"), "from@x.com");
  EXPECT_EQ(JoinList("a@x.com,", "from@x.com"), "a@x.com,,from@x.com");
  EXPECT_EQ(JoinList(std::string("a\0b", 3), ""), "a,");
}

TEST(TextTest, AddressListsFindWhatAPlainSearchFindsAtLinearCost) {
  static const Pattern pattern(
      "([0-9a-zA-Z]([-.\\w]*[0-9a-zA-Z])*@(([0-9a-zA-Z])+([-\\w]*[0-9a-zA-Z])*\\.)+[a-zA-Z]{2,9})");
  std::mt19937 random(19700101);
  const std::string pieces[] = {"a", "b7", "@", ".", "-", "_", " ", ",", "<", "com", "x.y", "\xB0"};
  int compared = 0;
  for (int round = 0; round < 5000; ++round) {
    std::string text, expected;
    for (int i = static_cast<int>(random() % 16); i > 0; --i) text += pieces[random() % 12];
    PatternMatch match(pattern);
    MatchStatus status;
    for (size_t from = 0; (status = match.Find(text, from)) == MatchStatus::kMatched;
         from = match.end()) {
      expected += (expected.empty() ? "" : ",") + std::string(*match.Group(1));
    }
    if (status == MatchStatus::kFailed) continue;  // the plain search ran out of steps
    ASSERT_EQ(ExtractAddresses(text, ""), expected) << "text: " << text;
    ++compared;
  }
  EXPECT_GT(compared, 4900);
  // Runs on which the pattern backtracks exponentially spare the addresses
  // around them, and very long addresses are found whole.
  const std::string hostile = std::string(40, 'a') + "@" + std::string(40, 'b') + ". ";
  std::string many = "first@example.com " + hostile;
  while (many.size() < 1u << 20) many += std::string(24, 'c') + "@" + std::string(24, 'd') + "-.e ";
  EXPECT_EQ(ExtractAddresses(many + "last@example.com", ""), "first@example.com,last@example.com");
  const std::string local(200000, 'q');
  EXPECT_EQ(ExtractAddresses("<" + local + "@example.com>", ""), local + "@example.com");
  std::string labels;
  for (int i = 0; i < 20000; ++i) labels += "h" + std::to_string(i % 10) + ".";
  EXPECT_EQ(ExtractAddresses("<x@" + labels + "org>", ""), "x@" + labels + "org");
}

}  // namespace
}  // namespace corvane
