#include "mime/encoded_words.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>

#include "base/ascii_text.h"
#include "base/base64_text.h"
#include "mime/gmime_handle.h"

namespace corvane {
namespace {

constexpr size_t kMaxWordLength = 75;

bool IsLinearSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// One encoded word found in a text: where it lies and what it says.
struct EncodedWord {
  size_t begin = 0;
  size_t end = 0;  // one past the closing "?="
  std::string_view charset;
  char encoding = 'B';
  std::string_view payload;
};

// Reading is lenient about the charset (any printable run without '?'), but
// a word must have both delimiters, a known encoding and no whitespace.
std::optional<EncodedWord> WordAt(std::string_view text, size_t begin) {
  if (text.compare(begin, 2, "=?") != 0) return std::nullopt;
  size_t charsetEnd = text.find('?', begin + 2);
  if (charsetEnd == std::string_view::npos || charsetEnd == begin + 2) return std::nullopt;
  std::string_view charset = text.substr(begin + 2, charsetEnd - begin - 2);
  for (char c : charset) {
    if (static_cast<unsigned char>(c) <= ' ' || static_cast<unsigned char>(c) >= 0x7F) {
      return std::nullopt;
    }
  }
  if (charsetEnd + 2 >= text.size() || text[charsetEnd + 2] != '?') return std::nullopt;
  char encoding = static_cast<char>(g_ascii_toupper(text[charsetEnd + 1]));
  if (encoding != 'B' && encoding != 'Q') return std::nullopt;
  size_t payloadBegin = charsetEnd + 3;
  size_t payloadEnd = text.find('?', payloadBegin);
  if (payloadEnd == std::string_view::npos || payloadEnd + 1 >= text.size() ||
      text[payloadEnd + 1] != '=') {
    return std::nullopt;
  }
  std::string_view payload = text.substr(payloadBegin, payloadEnd - payloadBegin);
  for (char c : payload) {
    if (IsLinearSpace(c)) return std::nullopt;
  }
  size_t language = charset.find('*');
  if (language != std::string_view::npos) charset = charset.substr(0, language);
  return EncodedWord{begin, payloadEnd + 2, charset, encoding, payload};
}

std::optional<EncodedWord> NextWord(std::string_view text, size_t from) {
  for (size_t at = text.find("=?", from); at != std::string_view::npos;
       at = text.find("=?", at + 1)) {
    if (auto word = WordAt(text, at)) return word;
  }
  return std::nullopt;
}

void AppendBase64Decoded(std::string_view payload, std::string& out) {
  // Broken senders leave out the padding or let stray characters in: keep
  // the alphabet, pad the last group, and decode what there is.
  std::string clean;
  for (char c : payload) {
    if (g_ascii_isalnum(c) || c == '+' || c == '/') clean += c;
  }
  if (clean.size() % 4 == 1) clean.pop_back();  // six bits make no byte
  while (clean.size() % 4 != 0) clean += '=';
  size_t start = out.size();
  out.resize(start + clean.size() / 4 * 3 + 3);
  int state = 0;
  guint32 save = 0;
  size_t n = g_mime_encoding_base64_decode_step(
      reinterpret_cast<const unsigned char*>(clean.data()), clean.size(),
      reinterpret_cast<unsigned char*>(out.data() + start), &state, &save);
  out.resize(start + n);
}

void AppendQDecoded(std::string_view payload, std::string& out) {
  for (size_t i = 0; i < payload.size(); ++i) {
    char c = payload[i];
    if (c == '_') {
      out += ' ';
    } else if (c == '=' && i + 2 < payload.size() && HexValue(payload[i + 1]) >= 0 &&
               HexValue(payload[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(payload[i + 1]) * 16 + HexValue(payload[i + 2]));
      i += 2;
    } else {
      out += c;  // a stray '=' stays as it is
    }
  }
}

// How a charset groups bytes into characters, so that a word never ends
// inside one.
enum class CharsetShape { kSingleByte, kUtf8, kDoubleByte, kGb18030, kShiftJis, kEucJp, kStateful };

bool NameIs(std::string_view charset, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    if (SameText(name, charset)) return true;
  }
  return false;
}

CharsetShape ShapeOf(std::string_view charset) {
  if (NameIs(charset, {"utf-8", "utf8"})) return CharsetShape::kUtf8;
  if (NameIs(charset,
             {"gb2312", "gbk", "cp936", "x-gbk", "euc-cn", "chinese", "big5", "big5-hkscs", "cp950",
              "x-big5", "euc-kr", "ks_c_5601-1987", "cp949", "korean", "uhc", "windows-949"})) {
    return CharsetShape::kDoubleByte;
  }
  if (NameIs(charset, {"gb18030"})) return CharsetShape::kGb18030;
  if (NameIs(charset, {"shift_jis", "shift-jis", "sjis", "cp932", "windows-31j", "x-sjis"})) {
    return CharsetShape::kShiftJis;
  }
  if (NameIs(charset, {"euc-jp", "x-euc-jp"})) return CharsetShape::kEucJp;
  auto startsWith = [&](std::string_view prefix) { return StartsWithText(charset, prefix); };
  if (startsWith("iso-2022") || startsWith("hz") || startsWith("utf-7") || startsWith("utf-16") ||
      startsWith("utf-32") || startsWith("ucs")) {
    return CharsetShape::kStateful;
  }
  return CharsetShape::kSingleByte;
}

// The byte length of the character at `at`, never past the end of `text`.
size_t CharLength(CharsetShape shape, std::string_view text, size_t at) {
  auto lead = static_cast<unsigned char>(text[at]);
  size_t length = 1;
  switch (shape) {
    case CharsetShape::kSingleByte:
      break;
    case CharsetShape::kStateful:
      length = text.size() - at;
      break;
    case CharsetShape::kUtf8:
      length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
      break;
    case CharsetShape::kDoubleByte:
      length = lead >= 0x81 && lead <= 0xFE ? 2 : 1;
      break;
    case CharsetShape::kGb18030:
      if (lead >= 0x81 && lead <= 0xFE) {
        bool four = at + 1 < text.size() && text[at + 1] >= '0' && text[at + 1] <= '9';
        length = four ? 4 : 2;
      }
      break;
    case CharsetShape::kShiftJis:
      length = (lead >= 0x81 && lead <= 0x9F) || (lead >= 0xE0 && lead <= 0xFC) ? 2 : 1;
      break;
    case CharsetShape::kEucJp:
      length = lead == 0x8F ? 3 : lead == 0x8E || lead >= 0xA1 ? 2 : 1;
      break;
  }
  return std::min(length, text.size() - at);
}

bool IsQSafe(unsigned char c) {
  return g_ascii_isalnum(c) || c == '!' || c == '*' || c == '+' || c == '-' || c == '/';
}

size_t QLength(std::string_view bytes) {
  size_t length = 0;
  for (char c : bytes) {
    auto byte = static_cast<unsigned char>(c);
    length += IsQSafe(byte) || byte == ' ' ? 1 : 3;
  }
  return length;
}

void AppendQEncoded(std::string_view bytes, std::string& out) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (char c : bytes) {
    auto byte = static_cast<unsigned char>(c);
    if (byte == ' ') {
      out += '_';
    } else if (IsQSafe(byte)) {
      out += c;
    } else {
      out += '=';
      out += kHex[byte >> 4];
      out += kHex[byte & 0x0F];
    }
  }
}

bool IsCharsetCharacter(char c) {
  // A token of RFC 2047: printable, no space and none of its specials.
  static constexpr std::string_view kSpecials = "()<>@,;:\"/[]?.=";
  auto byte = static_cast<unsigned char>(c);
  return byte > ' ' && byte < 0x7F && kSpecials.find(c) == std::string_view::npos;
}

}  // namespace

bool HasEncodedWords(std::string_view text) {
  return NextWord(text, 0).has_value();
}

DecodedText DecodeEncodedWords(std::string_view text) {
  DecodedText result;
  size_t copied = 0;  // text before this is in the result
  bool afterWord = false;
  while (auto word = NextWord(text, copied)) {
    std::string_view between = text.substr(copied, word->begin - copied);
    bool onlySpace = true;
    for (char c : between) onlySpace = onlySpace && IsLinearSpace(c);
    if (!(afterWord && onlySpace)) result.text += between;
    if (result.charset.empty()) result.charset = std::string(word->charset);
    if (word->encoding == 'B') {
      AppendBase64Decoded(word->payload, result.text);
    } else {
      AppendQDecoded(word->payload, result.text);
    }
    copied = word->end;
    afterWord = true;
  }
  result.text += text.substr(copied);
  return result;
}

int EncodeWords(std::string_view text, std::string_view charset, char encoding, std::string& out) {
  out.clear();
  char type = static_cast<char>(g_ascii_toupper(encoding));
  if (type != 'B' && type != 'Q') return kEncodeWrongType;
  if (charset.empty()) return kEncodeBadCharset;
  for (char c : charset) {
    if (!IsCharsetCharacter(c)) return kEncodeBadCharset;
  }
  if (charset.size() > kMaxCharsetName) return kEncodeCharsetTooLong;

  const std::string prefix = "=?" + std::string(charset) + "?" + type + "?";
  const size_t room = kMaxWordLength - prefix.size() - 2;  // 2 for "?="
  const CharsetShape shape = ShapeOf(charset);
  auto encodedLength = [&](std::string_view bytes) {
    return type == 'B' ? (bytes.size() + 2) / 3 * 4 : QLength(bytes);
  };

  size_t wordBegin = 0;
  while (wordBegin < text.size()) {
    // Take whole characters while the encoded word still fits; a character
    // too long for any word goes alone.
    size_t wordEnd = wordBegin + CharLength(shape, text, wordBegin);
    while (wordEnd < text.size()) {
      size_t next = wordEnd + CharLength(shape, text, wordEnd);
      if (encodedLength(text.substr(wordBegin, next - wordBegin)) > room) break;
      wordEnd = next;
    }
    if (!out.empty()) out += ' ';
    out += prefix;
    std::string_view chunk = text.substr(wordBegin, wordEnd - wordBegin);
    if (type == 'B') {
      out += Base64Encode(chunk);
    } else {
      AppendQEncoded(chunk, out);
    }
    out += "?=";
    wordBegin = wordEnd;
  }
  return kEncodeOk;
}

}  // namespace corvane
