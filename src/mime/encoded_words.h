#pragma once

#include <string>
#include <string_view>

namespace corvane {

// Header text with its encoded words ("=?charset?B?...?=" and
// "=?charset?Q?...?=") decoded to the bytes they carry, and the charset those
// bytes are in. No charset conversion happens here: the caller converts.
struct DecodedText {
  std::string text;
  std::string charset;  // of the first encoded word; empty when there is none
};

// True when `text` holds at least one well-formed encoded word.
bool HasEncodedWords(std::string_view text);

// `text` with every well-formed encoded word replaced by its raw decoded
// bytes. Whitespace between two adjacent encoded words is dropped, so a
// character split across words comes back whole; all other text is kept
// byte for byte. A language suffix on the charset ("gb2312*zh") is dropped.
// Words in several charsets all decode, but only the first charset is named.
DecodedText DecodeEncodedWords(std::string_view text);

// Result codes of EncodeWords, named as the result-code table words them.
enum EncodeWordsCode : int {
  kEncodeOk = 0,
  kEncodeWrongType = 148,       // the encoding is neither 'Q' nor 'B'
  kEncodeBadCharset = 149,      // the charset name holds a character a word cannot
  kEncodeCharsetTooLong = 150,  // the charset name is longer than kMaxCharsetName
};

// The longest charset name EncodeWords accepts, as long as registered
// charset names may be.
inline constexpr size_t kMaxCharsetName = 40;

// Writes `text`, bytes in `charset`, as encoded words with `encoding` 'B'
// (base64) or 'Q' (quoted-printable), either letter case, into `out`. Each
// word is at most 75 characters long and holds whole characters of the
// charset (UTF-8 and the Chinese, Japanese and Korean multi-byte charsets
// are known; a text in a charset that switches state with escapes stays in
// one word); words are separated by one space. An empty text gives an empty
// result. Gives kEncodeOk, or an EncodeWordsCode with `out` left empty.
int EncodeWords(std::string_view text, std::string_view charset, char encoding, std::string& out);

}  // namespace corvane
