#include "transport/wx_cipher.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace corvane {
namespace {

// The tables as published for DES. Bit numbers count from 1; in this cipher
// bit i+1 of a block is bit i % 8 of byte i / 8, so byte order is kept and the
// bits within each byte run from least to most significant.
// clang-format off
constexpr uint8_t kInitialPermutation[64] = {
    58, 50, 42, 34, 26, 18, 10,  2,
    60, 52, 44, 36, 28, 20, 12,  4,
    62, 54, 46, 38, 30, 22, 14,  6,
    64, 56, 48, 40, 32, 24, 16,  8,
    57, 49, 41, 33, 25, 17,  9,  1,
    59, 51, 43, 35, 27, 19, 11,  3,
    61, 53, 45, 37, 29, 21, 13,  5,
    63, 55, 47, 39, 31, 23, 15,  7,
};

constexpr uint8_t kFinalPermutation[64] = {
    40,  8, 48, 16, 56, 24, 64, 32,
    39,  7, 47, 15, 55, 23, 63, 31,
    38,  6, 46, 14, 54, 22, 62, 30,
    37,  5, 45, 13, 53, 21, 61, 29,
    36,  4, 44, 12, 52, 20, 60, 28,
    35,  3, 43, 11, 51, 19, 59, 27,
    34,  2, 42, 10, 50, 18, 58, 26,
    33,  1, 41,  9, 49, 17, 57, 25,
};

constexpr uint8_t kExpansion[48] = {
    32,  1,  2,  3,  4,  5,
     4,  5,  6,  7,  8,  9,
     8,  9, 10, 11, 12, 13,
    12, 13, 14, 15, 16, 17,
    16, 17, 18, 19, 20, 21,
    20, 21, 22, 23, 24, 25,
    24, 25, 26, 27, 28, 29,
    28, 29, 30, 31, 32,  1,
};

constexpr uint8_t kPermutation[32] = {
    16,  7, 20, 21,
    29, 12, 28, 17,
     1, 15, 23, 26,
     5, 18, 31, 10,
     2,  8, 24, 14,
    32, 27,  3,  9,
    19, 13, 30,  6,
    22, 11,  4, 25,
};

constexpr uint8_t kPermutedChoice1[56] = {
    57, 49, 41, 33, 25, 17,  9,
     1, 58, 50, 42, 34, 26, 18,
    10,  2, 59, 51, 43, 35, 27,
    19, 11,  3, 60, 52, 44, 36,
    63, 55, 47, 39, 31, 23, 15,
     7, 62, 54, 46, 38, 30, 22,
    14,  6, 61, 53, 45, 37, 29,
    21, 13,  5, 28, 20, 12,  4,
};

constexpr uint8_t kPermutedChoice2[48] = {
    14, 17, 11, 24,  1,  5,
     3, 28, 15,  6, 21, 10,
    23, 19, 12,  4, 26,  8,
    16,  7, 27, 20, 13,  2,
    41, 52, 31, 37, 47, 55,
    30, 40, 51, 45, 33, 48,
    44, 49, 39, 56, 34, 53,
    46, 42, 50, 36, 29, 32,
};

constexpr uint8_t kShifts[16] = {
     1,  1,  2,  2,  2,  2,  2,  2,  1,  2,  2,  2,  2,  2,  2,  1,
};

// S-box k, row r, column c.
constexpr uint8_t kSBoxes[8][4][16] = {
    {
        {14,  4, 13,  1,  2, 15, 11,  8,  3, 10,  6, 12,  5,  9,  0,  7},
        { 0, 15,  7,  4, 14,  2, 13,  1, 10,  6, 12, 11,  9,  5,  3,  8},
        { 4,  1, 14,  8, 13,  6,  2, 11, 15, 12,  9,  7,  3, 10,  5,  0},
        {15, 12,  8,  2,  4,  9,  1,  7,  5, 11,  3, 14, 10,  0,  6, 13},
    },
    {
        {15,  1,  8, 14,  6, 11,  3,  4,  9,  7,  2, 13, 12,  0,  5, 10},
        { 3, 13,  4,  7, 15,  2,  8, 14, 12,  0,  1, 10,  6,  9, 11,  5},
        { 0, 14,  7, 11, 10,  4, 13,  1,  5,  8, 12,  6,  9,  3,  2, 15},
        {13,  8, 10,  1,  3, 15,  4,  2, 11,  6,  7, 12,  0,  5, 14,  9},
    },
    {
        {10,  0,  9, 14,  6,  3, 15,  5,  1, 13, 12,  7, 11,  4,  2,  8},
        {13,  7,  0,  9,  3,  4,  6, 10,  2,  8,  5, 14, 12, 11, 15,  1},
        {13,  6,  4,  9,  8, 15,  3,  0, 11,  1,  2, 12,  5, 10, 14,  7},
        { 1, 10, 13,  0,  6,  9,  8,  7,  4, 15, 14,  3, 11,  5,  2, 12},
    },
    {
        { 7, 13, 14,  3,  0,  6,  9, 10,  1,  2,  8,  5, 11, 12,  4, 15},
        {13,  8, 11,  5,  6, 15,  0,  3,  4,  7,  2, 12,  1, 10, 14,  9},
        {10,  6,  9,  0, 12, 11,  7, 13, 15,  1,  3, 14,  5,  2,  8,  4},
        { 3, 15,  0,  6, 10,  1, 13,  8,  9,  4,  5, 11, 12,  7,  2, 14},
    },
    {
        { 2, 12,  4,  1,  7, 10, 11,  6,  8,  5,  3, 15, 13,  0, 14,  9},
        {14, 11,  2, 12,  4,  7, 13,  1,  5,  0, 15, 10,  3,  9,  8,  6},
        { 4,  2,  1, 11, 10, 13,  7,  8, 15,  9, 12,  5,  6,  3,  0, 14},
        {11,  8, 12,  7,  1, 14,  2, 13,  6, 15,  0,  9, 10,  4,  5,  3},
    },
    {
        {12,  1, 10, 15,  9,  2,  6,  8,  0, 13,  3,  4, 14,  7,  5, 11},
        {10, 15,  4,  2,  7, 12,  9,  5,  6,  1, 13, 14,  0, 11,  3,  8},
        { 9, 14, 15,  5,  2,  8, 12,  3,  7,  0,  4, 10,  1, 13, 11,  6},
        { 4,  3,  2, 12,  9,  5, 15, 10, 11, 14,  1,  7,  6,  0,  8, 13},
    },
    {
        { 4, 11,  2, 14, 15,  0,  8, 13,  3, 12,  9,  7,  5, 10,  6,  1},
        {13,  0, 11,  7,  4,  9,  1, 10, 14,  3,  5, 12,  2, 15,  8,  6},
        { 1,  4, 11, 13, 12,  3,  7, 14, 10, 15,  6,  8,  0,  5,  9,  2},
        { 6, 11, 13,  8,  1,  4, 10,  7,  9,  5,  0, 15, 14,  2,  3, 12},
    },
    {
        {13,  2,  8,  4,  6, 15, 11,  1, 10,  9,  3, 14,  5,  0, 12,  7},
        { 1, 15, 13,  8, 10,  3,  7,  4, 12,  5,  6, 11,  0, 14,  9,  2},
        { 7, 11,  4,  1,  9, 12, 14,  2,  0,  6, 10, 13, 15,  3,  5,  8},
        { 2,  1, 14,  7,  4, 10,  8, 13, 15, 12,  9,  0,  3,  5,  6, 11},
    },
};
// clang-format on

// The inner loop reads the 6 expanded bits of S-box k as bits 4k-1 .. 4k+4
// (mod 32) of the half block. That shortcut holds only for this expansion.
constexpr bool ExpansionTakesOverlappingRuns() {
  for (int k = 0; k < 8; ++k) {
    for (int m = 0; m < 6; ++m) {
      if (kExpansion[6 * k + m] - 1 != (4 * k - 1 + m + 32) % 32) return false;
    }
  }
  return true;
}
static_assert(ExpansionTakesOverlappingRuns());

// Triple mode drops the permutations between passes, which needs the final
// permutation to undo the initial one.
constexpr bool FinalUndoesInitial() {
  for (int j = 0; j < 64; ++j) {
    if (kFinalPermutation[kInitialPermutation[j] - 1] != j + 1) return false;
  }
  return true;
}
static_assert(FinalUndoesInitial());

// A 64-bit block is held as a little-endian word, so bit i of the word is bit
// i of the block in the cipher's numbering. A permutation of it is done with
// one table per input byte: entry [p][v] holds the output bits that byte p
// with value v sets.
using ByteTables = uint64_t[8][256];

struct Tables {
  ByteTables initial{};
  ByteTables final{};
  // S-box k followed by the permutation P: entry [k][x] is f's 32-bit share
  // for the 6-bit input x whose bit m is input bit 6k+m.
  uint32_t sp[8][64]{};
};

constexpr void FillByteTables(ByteTables& tables, const uint8_t (&permutation)[64]) {
  for (int pos = 0; pos < 8; ++pos) {
    for (int value = 0; value < 256; ++value) {
      uint64_t bits = 0;
      for (int out = 0; out < 64; ++out) {
        const int in = permutation[out] - 1;
        if (in / 8 == pos && ((value >> (in % 8)) & 1)) bits |= uint64_t{1} << out;
      }
      tables[pos][value] = bits;
    }
  }
}

constexpr Tables MakeTables() {
  Tables t;
  FillByteTables(t.initial, kInitialPermutation);
  FillByteTables(t.final, kFinalPermutation);
  for (int k = 0; k < 8; ++k) {
    for (int x = 0; x < 64; ++x) {
      const int row = ((x & 1) << 1) | ((x >> 5) & 1);
      const int column =
          ((x >> 1) & 1) << 3 | ((x >> 2) & 1) << 2 | ((x >> 3) & 1) << 1 | ((x >> 4) & 1);
      const int value = kSBoxes[k][row][column];
      // The S-box value's bit 0 is the first of its four output bits.
      uint32_t word = 0;
      for (int out = 0; out < 32; ++out) {
        const int in = kPermutation[out] - 1;
        if (in / 4 == k && ((value >> (in % 4)) & 1)) word |= uint32_t{1} << out;
      }
      t.sp[k][x] = word;
    }
  }
  return t;
}

constexpr Tables kTables = MakeTables();

inline uint64_t Permute(const ByteTables& tables, uint64_t x) {
  return tables[0][x & 0xff] | tables[1][(x >> 8) & 0xff] | tables[2][(x >> 16) & 0xff] |
         tables[3][(x >> 24) & 0xff] | tables[4][(x >> 32) & 0xff] | tables[5][(x >> 40) & 0xff] |
         tables[6][(x >> 48) & 0xff] | tables[7][x >> 56];
}

inline uint64_t LoadBlock(const uint8_t* p) {
  uint64_t x = 0;
  for (int i = 7; i >= 0; --i) x = (x << 8) | p[i];
  return x;
}

inline void StoreBlock(uint8_t* p, uint64_t x) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(x >> (8 * i));
}

// f(r, k): expansion, key, S-boxes and P in eight table reads.
inline uint32_t Round(uint32_t r, const uint32_t* key) {
  const uint32_t even = std::rotl(r, 1) ^ key[0];
  const uint32_t odd = std::rotr(r, 3) ^ key[1];
  const auto& sp = kTables.sp;
  return sp[0][even & 0x3f] ^ sp[2][(even >> 8) & 0x3f] ^ sp[4][(even >> 16) & 0x3f] ^
         sp[6][(even >> 24) & 0x3f] ^ sp[1][odd & 0x3f] ^ sp[3][(odd >> 8) & 0x3f] ^
         sp[5][(odd >> 16) & 0x3f] ^ sp[7][(odd >> 24) & 0x3f];
}

// The halves are never swapped: encryption updates the left half first with
// round key 0, decryption the right half first with round key 15, which undoes
// encryption step by step. N blocks go through together so that their
// independent rounds overlap in the processor.
template <size_t N>
inline void Encrypt(uint32_t (&left)[N], uint32_t (&right)[N], const uint32_t* keys) {
  for (int i = 0; i < 32; i += 4) {
    for (size_t n = 0; n < N; ++n) left[n] ^= Round(right[n], keys + i);
    for (size_t n = 0; n < N; ++n) right[n] ^= Round(left[n], keys + i + 2);
  }
}

template <size_t N>
inline void Decrypt(uint32_t (&left)[N], uint32_t (&right)[N], const uint32_t* keys) {
  for (int i = 30; i > 0; i -= 4) {
    for (size_t n = 0; n < N; ++n) right[n] ^= Round(left[n], keys + i);
    for (size_t n = 0; n < N; ++n) left[n] ^= Round(right[n], keys + i - 2);
  }
}

// In triple mode the final permutation of one pass and the initial
// permutation of the next cancel out, so each block is permuted once each way.
template <size_t N>
inline void ProcessBlocks(uint8_t* out, const uint8_t* in, const uint32_t* first,
                          const uint32_t* second, bool triple, bool encode) {
  uint32_t left[N];
  uint32_t right[N];
  for (size_t n = 0; n < N; ++n) {
    const uint64_t x = Permute(kTables.initial, LoadBlock(in + 8 * n));
    left[n] = static_cast<uint32_t>(x);
    right[n] = static_cast<uint32_t>(x >> 32);
  }
  if (encode) {
    Encrypt(left, right, first);
    if (triple) {
      Decrypt(left, right, second);
      Encrypt(left, right, first);
    }
  } else {
    Decrypt(left, right, first);
    if (triple) {
      Encrypt(left, right, second);
      Decrypt(left, right, first);
    }
  }
  for (size_t n = 0; n < N; ++n) {
    const uint64_t joined = left[n] | uint64_t{right[n]} << 32;
    StoreBlock(out + 8 * n, Permute(kTables.final, joined));
  }
}

}  // namespace

wxCipher::Schedule wxCipher::MakeSchedule(const uint8_t* key8) {
  // Done once per key, so plainly, one bit at a time.
  uint8_t keyBits[64];
  for (int i = 0; i < 64; ++i) keyBits[i] = (key8[i / 8] >> (i % 8)) & 1;
  uint8_t c[28];
  uint8_t d[28];
  for (int j = 0; j < 28; ++j) {
    c[j] = keyBits[kPermutedChoice1[j] - 1];
    d[j] = keyBits[kPermutedChoice1[j + 28] - 1];
  }
  Schedule schedule{};
  for (int round = 0; round < 16; ++round) {
    std::rotate(c, c + kShifts[round], c + 28);
    std::rotate(d, d + kShifts[round], d + 28);
    for (int j = 0; j < 48; ++j) {
      const int from = kPermutedChoice2[j] - 1;
      const uint32_t bit = from < 28 ? c[from] : d[from - 28];
      const int box = j / 6;
      // Boxes 0, 2, 4, 6 go to the even word, 1, 3, 5, 7 to the odd one, each
      // in its own byte.
      schedule[2 * round + (box & 1)] |= bit << (8 * (box / 2) + j % 6);
    }
  }
  return schedule;
}

void wxCipher::LoadKey(std::string_view key) {
  uint8_t bytes[kMaxKeyLength] = {};
  const size_t length = std::min(key.size(), kMaxKeyLength);
  if (length > 0) std::memcpy(bytes, key.data(), length);
  first_ = MakeSchedule(bytes);
  tripleMode_ = key.size() > 8;
  second_ = tripleMode_ ? MakeSchedule(bytes + 8) : Schedule{};
}

bool wxCipher::CipherBuffer(uint8_t* out, const uint8_t* in, size_t length, int direction) const {
  if (out == nullptr || in == nullptr || length == 0) return false;
  const bool encode = direction == 1;
  const uint32_t* first = first_.data();
  const uint32_t* second = second_.data();
  const size_t whole = length - length % kBlockSize;
  size_t pos = 0;
  for (; pos + 4 * kBlockSize <= whole; pos += 4 * kBlockSize) {
    ProcessBlocks<4>(out + pos, in + pos, first, second, tripleMode_, encode);
  }
  for (; pos < whole; pos += kBlockSize) {
    ProcessBlocks<1>(out + pos, in + pos, first, second, tripleMode_, encode);
  }
  if (pos < length) {
    uint8_t block[kBlockSize] = {};
    std::memcpy(block, in + pos, length - pos);
    ProcessBlocks<1>(block, block, first, second, tripleMode_, encode);
    std::memcpy(out + pos, block, length - pos);
  }
  return true;
}

const wxCipher& wxCipher::Gateway() {
  static const wxCipher gateway(kGatewayKey);
  return gateway;
}

}  // namespace corvane
