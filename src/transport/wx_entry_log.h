#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// The recorder of container entries. While recording is on, every entry given
// to it is kept, in order, in the plain serialized form that the container's
// reader replays: the tag as one digit "0".."6", then the name and the value as
// counted strings. Answers are built on a log of their own and serialized
// without ever being read back.
class wxEntryLog {
 public:
  static constexpr unsigned kMaxTag = 6;

  void SetRecording(bool on) { recording_ = on; }
  bool IsRecording() const { return recording_; }

  // Records an entry whose name and value are already counted strings (only
  // while recording). Each is stored in its shortest well-formed encoding, so
  // a malformed or cut-short counted string cannot swallow the entries that
  // follow it in the serialized log. Tags above 6 are not recorded.
  void Record(unsigned tag, std::string_view countedName, std::string_view countedValue);

  // Encodes plain texts as counted strings (nothing or an empty text is written
  // "10") and records the entry (only while recording).
  void AddEntryText(unsigned tag, std::optional<std::string_view> name,
                    std::optional<std::string_view> value);

  // The exact size of what Serialize would return.
  uint32_t TotalLength() const { return static_cast<uint32_t>(entries_.size()); }
  uint32_t EntryCount() const { return count_; }

  // The recorded entries in order; the log is empty afterwards. An empty
  // result means nothing was recorded.
  std::string Serialize();

  void Clear();

 private:
  std::string entries_;
  uint32_t count_ = 0;
  bool recording_ = false;
};

}  // namespace corvane
