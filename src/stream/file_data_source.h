#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "stream/data_source.h"

namespace corvane {

// A data source over a file on disk, read through a line buffer of a size
// fixed at construction (the callers use 4096 bytes). Bytes the line buffer
// holds ahead of the caller are served first by Read and ReadLine and are
// given back to the file by Write and Seek, so lines and blocks can be mixed
// without losing or repeating a byte.
class FileDataSource : public DataSource {
 public:
  static constexpr int kDefaultLineBufferSize = 4096;

  // `lineBufferSize` below 2 is taken as 2 (one byte of line and its NUL).
  explicit FileDataSource(std::string fileName, int lineBufferSize = kDefaultLineBufferSize);

  // Same file name and line-buffer size, closed.
  std::unique_ptr<DataSource> Clone() const override;
  // Mode 0 opens an existing file for reading; mode 1 creates or truncates it
  // for reading and writing; mode 2 opens or creates it for reading and
  // writing and moves to its end. An empty file name gives -1.
  int Open(int mode) override;
  int Close() override;
  int ReadLine(char* buffer, int max) override;
  int WriteLine(const char* text) override;
  int Read(char* buffer, int n) override;
  int Write(const char* buffer, int n) override;
  int64_t Seek(int64_t offset, int origin) override;

 private:
  struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
  };
  enum class LastOp { kNone, kRead, kWrite };

  // stdio needs a positioning call between reading and writing on one
  // stream; these make it, and PrepareWrite gives held bytes back first.
  void PrepareRead();
  bool PrepareWrite();
  // Moves the held bytes to the front and reads into the free part of the
  // line buffer (its size minus one minus what is held).
  void Refill();
  void Drop(size_t count);

  std::unique_ptr<FILE, FileCloser> file_;
  std::vector<char> lineBuffer_;
  size_t start_ = 0;  // first held byte in lineBuffer_
  size_t held_ = 0;   // bytes read from the file but not yet given out
  LastOp lastOp_ = LastOp::kNone;
};

}  // namespace corvane
