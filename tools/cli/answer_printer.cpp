#include "answer_printer.h"

#include <cstdio>
#include <vector>

#include "base/base64_text.h"
#include "base/utf8_text.h"
#include "transport/counted_string.h"

namespace corvane::cli {
namespace {

struct Entry {
  unsigned tag;
  std::string name;
  std::string value;
};

std::vector<Entry> ReadEntries(std::string_view bytes) {
  std::vector<Entry> entries;
  size_t position = 0;
  while (position < bytes.size()) {
    Entry entry{static_cast<unsigned>(static_cast<unsigned char>(bytes[position]) - '0'), {}, {}};
    ++position;
    for (std::string* text : {&entry.name, &entry.value}) {
      const char* at = bytes.data() + position;
      size_t available = bytes.size() - position;
      if (auto data = CountedString::DataAt(at, available)) *text = std::string(*data);
      size_t size = CountedString::SizeAt(at, available);
      position += size == 0 ? 1 : size;  // an invalid string is stepped over by its digit
      if (position > bytes.size()) position = bytes.size();
    }
    if (entry.tag <= 6) entries.push_back(std::move(entry));
  }
  return entries;
}

// A JSON string of UTF-8 text: only quotes, backslashes and control bytes
// are escaped.
std::string JsonText(std::string_view text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// A value: UTF-8 text as a string, any other bytes (GB2312 text, binary)
// as {"base64":"..."}, so that a reader gets the exact bytes back.
std::string JsonString(std::string_view bytes) {
  return IsUtf8(bytes) ? JsonText(bytes) : "{\"base64\":\"" + Base64Encode(bytes) + "\"}";
}

std::vector<std::string> SplitValues(const std::string& text) {
  std::vector<std::string> values;
  size_t start = 0;
  for (;;) {
    size_t comma = text.find(',', start);
    values.push_back(text.substr(start, comma - start));
    if (comma == std::string::npos) return values;
    start = comma + 1;
  }
}

// The parts of a value that is wholly a run of two or more counted strings
// (the rows of a listing); nothing for any other value.
std::vector<std::string> CountedParts(std::string_view value) {
  std::vector<std::string> parts;
  size_t position = 0;
  while (position < value.size()) {
    const char* at = value.data() + position;
    size_t available = value.size() - position;
    size_t size = CountedString::SizeAt(at, available);
    std::optional<std::string_view> data = CountedString::DataAt(at, available);
    std::string part(data ? *data : std::string_view());
    // Only a whole string in the gateway's own (shortest) form counts: a
    // truncated one or text that merely starts with digits does not.
    if (size == 0 || CountedString::Encode(part) != value.substr(position, size)) return {};
    parts.push_back(std::move(part));
    position += size;
  }
  if (parts.size() < 2) parts.clear();
  return parts;
}

std::string PlainValue(const std::string& value, bool splitRows) {
  std::vector<std::string> parts = splitRows ? CountedParts(value) : std::vector<std::string>{};
  if (parts.empty()) return value;
  std::string out = parts[0];
  for (size_t k = 1; k < parts.size(); ++k) out += " | " + parts[k];
  return out;
}

std::string RenderTree(const std::vector<Entry>& entries, bool splitRows) {
  std::string out;
  int depth = 0;
  for (const Entry& entry : entries) {
    std::string indent(static_cast<size_t>(depth) * 2, ' ');
    switch (entry.tag) {
      case 1:
        out += indent + entry.name + (entry.value.empty() ? "" : " (" + entry.value + ")") + "\n";
        ++depth;
        break;
      case 2:
        out += indent + entry.name + " = " + PlainValue(entry.value, splitRows) + "\n";
        break;
      case 3:
        out += indent + entry.name + " = [" + entry.value + "]\n";
        break;
      case 4:
        out += indent + entry.name + " = <" + std::to_string(entry.value.size()) + " bytes>\n";
        break;
      case 5:
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return out;
}

std::string RenderJson(const std::vector<Entry>& entries) {
  std::string out = "{";
  std::vector<bool> first = {true};
  auto key = [&](const std::string& name) {
    if (!first.back()) out += ",";
    first.back() = false;
    // Names are the gateway's own ASCII words; other bytes are not kept.
    out += JsonText(IsUtf8(name) ? name : std::string("?")) + ":";
  };
  for (const Entry& entry : entries) {
    switch (entry.tag) {
      case 1:
        key(entry.name);
        out += "{";
        first.push_back(true);
        break;
      case 2:
      case 4:
        key(entry.name);
        out += JsonString(entry.value);
        break;
      case 3: {
        key(entry.name);
        out += "[";
        const char* separator = "";
        for (const std::string& value : SplitValues(entry.value)) {
          out += separator;
          out += JsonString(value);
          separator = ",";
        }
        out += "]";
        break;
      }
      case 5:
        if (first.size() > 1) {
          out += "}";
          first.pop_back();
        }
        break;
      default:
        break;
    }
  }
  for (; first.size() > 1; first.pop_back()) out += "}";
  return out + "}\n";
}

}  // namespace

std::string RenderAnswer(std::string_view bytes, bool json, bool splitRows) {
  std::vector<Entry> entries = ReadEntries(bytes);
  return json ? RenderJson(entries) : RenderTree(entries, splitRows);
}

std::optional<std::string> AnswerStatus(std::string_view bytes) {
  int depth = 0;
  for (const Entry& entry : ReadEntries(bytes)) {
    if (entry.tag == 1) ++depth;
    if (entry.tag == 5) --depth;
    if (entry.tag == 2 && depth == 1 && entry.name == "Status") return entry.value;
  }
  return std::nullopt;
}

}  // namespace corvane::cli
