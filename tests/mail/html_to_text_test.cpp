#include "mail/html_to_text.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "mail/pattern.h"

namespace corvane {
namespace {

TEST(HtmlToTextTest, LineBreakingTagsEndALineInAnyCase) {
  EXPECT_EQ(HtmlToText("<html>Hello<br>World</html>"), "Hello\r\nWorld");
  EXPECT_EQ(HtmlToText("<p>one<BR clear=all>two</p>"), "one\r\ntwo\r\n");
  EXPECT_EQ(HtmlToText("<ul><li>a</li><li>b</LI></ul>"), "a\r\nb\r\n");
  EXPECT_EQ(HtmlToText("<table><tr><td>x</td></tr></TABLE>"), "x \r\n");
  EXPECT_EQ(HtmlToText("<p>first</P><p>second</p><br />"), "first\r\nsecond\r\n\r\n");
  EXPECT_EQ(HtmlToText("<x>a</br>b</x>"), "a\r\nb");
  // Only "br", or "br" and a space, breaks: these are other tags.
  EXPECT_EQ(HtmlToText("<x>a<br/>b<brx>c<br\tclear>d</x>"), "abcd");
}

TEST(HtmlToTextTest, OnlyAClosingCellAddsASpace) {
  EXPECT_EQ(HtmlToText("<html>a<td>b</td>c</html>"), "ab c");
  EXPECT_EQ(HtmlToText("<tr><TD>1</TD><td>2</td></tr>"), "1 2 \r\n");
}

TEST(HtmlToTextTest, DropsStyleAndScriptContentButKeepsTextBeforeThem) {
  EXPECT_EQ(HtmlToText("<html><style>p { color: red }</style>Text run</html>"), "Text run");
  EXPECT_EQ(HtmlToText("<p>Intro<script>alert(1)</SCRIPT>after</p>"), "Introafter\r\n");
  EXPECT_EQ(HtmlToText("<b>x<STYLE type=\"text/css\">.a{}</Style>y</b>"), "xy");
  // A closing tag with anything more in it is not the element's end.
  EXPECT_EQ(HtmlToText("<b>x<style>.a{}</style >y</b>"), "x.a{}y");
}

TEST(HtmlToTextTest, DropsTextBeforeTheFirstTagEndAndAfterTheLastTag) {
  EXPECT_EQ(HtmlToText("lead<b>bold</b>tail"), "bold");
  EXPECT_EQ(HtmlToText("<b>bold</b>tail"), "bold");
  EXPECT_EQ(HtmlToText("<b>unclosed<i"), "unclosed");
}

TEST(HtmlToTextTest, KeepsTextWithoutAnyTagAsItIs) {
  EXPECT_EQ(HtmlToText("plain text, no markup"), "plain text, no markup");
  EXPECT_EQ(HtmlToText("a > b and c > d"), "a > b and c > d");
  EXPECT_EQ(HtmlToText("<<<<"), "<<<<");
  EXPECT_EQ(HtmlToText(""), "");
  // A tag needs at least one byte between '<' and '>'.
  EXPECT_EQ(HtmlToText("x><>"), "x><>");
}

TEST(HtmlToTextTest, KeepsARawLessThanSignInsideText) {
  EXPECT_EQ(HtmlToText("<p>1 < 2<br>"), "1 < 2\r\n");
  EXPECT_EQ(HtmlToText("<p>a<b<c>"), "a<b");
}

TEST(HtmlToTextTest, LeavesEntitiesAndEightBitBytesAlone) {
  EXPECT_EQ(HtmlToText("<b>&lt;\xD6\xD0\xCE\xC4&nbsp;</b>"), "&lt;\xD6\xD0\xCE\xC4&nbsp;");
}

TEST(HtmlToTextTest, CutsATextRunTo2047Bytes) {
  const std::string run(5000, 'r');
  EXPECT_EQ(HtmlToText("<p>" + run + "</p><p>next</p>"), std::string(2047, 'r') + "\r\nnext\r\n");
  EXPECT_EQ(HtmlToText("<p>" + std::string(2047, 's') + "</p>"), std::string(2047, 's') + "\r\n");
}

TEST(HtmlToTextTest, StopsAtTheFirstZeroByte) {
  EXPECT_EQ(HtmlToText(std::string("<p>a<br>\0b<br>", 14)), "a\r\n");
}

// The same matches found the plain way: a search from each match's end, the
// engine trying every position. Fine for short texts only.
std::string ReferenceHtmlToText(const std::string& html) {
  static const Pattern pattern("[^>]*>([^>]*)<([^>]+)");
  PatternMatch match(pattern);
  std::string text;
  bool any = false;
  for (size_t from = 0; match.Find(html, from) == MatchStatus::kMatched; from = match.end()) {
    any = true;
    std::string tag(match.Group(2)->substr(0, 1023));
    for (char& c : tag) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::string_view run = *match.Group(1);
    if (!run.empty() && tag != "/style" && tag != "/script") text.append(run.substr(0, 2047));
    if (tag == "/tr" || tag == "/li" || tag == "br" || tag == "/br" || tag == "/p" ||
        tag.starts_with("br ")) {
      text += "\r\n";
    } else if (tag == "/td") {
      text += ' ';
    }
  }
  return any ? text : html;
}

TEST(HtmlToTextTest, FindsWhatAPlainSearchFinds) {
  std::mt19937 random(20100105);
  const std::string pieces[] = {"<", ">", "a", " ", "br", "/td", "/", "<br>", "</p>", "x<", ">y"};
  for (int round = 0; round < 3000; ++round) {
    std::string html;
    const int count = static_cast<int>(random() % 24);
    for (int i = 0; i < count; ++i) html += pieces[random() % std::size(pieces)];
    ASSERT_EQ(HtmlToText(html), ReferenceHtmlToText(html)) << "html: " << html;
  }
}

TEST(HtmlToTextTest, HandlesTwentyMegabytesOnOneLine) {
  // Tags all along one line.
  const std::string sentence = "Seventy bytes or so of ordinary text between two of the tags, ";
  std::string html = "<html>";
  std::string expected;
  while (html.size() < 20u << 20) {
    html += sentence + "<b>bold</b><td>cell</td>";
    expected += sentence + "boldcell ";
  }
  html += "</html>";
  EXPECT_EQ(HtmlToText(html), expected);

  // Long stretches in which no match can start: every attempt that fails
  // must not be retried at each byte of the stretch.
  const size_t half = 10u << 20;
  const std::string stretches =
      std::string(half, 'x') + ">" + std::string(half, 'y') + ">tail<br>" + std::string(half, 'z');
  EXPECT_EQ(HtmlToText(stretches), "tail\r\n");
  const std::string noTag = std::string(half, 'a') + ">" + std::string(half, 'b');
  EXPECT_EQ(HtmlToText(noTag), noTag);
}

TEST(HtmlBodyToTextTest, WrapsABodyThatDoesNotStartWithATag) {
  EXPECT_EQ(HtmlBodyToText("Hello<br>World"), "Hello\r\nWorld");
  EXPECT_EQ(HtmlBodyToText("Dear Sir,<p>text</p>bye"), "Dear Sir,text\r\nbye");
  // Starting with '<', nothing is wrapped and the text after the last tag goes.
  EXPECT_EQ(HtmlBodyToText("<p>text</p>bye"), "text\r\n");
  EXPECT_EQ(HtmlBodyToText(""), "");
  EXPECT_EQ(HtmlBodyToText("no markup at all"), "no markup at all");
}

TEST(HtmlBodyToTextTest, DecodesEntitiesAndSqueezesSpacesAndBlankLines) {
  EXPECT_EQ(HtmlBodyToText("<html><body>A&nbsp;&amp;&nbsp;B<br><br><br><br>"
                           "x          y&lt;z&gt;</body></html>"),
            "A & B\r\n\r\nx     y<z>");
  EXPECT_EQ(HtmlBodyToText("<p>&amp;lt;</p>"), "&lt;\r\n");
}

}  // namespace
}  // namespace corvane
