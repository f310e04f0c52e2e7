#include "transport/wx_record_file.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/temp_dir.h"
#include "transport/counted_string.h"
#include "transport/wx_codec.h"

namespace corvane {
namespace {

using namespace std::string_literals;
using test::ReadFile;
using test::WriteFile;

class WxRecordFileTest : public ::testing::Test {
 protected:
  test::TempDir dir_;
  std::string path_ = dir_ / "account.dat";
};

TEST_F(WxRecordFileTest, PlainRecordsAreCountedStringsReadInTurn) {
  wxRecordFile file(path_);
  EXPECT_TRUE(file.AtEnd());
  EXPECT_FALSE(file.ReadRecord());
  EXPECT_FALSE(file.AppendRecord(""));
  EXPECT_FALSE(std::filesystem::exists(path_));
  for (std::string record : {"hello"s, std::string(12, 'w'), "a\0b"s}) {
    EXPECT_TRUE(file.AppendRecord(record));
  }
  EXPECT_EQ(ReadFile(path_), "15hello212wwwwwwwwwwww13a\0b"s);
  wxRecordFile reader(path_);
  EXPECT_EQ(reader.ReadRecord(), "hello");
  EXPECT_EQ(reader.ReadRecord(), std::string(12, 'w'));
  EXPECT_FALSE(reader.AtEnd());
  EXPECT_EQ(reader.ReadRecord(), "a\0b"s);
  EXPECT_TRUE(reader.AtEnd());
  EXPECT_FALSE(reader.ReadRecord());
  ASSERT_TRUE(file.AppendRecord("later"));  // a reader sees what is appended later
  EXPECT_FALSE(reader.AtEnd());
  EXPECT_EQ(reader.ReadRecord(), "later");
  // Counting starts at the read offset and still rewinds to the start.
  EXPECT_EQ(reader.CountRecords(), 0);
  EXPECT_EQ(reader.CountRecords(), 4);
  EXPECT_EQ(reader.ReadRecord(), "hello");

  EXPECT_FALSE(wxRecordFile(dir_ / "no-such-dir/account.dat").AppendRecord("data"));
  wxRecordFile directory(dir_.path());  // opens, holds nothing, and ends
  EXPECT_TRUE(directory.AtEnd());
  EXPECT_EQ(directory.CountRecords(), 0);
}

TEST_F(WxRecordFileTest, EncipheredRecordsHoldCodecOutput) {
  const std::string record = "1210sysACCOUNT10214Login19alice@example.org";
  wxRecordFile writer(path_);
  writer.SetEncipher(true);
  ASSERT_TRUE(writer.AppendRecord(record));
  ASSERT_TRUE(writer.AppendRecord("bob"));
  std::string bogus = wxCodec::Encode("ABCDEFGH");
  bogus.back() = static_cast<char>(100);  // a pad count larger than the data
  WriteFile(path_, ReadFile(path_) + CountedString::Encode(bogus));
  EXPECT_EQ(ReadFile(path_), CountedString::Encode(wxCodec::Encode(record)) +
                                 CountedString::Encode(wxCodec::Encode("bob")) +
                                 CountedString::Encode(bogus));
  wxRecordFile reader(path_);
  reader.SetEncipher(true);
  EXPECT_EQ(reader.CountRecords(), 2);  // the undecodable one reads as empty
  EXPECT_EQ(reader.ReadRecord(), record);
  EXPECT_EQ(reader.ReadRecord(), "bob");
  EXPECT_EQ(reader.ReadRecord(), "");
  EXPECT_TRUE(reader.AtEnd());
  EXPECT_EQ(wxRecordFile(path_).ReadRecord(), wxCodec::Encode(record));  // not deciphered
}

TEST_F(WxRecordFileTest, ADamagedOrCutRecordEndsTheFile) {
  for (std::string tail : {"19wor", "2", "31", "9", "x5hello13def", "013def", "1x13def"}) {
    SCOPED_TRACE(tail);
    WriteFile(path_, "15hello10" + tail);  // an empty record counts as none
    wxRecordFile file(path_);
    EXPECT_EQ(file.CountRecords(), 1);
    EXPECT_EQ(file.ReadRecord(), "hello");
    EXPECT_EQ(file.ReadRecord(), "");
    EXPECT_FALSE(file.ReadRecord());
    EXPECT_TRUE(file.AtEnd());
  }
}

}  // namespace
}  // namespace corvane
