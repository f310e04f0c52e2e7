#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// Reader of "config.ini". Lines are kept as read (at most 512 bytes each; a
// longer line is taken as several). A line whose blank-trimmed text starts with
// "[" and ends with "]" opens a section; a key is the trimmed text before the
// first "=" of a line in that section. Section and key names match without
// regard to case, and one pair of quotes around a value is removed.
class IniFile {
 public:
  static constexpr size_t kMaxLine = 512;

  IniFile() = default;
  explicit IniFile(const std::string& path) { Open(path); }

  // Reads the file; false when it cannot be read (every key is then absent).
  bool Open(const std::string& path);

  // The value text of `key` in `section`, or nothing when either is absent.
  std::optional<std::string> Get(std::string_view section, std::string_view key) const;

 private:
  std::vector<std::string> lines_;
};

}  // namespace corvane
