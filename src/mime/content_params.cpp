#include "mime/content_params.h"

#include <map>
#include <vector>

#include "base/ascii_text.h"

namespace corvane {
namespace {

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view Trim(std::string_view text) {
  while (!text.empty() && IsSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsSpace(text.back())) text.remove_suffix(1);
  return text;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string PercentDecoded(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && HexValue(text[i + 1]) >= 0 &&
        HexValue(text[i + 2]) >= 0) {
      out += static_cast<char>(HexValue(text[i + 1]) * 16 + HexValue(text[i + 2]));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

struct RawParameter {
  std::string_view attribute;
  std::string value;  // unquoted
};

// Splits the parameters off a field value at the semicolons that are not
// inside a quoted string, and unquotes each value.
std::vector<RawParameter> SplitParameters(std::string_view field) {
  std::vector<RawParameter> parameters;
  size_t at = field.find(';');
  // The main value holds no quotes worth honouring, so its end is the first ';'.
  while (at != std::string_view::npos && at < field.size()) {
    ++at;  // past ';'
    size_t equals = field.find_first_of("=;", at);
    if (equals == std::string_view::npos || field[equals] == ';') {
      at = equals;  // a parameter without a value
      continue;
    }
    RawParameter parameter{Trim(field.substr(at, equals - at)), {}};
    size_t pos = equals + 1;
    while (pos < field.size() && IsSpace(field[pos])) ++pos;
    if (pos < field.size() && field[pos] == '"') {
      for (++pos; pos < field.size() && field[pos] != '"'; ++pos) {
        if (field[pos] == '\\' && pos + 1 < field.size()) ++pos;
        parameter.value += field[pos];
      }
      at = field.find(';', pos);
    } else {
      size_t end = field.find(';', pos);
      parameter.value = std::string(Trim(
          field.substr(pos, end == std::string_view::npos ? std::string_view::npos : end - pos)));
      at = end;
    }
    if (!parameter.attribute.empty()) parameters.push_back(std::move(parameter));
  }
  return parameters;
}

// "charset'language'percent-encoded" into its charset and bytes; without the
// two quotes the whole text is taken as percent-encoded bytes.
HeaderParameter DecodeExtended(std::string_view text) {
  size_t first = text.find('\'');
  size_t second = first == std::string_view::npos ? first : text.find('\'', first + 1);
  if (second == std::string_view::npos) return {PercentDecoded(text), {}};
  return {PercentDecoded(text.substr(second + 1)), std::string(text.substr(0, first))};
}

}  // namespace

std::string_view FieldMainValue(std::string_view fieldValue) {
  return Trim(fieldValue.substr(0, fieldValue.find(';')));
}

std::optional<HeaderParameter> FindHeaderParameter(std::string_view fieldValue,
                                                   std::string_view name) {
  std::optional<HeaderParameter> plain;
  std::optional<HeaderParameter> extended;
  std::map<int, std::pair<std::string, bool>> pieces;  // index -> (value, percent-encoded)

  for (RawParameter& parameter : SplitParameters(fieldValue)) {
    std::string_view attribute = parameter.attribute;
    size_t star = attribute.find('*');
    if (!SameText(attribute.substr(0, star), name)) continue;
    if (star == std::string_view::npos) {
      if (!plain) plain = HeaderParameter{std::move(parameter.value), {}};
      continue;
    }
    std::string_view suffix = attribute.substr(star + 1);
    if (suffix.empty()) {
      if (!extended) extended = DecodeExtended(parameter.value);
      continue;
    }
    bool encoded = suffix.back() == '*';
    if (encoded) suffix.remove_suffix(1);
    if (suffix.empty() || suffix.size() > 3) continue;
    int index = 0;
    for (char c : suffix) {
      if (c < '0' || c > '9') index = -1;
      if (index >= 0) index = index * 10 + (c - '0');
    }
    if (index >= 0) pieces.emplace(index, std::make_pair(std::move(parameter.value), encoded));
  }

  if (!pieces.empty() && pieces.begin()->first == 0) {
    HeaderParameter joined;
    int expected = 0;
    for (auto& [index, piece] : pieces) {
      if (index != expected++) break;  // a gap ends the value
      if (!piece.second) {
        joined.value += piece.first;
      } else if (index == 0) {
        joined = DecodeExtended(piece.first);
      } else {
        joined.value += PercentDecoded(piece.first);
      }
    }
    return joined;
  }
  if (extended) return extended;
  return plain;
}

}  // namespace corvane
