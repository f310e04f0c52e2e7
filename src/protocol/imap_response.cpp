#include "protocol/imap_response.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "base/ascii_text.h"
#include "base/limits.h"

namespace corvane {
namespace {

bool IsStatus(const std::string& word) {
  for (const char* name : {"OK", "NO", "BAD", "BYE", "PREAUTH"}) {
    if (SameText(word, name)) return true;
  }
  return false;
}

std::string Upper(std::string text) {
  for (char& c : text) c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
  return text;
}

// Reads one response, a line at a time; the elements are built by recursive
// descent, and a literal's bytes come in between two lines of the same
// element list.
class Parser {
 public:
  Parser(ImapByteSource& source, ImapResponse& out, const ImapLiteralTap& tap)
      : source_(source), out_(out), tap_(tap) {}

  ImapRead Run() {
    out_.Clear();
    if (!NextLine()) return result_;
    if (line_.starts_with('+')) {
      out_.type = ImapResponse::Type::kContinuation;
      out_.text = line_.substr(std::min<size_t>(line_.size(), 2));
      return ImapRead::kOk;
    }
    std::string first = Word();
    if (first.empty() || !Space()) return ImapRead::kMalformed;
    if (first != "*") {
      out_.type = ImapResponse::Type::kTagged;
      out_.tag = std::move(first);
    }
    const size_t start = at_;
    std::string word = Word();
    if (IsStatus(word)) {
      out_.status = Upper(std::move(word));
      Space();
      if (at_ < line_.size() && line_[at_] == '[') {
        ++at_;
        if (!List(out_.code, ']', 1)) return result_;
        Space();
      }
      out_.text = line_.substr(at_);
      return ImapRead::kOk;
    }
    // Only a status may carry a tag.
    if (out_.type == ImapResponse::Type::kTagged || word.empty()) return ImapRead::kMalformed;
    at_ = start;
    return List(out_.items, '\0', 1) ? ImapRead::kOk : result_;
  }

 private:
  bool Fail(ImapRead why) {
    result_ = why;
    return false;
  }

  bool NextLine() {
    switch (source_.ReadLine(line_, limits::kMaxReplyLineBytes)) {
      case ImapByteSource::Line::kComplete:
        break;
      case ImapByteSource::Line::kEnded:
        return Fail(ImapRead::kEnded);
      case ImapByteSource::Line::kTooLong:
        return Fail(ImapRead::kTooLong);
    }
    at_ = 0;
    return Hold(line_.size() + 2);
  }

  // Counts `bytes` more held in memory for this response.
  bool Hold(size_t bytes) {
    held_ += bytes;
    return held_ <= limits::kMaxImapResponseBytes || Fail(ImapRead::kTooLarge);
  }

  bool Space() {
    if (at_ >= line_.size() || line_[at_] != ' ') return false;
    ++at_;
    return true;
  }

  // A tag or the first word: up to the next space.
  std::string Word() {
    size_t end = std::min(line_.find(' ', at_), line_.size());
    std::string word = line_.substr(at_, end - at_);
    at_ = end;
    return word;
  }

  // Elements up to `close` (')' or ']'; '\0': the end of the response).
  bool List(std::vector<ImapItem>& into, char close, int depth) {
    for (;;) {
      while (at_ < line_.size() && line_[at_] == ' ') ++at_;
      if (at_ >= line_.size()) return close == '\0' || Fail(ImapRead::kMalformed);
      const char c = line_[at_];
      if (c == close) {
        ++at_;
        return true;
      }
      if (c == ')' || c == ']') return Fail(ImapRead::kMalformed);
      if (++items_ > limits::kMaxImapItems) return Fail(ImapRead::kTooMany);
      ImapItem& item = into.emplace_back();
      if (c == '(') {
        if (depth >= limits::kMaxImapDepth) return Fail(ImapRead::kTooDeep);
        ++at_;
        item.kind = ImapItem::Kind::kList;
        if (!List(item.items, ')', depth + 1)) return false;
      } else if (c == '"') {
        if (!Quoted(item)) return false;
      } else if (c == '{') {
        // A response code is text of its line: it has no literals.
        if (close == ']') return Fail(ImapRead::kMalformed);
        if (!Literal(into)) return false;
      } else {
        Atom(item, close);
      }
    }
  }

  bool Quoted(ImapItem& item) {
    item.kind = ImapItem::Kind::kQuoted;
    for (++at_; at_ < line_.size(); ++at_) {
      char c = line_[at_];
      if (c == '"') {
        ++at_;
        return true;
      }
      if (c == '\\' && ++at_ >= line_.size()) break;
      item.text += line_[at_];
    }
    return Fail(ImapRead::kMalformed);
  }

  void Atom(ImapItem& item, char close) {
    const size_t start = at_;
    for (int brackets = 0; at_ < line_.size(); ++at_) {
      char c = line_[at_];
      // A section (BODY[HEADER.FIELDS (FROM TO)]) is part of its atom,
      // spaces and parentheses with it; a response code's ']' is not.
      if (c == '[' && close != ']') ++brackets;
      if (c == ']' && brackets > 0) {
        --brackets;
        continue;
      }
      if (brackets == 0 && (c == ' ' || c == '(' || c == ')' || c == ']' || c == '"')) break;
    }
    item.text = line_.substr(start, at_ - start);
    if (SameText(item.text, "NIL")) {
      item.kind = ImapItem::Kind::kNil;
      item.text.clear();
    } else if (!item.text.empty() && item.text.size() <= 19 &&
               item.text.find_first_not_of("0123456789") == std::string::npos) {
      item.kind = ImapItem::Kind::kNumber;
      for (char d : item.text) item.number = item.number * 10 + static_cast<uint64_t>(d - '0');
    }
  }

  // "{n}" at the end of the line, then n bytes, then the next line goes on
  // with the same list. The item is the last of `into`.
  bool Literal(std::vector<ImapItem>& into) {
    ImapItem& item = into.back();
    item.kind = ImapItem::Kind::kLiteral;
    size_t close = line_.find('}', at_);
    std::string_view digits(line_);
    digits = digits.substr(at_ + 1, close == std::string::npos ? 0 : close - at_ - 1);
    if (!digits.empty() && digits.back() == '+') digits.remove_suffix(1);
    if (close != line_.size() - 1 || digits.empty() || digits.size() > 19 ||
        digits.find_first_not_of("0123456789") != std::string_view::npos) {
      return Fail(ImapRead::kMalformed);
    }
    for (char d : digits) item.number = item.number * 10 + static_cast<uint64_t>(d - '0');
    const uint64_t size = item.number;
    ImapLiteralSink* sink = nullptr;
    if (tap_) sink = tap_(into, size);
    if (sink == nullptr && size > limits::kMaxImapLiteralBytes) return Fail(ImapRead::kTooLarge);
    const size_t room =
        limits::kMaxImapResponseBytes - std::min(held_, limits::kMaxImapResponseBytes);
    const uint64_t keep = sink ? 0 : std::min<uint64_t>({size, limits::kMaxHeaderBytes, room});
    std::array<char, 16 * 1024> piece;
    for (uint64_t left = size; left > 0;) {
      size_t n =
          source_.Read(piece.data(), static_cast<size_t>(std::min<uint64_t>(left, piece.size())));
      if (n == 0) return Fail(ImapRead::kEnded);
      if (sink != nullptr && !sink->Write(piece.data(), n)) return Fail(ImapRead::kSinkFailed);
      const uint64_t done = size - left;
      if (done < keep)
        item.text.append(piece.data(), static_cast<size_t>(std::min<uint64_t>(n, keep - done)));
      left -= n;
    }
    item.cut = item.text.size() < size;
    held_ += item.text.size();
    return NextLine();
  }

  ImapByteSource& source_;
  ImapResponse& out_;
  const ImapLiteralTap& tap_;
  std::string line_;
  size_t at_ = 0;
  size_t items_ = 0;
  size_t held_ = 0;
  ImapRead result_ = ImapRead::kMalformed;
};

}  // namespace

bool ImapItem::IsAtom(std::string_view name) const {
  return kind == Kind::kAtom && SameText(text, name);
}

void ImapResponse::Clear() {
  *this = ImapResponse();
}

bool ImapResponse::NumberBefore(std::string_view name, uint64_t& number) const {
  if (type != Type::kUntagged || items.size() < 2 || items[0].kind != ImapItem::Kind::kNumber ||
      !items[1].IsAtom(name)) {
    return false;
  }
  number = items[0].number;
  return true;
}

ImapByteSource::Line MemoryByteSource::ReadLine(std::string& line, size_t limit) {
  size_t end = rest_.find('\n');
  if (end == std::string_view::npos || end + 1 > limit) {
    bool tooLong = rest_.size() >= limit;
    rest_.remove_prefix(std::min(rest_.size(), limit));
    return tooLong ? Line::kTooLong : Line::kEnded;
  }
  line.assign(rest_.substr(0, end > 0 && rest_[end - 1] == '\r' ? end - 1 : end));
  rest_.remove_prefix(end + 1);
  return Line::kComplete;
}

size_t MemoryByteSource::Read(char* buffer, size_t length) {
  size_t n = std::min(length, rest_.size());
  std::memcpy(buffer, rest_.data(), n);
  rest_.remove_prefix(n);
  return n;
}

ImapRead ReadImapResponse(ImapByteSource& source, ImapResponse& out, const ImapLiteralTap& tap) {
  return Parser(source, out, tap).Run();
}

}  // namespace corvane
