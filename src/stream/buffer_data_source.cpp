#include "stream/buffer_data_source.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace corvane {

BufferDataSource::BufferDataSource(int64_t capacity, std::string label)
    : BufferDataSource(nullptr, capacity, std::move(label)) {}

BufferDataSource::BufferDataSource(char* buffer, int64_t capacity, std::string label)
    : DataSource(std::move(label)), data_(buffer), capacity_(std::max<int64_t>(capacity, 0)) {
  if (data_ == nullptr) {
    owned_.assign(static_cast<size_t>(capacity_) + 1, '\0');
    data_ = owned_.data();
  }
}

std::unique_ptr<DataSource> BufferDataSource::Clone() const {
  auto copy = std::make_unique<BufferDataSource>(capacity_, Name());
  std::memcpy(copy->data_, data_, static_cast<size_t>(length_));
  copy->length_ = length_;
  return copy;
}

int BufferDataSource::Open(int mode) {
  length_ = static_cast<int64_t>(::strnlen(data_, static_cast<size_t>(capacity_)));
  if (mode == kOpenRead) {
    position_ = 0;
  } else if (mode == kOpenAppend) {
    position_ = length_;
  } else if (mode == kOpenWrite) {
    length_ = position_ = 0;
    data_[0] = '\0';  // so that a later Open sees the emptied content
  } else {
    position_ = std::min(position_, length_);  // an unknown mode only takes the length
  }
  return 0;
}

int BufferDataSource::ReadLine(char* buffer, int max) {
  return ReadLineOfBlock(buffer, max);
}

int BufferDataSource::WriteLine(const char* text) {
  if (text == nullptr) return -1;
  std::string_view line(text);
  int length = static_cast<int>(std::min<int64_t>(
      {static_cast<int64_t>(line.size()), capacity_ - position_, int64_t{INT_MAX}}));
  int written = Write(text, length);
  if (written < 0) return written;
  if (!EndsWithLineEnd(line)) {
    int ending = Write("\r\n", 2);
    if (ending < 0) return ending;
  }
  return written;
}

int BufferDataSource::Read(char* buffer, int n) {
  if (buffer == nullptr || n < 0) return -1;
  int64_t count = std::clamp<int64_t>(length_ - position_, 0, n);
  std::memcpy(buffer, data_ + position_, static_cast<size_t>(count));
  buffer[count] = '\0';
  position_ += count;
  return static_cast<int>(count);
}

int BufferDataSource::Write(const char* buffer, int n) {
  if (buffer == nullptr || n < 0) return -1;
  int64_t count = std::min<int64_t>(n, capacity_ - position_);
  std::memcpy(data_ + position_, buffer, static_cast<size_t>(count));
  position_ += count;
  data_[position_] = '\0';
  length_ = position_;
  return static_cast<int>(count);
}

int64_t BufferDataSource::Seek(int64_t offset, int origin) {
  int64_t target = SeekTarget(offset, origin, position_, length_);
  if (target >= 0) position_ = target;
  return target;
}

}  // namespace corvane
