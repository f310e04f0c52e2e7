#include "mime/string_list.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(StringListTest, KeepsOrderAndGivesNullOutsideIt) {
  StringList list;
  list.Append("first");
  list.Append("");
  list.Append("third");
  ASSERT_EQ(list.Count(), 3);
  EXPECT_EQ(*list.Get(0), "first");
  EXPECT_EQ(*list.Get(1), "");
  EXPECT_EQ(*list.Get(2), "third");
  EXPECT_EQ(list.Get(3), nullptr);
  EXPECT_EQ(list.Get(-1), nullptr);

  list.Clear();
  EXPECT_EQ(list.Count(), 0);
  EXPECT_EQ(list.Get(0), nullptr);
}

}  // namespace
}  // namespace corvane
