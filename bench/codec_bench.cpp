// Throughput of the wire codec's cipher framing against two-key triple DES
// from OpenSSL on the same payload in the same process. Both sides encode and
// decode a 16 KiB payload; the figure that matters is the ratio.
//
// Usage: codec_bench [iterations]

#include <openssl/evp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "transport/wx_codec.h"

namespace {

constexpr size_t kPayload = 16 * 1024;
constexpr int kRounds = 5;  // best of, to steady the figures

using Clock = std::chrono::steady_clock;

struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* ctx) const { EVP_CIPHER_CTX_free(ctx); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;

// Seconds for `iterations` encode+decode round trips through the codec; the
// round trip is checked once so the figure cannot come from broken code.
double TimeCodec(const std::string& payload, int iterations, size_t& sink) {
  if (corvane::wxCodec::Decode(corvane::wxCodec::Encode(payload)) != payload) {
    std::fprintf(stderr, "codec round trip failed\n");
    std::exit(1);
  }
  const auto start = Clock::now();
  for (int i = 0; i < iterations; ++i) {
    corvane::wxCodec encoder;
    int32_t wireLength = 0;
    std::optional<std::string> wire =
        encoder.Transform(payload.data(), static_cast<int32_t>(payload.size()), &wireLength,
                          corvane::wxCodec::kEncode);
    corvane::wxCodec decoder;
    int32_t plainLength = 0;
    std::optional<std::string> plain =
        decoder.Transform(wire->data(), wireLength, &plainLength, corvane::wxCodec::kDecode);
    sink += static_cast<size_t>(plainLength) + static_cast<uint8_t>((*plain)[0]);
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

bool Crypt(EVP_CIPHER_CTX* ctx, const unsigned char* key, const unsigned char* in, int length,
           unsigned char* out, int encrypt) {
  int written = 0;
  int last = 0;
  return EVP_CipherInit_ex(ctx, EVP_des_ede_ecb(), nullptr, key, nullptr, encrypt) == 1 &&
         EVP_CIPHER_CTX_set_padding(ctx, 0) == 1 &&
         EVP_CipherUpdate(ctx, out, &written, in, length) == 1 &&
         EVP_CipherFinal_ex(ctx, out + written, &last) == 1 && written + last == length;
}

// The same work with OpenSSL: the payload padded to whole blocks, enciphered
// and deciphered, key set up per call as the codec does.
double TimeOpenSsl(const std::string& payload, int iterations, size_t& sink) {
  const auto* key = reinterpret_cast<const unsigned char*>("mnopqrst%@517ghj");
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  const size_t padded = (payload.size() + 7) / 8 * 8;
  std::vector<unsigned char> in(padded, 0);
  std::copy(payload.begin(), payload.end(), in.begin());
  std::vector<unsigned char> wire(padded);
  std::vector<unsigned char> plain(padded);
  const auto length = static_cast<int>(padded);
  const auto start = Clock::now();
  for (int i = 0; i < iterations; ++i) {
    if (!Crypt(ctx.get(), key, in.data(), length, wire.data(), 1) ||
        !Crypt(ctx.get(), key, wire.data(), length, plain.data(), 0)) {
      std::fprintf(stderr, "OpenSSL des-ede-ecb failed\n");
      std::exit(1);
    }
    sink += plain[0];
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (!std::equal(plain.begin(), plain.end(), in.begin())) {
    std::fprintf(stderr, "OpenSSL round trip failed\n");
    std::exit(1);
  }
  return seconds;
}

}  // namespace

int main(int argc, char** argv) {
  const int iterations = argc > 1 ? std::max(1, std::atoi(argv[1])) : 400;
  std::mt19937 random(1);
  std::string payload(kPayload, '\0');
  for (char& c : payload) c = static_cast<char>('A' + random() % 26);

  size_t sink = 0;
  double codec = 1e30;
  double openssl = 1e30;
  for (int round = 0; round < kRounds; ++round) {
    codec = std::min(codec, TimeCodec(payload, iterations, sink));
    openssl = std::min(openssl, TimeOpenSsl(payload, iterations, sink));
  }
  // Bytes through the cipher: one encode and one decode per iteration.
  const double megabytes = 2.0 * kPayload * iterations / 1e6;
  const double codecRate = megabytes / codec;
  const double opensslRate = megabytes / openssl;
  std::printf("payload %zu bytes, %d encode+decode round trips, best of %d\n", kPayload, iterations,
              kRounds);
  std::printf("corvane wxCodec::Transform   %8.2f MB/s\n", codecRate);
  std::printf("openssl EVP_des_ede_ecb      %8.2f MB/s\n", opensslRate);
  std::printf("ratio corvane/openssl        %8.2f\n", codecRate / opensslRate);
  std::printf("(checksum %zu)\n", sink);
  return 0;
}
