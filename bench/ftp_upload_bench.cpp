// Upload of a 10 MB file to the private vsftpd of the tests, over an active
// and over a passive data connection: FtpClient beside curl -T storing the
// same file on the same server in the same run. Each figure is the median of
// whole sessions (connect, log in, CWD, binary STOR, quit); curl's include
// starting its process. Goal: corvane/curl at or below 1.
//
// Starts the servers with tests/servers/ftp-server when they are not
// running, and stops them again at the end in that case. Optional argument:
// rounds.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench_support.h"
#include "protocol/ftp_client.h"
#include "support/temp_dir.h"

namespace {

using corvane::bench::Clock;
using corvane::bench::Median;
using corvane::test::Pop3ServerEnv;

class FtpServer : public corvane::bench::TestServer {
 public:
  FtpServer()
      : TestServer("ftp", [](const Pop3ServerEnv& env) {
          corvane::FtpClient probe;
          probe.SetPort(env.Port("FTP_PORT"));
          bool up = env.Port("FTP_PORT") != 0 &&
                    probe.FtpConnect("127.0.0.1", env.Get("FTP_USER").c_str(),
                                     env.Get("FTP_PASS").c_str(), "") == 0;
          probe.FtpClose();
          return up;
        }) {}
};

// One FtpClient session storing `file` as `name` in the upload directory;
// its milliseconds, or a negative value when it failed.
double CorvaneStore(const Pop3ServerEnv& env, bool passive, const std::string& file,
                    const std::string& name) {
  auto started = Clock::now();
  corvane::FtpClient client;
  client.SetPort(env.Port("FTP_PORT"));
  client.SetPassive(passive);
  int result =
      client.FtpConnect("127.0.0.1", env.Get("FTP_USER").c_str(), env.Get("FTP_PASS").c_str(), "");
  if (result == 0) result = client.ChangeDir(env.Get("UPLOAD_DIR").c_str());
  if (result == 0) result = client.SendFile(file.c_str(), name.c_str());
  const std::string reply = client.LastResponse();
  client.FtpClose();
  if (result != 0) {
    std::fprintf(stderr, "FtpClient failed with code %d: %s\n", result, reply.c_str());
    return -1;
  }
  return corvane::bench::MillisecondsSince(started);
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
  FtpServer ftp;
  const Pop3ServerEnv& env = ftp.env();
  if (!ftp.Reachable()) {
    std::fprintf(stderr, "the test FTP server is not running (tests/servers/ftp-server start)\n");
    return 1;
  }
  corvane::test::TempDir scratch;
  const std::string file = scratch / "payload.bin";
  const size_t size = 10 * 1024 * 1024;
  {
    std::string bytes(size, '\0');
    std::mt19937 random(17);
    for (char& c : bytes) c = static_cast<char>(random());
    std::ofstream(file, std::ios::binary) << bytes;
  }
  const std::string directory = env.Get("FTP_ROOT") + "/" + env.Get("UPLOAD_DIR") + "/";
  const std::string url = "ftp://" + env.Get("FTP_USER") + ":" + env.Get("FTP_PASS") +
                          "@127.0.0.1:" + env.Get("FTP_PORT") + "/" + env.Get("UPLOAD_DIR") + "/";

  std::printf("FTP upload of a %zu-byte file (binary, whole sessions), median of %d\n", size,
              rounds);
  for (bool passive : {false, true}) {
    const char* mode = passive ? "passive" : "active";
    std::vector<double> ours, curl;
    for (int round = 0; round < rounds; ++round) {
      double ms = CorvaneStore(env, passive, file, std::string("corvane-") + mode + ".bin");
      if (ms < 0) return 1;
      ours.push_back(ms);
      std::vector<std::string> arguments = {"-s", "-S", "-T", file, url + "curl-" + mode + ".bin"};
      if (!passive) {
        for (const char* option : {"--ftp-port", "127.0.0.1", "--disable-eprt"}) {
          arguments.push_back(option);
        }
      }
      curl.push_back(corvane::bench::TimeCurl(arguments));
    }
    for (const char* who : {"corvane-", "curl-"}) {
      std::error_code error;
      if (std::filesystem::file_size(directory + who + mode + ".bin", error) != size) {
        std::fprintf(stderr, "%s%s.bin did not arrive whole\n", who, mode);
        return 1;
      }
      std::filesystem::remove(directory + who + mode + ".bin", error);
    }
    std::printf("  %-7s corvane FtpClient %8.1f ms\n", mode, Median(ours));
    if (Median(curl) < 0) {
      std::printf("  %-7s curl              failed or missing\n", mode);
    } else {
      std::printf("  %-7s curl -T           %8.1f ms\n", mode, Median(curl));
      std::printf("  %-7s ratio corvane/curl %7.2f\n", mode, Median(ours) / Median(curl));
    }
  }
  return 0;
}
