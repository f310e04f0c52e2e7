#include "base/debug_trace.h"

#include <gtest/gtest.h>

#include <string>

namespace corvane {
namespace {

TEST(DebugTraceTest, LineNamesServiceAndThreadAndEndsTheMessage) {
  char line[1024];
  int used = FormatDebugTrace(line, "Corvane", 4242, "TCService::SetStatus(%lu, %lu)", 7ul, 4ul);
  EXPECT_STREQ(line, "[Corvane](4242): TCService::SetStatus(7, 4)\n");
  EXPECT_EQ(used, static_cast<int>(std::string(line).size()));
}

TEST(DebugTraceTest, OverlongMessageIsCutToTheLineBuffer) {
  char line[1024];
  std::string longText(3000, 'x');
  FormatDebugTrace(line, "Corvane", 1, "%s", longText.c_str());
  EXPECT_EQ(std::string(line).size(), sizeof line - 1);
  EXPECT_EQ(std::string(line).rfind("[Corvane](1): xxx", 0), 0u);
}

}  // namespace
}  // namespace corvane
