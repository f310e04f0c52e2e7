// The data sources; a sequence of calls is checked as the vector of its results.
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
using R = std::vector<int64_t>;
using S = DataSource;

// Every piece ReadLine gives until it reports the end, joined by "|".
std::string ReadLines(DataSource& source, int max) {
  std::vector<char> buffer(static_cast<size_t>(max));
  std::string lines;
  for (int n; (n = source.ReadLine(buffer.data(), max)) > 0;) {
    EXPECT_EQ(std::strlen(buffer.data()), static_cast<size_t>(n)) << "not NUL-terminated";
    lines += (lines.empty() ? "" : "|") + std::string(buffer.data(), static_cast<size_t>(n));
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

int64_t SizeOf(const std::string& path) {
  return static_cast<int64_t>(fs::file_size(path));
}

// Every kind alike: Seek stays within the data (a refused one does not move),
// WriteLine ends a line once, and null buffers and texts are refused.
template <typename Kind>
class DataSourceContractTest : public testing::Test {
 protected:
  std::unique_ptr<DataSource> Make() {
    if constexpr (std::is_same_v<Kind, FileDataSource>) {
      return std::make_unique<FileDataSource>(dir_ / "ten.txt");
    } else if constexpr (kBuffer) {
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

TYPED_TEST(DataSourceContractTest, SeekStaysWithinTheDataWriteLineEndsALineOnceNullsAreRefused) {
  std::unique_ptr<DataSource> source = this->Make();
  char b[32];
  EXPECT_EQ((R{source->Open(S::kOpenWrite), source->Write("0123456789", 10),
               source->Seek(3, S::kSeekEnd), source->Read(b, 10)}),
            (R{0, 10, 7, 3}));
  EXPECT_STREQ(b, "789");
  // Refused, each leaves the position at the end.
  EXPECT_EQ(
      (R{source->Seek(11, S::kSeekStart), source->Seek(-1, S::kSeekStart),
         source->Seek(11, S::kSeekEnd), source->Seek(1, S::kSeekCurrent),
         source->Seek(-11, S::kSeekCurrent), source->Seek(0, 3), source->Read(b, 10),
         source->Seek(-4, S::kSeekCurrent), source->Read(b, 2), source->Seek(10, S::kSeekStart)}),
      (R{-1, -1, -1, -1, -1, -1, 0, 6, 2, 10}));
  EXPECT_STREQ(b, "67");
  // The files keep their length under an overwrite; the buffer kind ends its
  // data at the last write.
  const int64_t length = this->kBuffer ? 3 : 10;
  EXPECT_EQ((R{source->Seek(2, S::kSeekStart), source->Write("X", 1), source->Seek(0, S::kSeekEnd),
               source->Seek(0, S::kSeekStart), source->Read(b, 10)}),
            (R{2, 1, length, 0, length}));
  EXPECT_EQ(std::string(b), std::string("01X3456789").substr(0, static_cast<size_t>(length)));
  EXPECT_EQ(
      (R{source->Open(S::kOpenWrite), source->WriteLine("a"), source->WriteLine("b\r\n"),
         source->WriteLine(""), source->WriteLine("c\n"), source->WriteLine(nullptr),
         source->Write(nullptr, 1), source->Seek(0, S::kSeekStart), source->ReadLine(nullptr, 8),
         source->ReadLine(b, 0), source->Read(nullptr, 8), source->Read(b, -1)}),
      (R{0, 1, 3, 0, 2, -1, -1, 0, -1, -1, -1, -1}));
  EXPECT_EQ(ReadRest(*source, 5), "a\r\nb\r\n\r\nc\n\r\n");
  std::strcpy(b, "stale");
  EXPECT_EQ(source->ReadLine(b, sizeof b), 0);
  EXPECT_STREQ(b, "") << "the end leaves an empty line";
  EXPECT_EQ(source->Open(-1), this->kBuffer ? 0 : -1);  // the buffer kind has no failure
}

TEST(FileDataSourceTest, LinesComeWholeOrInPiecesAndAWriteAfterALineLandsBehindIt) {
  // A line comes whole with its "\r\n" only when it is shorter than max - 3:
  // longer ones come in pieces of max - 1 bytes, or of the line buffer's size
  // when that is smaller; a cut between "\r" and "\n" lets the "\n" lead.
  test::TempDir dir;
  const std::string path = dir / "lines.txt";
  std::string x;  // no line ends, different at every offset within a line
  for (int i = 0; i < 2000; ++i) x += static_cast<char>('!' + i * 7 % 90);
  const std::tuple<std::string, int, int, std::string> cases[] = {
      {"abcdefghijklmnopqrst\r\nnext\r\n", 4096, 10, "abcdefghi|jklmnopqr|st\r\n|next\r\n"},
      {"123456\r\n1234567\r\n12345678\r\nz\r\n", 4096, 10,
       "123456\r\n|1234567\r\n|12345678\r|\nz\r\n"},
      {x + "\r\nok\r\n", 4096, 1024, x.substr(0, 1023) + "|" + x.substr(1023) + "\r\n|ok\r\n"},
      {x.substr(0, 40) + "\r\nok\r\n", 16, 1024,
       x.substr(0, 15) + "|" + x.substr(15, 15) + "|" + x.substr(30, 10) + "\r\n|ok\r\n"},
      {"ab\r\n", 1, 16, "a|b|\r|\n"}};  // a buffer of one byte
  for (const auto& [content, lineBuffer, max, lines] : cases) {
    WriteFile(path, content);
    const std::unique_ptr<DataSource> clone = FileDataSource(path, lineBuffer).Clone();
    ASSERT_EQ(clone->Open(S::kOpenRead), 0);
    EXPECT_EQ(ReadLines(*clone, max), lines) << content.substr(0, 30);
  }
  // Read only refuses writes; append goes on at the end; a write after a line
  // lands behind it, not behind what the line buffer read ahead.
  FileDataSource source(path);
  char b[16];
  EXPECT_EQ((R{source.Open(S::kOpenRead), source.Write("x", 1), source.Open(S::kOpenAppend),
               source.Seek(0, S::kSeekCurrent), source.Write("x", 1), source.Seek(0, S::kSeekStart),
               source.ReadLine(b, sizeof b), source.Write("Y", 1), source.Close()}),
            (R{0, -1, 0, 4, 1, 0, 4, 1, 0}));
  EXPECT_EQ(ReadFile(path), "ab\r\nY");
  EXPECT_EQ((R{source.Open(S::kOpenWrite), source.Close(), SizeOf(path),
               FileDataSource(dir / "missing").Open(S::kOpenRead), FileDataSource("").Open(1)}),
            (R{0, 0, 0, -1, -1}));
  EXPECT_FALSE(fs::exists(dir / "missing"));
}

class MemorySourceTest : public testing::Test {
 protected:
  test::TempDir dir_;
  test::ScopedEnv tmpdir_{"TMPDIR", dir_.path()};  // temporary files where the test sees them
};

// ReadLine of the memory kinds cuts behind the first "\r" (and its "\n" when
// the block holds it), else takes max - 1 bytes.
TEST_F(MemorySourceTest, BufferCutsAtCapacityLinesEndAtCarriageReturnsAndFilesKeepTheirData) {
  BufferDataSource line(6, "six");
  EXPECT_EQ(line.WriteLine("abcde"), 5);  // the "\r\n" is cut off too
  EXPECT_EQ(line.Data(), "abcde\r");
  // A clone owns a copy with the same capacity and label.
  std::unique_ptr<DataSource> clone = line.Clone();
  EXPECT_EQ((R{line.Write("x", 1), line.Open(S::kOpenWrite), line.Write("abcdefgh", 8),
               clone->Seek(2, S::kSeekStart), clone->Write("12345", 5), clone->Open(S::kOpenRead)}),
            (R{0, 0, 6, 2, 4, 0}));
  EXPECT_EQ(clone->Name() + ReadRest(*clone, 16), "sixab1234");
  // Mode 1 leaves the buffer empty for the append that follows.
  EXPECT_EQ((R{line.Open(S::kOpenWrite), line.Open(S::kOpenAppend), line.Seek(0, S::kSeekCurrent)}),
            (R{0, 0, 0}));
  const std::tuple<std::string, int, std::string> cases[] = {
      {"one\r\ntwo\nthree\rfour", 64, "one\r\n|two\nthree\r|four"},
      {"abcdefgh\r\nxyz", 10, "abcdefgh\r|\nxyz"},
      {"0123456789abc", 5, "0123|4567|89ab|c"}};
  {
    BufferDataSource buffer(64);
    MappedFileDataSource mapped;  // on a temporary file "Map..." in $TMPDIR
    EXPECT_EQ(mapped.Path().rfind(dir_.path() + "/Map", 0), 0u) << mapped.Path();
    for (DataSource* source : std::initializer_list<DataSource*>{&buffer, &mapped}) {
      for (const auto& [content, max, lines] : cases) {
        const int size = static_cast<int>(content.size());
        EXPECT_EQ((R{source->Open(S::kOpenWrite), source->Write(content.data(), size),
                     source->Seek(0, S::kSeekStart)}),
                  (R{0, size, 0}));
        EXPECT_EQ(ReadLines(*source, max), lines);
      }
    }
  }  // destroyed while open
  EXPECT_TRUE(fs::is_empty(dir_.path())) << "the temporary file goes with its source";
  // The modes, and a closed file keeps exactly its data.
  const std::string path = dir_ / "modes.bin";
  MappedFileDataSource source(0, "", path);
  // An empty file grows by one step at once; a closed one keeps exactly its data.
  EXPECT_EQ(
      (R{MappedFileDataSource(0, "", dir_ / "missing.bin").Open(S::kOpenRead),
         source.Open(S::kOpenWrite), SizeOf(path), source.Write("hello world", 11), source.Close(),
         SizeOf(path), source.Open(S::kOpenRead), source.Write("x", 1), source.WriteLine("x") < 0}),
      (R{-1, 0, 4096, 11, 0, 11, 0, -1, 1}));
  EXPECT_FALSE(fs::exists(dir_ / "missing.bin"));
  EXPECT_EQ(ReadRest(source, 3), "hello world");
  // Mode 1 starts with no data, mode 2 keeps it.
  EXPECT_EQ((R{source.Open(S::kOpenWrite), source.WriteLine("one"), source.Open(S::kOpenAppend),
               source.WriteLine("two\r\n"), source.Close()}),
            (R{0, 3, 0, 5, 0}));
  EXPECT_EQ(ReadFile(path), "one\r\ntwo\r\n");
  EXPECT_EQ(fs::status(path).permissions() & fs::perms::others_exec, fs::perms::none);  // data
}

}  // namespace
}  // namespace corvane
