#include "protocol/net_error.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

namespace corvane {
namespace {

TEST(NetErrorTest, FirstAndLastCodes) {
  EXPECT_STREQ(CNetError::GetErrorString(0), "Operation completed successfully.");
  EXPECT_STREQ(CNetError::GetErrorString(151), "Invalid encoding format.");
}

TEST(NetErrorTest, OutOfRangeCodesGiveTheBoundsText) {
  for (int code : {-1, 152, -2147483647 - 1, 2147483647}) {
    EXPECT_STREQ(CNetError::GetErrorString(code), "CNetError::GetErrorString: Array out of bounds!")
        << code;
  }
}

TEST(NetErrorTest, KeptQuirks) {
  EXPECT_STREQ(CNetError::GetErrorString(61), CNetError::GetErrorString(73));
  EXPECT_STREQ(CNetError::GetErrorString(73), "The XOVER command failed.");
  EXPECT_STREQ(CNetError::GetErrorString(76), "Failed to write a line to the message data source.");
  EXPECT_STREQ(CNetError::GetErrorString(77),
               "Failed to read a line from the message data source.");
  EXPECT_STREQ(CNetError::GetErrorString(24), "A client socket closure  caused a failure.");
  EXPECT_STREQ(CNetError::GetErrorString(67),
               "The RCPT command failed. The specified account does not exsist.");
  EXPECT_STREQ(CNetError::GetErrorString(97),
               "An invalid or non-existant RAS entry name was given");
  EXPECT_STREQ(CNetError::GetErrorString(107), "Get temorary filename failed.");
  EXPECT_STREQ(CNetError::GetErrorString(118), "User with this name is alredy existing.");
  EXPECT_STREQ(CNetError::GetErrorString(119), "Mailbox with this name is alredy existing.");
  EXPECT_STREQ(CNetError::GetErrorString(125), "Faile to accept security context.");
}

TEST(NetErrorTest, CodesThatReachClientsAndLogs) {
  EXPECT_STREQ(CNetError::GetErrorString(6), "There was no connection.");
  EXPECT_STREQ(CNetError::GetErrorString(20), "A timeout occurred.");
  EXPECT_STREQ(CNetError::GetErrorString(36), "An error resulted due to a NULL buffer");
  EXPECT_STREQ(CNetError::GetErrorString(86), "Server login failed. Username or password invalid.");
  EXPECT_STREQ(CNetError::GetErrorString(126), "Security handshake failed.");
  EXPECT_STREQ(CNetError::GetErrorString(143), "Security certificate date is not valid.");
  EXPECT_STREQ(CNetError::GetErrorString(148), "Wrong encoding type. Must be 'Q' or 'B'.");
}

TEST(NetErrorTest, EveryOtherCodeHasATextOfItsOwn) {
  std::set<std::string> texts;
  for (int code = 0; code < CNetError::kCodeCount; ++code) {
    const char* text = CNetError::GetErrorString(code);
    EXPECT_GT(std::strlen(text), 8u) << code;
    EXPECT_EQ(std::string(text).find("CNetError::"), std::string::npos) << code;
    if (code != 73) {
      EXPECT_TRUE(texts.insert(text).second) << code;
    }
  }
}

}  // namespace
}  // namespace corvane
