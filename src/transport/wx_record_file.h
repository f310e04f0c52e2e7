#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// A file of counted-string records, each the codec's encoding of one record
// when enciphering is on. The file is opened and closed for every operation.
class wxRecordFile {
 public:
  explicit wxRecordFile(std::string path) : path_(std::move(path)) {}

  void SetEncipher(bool on) { encipher_ = on; }

  // Appends one record; nothing for empty data. False when the file cannot be
  // written.
  bool AppendRecord(std::string_view data);
  // Appends these records with one opening of the file; false (with those
  // before it written) at the first empty one or when the file cannot be written.
  bool AppendRecords(const std::vector<std::string>& records);
  // The next record from the read offset, decoded; nothing at the end or when
  // the file cannot be opened.
  std::optional<std::string> ReadRecord();
  bool AtEnd() const;
  // Counts the records of length above 0 from the read offset to the end, then
  // rewinds to the start.
  int CountRecords();

  const std::string& Path() const { return path_; }

 private:
  bool encipher_ = false;
  std::string path_;
  uint32_t readOffset_ = 0;
};

}  // namespace corvane
