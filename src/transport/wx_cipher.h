#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace corvane {

// The block cipher under the codec's cipher framing: a 64-bit Feistel cipher
// with the DES tables, key schedule and round function, but with bytes turned
// into bits least significant bit first (data, key and S-box outputs alike) and
// no swap of the halves before the final permutation. A key longer than 8 bytes
// selects two-key triple mode (encode E1 D2 E1, decode D1 E2 D1). Blocks are
// processed independently (ECB). The deployed clients and the account profile
// files depend on this exact bit order.
class wxCipher {
 public:
  static constexpr size_t kBlockSize = 8;
  static constexpr size_t kMaxKeyLength = 16;
  // The key of every request, answer and account profile file.
  static constexpr std::string_view kGatewayKey = "mnopqrst%@517ghj";

  explicit wxCipher(std::string_view key) { LoadKey(key); }

  // Builds the schedules from at most 16 key bytes (zero-filled behind a
  // shorter key): the first from bytes 0-7, the second from bytes 8-15 when
  // the key has 9 bytes or more, which also selects triple mode.
  void LoadKey(std::string_view key);
  bool tripleMode() const { return tripleMode_; }

  // Enciphers (direction 1) or deciphers (any other direction) `length` bytes
  // of `in` into `out`; the two may be the same buffer. A trailing part block
  // is processed as if zero-filled, and only its `length % 8` bytes are
  // written. False, touching nothing, for null buffers or a length of 0.
  bool CipherBuffer(uint8_t* out, const uint8_t* in, size_t length, int direction) const;

  // The schedules of the gateway key, built once.
  static const wxCipher& Gateway();

 private:
  // Sixteen round keys as the inner loop consumes them, two words a round:
  // word 2i holds the 6-bit key parts of S-boxes 0, 2, 4, 6 of round i in the
  // low 6 bits of its bytes 0-3, word 2i+1 those of S-boxes 1, 3, 5, 7.
  using Schedule = std::array<uint32_t, 32>;

  static Schedule MakeSchedule(const uint8_t* key8);

  Schedule first_{};
  Schedule second_{};
  bool tripleMode_ = false;
};

}  // namespace corvane
