#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace corvane {

// One piece of bytes in a connection's receive or send queue; the queue owns
// it. A reader that takes only the front of a chunk consumes it in place
// instead of moving the rest down.
class DataChunk {
 public:
  DataChunk(const char* bytes, size_t length) : bytes_(bytes, length) {}
  explicit DataChunk(std::string bytes) : bytes_(std::move(bytes)) {}

  const char* data() const { return bytes_.data() + offset_; }
  size_t size() const { return bytes_.size() - offset_; }

  // Drops `n` bytes (at most size()) from the front.
  void Consume(size_t n) { offset_ += n; }

  // The bytes not yet consumed, moved out.
  std::string Release() && {
    if (offset_ != 0) bytes_.erase(0, offset_);
    offset_ = 0;
    return std::move(bytes_);
  }

 private:
  std::string bytes_;
  size_t offset_ = 0;
};

}  // namespace corvane
