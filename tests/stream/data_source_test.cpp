#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
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
using test::WriteFile;
using Lines = std::vector<std::string>;

// Every piece ReadLine gives until it reports the end.
Lines ReadLines(DataSource& source, int max) {
  std::vector<char> buffer(static_cast<size_t>(max));
  Lines lines;
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

int64_t SizeOf(const std::string& path) {
  return static_cast<int64_t>(fs::file_size(path));
}

// Every kind alike: Seek stays within the data (a refused one does not move),
// WriteLine ends a line once, null buffers and texts are refused, and the
// files refuse everything once closed, leaving no stale text behind.
template <typename Kind>
class DataSourceContractTest : public testing::Test {
 protected:
  std::unique_ptr<DataSource> Make() {
    if constexpr (std::is_same_v<Kind, FileDataSource>) {
      return std::make_unique<FileDataSource>(dir_ / "ten.txt");
    } else if constexpr (std::is_same_v<Kind, BufferDataSource>) {
      return std::make_unique<BufferDataSource>(32);
    } else {
      return std::make_unique<MappedFileDataSource>(0, "ten", dir_ / "ten.map");
    }
  }
  static constexpr bool kBuffer = std::is_same_v<Kind, BufferDataSource>;
  test::TempDir dir_;
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
  const int64_t length = this->kBuffer ? 3 : 10;
  EXPECT_EQ(source->Seek(0, DataSource::kSeekEnd), length);
  EXPECT_EQ(source->Seek(0, DataSource::kSeekStart), 0);
  ASSERT_EQ(source->Read(buffer, 10), length);
  EXPECT_EQ(std::string(buffer), std::string("01X3456789").substr(0, static_cast<size_t>(length)));
}

TYPED_TEST(DataSourceContractTest, WriteLineEndsALineOnceAndNullsAreRefused) {
  std::unique_ptr<DataSource> source = this->Make();
  ASSERT_EQ(source->Open(DataSource::kOpenWrite), 0);
  for (auto [text, length] : {std::pair{"a", 1}, {"b\r\n", 3}, {"", 0}, {"c\n", 2}}) {
    EXPECT_EQ(source->WriteLine(text), length) << text;
  }
  EXPECT_EQ(source->WriteLine(nullptr), -1);
  EXPECT_EQ(source->Write(nullptr, 1), -1);
  ASSERT_EQ(source->Seek(0, DataSource::kSeekStart), 0);
  char buffer[32] = "stale";
  EXPECT_EQ(source->ReadLine(nullptr, 8), -1);
  EXPECT_EQ(source->ReadLine(buffer, 0), -1);
  EXPECT_EQ(source->Read(nullptr, 8), -1);
  EXPECT_EQ(source->Read(buffer, -1), -1);
  EXPECT_EQ(ReadRest(*source, 5), "a\r\nb\r\n\r\nc\n\r\n");
  std::strcpy(buffer, "stale");
  EXPECT_EQ(source->ReadLine(buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "") << "the end leaves an empty line";
  EXPECT_EQ(source->Open(-1), this->kBuffer ? 0 : -1);  // the buffer kind has no failure
  if constexpr (!TestFixture::kBuffer) {
    ASSERT_EQ(source->Close(), 0);
    EXPECT_EQ(source->Close(), 0);
    for (auto read : {&DataSource::Read, &DataSource::ReadLine}) {
      std::strcpy(buffer, "stale");
      EXPECT_EQ((source.get()->*read)(buffer, 8), -1);
      EXPECT_STREQ(buffer, "") << "a failed read leaves no old text";
    }
    EXPECT_EQ(source->Write("x", 1), -1);
    EXPECT_EQ(source->Seek(0, DataSource::kSeekStart), -1);
    EXPECT_EQ(source->Open(3), -1);
  }
}

TEST(FileDataSourceTest, LinesComeWholeOrInPiecesOfMaxMinusOne) {
  // A line comes whole with its "\r\n" only when it is shorter than max - 3:
  // longer ones come in pieces of max - 1 bytes, or of the line buffer's size
  // when that is smaller, and a cut between "\r" and "\n" lets the "\n" lead
  // the next piece.
  test::TempDir dir;
  auto lines = [path = dir / "lines.txt"](const std::string& content, int lineBuffer, int max) {
    WriteFile(path, content);
    const std::unique_ptr<DataSource> clone = FileDataSource(path, lineBuffer).Clone();
    EXPECT_EQ(clone->Open(DataSource::kOpenRead), 0);
    return ReadLines(*clone, max);
  };
  EXPECT_EQ(lines("first\r\nsecond\r\n\r\nlast", 4096, 1024),
            (Lines{"first\r\n", "second\r\n", "\r\n", "last"}));
  EXPECT_EQ(lines("abcdefghijklmnopqrst\r\nnext\r\n", 4096, 10),
            (Lines{"abcdefghi", "jklmnopqr", "st\r\n", "next\r\n"}));
  EXPECT_EQ(lines("123456\r\n1234567\r\n12345678\r\nz\r\n", 4096, 10),
            (Lines{"123456\r\n", "1234567\r\n", "12345678\r", "\nz\r\n"}));
  const std::string x = Pattern(2000);
  EXPECT_EQ(lines(x + "\r\nok\r\n", 4096, 1024),
            (Lines{x.substr(0, 1023), x.substr(1023) + "\r\n", "ok\r\n"}));
  EXPECT_EQ(lines(x.substr(0, 40) + "\r\nok\r\n", 16, 1024),
            (Lines{x.substr(0, 15), x.substr(15, 15), x.substr(30, 10) + "\r\n", "ok\r\n"}));
  EXPECT_EQ(lines("ab\r\n", 1, 16), (Lines{"a", "b", "\r", "\n"}));  // a buffer of one byte
}

TEST(FileDataSourceTest, LinesBlocksAndWritesMixWithoutLosingOrRepeatingAByte) {
  test::TempDir dir;
  const std::string path = dir / "mixed.txt", body = Pattern(10000);
  WriteFile(path, "one\r\ntwo\r\nthree\r\n" + body);
  FileDataSource source(path);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  char buffer[64];
  EXPECT_EQ(source.Write("x", 1), -1) << "read only";
  ASSERT_EQ(source.ReadLine(buffer, sizeof buffer), 5);
  ASSERT_EQ(source.Read(buffer, 3), 3);
  EXPECT_STREQ(buffer, "two");
  EXPECT_EQ(ReadLines(source, 8).front(), "\r\n");
  source.Seek(17, DataSource::kSeekStart);
  EXPECT_EQ(ReadRest(source, 255), body);
  // A write after lines lands behind the last line given out, not behind
  // what the line buffer read ahead, and reading goes on behind it.
  WriteFile(path, "one\r\ntwo\r\nthree\r\nfour\r\n");
  ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekCurrent), 23);
  ASSERT_EQ(source.Seek(0, DataSource::kSeekStart), 0);
  ASSERT_EQ(source.ReadLine(buffer, sizeof buffer), 5);
  EXPECT_EQ(source.Write("TWO", 3), 3);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekCurrent), 8);
  EXPECT_EQ(ReadLines(source, sizeof buffer), (Lines{"\r\n", "three\r\n", "four\r\n"}));
  ASSERT_EQ(source.Seek(17, DataSource::kSeekStart), 17);
  ASSERT_EQ(source.Read(buffer, 2), 2);
  EXPECT_EQ(source.WriteLine("UR"), 2);
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "one\r\nTWO\r\nthree\r\nfoUR\r\n");
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "");
  EXPECT_EQ(FileDataSource(dir / "missing").Open(DataSource::kOpenRead), -1);
  EXPECT_FALSE(fs::exists(dir / "missing"));
  EXPECT_EQ(FileDataSource("").Open(DataSource::kOpenWrite), -1);
}

TEST(BufferDataSourceTest, CapacityCutsWritesAndTheDataEndsAtTheLastWrite) {
  BufferDataSource line(6, "six");
  EXPECT_EQ(line.WriteLine("abcde"), 5);  // the "\r\n" is cut off too
  EXPECT_EQ(line.Data(), "abcde\r");
  EXPECT_EQ(line.Write("x", 1), 0);
  // A clone owns a copy with the same capacity and label.
  std::unique_ptr<DataSource> clone = line.Clone();
  ASSERT_EQ(line.Open(DataSource::kOpenWrite), 0);
  EXPECT_EQ(line.Write("abcdefgh", 8), 6);
  EXPECT_EQ(clone->Name(), "six");
  ASSERT_EQ(clone->Seek(2, DataSource::kSeekStart), 2);
  EXPECT_EQ(clone->Write("12345", 5), 4);
  ASSERT_EQ(clone->Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(ReadRest(*clone, 16), "ab1234");

  char memory[16] = "hello";  // the caller's buffer, read as its NUL-terminated text
  BufferDataSource source(memory, 15);
  ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
  EXPECT_EQ(source.Write(" world", 6), 6);
  EXPECT_EQ(source.Seek(5, DataSource::kSeekStart), 5);
  EXPECT_EQ(source.Write("!", 1), 1);
  EXPECT_STREQ(memory, "hello!");
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekCurrent), 0) << "mode 1 left the buffer empty";
}

class MappedFileDataSourceTest : public testing::Test {
 protected:
  test::TempDir dir_;
  test::ScopedEnv tmpdir_{"TMPDIR", dir_.path()};  // temporary files where the test sees them
};

TEST_F(MappedFileDataSourceTest, TemporaryFileGoesWithTheSourceAndAClonesNever) {
  std::string path;
  {
    MappedFileDataSource source(0, "temp");
    path = source.Path();
    EXPECT_EQ(fs::path(path).parent_path(), fs::path(dir_.path()));
    EXPECT_EQ(fs::path(path).filename().string().rfind("Map", 0), 0u) << path;
    ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
    ASSERT_EQ(source.Write("abc", 3), 3);
    std::unique_ptr<DataSource> clone = source.Clone();
    EXPECT_EQ(clone->Name(), "temp");
    EXPECT_EQ(clone->Open(DataSource::kOpenRead), -1) << "not shared while open";
    ASSERT_EQ(source.Close(), 0);
    ASSERT_EQ(clone->Open(DataSource::kOpenRead), 0);
    EXPECT_EQ(ReadRest(*clone, 8), "abc");
    clone.reset();
    EXPECT_EQ(ReadFile(path), "abc");
    ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);  // destroyed while open
  }
  EXPECT_FALSE(fs::exists(path));
  { MappedFileDataSource neverOpened; }
  EXPECT_TRUE(fs::is_empty(dir_.path()));
}

// ReadLine of the memory kinds cuts behind the first "\r" (and its "\n" when
// the block holds it), else takes max - 1 bytes.
TEST_F(MappedFileDataSourceTest, MemoryKindsEndLinesAtTheFirstCarriageReturnOrAtMaxMinusOne) {
  BufferDataSource buffer(64);
  MappedFileDataSource mapped;
  for (DataSource* source : std::initializer_list<DataSource*>{&buffer, &mapped}) {
    auto lines = [source](const std::string& content, int max) {
      EXPECT_EQ(source->Open(DataSource::kOpenWrite), 0);
      EXPECT_EQ(source->Write(content.data(), static_cast<int>(content.size())), content.size());
      EXPECT_EQ(source->Seek(0, DataSource::kSeekStart), 0);
      return ReadLines(*source, max);
    };
    EXPECT_EQ(lines("one\r\ntwo\nthree\rfour", 64), (Lines{"one\r\n", "two\nthree\r", "four"}));
    EXPECT_EQ(lines("abcdefgh\r\nxyz", 10), (Lines{"abcdefgh\r", "\nxyz"}));
    EXPECT_EQ(lines("0123456789abc", 5), (Lines{"0123", "4567", "89ab", "c"}));
  }
}

TEST_F(MappedFileDataSourceTest, ModesAndAFileKeptWithExactlyTheDataLength) {
  const std::string path = dir_ / "modes.bin";
  MappedFileDataSource absent(0, "", dir_ / "missing.bin");
  EXPECT_EQ(absent.Open(DataSource::kOpenRead), -1);
  EXPECT_FALSE(fs::exists(dir_ / "missing.bin"));
  {
    MappedFileDataSource source(0, "kept", path);
    ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
    EXPECT_EQ(SizeOf(path), 4096) << "an empty file grows by one step at once";
    EXPECT_EQ(source.Write("hello world", 11), 11);
    ASSERT_EQ(source.Close(), 0);
    EXPECT_EQ(SizeOf(path), 11);
  }
  MappedFileDataSource source(0, "", path);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0);
  EXPECT_EQ(source.Write("x", 1), -1);
  EXPECT_LT(source.WriteLine("x"), 0);
  EXPECT_EQ(ReadRest(source, 3), "hello world");
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  EXPECT_EQ(SizeOf(path), 11) << "a file that has bytes does not grow at once";
  EXPECT_EQ(ReadRest(source, 3), "") << "mode 1 starts with no data";
  EXPECT_EQ(source.WriteLine("one"), 3);
  ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
  EXPECT_EQ(source.WriteLine("two\r\n"), 5);
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(ReadFile(path), "one\r\ntwo\r\n");
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  ASSERT_EQ(source.Open(DataSource::kOpenRead), 0) << "an empty file opens for reading";
  EXPECT_EQ(ReadRest(source, 3), "");
  EXPECT_EQ(SizeOf(path), 0);
}

TEST_F(MappedFileDataSourceTest, GrowthStepIsAnEighthOfTheMappedSizeAtLeast4096) {
  const struct {
    int64_t fileSize, mappedWhileOpen;
  } cases[] = {
      {1000, 1000 + 4096}, {32768, 32768 + 4096}, {32776, 32776 + 4097}, {80000, 80000 + 10000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fileSize);
    const std::string path = dir_ / "append.bin", old = Pattern(static_cast<size_t>(c.fileSize));
    WriteFile(path, old);
    MappedFileDataSource source(0, "append", path);
    ASSERT_EQ(source.Open(DataSource::kOpenAppend), 0);
    EXPECT_EQ(SizeOf(path), c.mappedWhileOpen);
    EXPECT_EQ(source.Seek(0, DataSource::kSeekCurrent), c.fileSize);
    EXPECT_EQ(source.WriteLine("tail"), 4);
    ASSERT_EQ(source.Close(), 0);
    EXPECT_TRUE(ReadFile(path) == old + "tail\r\n");
  }
  // A write past the mapped size grows by a step, or by what it needs.
  MappedFileDataSource source;
  ASSERT_EQ(source.Open(DataSource::kOpenWrite), 0);
  const std::string first = Pattern(4097), second = Pattern(10000, 1);
  ASSERT_EQ(source.Write(first.data(), 4097), 4097);
  EXPECT_EQ(SizeOf(source.Path()), 8192);
  ASSERT_EQ(source.Write(second.data(), 10000), 10000);
  EXPECT_EQ(SizeOf(source.Path()), 14097);
  EXPECT_EQ(source.Seek(0, DataSource::kSeekStart), 0);
  EXPECT_TRUE(ReadRest(source, 4096) == first + second) << "content kept across the growth";
  ASSERT_EQ(source.Close(), 0);
  EXPECT_EQ(SizeOf(source.Path()), 14097);
}

}  // namespace
}  // namespace corvane
