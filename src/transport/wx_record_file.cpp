#include "transport/wx_record_file.h"

#include <sys/stat.h>

#include <cstdio>
#include <limits>
#include <memory>

#include "transport/counted_string.h"
#include "transport/wx_codec.h"

namespace corvane {
namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

File Open(const std::string& path, const char* mode) {
  return File(std::fopen(path.c_str(), mode));
}

// Size of an open regular file, or -1 for anything else (a directory would
// report a size it never delivers) and for files beyond what the 32-bit read
// offset can reach, so that a reader looping until AtEnd always stops.
long FileSize(std::FILE* file) {
  struct stat info;
  if (fstat(fileno(file), &info) != 0 || !S_ISREG(info.st_mode)) return -1;
  if (info.st_size > static_cast<off_t>(std::numeric_limits<uint32_t>::max())) return -1;
  return static_cast<long>(info.st_size);
}

}  // namespace

bool wxRecordFile::AppendRecord(std::string_view data) {
  return AppendRecords({std::string(data)});
}

bool wxRecordFile::AppendRecords(const std::vector<std::string>& records) {
  std::string bytes;
  bool whole = true;
  for (const std::string& data : records) {
    const std::string body = encipher_ ? wxCodec::Encode(data) : data;
    if (data.empty() || body.empty()) {
      whole = false;
      break;
    }
    bytes += CountedString::Encode(body);
  }
  if (bytes.empty()) return whole && !records.empty();
  File file = Open(path_, "ab");
  if (!file) file = Open(path_, "wb");
  if (!file) return false;
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file.get()) == bytes.size();
  return std::fclose(file.release()) == 0 && written && whole;
}

std::optional<std::string> wxRecordFile::ReadRecord() {
  File file = Open(path_, "rb");
  if (!file) return std::nullopt;
  const long size = FileSize(file.get());
  if (size < 0 || readOffset_ >= static_cast<unsigned long>(size)) return std::nullopt;
  if (std::fseek(file.get(), static_cast<long>(readOffset_), SEEK_SET) != 0) return std::nullopt;

  // A record that is damaged or cut short ends the file for this reader: the
  // offset moves to the end, so counting and reading loops always finish.
  const auto remaining = static_cast<size_t>(size - static_cast<long>(readOffset_));
  auto giveUp = [&]() -> std::optional<std::string> {
    readOffset_ = static_cast<uint32_t>(size);
    return std::nullopt;
  };
  const int digitCount = std::fgetc(file.get());
  if (digitCount < '1' || digitCount > '9') return giveUp();
  const size_t digits = static_cast<size_t>(digitCount - '0');
  if (1 + digits > remaining) return giveUp();
  char lengthText[9];
  if (std::fread(lengthText, 1, digits, file.get()) != digits) return giveUp();
  size_t length = 0;
  for (size_t i = 0; i < digits; ++i) {
    if (lengthText[i] < '0' || lengthText[i] > '9') return giveUp();
    length = length * 10 + static_cast<size_t>(lengthText[i] - '0');
  }
  if (length > remaining - 1 - digits) return giveUp();
  std::string data(length, '\0');
  if (length > 0 && std::fread(data.data(), 1, length, file.get()) != length) return giveUp();
  readOffset_ += static_cast<uint32_t>(1 + digits + length);

  if (!encipher_ || data.empty()) return data;
  return wxCodec::Decode(data);
}

bool wxRecordFile::AtEnd() const {
  File file = Open(path_, "rb");
  if (!file) return true;
  const long size = FileSize(file.get());
  return size < 0 || readOffset_ >= static_cast<unsigned long>(size);
}

int wxRecordFile::CountRecords() {
  int count = 0;
  while (std::optional<std::string> record = ReadRecord()) {
    if (!record->empty()) ++count;
  }
  readOffset_ = 0;
  return count;
}

}  // namespace corvane
