#include "cli_options.h"

#include <cstdio>
#include <cstring>
#include <string_view>

namespace corvane::cli {
namespace {

bool SplitField(std::string_view text, std::pair<std::string, std::string>& field) {
  size_t equals = text.find('=');
  if (equals == std::string_view::npos || equals == 0) return false;
  field = {std::string(text.substr(0, equals)), std::string(text.substr(equals + 1))};
  return true;
}

bool ReadNumber(const char* text, int& value) {
  char* end = nullptr;
  long number = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || number < 0 || number > 1000000) return false;
  value = static_cast<int>(number);
  return true;
}

}  // namespace

void PrintUsage() {
  std::fputs(
      "usage: corvane-cli [options] --req Command=NAME [--req Name=Value ...]\n"
      "                   [--param Name=Value ...] [--mparam Name=a,b,c ...]\n"
      "       corvane-cli encode [--rapid] < plain > wire\n"
      "       corvane-cli decode < wire > plain\n"
      "\n"
      "Sends one request to a Corvane gateway and prints its answer.\n"
      "  --host HOST      gateway address (default 127.0.0.1)\n"
      "  --port PORT      gateway port (default 8500)\n"
      "  --req N=V        field of the request record (Command, Pop3, Port, Login, Pwd, ...)\n"
      "  --param N=V      field of the parameter record\n"
      "  --mparam N=a,b   multi-valued field of the parameter record\n"
      "  --rapid          send with the rapid framing instead of the cipher\n"
      "  --repeat N       send the request N times over one connection\n"
      "  --timeout S      seconds to wait for each answer (default 120)\n"
      "  --json           print the answer as JSON\n"
      "  --rows           print each listing row as its parts, joined by \" | \"\n"
      "Exit status: 0 success, 1 the gateway answered \"fail\", 2 connection or\n"
      "usage error, 3 an answer that cannot be decoded.\n",
      stderr);
}

std::optional<CliOptions> ParseOptions(int argc, char** argv) {
  CliOptions options;
  int i = 1;
  if (i < argc && std::strcmp(argv[i], "encode") == 0) {
    options.mode = Mode::kEncode;
    ++i;
  } else if (i < argc && std::strcmp(argv[i], "decode") == 0) {
    options.mode = Mode::kDecode;
    ++i;
  }
  for (; i < argc; ++i) {
    std::string_view option = argv[i];
    if (option == "--rapid") {
      options.rapid = true;
      continue;
    }
    if (option == "--json") {
      options.json = true;
      continue;
    }
    if (option == "--rows") {
      options.rows = true;
      continue;
    }
    if (option == "-h" || option == "--help") return std::nullopt;
    if (i + 1 >= argc) {
      std::fprintf(stderr, "corvane-cli: %s needs a value\n", argv[i]);
      return std::nullopt;
    }
    const char* value = argv[++i];
    std::pair<std::string, std::string> field;
    bool ok = true;
    if (option == "--host") {
      options.host = value;
    } else if (option == "--port") {
      ok = ReadNumber(value, options.port) && options.port > 0 && options.port < 65536;
    } else if (option == "--repeat") {
      ok = ReadNumber(value, options.repeat) && options.repeat > 0;
    } else if (option == "--timeout") {
      ok = ReadNumber(value, options.timeoutSeconds) && options.timeoutSeconds > 0;
    } else if (option == "--req" && SplitField(value, field)) {
      options.requestFields.push_back(field);
    } else if (option == "--param" && SplitField(value, field)) {
      options.parameterFields.push_back(field);
    } else if (option == "--mparam" && SplitField(value, field)) {
      options.multiFields.push_back(field);
    } else {
      ok = false;
    }
    if (!ok) {
      std::fprintf(stderr, "corvane-cli: bad option %s %s\n", argv[i - 1], value);
      return std::nullopt;
    }
  }
  if (options.mode == Mode::kSend && options.requestFields.empty()) {
    std::fputs("corvane-cli: no request fields given (try --req Command=ListMail)\n", stderr);
    return std::nullopt;
  }
  return options;
}

}  // namespace corvane::cli
