// corvane-cli: sends requests to a Corvane gateway and prints the answers, and
// encodes or decodes wire bytes for debugging.
#include <cstdio>
#include <iostream>
#include <iterator>

#include "answer_printer.h"
#include "cli_options.h"
#include "request_builder.h"
#include "transport/wx_codec.h"
#include "wire_connection.h"

namespace corvane::cli {
namespace {

constexpr int kExitFail = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUndecodable = 3;

std::string ReadAll(std::istream& in) {
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string EncodeForWire(const std::string& plain, bool rapid) {
  // The rapid framing is what the codec makes of a text that starts "rapid".
  return wxCodec::Encode(rapid ? "rapid" + plain : plain);
}

int RunTransform(const CliOptions& options) {
  std::string input = ReadAll(std::cin);
  std::string output =
      options.mode == Mode::kEncode ? EncodeForWire(input, options.rapid) : wxCodec::Decode(input);
  std::fwrite(output.data(), 1, output.size(), stdout);
  return 0;
}

int RunSend(const CliOptions& options) {
  WireConnection connection;
  std::string error;
  if (!connection.Connect(options.host, options.port, error)) {
    std::fprintf(stderr, "corvane-cli: %s\n", error.c_str());
    return kExitUsage;
  }
  const std::string wire = EncodeForWire(BuildRequest(options), options.rapid);
  int result = 0;
  for (int i = 0; i < options.repeat; ++i) {
    std::optional<std::string> answer;
    if (connection.SendFrame(wire, error))
      answer = connection.ReceiveFrame(options.timeoutSeconds, error);
    if (!answer) {
      std::fprintf(stderr, "corvane-cli: %s\n", error.c_str());
      return kExitUsage;
    }
    std::string plain = wxCodec::Decode(*answer);
    std::optional<std::string> status = AnswerStatus(plain);
    if (!status) {
      std::fprintf(stderr, "corvane-cli: the answer cannot be decoded (%zu bytes)\n",
                   answer->size());
      return kExitUndecodable;
    }
    std::fputs(RenderAnswer(plain, options.json, options.rows).c_str(), stdout);
    if (*status != "success") result = kExitFail;
  }
  return result;
}

}  // namespace
}  // namespace corvane::cli

int main(int argc, char** argv) {
  using namespace corvane::cli;
  std::optional<CliOptions> options = ParseOptions(argc, argv);
  if (!options) {
    PrintUsage();
    return kExitUsage;
  }
  return options->mode == Mode::kSend ? RunSend(*options) : RunTransform(*options);
}
