#include "mail/html_entities.h"

#include <gtest/gtest.h>

#include <string>

namespace corvane {
namespace {

TEST(HtmlEntitiesTest, DecodesTheCommonEntities) {
  EXPECT_EQ(DecodeHtmlEntities("&quot;Tom&quot; &mdash; &copy; 2010 &lt;tag&gt; a&amp;b"),
            "\"Tom\" - (C) 2010 <tag> a&b");
  EXPECT_EQ(DecodeHtmlEntities("no entities here"), "no entities here");
  EXPECT_EQ(DecodeHtmlEntities(""), "");
}

TEST(HtmlEntitiesTest, DecodesAnEscapedEntityOnlyOnce) {
  EXPECT_EQ(DecodeHtmlEntities("&amp;lt;"), "&lt;");
  EXPECT_EQ(DecodeHtmlEntities("&amp;amp;"), "&amp;");
  EXPECT_EQ(DecodeHtmlEntities("&amp;quot; &quot;"), "&quot; \"");
}

TEST(HtmlEntitiesTest, SpaceEntityWithAndWithoutSemicolon) {
  EXPECT_EQ(DecodeHtmlEntities("&nbsp;&nbsp"), "  ");
  EXPECT_EQ(DecodeHtmlEntities("a&nbspb"), "a b");
  EXPECT_EQ(DecodeHtmlEntities("&nbsp;;"), " ;");
}

TEST(HtmlEntitiesTest, EntitiesWithoutSemicolonLeaveAFollowingOneInPlace) {
  EXPECT_EQ(DecodeHtmlEntities("&reg;"), "(R);");
  EXPECT_EQ(DecodeHtmlEntities("Brand&reg"), "Brand(R)");
  EXPECT_EQ(DecodeHtmlEntities("&#8220;x&#8221;"), "\xA1\xB0;x\xA1\xB1;");
}

TEST(HtmlEntitiesTest, QuotationMarksBecomeGbBytes) {
  EXPECT_EQ(DecodeHtmlEntities("&ldquo;q&rdquo; &lsquo;s&rsquo;"),
            "\xA1\xB0q\xA1\xB1 \xA1\xAEs\xA1\xAF");
  EXPECT_EQ(DecodeHtmlEntities("&#8220x&#8221"), "\xA1\xB0x\xA1\xB1");
}

TEST(HtmlEntitiesTest, LeavesEveryOtherEntityEncoded) {
  const std::string others = "&eacute; &#169; &#x263A; &apos; &AMP; &Lt; &hellip; & ; &amp";
  EXPECT_EQ(DecodeHtmlEntities(others), others);
}

TEST(HtmlEntitiesTest, StopsAtTheFirstZeroByte) {
  EXPECT_EQ(DecodeHtmlEntities(std::string("&lt;\0&gt;", 9)), "<");
}

}  // namespace
}  // namespace corvane
