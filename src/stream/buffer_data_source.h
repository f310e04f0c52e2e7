#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "stream/data_source.h"

namespace corvane {

// A data source over a fixed-capacity memory buffer. Writing past the
// capacity is cut off without an error, and every write leaves a NUL behind
// the data, which ends at the position of the last write.
class BufferDataSource : public DataSource {
 public:
  // Owns a zeroed buffer of capacity + 1 bytes.
  explicit BufferDataSource(int64_t capacity, std::string label = {});
  // Works in the caller's buffer, which must have room for capacity + 1 bytes
  // (the NUL behind a full buffer) and outlive this object; a null buffer
  // makes the source own its memory as above.
  BufferDataSource(char* buffer, int64_t capacity, std::string label = {});

  // A source owning a copy of the data (same capacity, label and data length).
  std::unique_ptr<DataSource> Clone() const override;
  // The data length becomes the length of the NUL-terminated content; mode 0
  // puts the position at 0, mode 2 at the end, and mode 1 empties the data.
  // Always 0.
  int Open(int mode) override;
  int Close() override { return 0; }
  // Read(buffer, max - 1) cut behind the first carriage return (and a line
  // feed right after it); the position moves back by what was cut.
  int ReadLine(char* buffer, int max) override;
  int WriteLine(const char* text) override;
  int Read(char* buffer, int n) override;
  int Write(const char* buffer, int n) override;
  int64_t Seek(int64_t offset, int origin) override;

  // The bytes from the start to the data length.
  std::string_view Data() const { return std::string_view(data_, static_cast<size_t>(length_)); }

 private:
  std::vector<char> owned_;
  char* data_;
  int64_t capacity_;
  int64_t length_ = 0;
  int64_t position_ = 0;
};

}  // namespace corvane
