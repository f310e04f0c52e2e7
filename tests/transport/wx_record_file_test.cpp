#include "transport/wx_record_file.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/temp_dir.h"
#include "transport/counted_string.h"
#include "transport/wx_codec.h"

namespace corvane {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

class WxRecordFileTest : public ::testing::Test {
 protected:
  TempDir dir_;
  std::string path_ = dir_ / "account.dat";
};

TEST_F(WxRecordFileTest, MissingFileOrDirectoryHasNothing) {
  wxRecordFile file(path_);
  EXPECT_TRUE(file.AtEnd());
  EXPECT_FALSE(file.ReadRecord());
  EXPECT_EQ(file.CountRecords(), 0);
  EXPECT_FALSE(std::filesystem::exists(path_));

  // A directory opens but holds no records; a loop until AtEnd must stop.
  wxRecordFile directory(dir_.path());
  EXPECT_TRUE(directory.AtEnd());
  EXPECT_FALSE(directory.ReadRecord());
  EXPECT_EQ(directory.CountRecords(), 0);
}

TEST_F(WxRecordFileTest, PlainRecordsAreCountedStrings) {
  wxRecordFile file(path_);
  EXPECT_TRUE(file.AppendRecord("hello"));
  EXPECT_TRUE(file.AppendRecord(std::string(12, 'w')));
  EXPECT_TRUE(file.AppendRecord(std::string_view("a\0b", 3)));
  EXPECT_EQ(ReadFile(path_), "15hello212" + std::string(12, 'w') + std::string("13a\0b", 5));

  EXPECT_FALSE(file.AtEnd());
  EXPECT_EQ(file.ReadRecord(), "hello");
  EXPECT_EQ(file.ReadRecord(), std::string(12, 'w'));
  EXPECT_FALSE(file.AtEnd());
  EXPECT_EQ(file.ReadRecord(), std::string("a\0b", 3));
  EXPECT_TRUE(file.AtEnd());
  EXPECT_FALSE(file.ReadRecord());
}

TEST_F(WxRecordFileTest, EncipheredRecordsHoldCodecOutput) {
  wxRecordFile writer(path_);
  writer.SetEncipher(true);
  const std::string record = "1210sysACCOUNT10214Login19alice@example.org";
  ASSERT_TRUE(writer.AppendRecord(record));
  ASSERT_TRUE(writer.AppendRecord("bob"));

  const std::string content = ReadFile(path_);
  EXPECT_EQ(content, CountedString::Encode(wxCodec::Encode(record)) +
                         CountedString::Encode(wxCodec::Encode("bob")));
  EXPECT_EQ(content.find("alice"), std::string::npos);

  wxRecordFile reader(path_);
  reader.SetEncipher(true);
  EXPECT_EQ(reader.CountRecords(), 2);
  EXPECT_EQ(reader.ReadRecord(), record);
  EXPECT_EQ(reader.ReadRecord(), "bob");
  EXPECT_TRUE(reader.AtEnd());

  // Read without deciphering, the records are the wire bytes.
  wxRecordFile raw(path_);
  EXPECT_EQ(raw.ReadRecord(), wxCodec::Encode(record));
}

TEST_F(WxRecordFileTest, EmptyRecordIsNotWritten) {
  wxRecordFile file(path_);
  EXPECT_FALSE(file.AppendRecord(""));
  EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(WxRecordFileTest, UnwritablePathFails) {
  wxRecordFile file(dir_ / "no-such-dir/account.dat");
  EXPECT_FALSE(file.AppendRecord("data"));
}

TEST_F(WxRecordFileTest, CountSkipsEmptyRecordsAndRewinds) {
  WriteFile(path_, "13one10210" + std::string(10, 't') + "10" + "15three");
  wxRecordFile file(path_);
  EXPECT_EQ(file.CountRecords(), 3);
  EXPECT_EQ(file.ReadRecord(), "one");
  EXPECT_EQ(file.ReadRecord(), "");  // a record, but an empty one
  EXPECT_EQ(file.ReadRecord(), std::string(10, 't'));

  // Counting starts at the read offset and still rewinds to the start.
  EXPECT_EQ(file.CountRecords(), 1);
  EXPECT_EQ(file.ReadRecord(), "one");
}

TEST_F(WxRecordFileTest, ReaderSeesRecordsAppendedLater) {
  wxRecordFile reader(path_);
  wxRecordFile writer(path_);
  ASSERT_TRUE(writer.AppendRecord("first"));
  EXPECT_EQ(reader.ReadRecord(), "first");
  EXPECT_TRUE(reader.AtEnd());
  ASSERT_TRUE(writer.AppendRecord("second"));
  EXPECT_FALSE(reader.AtEnd());
  EXPECT_EQ(reader.ReadRecord(), "second");
}

TEST_F(WxRecordFileTest, TruncatedLastRecordEndsTheFile) {
  for (const std::string tail : {"19wor", "2", "31", "9"}) {
    SCOPED_TRACE(tail);
    WriteFile(path_, "15hello" + tail);
    wxRecordFile file(path_);
    EXPECT_EQ(file.CountRecords(), 1);
    EXPECT_EQ(file.ReadRecord(), "hello");
    EXPECT_FALSE(file.AtEnd());
    EXPECT_FALSE(file.ReadRecord());
    EXPECT_TRUE(file.AtEnd());
  }
}

TEST_F(WxRecordFileTest, DamagedRecordEndsTheFile) {
  for (const std::string damage : {"x5hello", "0", "1x"}) {
    SCOPED_TRACE(damage);
    WriteFile(path_, "13abc" + damage + "13def");
    wxRecordFile file(path_);
    EXPECT_EQ(file.CountRecords(), 1);
    EXPECT_EQ(file.ReadRecord(), "abc");
    EXPECT_FALSE(file.ReadRecord());
    EXPECT_TRUE(file.AtEnd());
  }
}

TEST_F(WxRecordFileTest, UndecodableEncipheredRecordReadsAsEmpty) {
  std::string bogus = wxCodec::Encode("ABCDEFGH");
  bogus.back() = static_cast<char>(100);  // pad count larger than the data
  WriteFile(path_, CountedString::Encode(bogus) + CountedString::Encode(wxCodec::Encode("ok")));
  wxRecordFile file(path_);
  file.SetEncipher(true);
  EXPECT_EQ(file.CountRecords(), 1);
  EXPECT_EQ(file.ReadRecord(), "");
  EXPECT_EQ(file.ReadRecord(), "ok");
}

}  // namespace
}  // namespace corvane
