#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "stream/data_source.h"

namespace corvane {

// A data source over a memory-mapped file that grows as it is written; also
// the program's temporary store. While open, the file is as long as the
// mapped size; Close cuts it back to the data length. Lines and blocks are
// read as from the buffer kind.
class MappedFileDataSource : public DataSource {
 public:
  // Sets the mapped size and the data length to `initialSize`. Without a
  // path, makes a unique file "Map..." in $TMPDIR (default /tmp) and deletes
  // it on destruction; with a path, uses that file and keeps it.
  explicit MappedFileDataSource(int64_t initialSize = 0, std::string label = {},
                                std::string path = {});
  ~MappedFileDataSource() override;

  // A closed source over the same file, made with the data length as its
  // initial size; it never deletes the file.
  std::unique_ptr<DataSource> Clone() const override;
  // Closes first, then opens the file for reading and writing, exclusively
  // (a second open of the file while this one is open fails), creating it
  // unless the mode is 0, and maps it whole (read-only in mode 0). A mapped
  // size of 0 becomes the file's size; mode 1 starts with no data, mode 2
  // with the file's data and the position at its end, mode 0 with the mapped
  // size as data. The growth step is an eighth of the mapped size, at least
  // 4096; mode 2, and mode 1 on an empty file, add one step at once.
  int Open(int mode) override;
  // Unmaps, cuts the file to the data length and closes it; the mapped size
  // becomes the data length. -1 if any step failed.
  int Close() override;
  int ReadLine(char* buffer, int max) override;
  int WriteLine(const char* text) override;
  int Read(char* buffer, int n) override;
  // -1 for a null buffer, a closed source or mode 0. A write past the mapped
  // size grows it by the growth step, or more when the write needs more, and
  // maps the file again; 0 when that fails. Otherwise n.
  int Write(const char* buffer, int n) override;
  int64_t Seek(int64_t offset, int origin) override;

  // The file in use (the temporary file's name when made without a path;
  // empty when no temporary file could be made).
  const std::string& Path() const { return path_; }

 private:
  bool IsOpen() const { return fd_ >= 0; }
  bool Grow(int64_t newSize);

  std::string path_;
  int fd_ = -1;
  char* view_ = nullptr;
  int64_t mappedSize_;
  int64_t position_ = 0;
  int64_t length_;
  int64_t growthStep_ = 0;
  int lastMode_ = kOpenRead;
  bool deleteOnDestruction_ = false;
};

}  // namespace corvane
