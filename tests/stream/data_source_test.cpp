#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "stream/mapped_file_data_source.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

// Every piece ReadLine gives until it reports the end.
std::vector<std::string> ReadLines(DataSource& source, int max) {
  std::vector<char> buffer(static_cast<size_t>(max));
  std::vector<std::string> lines;
  for (int n; (n = source.ReadLine(buffer.data(), max)) > 0;) {
    EXPECT_EQ(std::strlen(buffer.data()), static_cast<size_t>(n)) << "not NUL-terminated";
    lines.emplace_back(buffer.data(), static_cast<size_t>(n));
  }
  return lines;
}

// Everything Read gives in pieces of `piece` bytes until it reports the end.
std::string ReadRest(DataSource& source, int piece) {
  std::vector<char> buffer(static_cast<size_t>(piece) + 1);
  std::string data;
  for (int n; (n = source.Read(buffer.data(), piece)) > 0;) {
    EXPECT_EQ(buffer[static_cast<size_t>(n)], '\0');
    data.append(buffer.data(), static_cast<size_t>(n));
  }
  return data;
}

// Bytes without "\r" or "\n", different at every offset within a line.
std::string Pattern(size_t size, size_t seed = 0) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('!' + (i * 7 + seed) % 90);
  return bytes;
}

class FileDataSourceTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }
  std::string PathOf(const std::string& name) const { return dir_.path() + "/" + name; }

  TempDir dir_;
};

TEST_F(FileDataSourceTest, LinesComeWholeOrInPiecesOfMaxMinusOne) {
  // A line comes whole with its "\r\n" only when it is shorter than max - 3:
  // longer ones come in pieces of max - 1 bytes, or of the line buffer's size
  // when that is smaller, and a cut between "\r" and "\n" lets the "\n" lead
  // the next piece. The last line may come without a line end.
  const std::string long2000 = Pattern(2000), long40 = Pattern(40);
  struct Case {
    std::string content;
    int lineBuffer, max;
    std::vector<std::string> lines;
  };
  const std::vector<Case> cases = {
      {"first\r\nsecond\r\n\r\nlast", 4096, 1024, {"first\r\n", "second\r\n", "\r\n", "last"}},
      {"abcdefghijklmnopqrst\r\nnext\r\n",
       4096,
       10,
       {"abcdefghi", "jklmnopqr", "st\r\n", "next\r\n"}},
      {"123456\r\n1234567\r\n12345678\r\nz\r\n",
       4096,
       10,
       {"123456\r\n", "1234567\r\n", "12345678\r", "\nz\r\n"}},
      {long2000 + "\r\ntail\r\n",
       4096,
       1024,
       {long2000.substr(0, 1023), long2000.substr(1023) + "\r\n", "tail\r\n"}},
      {long40 + "\r\nok\r\n",
       16,
       1024,
       {long40.substr(0, 15), long40.substr(15, 15), long40.substr(30) + "\r\n", "ok\r\n"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.content.substr(0, 20));
    std::string path = PathOf("lines.txt");
    WriteFile(path, c.content);
    FileDataSource source(path, c.lineBuffer);
    ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
    EXPECT_EQ(ReadLines(source, c.max), c.lines);
    // A clone reads the same file the same way.
    std::unique_ptr<DataSource> clone = source.Clone();
    EXPECT_EQ(clone->Name(), path);
    ASSERT_EQ(clone->Open(DataSource::kOpenRead), 0);
    EXPECT_EQ(ReadLines(*clone, c.max), c.lines);
    char buffer[16] = "stale";
    EXPECT_EQ(source.ReadLine(buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(source.ReadLine(nullptr, 16), -1);
    EXPECT_EQ(source.Close(), 0);
  }
}

TEST_F(FileDataSourceTest, ReadAfterReadLineLosesAndRepeatsNoByte) {
  std::string body = Pattern(10000);
  std::string path = PathOf("mixed.txt");
  WriteFile(path, "one\r\ntwo\r\nthree\r\n" + body);
  FileDataSource source(path);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);

  char buffer[1024];
  ASSERT_EQ(source.ReadLine(buffer, sizeof buffer), 5);
  EXPECT_STREQ(buffer, "one\r\n");
  ASSERT_EQ(source.Read(buffer, 3), 3);
  EXPECT_STREQ(buffer, "two");
  ASSERT_EQ(source.ReadLine(buffer, sizeof buffer), 2);
  EXPECT_STREQ(buffer, "\r\n");
  ASSERT_EQ(source.ReadLine(buffer, sizeof buffer), 7);
  EXPECT_STREQ(buffer, "three\r\n");
  EXPECT_EQ(ReadRest(source, 255), body);
}

TEST_F(FileDataSourceTest, WriteAfterReadLineLandsAtTheLineEnd) {
  // The line buffer has read the whole file ahead; a Write (directly, or
  // after a Seek from the current position) must land behind the last line
  // given out, and reading goes on right behind the written bytes.
  std::string path = PathOf("overwrite.txt");
  WriteFile(path, "one\r\ntwo\r\nthree\r\nfour\r\n");
  FileDataSource source(path);
  ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
  ASSERT_EQ(source.Seek(0, DataSource::kSeekStart), 0);

  char buffer[64];
  ASSERT_EQ(source.ReadLine(buffer, sizeof buffer), 5);
  EXPECT_EQ(source.Write("TWO", 3), 3);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekCurrent), 8);
  ASSERT_EQ(source.ReadLine(buffer, sizeof buffer), 2);
  ASSERT_EQ(source.ReadLine(buffer, sizeof buffer), 7);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekCurrent), 17);
  EXPECT_EQ(source.Write("FOUR", 4), 4);
  EXPECT_EQ(ReadLines(source, sizeof buffer), (std::vector<std::string>{"\r\n"}));
  EXPECT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "one\r\nTWO\r\nthree\r\nFOUR\r\n");
}

TEST_F(FileDataSourceTest, OpenModes) {
  std::string missing = PathOf("missing.txt");
  FileDataSource absent(missing);
  EXPECT_EQ(absent.Open(DataSource::kOpenRead), -1);
  EXPECT_FALSE(fs::exists(missing));
  EXPECT_EQ(absent.Open(3), -1);
  EXPECT_EQ(absent.Open(-1), -1);
  FileDataSource unnamed("");
  EXPECT_EQ(unnamed.Open(DataSource::kOpenWrite), -1);

  std::string path = PathOf("modes.txt");
  WriteFile(path, "old content");
  FileDataSource source(path);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(source.Write("x", 1), -1);
  EXPECT_EQ(source.WriteLine("x"), -1);
  ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);  // closes the read first
  EXPECT_EQ(source.Seek(0, DataSource::kSeekCurrent), 11);
  EXPECT_EQ(source.WriteLine("more"), 4);
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "old contentmore\r\n");

  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekEnd), 0);
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "");
  EXPECT_EQ(source.Close(), 0);
  char buffer[8];
  EXPECT_EQ(source.Read(buffer, 4), -1);
  EXPECT_EQ(source.Write("x", 1), -1);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekStart), -1);

  std::string created = PathOf("created.txt");
  FileDataSource appender(created);
  ASSERT_EQ(appender.Open(DataSource::kOpenAppend), 0);
  ASSERT_EQ(appender.Close(), 0);
  EXPECT_TRUE(fs::exists(created));
}

TEST_F(FileDataSourceTest, WriteLineAddsCrLfOnlyWhenTheTextLacksIt) {
  std::string path = PathOf("written.txt");
  FileDataSource source(path);
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  EXPECT_EQ(source.WriteLine("a"), 1);
  EXPECT_EQ(source.WriteLine("b\r\n"), 3);
  EXPECT_EQ(source.WriteLine(""), 0);
  EXPECT_EQ(source.WriteLine("c\n"), 2);
  EXPECT_EQ(source.WriteLine(nullptr), -1);
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "a\r\nb\r\n\r\nc\n\r\n");
}

TEST(BufferDataSourceTest, WritingPastTheCapacityIsCutOffWithoutError) {
  BufferDataSource source(5, "five");
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  EXPECT_EQ(source.Write("abcdefgh", 8), 5);
  EXPECT_EQ(source.Data(), "abcde");
  EXPECT_EQ(source.Write("x", 1), 0);
  EXPECT_EQ(source.Data(), "abcde");
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(ReadRest(source, 16), "abcde");

  // WriteLine counts the text bytes that fit; the "\r\n" is cut off as well.
  BufferDataSource line(6);
  EXPECT_EQ(line.WriteLine("abcde"), 5);
  EXPECT_EQ(line.Data(), "abcde\r");
  EXPECT_EQ(line.WriteLine("more"), 0);
  EXPECT_EQ(line.WriteLine(nullptr), -1);
}

TEST(BufferDataSourceTest, WorksInTheCallersBufferAndEndsTheDataAtTheLastWrite) {
  char memory[16] = "hello";
  BufferDataSource source(memory, 15, "label");
  EXPECT_EQ(source.Name(), "label");
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(ReadRest(source, 4), "hello");

  ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
  EXPECT_EQ(source.Write(" world", 6), 6);
  EXPECT_STREQ(memory, "hello world");

  EXPECT_EQ(source.Seek(5, DataSource::kSeekStart), 5);
  EXPECT_EQ(source.Write("!", 1), 1);
  EXPECT_EQ(source.Data(), "hello!");
  EXPECT_STREQ(memory, "hello!");

  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  EXPECT_EQ(source.Data(), "");
  ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekCurrent), 0) << "mode 1 left the buffer empty";
  EXPECT_EQ(source.Close(), 0);
}

TEST(BufferDataSourceTest, ReadLineEndsAtTheFirstCarriageReturnOrAtMaxMinusOne) {
  BufferDataSource source(64);
  ASSERT_GT(source.Write("one\r\ntwo\nthree\rfour", 19), 0);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(ReadLines(source, 1024), (std::vector<std::string>{"one\r\n", "two\nthree\r", "four"}));

  // A carriage return that is the last byte read keeps its line feed for the
  // next line.
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_GT(source.Write("abcdefgh\r\nxyz", 13), 0);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(ReadLines(source, 10), (std::vector<std::string>{"abcdefgh\r", "\nxyz"}));

  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_GT(source.Write("0123456789abc", 13), 0);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(ReadLines(source, 5), (std::vector<std::string>{"0123", "4567", "89ab", "c"}));
  char buffer[4];
  EXPECT_EQ(source.ReadLine(buffer, sizeof buffer), 0);
  EXPECT_EQ(source.ReadLine(nullptr, 4), -1);
}

TEST(BufferDataSourceTest, CloneOwnsACopyWithTheSameCapacity) {
  BufferDataSource source(8, "origin");
  ASSERT_EQ(source.WriteLine("abc"), 3);
  std::unique_ptr<DataSource> clone = source.Clone();
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_EQ(source.Write("zz", 2), 2);

  EXPECT_EQ(clone->Name(), "origin");
  EXPECT_EQ(ReadRest(*clone, 3), "abc\r\n");
  EXPECT_EQ(clone->Write("12345", 5), 3);
  ASSERT_EQ(clone->Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(ReadRest(*clone, 16), "abc\r\n123");
  EXPECT_EQ(source.Data(), "zz");
}

class MappedFileDataSourceTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(dir_.path().empty()); }
  std::string PathOf(const std::string& name) const { return dir_.path() + "/" + name; }
  int64_t SizeOf(const std::string& path) const {
    return static_cast<int64_t>(fs::file_size(path));
  }

  TempDir dir_;
  // The temporary files go where the test can see them.
  test::ScopedEnv tmpdir_{"TMPDIR", dir_.path()};
};

TEST_F(MappedFileDataSourceTest, TemporaryFileLeavesNothingBehind) {
  std::string path;
  {
    MappedFileDataSource source(0, "temp");
    path = source.Path();
    EXPECT_EQ(source.Name(), "temp");
    EXPECT_EQ(fs::path(path).parent_path(), fs::path(dir_.path()));
    EXPECT_EQ(fs::path(path).filename().string().rfind("Map", 0), 0u) << path;
    EXPECT_TRUE(fs::exists(path));
    ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
    EXPECT_EQ(source.WriteLine("data"), 4);
    ASSERT_EQ(source.Close(), 0);
    EXPECT_EQ(ReadFile(path), "data\r\n");
    ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);  // destroyed while open
  }
  EXPECT_FALSE(fs::exists(path));
  { MappedFileDataSource neverOpened; }
  EXPECT_TRUE(fs::is_empty(dir_.path()));
}

TEST_F(MappedFileDataSourceTest, FileGivenByPathIsKeptWithExactlyTheDataLength) {
  std::string path = PathOf("kept.bin");
  {
    MappedFileDataSource source(0, "kept", path);
    ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
    EXPECT_EQ(SizeOf(path), 4096) << "an empty file grows by one step at once";
    EXPECT_EQ(source.Write("hello world", 11), 11);
    ASSERT_EQ(source.Close(), 0);
    EXPECT_EQ(SizeOf(path), 11);
  }
  EXPECT_EQ(ReadFile(path), "hello world");
}

TEST_F(MappedFileDataSourceTest, GrowsStepByStepWithContentIntact) {
  constexpr int64_t kTotal = 1 << 20;
  std::string data = Pattern(kTotal, 3);
  MappedFileDataSource writer(0, "big");
  ASSERT_EQ(writer.Open(DataSource::kOpenWrite), 0);
  for (int64_t offset = 0; offset < kTotal; offset += 255) {
    int piece = static_cast<int>(std::min<int64_t>(255, kTotal - offset));
    ASSERT_EQ(writer.Write(data.data() + offset, piece), piece) << offset;
  }
  EXPECT_EQ(SizeOf(writer.Path()), kTotal) << "4096-byte steps meet 1 MiB exactly";
  ASSERT_EQ(writer.Close(), 0);
  EXPECT_EQ(SizeOf(writer.Path()), kTotal);

  MappedFileDataSource reader(0, "reader", writer.Path());
  ASSERT_EQ(reader.Open(DataSource::kOpenRead), 0);
  EXPECT_TRUE(ReadRest(reader, 255) == data);
  char buffer[8];
  EXPECT_EQ(reader.Read(buffer, 7), 0);
  ASSERT_EQ(reader.Close(), 0);
  EXPECT_EQ(SizeOf(writer.Path()), kTotal);
}

TEST_F(MappedFileDataSourceTest, GrowthStepIsAnEighthOfTheMappedSizeAbove4096) {
  struct Case {
    int64_t fileSize;
    int64_t mappedWhileOpen;
  };
  for (Case c : {Case{1000, 1000 + 4096}, Case{32768, 32768 + 4096}, Case{32776, 32776 + 4097},
                 Case{80000, 80000 + 10000}}) {
    SCOPED_TRACE(c.fileSize);
    std::string path = PathOf("append.bin");
    std::string old = Pattern(static_cast<size_t>(c.fileSize));
    WriteFile(path, old);
    MappedFileDataSource source(0, "append", path);
    ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
    EXPECT_EQ(SizeOf(path), c.mappedWhileOpen);
    EXPECT_EQ(source.Seek(0, DataSource::kSeekCurrent), c.fileSize);
    EXPECT_EQ(source.WriteLine("tail"), 4);
    ASSERT_EQ(source.Close(), 0);
    EXPECT_TRUE(ReadFile(path) == old + "tail\r\n");
  }
}

TEST_F(MappedFileDataSourceTest, WritePastTheMappedSizeGrowsAtLeastAStepAndEnoughForTheWrite) {
  MappedFileDataSource source;
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_EQ(SizeOf(source.Path()), 4096);
  std::string first = Pattern(4097);
  ASSERT_EQ(source.Write(first.data(), 4097), 4097);
  EXPECT_EQ(SizeOf(source.Path()), 8192);
  std::string second = Pattern(10000, 1);
  ASSERT_EQ(source.Write(second.data(), 10000), 10000);
  EXPECT_EQ(SizeOf(source.Path()), 14097);

  EXPECT_EQ(source.Seek(0, DataSource::kSeekStart), 0);
  EXPECT_TRUE(ReadRest(source, 4096) == first + second);
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(SizeOf(source.Path()), 14097);
}

TEST_F(MappedFileDataSourceTest, ModesReadOnlyStartEmptyAndKeep) {
  std::string missing = PathOf("missing.bin");
  MappedFileDataSource absent(0, "", missing);
  EXPECT_EQ(absent.Open(DataSource::kOpenRead), -1);
  EXPECT_FALSE(fs::exists(missing));
  EXPECT_EQ(absent.Open(3), -1);

  std::string path = PathOf("modes.bin");
  WriteFile(path, "old data");
  MappedFileDataSource source(0, "", path);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(source.Write("x", 1), -1);
  EXPECT_LT(source.WriteLine("x"), 0);
  EXPECT_EQ(ReadRest(source, 3), "old data");
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "old data");

  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  char buffer[16];
  EXPECT_EQ(source.Read(buffer, 15), 0);
  EXPECT_EQ(source.WriteLine("one"), 3);
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "one\r\n");

  ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
  EXPECT_EQ(source.WriteLine("two\r\n"), 5);
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "one\r\ntwo\r\n");

  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_EQ(source.Close(), 0);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0) << "an empty file opens for reading";
  EXPECT_EQ(source.Read(buffer, 15), 0);
  EXPECT_EQ(source.ReadLine(buffer, 16), 0);
  EXPECT_EQ(source.Close(), 0);
  EXPECT_EQ(source.Close(), 0);
  EXPECT_EQ(source.Read(buffer, 15), -1);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekStart), -1);
}

TEST_F(MappedFileDataSourceTest, LinesWorkAsForTheBufferKind) {
  MappedFileDataSource source;
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_EQ(source.Write("one\r\ntwo\nthree\rfour", 19), 19);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekStart), 0);
  EXPECT_EQ(ReadLines(source, 1024), (std::vector<std::string>{"one\r\n", "two\nthree\r", "four"}));
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_EQ(source.Write("abcdefgh\r\nxyz", 13), 13);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(ReadLines(source, 10), (std::vector<std::string>{"abcdefgh\r", "\nxyz"}));
}

TEST_F(MappedFileDataSourceTest, FileIsNotSharedWhileOpenAndACloneNeverDeletesIt) {
  std::string path;
  {
    MappedFileDataSource source(0, "shared");
    path = source.Path();
    ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
    ASSERT_EQ(source.Write("abc", 3), 3);
    std::unique_ptr<DataSource> clone = source.Clone();
    EXPECT_EQ(clone->Name(), "shared");
    EXPECT_EQ(clone->Open(DataSource::kOpenRead), -1);
    ASSERT_EQ(source.Close(), 0);
    ASSERT_EQ(clone->Open(DataSource::kOpenRead), 0);
    EXPECT_EQ(ReadRest(*clone, 8), "abc");
    clone.reset();
    EXPECT_EQ(ReadFile(path), "abc");
  }
  EXPECT_FALSE(fs::exists(path));
}

// What every kind of source does alike: Seek from each origin stays within
// the data (a refused one does not move), and Read goes on from there.
template <typename Kind>
class DataSourceContractTest : public testing::Test {
 protected:
  std::unique_ptr<DataSource> Make() {
    if constexpr (std::is_same_v<Kind, FileDataSource>) {
      return std::make_unique<FileDataSource>(dir_.path() + "/ten.txt");
    } else if constexpr (std::is_same_v<Kind, BufferDataSource>) {
      return std::make_unique<BufferDataSource>(32);
    } else {
      return std::make_unique<MappedFileDataSource>(0, "ten", dir_.path() + "/ten.map");
    }
  }
  TempDir dir_;
};

using Kinds = testing::Types<FileDataSource, BufferDataSource, MappedFileDataSource>;
TYPED_TEST_SUITE(DataSourceContractTest, Kinds);

TYPED_TEST(DataSourceContractTest, SeekStaysWithinTheData) {
  std::unique_ptr<DataSource> source = this->Make();
  ASSERT_EQ(source->Open(DataSource::kOpenWrite), 0);
  ASSERT_EQ(source->Write("0123456789", 10), 10);
  char buffer[16];
  EXPECT_EQ(source->Seek(3, DataSource::kSeekEnd), 7);
  ASSERT_EQ(source->Read(buffer, 10), 3);
  EXPECT_STREQ(buffer, "789");
  const std::pair<int64_t, int> refused[] = {
      {11, DataSource::kSeekStart},  {-1, DataSource::kSeekStart},    {11, DataSource::kSeekEnd},
      {1, DataSource::kSeekCurrent}, {-11, DataSource::kSeekCurrent}, {0, 3}};
  for (const auto& [offset, origin] : refused) {
    EXPECT_EQ(source->Seek(offset, origin), -1) << offset << " from " << origin;
  }
  EXPECT_EQ(source->Read(buffer, 10), 0) << "a refused Seek must not move";
  EXPECT_EQ(source->Seek(-4, DataSource::kSeekCurrent), 6);
  ASSERT_EQ(source->Read(buffer, 2), 2);
  EXPECT_STREQ(buffer, "67");
  EXPECT_EQ(source->Seek(10, DataSource::kSeekStart), 10);
  // The files keep their length under an overwrite; the buffer kind ends its
  // data at the last write.
  EXPECT_EQ(source->Seek(2, DataSource::kSeekStart), 2);
  EXPECT_EQ(source->Write("X", 1), 1);
  const int64_t length = std::is_same_v<TypeParam, BufferDataSource> ? 3 : 10;
  EXPECT_EQ(source->Seek(0, DataSource::kSeekEnd), length);
  EXPECT_EQ(source->Seek(0, DataSource::kSeekStart), 0);
  ASSERT_EQ(source->Read(buffer, 10), length);
  EXPECT_EQ(std::string(buffer), std::string("01X3456789").substr(0, static_cast<size_t>(length)));
}

}  // namespace
}  // namespace corvane
