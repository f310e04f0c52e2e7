#include "base/ini_file.h"

#include <cstdio>
#include <memory>

#include "base/ascii_text.h"

namespace corvane {
namespace {

std::string_view Trim(std::string_view text) {
  const char* blanks = " \t\r\n";
  size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  size_t last = text.find_last_not_of(blanks);
  return text.substr(first, last - first + 1);
}

// The section name when the line is a section header, else nothing.
std::optional<std::string_view> SectionOf(std::string_view line) {
  std::string_view text = Trim(line);
  if (text.size() < 2 || text.front() != '[' || text.back() != ']') return std::nullopt;
  return Trim(text.substr(1, text.size() - 2));
}

std::string_view Unquote(std::string_view value) {
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
      value.back() == value.front()) {
    return value.substr(1, value.size() - 2);
  }
  return value;
}

}  // namespace

bool IniFile::Open(const std::string& path) {
  lines_.clear();
  std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "r"), std::fclose);
  if (!file) return false;
  char buffer[kMaxLine];
  while (std::fgets(buffer, sizeof buffer, file.get()) != nullptr) {
    lines_.emplace_back(buffer);
  }
  return true;
}

std::optional<std::string> IniFile::Get(std::string_view section, std::string_view key) const {
  bool inSection = false;
  for (const std::string& line : lines_) {
    if (auto name = SectionOf(line)) {
      if (inSection) break;  // the wanted section has ended
      inSection = SameText(*name, section);
      continue;
    }
    if (!inSection) continue;
    std::string_view text = Trim(line);
    if (text.empty() || text.front() == ';' || text.front() == '#') continue;
    size_t equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    if (SameText(Trim(text.substr(0, equals)), key)) {
      return std::string(Unquote(Trim(text.substr(equals + 1))));
    }
  }
  return std::nullopt;
}

}  // namespace corvane
