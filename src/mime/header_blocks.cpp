#include "mime/header_blocks.h"

#include <cstring>
#include <string_view>

#include "base/ascii_text.h"
#include "base/limits.h"

namespace corvane {
namespace {

using limits::kMaxFieldBytes;
using limits::kMaxHeaderFields;

// Where the colon of a header field starting the line stands, or npos when
// the line starts none. The library reads a field for any name of printable
// or 8-bit bytes, an empty one too, with blanks before the colon.
size_t FieldColon(std::string_view line) {
  size_t i = 0;
  while (i < line.size() && static_cast<unsigned char>(line[i]) > ' ' && line[i] != 0x7F &&
         line[i] != ':')
    ++i;
  while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
  return i < line.size() && line[i] == ':' ? i : std::string_view::npos;
}

// True when the message starts with a header the library reads: a field, or
// the "From " line a mailbox file puts before one. Anything else is read as
// a body behind an empty header, and holds no header at all.
bool OpensHeader(std::string_view line) {
  return (!line.starts_with(':') && FieldColon(line) != std::string_view::npos) ||
         line.starts_with("From ") || line.starts_with(">From ");
}

// A byte the library surely takes in a media type or subtype.
bool IsTypeByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '-' || c == '.' || c == '_';
}

// One pass over the message, compacted in place.
class HeaderBlocks {
 public:
  explicit HeaderBlocks(GByteArray* bytes)
      : bytes_(bytes), data_(reinterpret_cast<char*>(bytes->data)), size_(bytes->len) {}

  void Cap() {
    const bool bare = !OpensHeader(Line(0, LineEnd(0)));
    inHeader_ = !bare;
    while (read_ < size_) {
      const size_t lineEnd = LineEnd(read_);
      const std::string_view line = Line(read_, lineEnd);
      bool kept = true;
      if (line.starts_with("--")) {
        kept = BoundaryLine(line, bare);
      } else if (inHeader_) {
        kept = HeaderLine(line);
      } else {
        Keep(line.size(), line.size());
      }
      if (!kept) {  // cut here
        g_byte_array_set_size(bytes_, static_cast<guint>(write_));
        return;
      }
      read_ = lineEnd;
    }
    if (write_ < size_) g_byte_array_set_size(bytes_, static_cast<guint>(write_));
  }

 private:
  // What one header has shown so far.
  struct Block {
    bool part = false;     // it follows a line starting with "--"
    bool message = false;  // a Content-Type names "message"
    bool typed = false;    // the last Content-Type names a type and subtype
    size_t fields = 0;
  };
  // How far the value of the Content-Type being read names "type/subtype".
  enum TypeState { kLead, kType, kSlash, kNamed, kUnnamed };

  size_t LineEnd(size_t at) const {
    const void* newline = std::memchr(data_ + at, '\n', size_ - at);
    return newline ? static_cast<size_t>(static_cast<const char*>(newline) - data_) + 1 : size_;
  }
  std::string_view Line(size_t at, size_t end) const { return {data_ + at, end - at}; }

  // Keeps the first `keep` bytes of the line being read, and a newline after
  // them when that cuts it.
  void Keep(size_t keep, size_t length) {
    if (write_ != read_) std::memmove(data_ + write_, data_ + read_, keep);
    write_ += keep;
    if (keep > 0 && keep < length) data_[write_++] = '\n';
  }

  bool BoundaryLine(std::string_view line, bool bare) {
    if (++boundaryLines_ > limits::kMaxBoundaryLines) return false;
    // In a header, a line that opens no part is a field of that header when
    // it has the form of one, and the Content-Type read so far still counts.
    const bool field = inHeader_ && FieldColon(line) != std::string_view::npos;
    if (field) {
      if (!OpenField(line, false) || !FieldLine(line, 0)) return false;
    } else {
      Keep(line.size(), line.size());
    }
    if (bare) return true;
    block_ = Block{.part = true, .message = inHeader_ && block_.message};
    inHeader_ = true;
    inField_ = field;
    return true;
  }

  bool HeaderLine(std::string_view line) {
    if (line == "\n" || (line[0] == '\r' && line.size() <= 2)) {  // the header ends
      Keep(line.size(), line.size());
      inHeader_ = block_.message || (block_.part && !block_.typed && digest_);
      block_ = Block();
      inField_ = false;
      return true;
    }
    if (line[0] == ' ' || line[0] == '\t') {
      if (inField_) return FieldLine(line, 0);
      Keep(line.size(), line.size());  // skipped by the library
      return true;
    }
    const size_t colon = FieldColon(line);
    inField_ = colon != std::string_view::npos;
    if (!inField_) {  // skipped by the library
      Keep(line.size(), line.size());
      return true;
    }
    return OpenField(line, true) && FieldLine(line, colon + 1);
  }

  // Counts the field the line starts, in its header when `inBlock`; false
  // when the message has no room for it.
  bool OpenField(std::string_view line, bool inBlock) {
    field_ = 0;
    dropped_ = inBlock && ++block_.fields > kMaxHeaderFields;
    contentType_ = SameText(line.substr(0, line.find_first_of(" \t:")), "Content-Type");
    typeState_ = kLead;
    return dropped_ || ++fields_ <= limits::kMaxMessageHeaderFields;
  }

  // Keeps what the field may keep of one of its lines, its value from
  // `valueAt`; false when the message has no room for it.
  bool FieldLine(std::string_view line, size_t valueAt) {
    size_t keep = line.size();
    if (dropped_) {
      keep = 0;
    } else if (field_ + keep > kMaxFieldBytes) {
      keep = field_ >= kMaxFieldBytes ? 0 : std::min(kMaxFieldBytes - field_, line.size() - 1);
    }
    if (headerBytes_ + keep > limits::kMaxMessageHeaderBytes) return false;
    if (contentType_ && !dropped_) ReadType(line.substr(0, keep), valueAt);
    field_ += keep;
    headerBytes_ += keep;
    Keep(keep, line.size());
    return true;
  }

  void ReadType(std::string_view kept, size_t valueAt) {
    for (size_t i = valueAt; i < kept.size(); ++i) {
      if (StartsWithText(kept.substr(i), "message")) block_.message = true;
      if (StartsWithText(kept.substr(i), "digest")) digest_ = true;
      const char c = kept[i];
      const bool blank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
      switch (typeState_) {
        case kLead:
          typeState_ = blank ? kLead : IsTypeByte(c) ? kType : kUnnamed;
          break;
        case kType:
          typeState_ = IsTypeByte(c) ? kType : c == '/' ? kSlash : kUnnamed;
          break;
        case kSlash:
          typeState_ = IsTypeByte(c) ? kNamed : kUnnamed;
          break;
        default:
          break;
      }
    }
    block_.typed = typeState_ == kNamed;
  }

  GByteArray* bytes_;
  char* data_;
  const size_t size_;
  size_t read_ = 0;
  size_t write_ = 0;
  bool inHeader_ = false;
  Block block_;
  bool inField_ = false;      // the line read belongs to a field
  bool dropped_ = false;      // that field is past its header's bound
  bool contentType_ = false;  // that field is a Content-Type
  TypeState typeState_ = kLead;
  size_t field_ = 0;  // bytes of that field kept so far
  size_t fields_ = 0;
  size_t headerBytes_ = 0;
  size_t boundaryLines_ = 0;
  bool digest_ = false;  // a Content-Type so far named "digest"
};

}  // namespace

void CapHeaderBlocks(GByteArray* bytes) {
  HeaderBlocks(bytes).Cap();
}

}  // namespace corvane
