#include "transport/wx_byte_stream.h"

#include <algorithm>

namespace corvane {

bool wxByteStream::Append(std::string_view bytes) {
  if (bytes.empty()) return true;
  if (capacity_ != 0 && (size_ > capacity_ || bytes.size() > capacity_ - size_)) return false;
  chunks_.emplace_back(bytes);
  size_ += bytes.size();
  return true;
}

size_t wxByteStream::Read(char* out, size_t count) {
  size_t copied = 0;
  while (copied < count && readChunk_ < chunks_.size()) {
    const std::string& chunk = chunks_[readChunk_];
    size_t take = std::min(count - copied, chunk.size() - readOffset_);
    std::copy_n(chunk.data() + readOffset_, take, out + copied);
    copied += take;
    readOffset_ += take;
    if (readOffset_ == chunk.size()) {
      ++readChunk_;
      readOffset_ = 0;
    }
  }
  return copied;
}

void wxByteStream::Rewind() {
  readChunk_ = 0;
  readOffset_ = 0;
}

std::string wxByteStream::Contents() const {
  std::string all;
  all.reserve(size_);
  for (const std::string& chunk : chunks_) all += chunk;
  return all;
}

void wxByteStream::Clear() {
  chunks_.clear();
  size_ = 0;
  Rewind();
}

}  // namespace corvane
