#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/command_output.h"
#include "support/temp_dir.h"

namespace corvane::test {

// One answer of the gateway as corvane-cli printed it with --json: every
// field of every record by name, bytes as sent (a multi-valued field joined
// with ","), and the cli's exit status.
struct GatewayAnswer {
  int status = -1;
  std::string output;
  std::map<std::string, std::string> fields;

  std::string operator[](const std::string& name) const {
    auto found = fields.find(name);
    return found == fields.end() ? std::string() : found->second;
  }
  bool Has(const std::string& name) const { return fields.count(name) > 0; }
  // "Row0", "Row1", ... in order.
  std::vector<std::string> Rows() const {
    std::vector<std::string> rows;
    for (size_t k = 0; Has("Row" + std::to_string(k)); ++k)
      rows.push_back((*this)["Row" + std::to_string(k)]);
    return rows;
  }
};

// Reads the flat JSON the cli prints: objects of string fields or arrays of
// strings, "\u00XX" standing for one byte.
inline std::map<std::string, std::string> ParseAnswerJson(const std::string& json) {
  std::map<std::string, std::string> fields;
  size_t i = 0;
  auto readString = [&](std::string& out) {
    out.clear();
    ++i;  // opening quote
    while (i < json.size() && json[i] != '"') {
      if (json[i] == '\\' && i + 1 < json.size()) {
        if (json[i + 1] == 'u' && i + 5 < json.size()) {
          out += static_cast<char>(std::stoi(json.substr(i + 2, 4), nullptr, 16));
          i += 6;
        } else {
          out += json[i + 1];
          i += 2;
        }
      } else {
        out += json[i++];
      }
    }
    ++i;  // closing quote
  };
  std::string key, value, item;
  while (i < json.size()) {
    if (json[i] != '"') {
      ++i;
      continue;
    }
    readString(key);
    while (i < json.size() && (json[i] == ':' || json[i] == ' ')) ++i;
    if (i >= json.size()) break;
    if (json[i] == '"') {
      readString(value);
      fields[key] = value;
    } else if (json[i] == '[') {
      value.clear();
      ++i;
      while (i < json.size() && json[i] != ']') {
        if (json[i] == '"') {
          readString(item);
          if (!value.empty()) value += ',';
          value += item;
        } else {
          ++i;
        }
      }
      fields[key] = value;
    }
  }
  return fields;
}

// Runs corvane-cli with `arguments` against the gateway on `port`; only the
// output and exit status are filled in.
inline GatewayAnswer RunCli(int port, const std::string& arguments) {
  CommandOutput run = RunCommand(std::string("'") + CORVANE_CLI + "' --port " +
                                 std::to_string(port) + " " + arguments);
  GatewayAnswer answer;
  answer.status = run.status;
  answer.output = std::move(run.output);
  return answer;
}

// Runs corvane-cli with `arguments` and --json, and reads the fields.
inline GatewayAnswer AskGateway(int port, const std::string& arguments) {
  GatewayAnswer answer = RunCli(port, "--json " + arguments);
  answer.fields = ParseAnswerJson(answer.output);
  return answer;
}

// A shell word for a value that may hold blanks or quotes.
inline std::string Quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

// The number of times `needle` occurs in `text`.
inline size_t CountOf(const std::string& text, const std::string& needle) {
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace corvane::test
