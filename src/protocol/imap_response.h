#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane {

// One element of an IMAP response: an atom (BODY[HEADER.FIELDS (FROM)]
// included, brackets and all), a number, a quoted string (its escapes
// undone), a literal, NIL, or a parenthesized list of elements.
struct ImapItem {
  enum class Kind { kAtom, kNumber, kQuoted, kLiteral, kNil, kList };
  Kind kind = Kind::kAtom;
  std::string text;             // atom, number digits, quoted or literal bytes kept
  uint64_t number = 0;          // kNumber: its value; kLiteral: the size announced
  bool cut = false;             // kLiteral: fewer bytes kept than announced (or streamed away)
  std::vector<ImapItem> items;  // kList

  bool IsAtom(std::string_view name) const;  // an atom of that name, any case
};

// One whole server response: a line, every literal it announces and the
// lines that follow them.
struct ImapResponse {
  enum class Type { kUntagged, kTagged, kContinuation };
  Type type = Type::kUntagged;
  std::string tag;              // kTagged
  std::string status;           // OK, NO, BAD, BYE or PREAUTH (upper case); empty for data
  std::vector<ImapItem> code;   // the [...] response code of a status, its elements
  std::string text;             // what follows a status (and its code), or a "+"
  std::vector<ImapItem> items;  // a data response: "* 3 EXISTS" is 3, EXISTS

  void Clear();
  // The number before `name` in "* n NAME", when this is such a response.
  bool NumberBefore(std::string_view name, uint64_t& number) const;
};

// Where the reader takes its bytes from: the socket for the client, memory
// for the tests and the fuzz target.
class ImapByteSource {
 public:
  enum class Line { kComplete, kEnded, kTooLong };
  virtual ~ImapByteSource() = default;
  // The next line into `line`, without its line end; kTooLong when `limit`
  // bytes came without a line feed (no more is read), kEnded when the bytes
  // ended (close, time-out) before one.
  virtual Line ReadLine(std::string& line, size_t limit) = 0;
  // Up to `length` bytes of a literal: the count, 0 when no more came.
  virtual size_t Read(char* buffer, size_t length) = 0;
};

class MemoryByteSource : public ImapByteSource {
 public:
  explicit MemoryByteSource(std::string_view bytes) : rest_(bytes) {}
  Line ReadLine(std::string& line, size_t limit) override;
  size_t Read(char* buffer, size_t length) override;
  bool AtEnd() const { return rest_.empty(); }

 private:
  std::string_view rest_;
};

// Takes a literal's bytes instead of the response (a message body): Write
// gets them in pieces, false stops the response (kSinkFailed).
class ImapLiteralSink {
 public:
  virtual ~ImapLiteralSink() = default;
  virtual bool Write(const char* bytes, size_t length) = 0;
};
// Asked for each literal of a data response with the elements of its list
// so far (the last is the literal itself, the one before it its name,
// BODY[] say) and its size: a sink to stream it to, or null to keep it in
// the response.
using ImapLiteralTap =
    std::function<ImapLiteralSink*(const std::vector<ImapItem>& list, uint64_t size)>;

enum class ImapRead {
  kOk,
  kEnded,      // nothing, or not the whole response, came
  kTooLong,    // a line past limits::kMaxReplyLineBytes
  kTooLarge,   // past limits::kMaxImapResponseBytes, or a literal too large to hold
  kTooDeep,    // lists nested past limits::kMaxImapDepth
  kTooMany,    // past limits::kMaxImapItems
  kMalformed,  // not IMAP's syntax
  kSinkFailed,
};

// Reads one response from `source` into `out`. Anything but kOk leaves the
// stream at an unknown place: the session is out of step.
ImapRead ReadImapResponse(ImapByteSource& source, ImapResponse& out,
                          const ImapLiteralTap& tap = nullptr);

}  // namespace corvane
