#include "mime/uuencoded_files.h"

#include <string_view>

#include "mime/gmime_handle.h"

namespace corvane {
namespace {

std::string_view LineContent(std::string_view line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' ' ||
                           line.back() == '\t')) {
    line.remove_suffix(1);
  }
  return line;
}

// The name of a "begin 644 name" line, or empty when the line is not one.
std::string_view BeginName(std::string_view line) {
  line = LineContent(line);
  if (line.substr(0, 6) != "begin ") return {};
  size_t digits = 0;
  while (6 + digits < line.size() && line[6 + digits] >= '0' && line[6 + digits] <= '7') ++digits;
  if (digits < 3 || digits > 4 || 6 + digits >= line.size() || line[6 + digits] != ' ') return {};
  std::string_view name = line.substr(7 + digits);
  while (!name.empty() && (name.front() == ' ' || name.front() == '\t')) name.remove_prefix(1);
  return name;
}

// True when the line can be a line of uuencoded data: its first character
// gives a byte count, and enough characters of the encoding alphabet follow
// to carry that many bytes.
bool IsDataLine(std::string_view line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  if (line.empty()) return false;
  for (char c : line) {
    if (c < ' ' || c > '`') return false;
  }
  size_t count = static_cast<size_t>((line[0] - ' ') & 0x3F);
  return line.size() - 1 >= (count * 4 + 2) / 3;
}

std::string Decode(std::string_view encoded) {
  std::string lines;  // the decoder wants bare line feeds
  for (char c : encoded) {
    if (c != '\r') lines += c;
  }
  std::string bytes(lines.size(), '\0');
  int state = GMIME_UUDECODE_STATE_BEGIN;
  guint32 save = 0;
  size_t n = g_mime_encoding_uudecode_step(
      reinterpret_cast<const unsigned char*>(lines.data()), lines.size(),
      reinterpret_cast<unsigned char*>(bytes.data()), &state, &save);
  bytes.resize(n);
  return bytes;
}

}  // namespace

std::vector<UuencodedFile> ExtractUuencodedFiles(std::string& text, size_t maxFiles) {
  std::vector<UuencodedFile> files;
  if (text.find("begin ") == std::string::npos) return files;
  std::string rest;  // the text without the files
  size_t at = 0;
  while (at < text.size()) {
    size_t lineEnd = text.find('\n', at);
    lineEnd = lineEnd == std::string::npos ? text.size() : lineEnd + 1;
    std::string_view line(text.data() + at, lineEnd - at);
    std::string_view name = files.size() < maxFiles ? BeginName(line) : std::string_view();
    if (name.empty()) {
      rest += line;
      at = lineEnd;
      continue;
    }
    // The file runs to its "end" line; without one, or with a line that
    // cannot be uuencoded data, the "begin" line was only text.
    size_t dataBegin = lineEnd;
    size_t dataEnd = std::string::npos;
    size_t blockEnd = std::string::npos;
    for (size_t scan = dataBegin; scan < text.size();) {
      size_t next = text.find('\n', scan);
      next = next == std::string::npos ? text.size() : next + 1;
      std::string_view dataLine(text.data() + scan, next - scan);
      if (LineContent(dataLine) == "end") {
        dataEnd = scan;
        blockEnd = next;
        break;
      }
      if (!IsDataLine(dataLine)) break;
      scan = next;
    }
    if (blockEnd == std::string::npos) {
      rest += line;
      at = lineEnd;
      continue;
    }
    files.push_back(
        {std::string(name), Decode(std::string_view(text).substr(dataBegin, dataEnd - dataBegin))});
    at = blockEnd;
  }
  text = std::move(rest);
  return files;
}

}  // namespace corvane
