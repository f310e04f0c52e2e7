#include "stream/mapped_file_data_source.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace corvane {
namespace {

constexpr int64_t kMinGrowthStep = 4096;

// A new empty file "<temp dir>/MapXXXXXX", or "" when none can be made.
std::string MakeTemporaryFile() {
  const char* dir = std::getenv("TMPDIR");
  std::string name = dir != nullptr && *dir != '\0' ? dir : "/tmp";
  if (name.back() != '/') name += '/';
  name += "MapXXXXXX";
  int fd = ::mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) return {};
  ::close(fd);
  return name;
}

char* MapView(int fd, int64_t size, bool writable) {
  void* view = ::mmap(nullptr, static_cast<size_t>(size),
                      writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
  return view == MAP_FAILED ? nullptr : static_cast<char*>(view);
}

}  // namespace

MappedFileDataSource::MappedFileDataSource(int64_t initialSize, std::string label, std::string path)
    : DataSource(std::move(label)),
      path_(std::move(path)),
      mappedSize_(std::max<int64_t>(initialSize, 0)),
      length_(mappedSize_) {
  if (path_.empty()) {
    path_ = MakeTemporaryFile();
    deleteOnDestruction_ = !path_.empty();
  }
}

MappedFileDataSource::~MappedFileDataSource() {
  Close();
  if (deleteOnDestruction_) ::unlink(path_.c_str());
}

std::unique_ptr<DataSource> MappedFileDataSource::Clone() const {
  if (path_.empty()) return std::make_unique<MappedFileDataSource>(length_, Name());
  return std::make_unique<MappedFileDataSource>(length_, Name(), path_);
}

int MappedFileDataSource::Open(int mode) {
  Close();
  if (path_.empty() || (mode != kOpenRead && mode != kOpenWrite && mode != kOpenAppend)) {
    return -1;
  }
  int flags = O_RDWR | O_CLOEXEC | (mode == kOpenRead ? 0 : O_CREAT);
  int fd = ::open(path_.c_str(), flags, 0666);
  if (fd < 0) return -1;
  struct stat status;
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0 || ::fstat(fd, &status) != 0) {
    ::close(fd);
    return -1;
  }
  int64_t fileSize = status.st_size;
  int64_t mappedSize = mappedSize_ == 0 ? fileSize : mappedSize_;
  int64_t length = mappedSize;
  if (mode == kOpenWrite) {
    length = 0;
  } else if (mode == kOpenAppend) {
    mappedSize = std::max(mappedSize, fileSize);
    length = fileSize;
  }
  int64_t growthStep = std::max(mappedSize / 8, kMinGrowthStep);
  if (mode == kOpenAppend || (mode == kOpenWrite && fileSize == 0)) mappedSize += growthStep;

  char* view = nullptr;
  bool ok = ::ftruncate(fd, static_cast<off_t>(mappedSize)) == 0;
  if (ok && mappedSize > 0) {
    // A read-only source of no bytes has no view; Read then simply finds the end.
    view = MapView(fd, mappedSize, mode != kOpenRead);
    ok = view != nullptr;
  }
  if (!ok) {
    ::ftruncate(fd, static_cast<off_t>(fileSize));  // leave the file as it was
    ::close(fd);
    return -1;
  }
  fd_ = fd;
  view_ = view;
  mappedSize_ = mappedSize;
  length_ = length;
  growthStep_ = growthStep;
  lastMode_ = mode;
  position_ = mode == kOpenAppend ? length : 0;
  return 0;
}

int MappedFileDataSource::Close() {
  if (!IsOpen()) return 0;
  int result = 0;
  if (view_ != nullptr) {
    // Shared mappings and the page cache are one on Linux; MS_ASYNC hands the
    // pages to write-back as FlushViewOfFile does, without waiting for a disk.
    if (lastMode_ != kOpenRead && ::msync(view_, static_cast<size_t>(mappedSize_), MS_ASYNC) != 0) {
      result = -1;
    }
    if (::munmap(view_, static_cast<size_t>(mappedSize_)) != 0) result = -1;
    view_ = nullptr;
  }
  mappedSize_ = length_;
  if (::ftruncate(fd_, static_cast<off_t>(length_)) != 0) result = -1;
  if (::close(fd_) != 0) result = -1;  // also releases the exclusive lock
  fd_ = -1;
  return result;
}

bool MappedFileDataSource::Grow(int64_t newSize) {
  if (::ftruncate(fd_, static_cast<off_t>(newSize)) != 0) return false;
  char* view = MapView(fd_, newSize, lastMode_ != kOpenRead);
  if (view == nullptr) {
    ::ftruncate(fd_, static_cast<off_t>(mappedSize_));  // keep the old view valid
    return false;
  }
  ::munmap(view_, static_cast<size_t>(mappedSize_));
  view_ = view;
  mappedSize_ = newSize;
  return true;
}

int MappedFileDataSource::ReadLine(char* buffer, int max) {
  return ReadLineOfBlock(buffer, max);
}

int MappedFileDataSource::WriteLine(const char* text) {
  if (text == nullptr) return -1;
  std::string_view line(text);
  if (line.size() > INT_MAX) return -1;
  int length = static_cast<int>(line.size());
  int written = Write(text, length);
  if (written != length) return written < 0 ? written : -1;
  if (!EndsWithLineEnd(line)) {
    int ending = Write("\r\n", 2);
    if (ending != 2) return ending < 0 ? ending : -1;
  }
  return length;
}

int MappedFileDataSource::Read(char* buffer, int n) {
  if (buffer == nullptr || n < 0) return -1;
  buffer[0] = '\0';
  if (!IsOpen()) return -1;
  int64_t count = std::clamp<int64_t>(length_ - position_, 0, n);
  if (count > 0) std::memcpy(buffer, view_ + position_, static_cast<size_t>(count));
  buffer[count] = '\0';
  position_ += count;
  return static_cast<int>(count);
}

int MappedFileDataSource::Write(const char* buffer, int n) {
  if (buffer == nullptr || n < 0 || view_ == nullptr || lastMode_ == kOpenRead) return -1;
  int64_t end = position_ + n;
  if (end > mappedSize_ && !Grow(mappedSize_ + std::max(growthStep_, end - mappedSize_))) {
    return 0;
  }
  std::memcpy(view_ + position_, buffer, static_cast<size_t>(n));
  position_ = end;
  length_ = std::max(length_, position_);
  return n;
}

int64_t MappedFileDataSource::Seek(int64_t offset, int origin) {
  if (!IsOpen()) return -1;
  int64_t target = SeekTarget(offset, origin, position_, length_);
  if (target >= 0) position_ = target;
  return target;
}

}  // namespace corvane
