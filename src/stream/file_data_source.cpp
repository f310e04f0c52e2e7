#include "stream/file_data_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>

namespace corvane {

FileDataSource::FileDataSource(std::string fileName, int lineBufferSize)
    : DataSource(std::move(fileName)),
      lineBuffer_(static_cast<size_t>(std::max(lineBufferSize, 2))) {}

std::unique_ptr<DataSource> FileDataSource::Clone() const {
  return std::make_unique<FileDataSource>(Name(), static_cast<int>(lineBuffer_.size()));
}

int FileDataSource::Open(int mode) {
  if (Name().empty()) return -1;
  if (mode != kOpenRead && mode != kOpenWrite && mode != kOpenAppend) return -1;
  Close();
  FILE* file = nullptr;
  if (mode == kOpenRead) {
    file = std::fopen(Name().c_str(), "rbe");
  } else if (mode == kOpenWrite) {
    file = std::fopen(Name().c_str(), "w+be");
  } else {
    // Not "a+": that would force every write to the end, even after a Seek.
    int fd = ::open(Name().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return -1;
    file = ::fdopen(fd, "r+b");
    if (file == nullptr) {
      ::close(fd);
      return -1;
    }
    if (::fseeko(file, 0, SEEK_END) != 0) {
      std::fclose(file);
      return -1;
    }
  }
  if (file == nullptr) return -1;
  file_.reset(file);
  start_ = held_ = 0;
  lastOp_ = LastOp::kNone;
  return 0;
}

int FileDataSource::Close() {
  start_ = held_ = 0;
  lastOp_ = LastOp::kNone;
  if (!file_) return 0;
  return std::fclose(file_.release()) == 0 ? 0 : -1;
}

void FileDataSource::PrepareRead() {
  if (lastOp_ == LastOp::kWrite) ::fseeko(file_.get(), 0, SEEK_CUR);
  lastOp_ = LastOp::kRead;
}

bool FileDataSource::PrepareWrite() {
  if (held_ > 0) {
    if (::fseeko(file_.get(), -static_cast<off_t>(held_), SEEK_CUR) != 0) return false;
    start_ = held_ = 0;
  } else if (lastOp_ == LastOp::kRead) {
    ::fseeko(file_.get(), 0, SEEK_CUR);
  }
  lastOp_ = LastOp::kWrite;
  return true;
}

void FileDataSource::Refill() {
  if (start_ > 0) {
    std::memmove(lineBuffer_.data(), lineBuffer_.data() + start_, held_);
    start_ = 0;
  }
  size_t room = lineBuffer_.size() - 1 - held_;
  if (room > 0) held_ += std::fread(lineBuffer_.data() + held_, 1, room, file_.get());
}

void FileDataSource::Drop(size_t count) {
  start_ += count;
  held_ -= count;
  if (held_ == 0) start_ = 0;
}

int FileDataSource::ReadLine(char* buffer, int max) {
  if (buffer == nullptr || max < 1) return -1;
  buffer[0] = '\0';
  if (!file_) return -1;
  PrepareRead();
  auto held = [this] { return std::string_view(lineBuffer_.data() + start_, held_); };
  size_t end = held().find("\r\n");
  if (end == std::string_view::npos) {
    Refill();
    end = held().find("\r\n");
  }
  if (held_ == 0) return 0;
  size_t count;
  if (end != std::string_view::npos && static_cast<int64_t>(end) < int64_t{max} - 3) {
    count = end + 2;  // the line with its "\r\n"
  } else {
    count = std::min(held_, static_cast<size_t>(max - 1));
  }
  std::memcpy(buffer, lineBuffer_.data() + start_, count);
  buffer[count] = '\0';
  Drop(count);
  return static_cast<int>(count);
}

int FileDataSource::WriteLine(const char* text) {
  if (text == nullptr) return -1;
  std::string_view line(text);
  if (line.size() > INT_MAX) return -1;
  int length = static_cast<int>(line.size());
  if (Write(text, length) != length) return -1;
  if (!EndsWithLineEnd(line) && Write("\r\n", 2) != 2) return -1;
  return length;
}

int FileDataSource::Read(char* buffer, int n) {
  if (buffer == nullptr || n < 0) return -1;
  buffer[0] = '\0';
  if (!file_) return -1;
  PrepareRead();
  size_t wanted = static_cast<size_t>(n);
  size_t count = std::min(held_, wanted);
  std::memcpy(buffer, lineBuffer_.data() + start_, count);
  Drop(count);
  if (count < wanted) count += std::fread(buffer + count, 1, wanted - count, file_.get());
  buffer[count] = '\0';
  return static_cast<int>(count);
}

int FileDataSource::Write(const char* buffer, int n) {
  if (buffer == nullptr || n < 0 || !file_) return -1;
  if (!PrepareWrite()) return -1;
  if (n == 0) return 0;
  size_t written = std::fwrite(buffer, 1, static_cast<size_t>(n), file_.get());
  if (written == 0) {
    std::clearerr(file_.get());  // e.g. a file opened for reading only
    return -1;
  }
  return static_cast<int>(written);
}

int64_t FileDataSource::Seek(int64_t offset, int origin) {
  if (!file_) return -1;
  if (lastOp_ == LastOp::kWrite && std::fflush(file_.get()) != 0) return -1;
  off_t streamPosition = ::ftello(file_.get());
  struct stat status;
  if (streamPosition < 0 || ::fstat(::fileno(file_.get()), &status) != 0) return -1;
  int64_t position = static_cast<int64_t>(streamPosition) - static_cast<int64_t>(held_);
  int64_t target = SeekTarget(offset, origin, position, status.st_size);
  if (target < 0) return -1;
  if (::fseeko(file_.get(), static_cast<off_t>(target), SEEK_SET) != 0) return -1;
  start_ = held_ = 0;
  lastOp_ = LastOp::kNone;
  return target;
}

}  // namespace corvane
