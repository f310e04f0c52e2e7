#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace corvane::cli {

enum class Mode { kSend, kEncode, kDecode };

// What the command line asked for.
struct CliOptions {
  Mode mode = Mode::kSend;
  std::string host = "127.0.0.1";
  int port = 8500;
  bool rapid = false;
  bool json = false;
  bool rows = false;
  int repeat = 1;
  int timeoutSeconds = 120;
  std::vector<std::pair<std::string, std::string>> requestFields;    // --req
  std::vector<std::pair<std::string, std::string>> parameterFields;  // --param
  std::vector<std::pair<std::string, std::string>> multiFields;      // --mparam
};

// Parses argv; on a usage error returns nothing after printing why.
std::optional<CliOptions> ParseOptions(int argc, char** argv);

void PrintUsage();

}  // namespace corvane::cli
