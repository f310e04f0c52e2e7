#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// A growable byte buffer kept as the chunks it was appended in, with a read
// position that walks across them. It holds the bytes of a binary field, which
// arrive as one or more entries of any byte values.
class wxByteStream {
 public:
  wxByteStream() = default;
  // A stream that refuses any append that would take it past `capacity`
  // bytes; 0 means no limit.
  explicit wxByteStream(size_t capacity) : capacity_(capacity) {}

  // Appends a copy of `bytes` as a new chunk. False, and nothing appended,
  // when the capacity limit would be exceeded. Appending nothing succeeds.
  bool Append(std::string_view bytes);

  // Copies up to `count` bytes from the read position into `out` and moves the
  // position past them; returns how many were copied (0 at the end).
  size_t Read(char* out, size_t count);
  // Moves the read position back to the first byte.
  void Rewind();

  // All bytes, in the order they were appended, whatever the read position.
  std::string Contents() const;

  size_t Size() const { return size_; }
  size_t ChunkCount() const { return chunks_.size(); }
  size_t Capacity() const { return capacity_; }

  // Drops every byte; the capacity limit stays.
  void Clear();

 private:
  std::vector<std::string> chunks_;
  size_t size_ = 0;
  size_t capacity_ = 0;
  size_t readChunk_ = 0;
  size_t readOffset_ = 0;
};

}  // namespace corvane
