// Loading a large message and saving its attachment, against the least work
// any reader of that message must do, in the same process: read the file
// into memory and base64-decode the attachment with OpenSSL into a file.
//
// The message is 10 MB: 0.8 MB of quoted-printable text and a 9 MB
// attachment (9.2 MB of base64 lines, 6.75 MB decoded).
//
// Usage: mime_parse_bench [rounds]

#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>

#include "mime/mail_message.h"
#include "stream/file_data_source.h"
#include "support/temp_dir.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMessageBytes = 10'000'000;
constexpr size_t kAttachmentEncodedBytes = 9'000'000;

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Base64Lines(const std::string& data) {
  std::string encoded(4 * ((data.size() + 2) / 3) + 1, '\0');
  int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(encoded.data()),
                               reinterpret_cast<const unsigned char*>(data.data()),
                               static_cast<int>(data.size()));
  encoded.resize(static_cast<size_t>(length));
  std::string lines;
  for (size_t i = 0; i < encoded.size(); i += 76) lines += encoded.substr(i, 76) + "\r\n";
  return lines;
}

struct Corpus {
  std::string message;
  std::string attachment;  // decoded
  size_t base64Begin = 0;
  size_t base64End = 0;
};

Corpus MakeMessage() {
  std::mt19937 random(7);
  Corpus corpus;
  corpus.attachment.resize(kAttachmentEncodedBytes / 4 * 3);
  for (char& c : corpus.attachment) c = static_cast<char>(random());

  std::string& m = corpus.message;
  m = "From: =?gb2312?B?1cXI/Q==?= <zhang@example.com>\r\n"
      "To: li@example.net\r\n"
      "Subject: =?gb2312?B?u+HS6c2o1qo=?=\r\n"
      "Date: Tue, 5 Jan 2010 08:30:00 +0800\r\n"
      "MIME-Version: 1.0\r\n"
      "Content-Type: multipart/mixed; boundary=\"bench-boundary\"\r\n\r\n"
      "--bench-boundary\r\n"
      "Content-Type: text/plain; charset=\"gb2312\"\r\n"
      "Content-Transfer-Encoding: quoted-printable\r\n\r\n";
  const std::string attachmentHead =
      "\r\n--bench-boundary\r\n"
      "Content-Type: application/octet-stream; name=\"data.bin\"\r\n"
      "Content-Disposition: attachment; filename=\"data.bin\"\r\n"
      "Content-Transfer-Encoding: base64\r\n\r\n";
  const std::string tail = "--bench-boundary--\r\n";
  const std::string encoded = Base64Lines(corpus.attachment);
  const std::string textLine = "=D6=D0=CE=C4 text of the message body, line after line.\r\n";
  while (m.size() + attachmentHead.size() + encoded.size() + tail.size() + textLine.size() <
         kMessageBytes) {
    m += textLine;
  }
  m += attachmentHead;
  corpus.base64Begin = m.size();
  m += encoded;
  corpus.base64End = m.size();
  m += tail;
  return corpus;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct EncodeCtxFree {
  void operator()(EVP_ENCODE_CTX* ctx) const { EVP_ENCODE_CTX_free(ctx); }
};

// The reference: the file into memory, the attachment's base64 decoded and
// written out.
double TimeReference(const std::string& path, const Corpus& corpus, const std::string& out) {
  const auto start = Clock::now();
  std::string message = ReadAll(path);
  std::unique_ptr<EVP_ENCODE_CTX, EncodeCtxFree> ctx(EVP_ENCODE_CTX_new());
  EVP_DecodeInit(ctx.get());
  std::string decoded(corpus.attachment.size() + 64, '\0');
  int length = 0;
  int last = 0;
  EVP_DecodeUpdate(ctx.get(), reinterpret_cast<unsigned char*>(decoded.data()), &length,
                   reinterpret_cast<const unsigned char*>(message.data() + corpus.base64Begin),
                   static_cast<int>(corpus.base64End - corpus.base64Begin));
  EVP_DecodeFinal(ctx.get(), reinterpret_cast<unsigned char*>(decoded.data()) + length, &last);
  decoded.resize(static_cast<size_t>(length + last));
  std::ofstream(out, std::ios::binary)
      .write(decoded.data(), static_cast<std::streamsize>(decoded.size()));
  const double seconds = Seconds(start);
  if (decoded != corpus.attachment) {
    std::fprintf(stderr, "reference decode failed\n");
    std::exit(1);
  }
  return seconds;
}

struct Times {
  double load = 0;
  double save = 0;
};

Times TimeCorvane(const std::string& path, const Corpus& corpus, const std::string& out) {
  Times times;
  auto start = Clock::now();
  corvane::MailMessage message;
  corvane::FileDataSource source(path);
  if (message.Load(source) != 0 || message.AttachmentCount() != 1) {
    std::fprintf(stderr, "load failed\n");
    std::exit(1);
  }
  times.load = Seconds(start);
  start = Clock::now();
  int64_t size = message.SaveAttachment(0, out);
  times.save = Seconds(start);
  if (size != static_cast<int64_t>(corpus.attachment.size()) || ReadAll(out) != corpus.attachment) {
    std::fprintf(stderr, "attachment decode failed\n");
    std::exit(1);
  }
  return times;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  corvane::test::TempDir dir;
  const std::string path = dir / "large.eml";
  const Corpus corpus = MakeMessage();
  std::ofstream(path, std::ios::binary)
      .write(corpus.message.data(), static_cast<std::streamsize>(corpus.message.size()));

  Times best{1e30, 1e30};
  double bestTotal = 1e30;
  double reference = 1e30;
  for (int round = 0; round < rounds; ++round) {
    Times times = TimeCorvane(path, corpus, dir / "corvane.bin");
    best.load = std::min(best.load, times.load);
    best.save = std::min(best.save, times.save);
    bestTotal = std::min(bestTotal, times.load + times.save);
    reference = std::min(reference, TimeReference(path, corpus, dir / "reference.bin"));
  }
  const double mb = static_cast<double>(corpus.message.size()) / 1e6;
  std::printf("message %.2f MB, attachment %.2f MB base64 / %.2f MB decoded, best of %d\n", mb,
              static_cast<double>(corpus.base64End - corpus.base64Begin) / 1e6,
              static_cast<double>(corpus.attachment.size()) / 1e6, rounds);
  std::printf("corvane load (parse)            %8.1f MB/s\n", mb / best.load);
  std::printf("corvane save attachment to file %8.1f MB/s\n", mb / best.save);
  std::printf("corvane load + save             %8.1f MB/s\n", mb / bestTotal);
  std::printf("reference read + EVP_Decode     %8.1f MB/s\n", mb / reference);
  std::printf("ratio corvane/reference         %8.2f\n", reference / bestTotal);
  return 0;
}
