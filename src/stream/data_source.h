#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace corvane {

// A byte container read and written by lines or by blocks, so that
// the protocol clients and the message model can stream a message without
// caring whether it lives in a file, in memory or in a growable mapped file.
// Texts are NUL-terminated byte strings; every operation reports failure by
// its return value. A source is used by one thread at a time.
class DataSource {
 public:
  enum OpenMode { kOpenRead = 0, kOpenWrite = 1, kOpenAppend = 2 };
  enum SeekOrigin { kSeekStart = 0, kSeekCurrent = 1, kSeekEnd = 2 };

  virtual ~DataSource() = default;
  DataSource(const DataSource&) = delete;
  DataSource& operator=(const DataSource&) = delete;

  // A new, closed source of the same kind over the same data (see each kind).
  virtual std::unique_ptr<DataSource> Clone() const = 0;
  // kOpenRead, kOpenWrite (start empty) or kOpenAppend (keep, go to the end);
  // 0, or -1 on failure or an unknown mode.
  virtual int Open(int mode) = 0;
  // 0, or -1 on failure. Closing a closed source does nothing and gives 0.
  virtual int Close() = 0;
  // One line into `buffer` (room for `max` bytes, NUL included), keeping its
  // "\r\n"; a line too long for `max` comes in pieces of at most max - 1
  // bytes. The length, 0 at the end, -1 for a null buffer or a max below 1.
  virtual int ReadLine(char* buffer, int max) = 0;
  // Writes `text`, then "\r\n" unless the text ends in one. The length of the
  // text, or a negative value when the write failed (a null text gives -1).
  virtual int WriteLine(const char* text) = 0;
  // Up to `n` bytes, NUL-terminated behind them (`buffer` has n + 1 bytes of
  // room). The count, 0 at the end, -1 for a null buffer or a negative n.
  virtual int Read(char* buffer, int n) = 0;
  // The count written, -1 on failure.
  virtual int Write(const char* buffer, int n) = 0;
  // kSeekStart: to `offset`; kSeekCurrent: `offset` from the position;
  // kSeekEnd: `offset` back from the end (size minus offset). The new
  // position, or -1 (position unchanged) when it would lie outside the data.
  virtual int64_t Seek(int64_t offset, int origin) = 0;

  // The file name or label the source was made with.
  const std::string& Name() const { return name_; }

 protected:
  explicit DataSource(std::string name) : name_(std::move(name)) {}

  // The position Seek(offset, origin) lands on within data of `length` bytes,
  // or -1 when it lies outside [0, length] or the origin is unknown.
  static int64_t SeekTarget(int64_t offset, int origin, int64_t position, int64_t length) {
    switch (origin) {
      case kSeekStart:
        return offset >= 0 && offset <= length ? offset : -1;
      case kSeekCurrent:
        return offset >= -position && offset <= length - position ? position + offset : -1;
      case kSeekEnd:
        return offset >= 0 && offset <= length ? length - offset : -1;
      default:
        return -1;
    }
  }

  // ReadLine of the memory kinds: a block of max - 1 bytes is read and cut
  // behind its first carriage return (and a line feed right behind it, when
  // the block holds one), and the position goes back by what was cut;
  // without a carriage return the whole block is the line.
  int ReadLineOfBlock(char* buffer, int max) {
    if (buffer == nullptr || max < 1) return -1;
    int count = Read(buffer, max - 1);
    if (count < 0) return count;
    const void* cr = count > 0 ? std::memchr(buffer, '\r', static_cast<size_t>(count)) : nullptr;
    int length = count;
    if (cr != nullptr) {
      length = static_cast<int>(static_cast<const char*>(cr) - buffer) + 1;
      if (length < count && buffer[length] == '\n') ++length;
    }
    buffer[length] = '\0';
    if (length < count) Seek(length - count, kSeekCurrent);
    return length;
  }

  static bool EndsWithLineEnd(std::string_view text) {
    return text.size() >= 2 && text.substr(text.size() - 2) == "\r\n";
  }

 private:
  std::string name_;
};

}  // namespace corvane
