// The text utilities: HTML to text, header text, file names, charsets, dates
// and address lists, each as a table of edge cases.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "mail/address_list.h"
#include "mail/attachment_file_name.h"
#include "mail/header_display.h"
#include "mail/html_entities.h"
#include "mail/html_to_text.h"
#include "mail/mail_date.h"
#include "mail/text_helpers.h"
#include "mail/text_shortening.h"
#include "support/scoped_env.h"

namespace corvane {
namespace {

using Cases = std::vector<std::pair<std::string, std::string>>;

// Every input against its expected output.
template <typename Function>
void ExpectEach(Function function, const Cases& cases) {
  for (const auto& [input, output] : cases)
    EXPECT_EQ(function(input), output) << "input: " << testing::PrintToString(input);
}

TEST(TextTest, HtmlEntitiesDecodeOnceTagsBreakLinesInLinearTimeAndBodiesAreSqueezed) {
  ExpectEach(
      DecodeHtmlEntities,
      {{"&quot;Tom&quot; &mdash; &copy; 2010 &lt;tag&gt; a&amp;b", "\"Tom\" - (C) 2010 <tag> a&b"},
       {"&amp;lt; &amp;amp; &amp;quot; &quot;", "&lt; &amp; &quot; \""},
       {"&nbsp;&nbsp a&nbspb&nbsp;;", "   a b ;"},
       // Entities named without their semicolon leave it in place.
       {"&reg; Brand&reg", "(R); Brand(R)"},
       {"&#8220;x&#8221", "\xA1\xB0;x\xA1\xB1"},
       {"&eacute; &#169; &apos; &AMP; &Lt; & ; &amp", "&eacute; &#169; &apos; &AMP; &Lt; & ; &amp"},
       {std::string("&lt;\0&gt;", 9), "<"}});
  // Long stretches in which no match can start are not retried at each byte.
  const std::string x(10u << 20, 'x');
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
              {"<p>" + std::string(5000, 'r') + "</p><p>" + std::string(2047, 's') + "</p>",
               std::string(2047, 'r') + "\r\n" + std::string(2047, 's') + "\r\n"},
              {std::string("<p>a<br>\0b<br>", 14), "a\r\n"},
              {x + ">" + x + ">tail<br>" + x, "tail\r\n"},
              {x + ">" + x, x + ">" + x}});
  // A body keeps its plain start, is decoded and keeps five blanks and one empty line.
  ExpectEach(HtmlBodyToText,
             {{"Dear Sir,<p>text</p>bye", "Dear Sir,text\r\nbye"},
              {"<p>text</p>bye", "text\r\n"},
              {"no markup at all", "no markup at all"},
              {"<html><body>A&nbsp;&amp;&nbsp;B<br><br><br><br>x          y&lt;z&gt;</body>",
               "A & B\r\n\r\nx     y<z>"},
              {"<p>&amp;lt;</p>", "&lt;\r\n"},
              // Tabs are no blanks.
              {"<p>" + std::string(20, ' ') + "x\t\t\t\t\t\t y</p>", "     x\t\t\t\t\t\t y\r\n"},
              {"<p>a</p>\r\n\r\n\n\r\r\n\n<p>b</p>", "a\r\n\r\nb\r\n"}});
}

TEST(TextTest, HeaderTextAndFileNamesStayOnOneLineInOneDirectoryCharsetsAreCutDatesAreLocal) {
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
  // Joining stops at NUL; a charset is the quoted or the rest of the parameter.
  // (Eight-bit detection shows in the sent subjects and names.)
  EXPECT_EQ(
      ConcatNew("first", std::nullopt) + ConcatNew(std::string("a\0b", 3), std::string("c\0d", 3)),
      "firstac");
  const std::vector<std::pair<std::string, std::optional<std::string>>> charsets = {
      {"text/html; charset=\"UTF-8\"; format=flowed", "UTF-8"},
      {"text/plain; charset=\"gb2312", std::nullopt},
      {"text/plain; charset=gb2312; format=flowed", "gb2312; format=flowed"},
      {"text/plain; Charset=gb2312", std::nullopt},
      {std::string("text/plain\0; charset=big5", 25), std::nullopt}};
  for (const auto& [type, charset] : charsets) EXPECT_EQ(ExtractCharset(type), charset) << type;
  // Mail dates are local wall clock times whatever their zone.
  {
    // Summer time all year: a date read without it would be an hour off.
    test::ScopedEnv zone("TZ", "XST5XDT,J1/0,J365/25");
    tzset();
    const std::vector<std::pair<std::string, int32_t>> dates = {
        {"Tue, 5 Jan 2010 08:30 +0800", 1262694600},
        {"Sat, 30 Dec 2017 23:59:58 -0500", 1514692798},
        {"Mon, 01 Feb 2021 00:00:00", 1612152000},
        {"Date: received Thu, 24 Jun 2010 16:45:00 +0800 (CST)", 1277412300},
        {std::string(5u << 20, 'x') + " Sat, 3 Mar 2012 03:04:05", 1330758245},
        {"Fri, 31 Dec 2060 10:00:00 +0000", -1},  // beyond 32 bits
        {"", 0},
        {"Tue, 5 Jan 2010 8:30 +0800", 0},
        {std::string("Tue, 5 Jan\0 2010 08:30", 22), 0}};
    for (const auto& [text, value] : dates)
      EXPECT_EQ(ParseMailDate(text), value) << text.substr(0, 60);
  }
  {
    test::ScopedEnv zone("TZ", "CET-1CEST,M3.5.0,M10.5.0/3");  // summer time in summer only
    tzset();
    EXPECT_EQ(ParseMailDate("Tue, 5 Jan 2010 08:30 +0800"), 1262676600);
    EXPECT_EQ(ParseMailDate("Mon, 5 Jul 2010 08:30 +0800"), 1278311400);
  }
  // The Date line's offset follows the bias and summer time.
  for (const auto& [rule, offset] :
       {std::pair{"IST-5:30", "+0530"}, {"NST3:30", "-0330"}, {"XST5XDT,J1/0,J365/25", "-0400"}}) {
    test::ScopedEnv other("TZ", rule);
    char date[32], small[31];
    EXPECT_EQ(GetDateString(date, sizeof date) + GetDateString(small, sizeof small), 1);
    EXPECT_TRUE(std::string(date).size() == 31 && std::string(date).ends_with(offset)) << date;
  }
  tzset();
}

TEST(TextTest, ShorteningCutsAtTheLimitBetweenCharactersAndAddsDots) {
  // A lone 8-bit byte pairs with the next one, even across ASCII.
  const std::tuple<std::string, int, std::string, bool> cases[] = {
      {"0123456789", 7, "0123456789", false},
      {"0123456789", 6, "012345...", false},
      {"0123456789", 1, "0123456789", false},
      {"0123456789", -4, "0123456789", false},
      {"abcd\326\320wxyz", 5, "abcd...", false},
      {"abcd\326\320wxyz", 6, "abcd\326\320...", false},
      {"\241bcd\260\241xyzw", 5, "\241bcd\260...", false},
      {"\241bcdefghij", 6, "\241bcde...", false},
      // UTF-8: the cut moves back to the character's first byte, whatever
      // the pairs of 8-bit bytes before it say.
      {"caf\xc3\xa9 au lait", 4, "caf...", true},
      {"caf\xc3\xa9 au lait", 5, "caf\xc3\xa9...", true},
      {"\xe4\xb8\xad\xe6\x96\x87\xe6\x96\x87\xe5\xad\x97", 5, "\xe4\xb8\xad...", true},
      {"\xf0\x9f\x98\x80\xf0\x9f\x98\x80xyzw", 7, "\xf0\x9f\x98\x80...", true},
      {"\xe4\xb8\xad\xe6\x96\x87\xe6\x96\x87\xe5\xad\x97", 6, "\xe4\xb8\xad\xe6\x96\x87...", true},
      // GB2312 passed on unconverted to a UTF-8 client: still cut in pairs.
      {"abcd\326\320wxyz", 5, "abcd...", true}};
  for (auto [text, limit, shortened, utf8] : cases) {
    EXPECT_EQ(ShortenText(text, limit, utf8), static_cast<int>(shortened.size())) << text;
    EXPECT_EQ(text, shortened) << limit;
  }
}

TEST(TextTest, AddressListsJoinWithCommasAndLeaveOutTheLoginInAnyCaseAtLinearCost) {
  std::string many =
      "first@example.com " + std::string(40, 'a') + "@" + std::string(40, 'b') + ". ";
  while (many.size() < 1u << 20) many += std::string(24, 'c') + "@" + std::string(24, 'd') + "-.e ";
  const std::string local(200000, 'q');
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
               {"", "", ""},
               // Runs on which a pattern would backtrack exponentially spare the
               // addresses around them, and very long addresses are found whole.
               {many + "last@example.com", "", "first@example.com,last@example.com"},
               {"<" + local + "@example.com>", "", local + "@example.com"}};
  for (const auto& c : cases)
    EXPECT_EQ(ExtractAddresses(c.text, c.leaveOut), c.list) << c.text.substr(0, 80);
  EXPECT_EQ(JoinList("", "from@x.com"), "from@x.com");
  EXPECT_EQ(JoinList("a@x.com,", "from@x.com"), "a@x.com,,from@x.com");
  EXPECT_EQ(JoinList(std::string("a\0b", 3), ""), "a,");
}

}  // namespace
}  // namespace corvane
