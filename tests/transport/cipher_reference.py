#!/usr/bin/env python3
"""Slow, bit-by-bit model of the container cipher and the codec's cipher framing.

It exists only to produce the expected outputs pinned in wx_cipher_test.cpp and
wx_codec_test.cpp, independently of the C++ code. Bits are kept as Python lists,
the tables are the DES tables as published, and every departure of the
container cipher is a plain flag:

  - bytes become bits least significant bit first (key and data alike),
  - an S-box value's bit 0 becomes the first of its four output bits,
  - the halves are not swapped before the final permutation,
  - two-key triple ECB: E(k1) D(k2) E(k1) to encode, D(k1) E(k2) D(k1) to decode.

With the flags set the standard way the same code must reproduce the published
DES example (key 133457799BBCDFF1, block 0123456789ABCDEF, 85E813540F0AB405);
the script checks that before printing anything.

Run: python3 tests/transport/cipher_reference.py
"""

IP = [58, 50, 42, 34, 26, 18, 10, 2, 60, 52, 44, 36, 28, 20, 12, 4,
      62, 54, 46, 38, 30, 22, 14, 6, 64, 56, 48, 40, 32, 24, 16, 8,
      57, 49, 41, 33, 25, 17, 9, 1, 59, 51, 43, 35, 27, 19, 11, 3,
      61, 53, 45, 37, 29, 21, 13, 5, 63, 55, 47, 39, 31, 23, 15, 7]

FP = [40, 8, 48, 16, 56, 24, 64, 32, 39, 7, 47, 15, 55, 23, 63, 31,
      38, 6, 46, 14, 54, 22, 62, 30, 37, 5, 45, 13, 53, 21, 61, 29,
      36, 4, 44, 12, 52, 20, 60, 28, 35, 3, 43, 11, 51, 19, 59, 27,
      34, 2, 42, 10, 50, 18, 58, 26, 33, 1, 41, 9, 49, 17, 57, 25]

E = [32, 1, 2, 3, 4, 5, 4, 5, 6, 7, 8, 9,
     8, 9, 10, 11, 12, 13, 12, 13, 14, 15, 16, 17,
     16, 17, 18, 19, 20, 21, 20, 21, 22, 23, 24, 25,
     24, 25, 26, 27, 28, 29, 28, 29, 30, 31, 32, 1]

P = [16, 7, 20, 21, 29, 12, 28, 17, 1, 15, 23, 26, 5, 18, 31, 10,
     2, 8, 24, 14, 32, 27, 3, 9, 19, 13, 30, 6, 22, 11, 4, 25]

PC1 = [57, 49, 41, 33, 25, 17, 9, 1, 58, 50, 42, 34, 26, 18,
       10, 2, 59, 51, 43, 35, 27, 19, 11, 3, 60, 52, 44, 36,
       63, 55, 47, 39, 31, 23, 15, 7, 62, 54, 46, 38, 30, 22,
       14, 6, 61, 53, 45, 37, 29, 21, 13, 5, 28, 20, 12, 4]

PC2 = [14, 17, 11, 24, 1, 5, 3, 28, 15, 6, 21, 10,
       23, 19, 12, 4, 26, 8, 16, 7, 27, 20, 13, 2,
       41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48,
       44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32]

SHIFTS = [1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1]

S = [
    [[14, 4, 13, 1, 2, 15, 11, 8, 3, 10, 6, 12, 5, 9, 0, 7],
     [0, 15, 7, 4, 14, 2, 13, 1, 10, 6, 12, 11, 9, 5, 3, 8],
     [4, 1, 14, 8, 13, 6, 2, 11, 15, 12, 9, 7, 3, 10, 5, 0],
     [15, 12, 8, 2, 4, 9, 1, 7, 5, 11, 3, 14, 10, 0, 6, 13]],
    [[15, 1, 8, 14, 6, 11, 3, 4, 9, 7, 2, 13, 12, 0, 5, 10],
     [3, 13, 4, 7, 15, 2, 8, 14, 12, 0, 1, 10, 6, 9, 11, 5],
     [0, 14, 7, 11, 10, 4, 13, 1, 5, 8, 12, 6, 9, 3, 2, 15],
     [13, 8, 10, 1, 3, 15, 4, 2, 11, 6, 7, 12, 0, 5, 14, 9]],
    [[10, 0, 9, 14, 6, 3, 15, 5, 1, 13, 12, 7, 11, 4, 2, 8],
     [13, 7, 0, 9, 3, 4, 6, 10, 2, 8, 5, 14, 12, 11, 15, 1],
     [13, 6, 4, 9, 8, 15, 3, 0, 11, 1, 2, 12, 5, 10, 14, 7],
     [1, 10, 13, 0, 6, 9, 8, 7, 4, 15, 14, 3, 11, 5, 2, 12]],
    [[7, 13, 14, 3, 0, 6, 9, 10, 1, 2, 8, 5, 11, 12, 4, 15],
     [13, 8, 11, 5, 6, 15, 0, 3, 4, 7, 2, 12, 1, 10, 14, 9],
     [10, 6, 9, 0, 12, 11, 7, 13, 15, 1, 3, 14, 5, 2, 8, 4],
     [3, 15, 0, 6, 10, 1, 13, 8, 9, 4, 5, 11, 12, 7, 2, 14]],
    [[2, 12, 4, 1, 7, 10, 11, 6, 8, 5, 3, 15, 13, 0, 14, 9],
     [14, 11, 2, 12, 4, 7, 13, 1, 5, 0, 15, 10, 3, 9, 8, 6],
     [4, 2, 1, 11, 10, 13, 7, 8, 15, 9, 12, 5, 6, 3, 0, 14],
     [11, 8, 12, 7, 1, 14, 2, 13, 6, 15, 0, 9, 10, 4, 5, 3]],
    [[12, 1, 10, 15, 9, 2, 6, 8, 0, 13, 3, 4, 14, 7, 5, 11],
     [10, 15, 4, 2, 7, 12, 9, 5, 6, 1, 13, 14, 0, 11, 3, 8],
     [9, 14, 15, 5, 2, 8, 12, 3, 7, 0, 4, 10, 1, 13, 11, 6],
     [4, 3, 2, 12, 9, 5, 15, 10, 11, 14, 1, 7, 6, 0, 8, 13]],
    [[4, 11, 2, 14, 15, 0, 8, 13, 3, 12, 9, 7, 5, 10, 6, 1],
     [13, 0, 11, 7, 4, 9, 1, 10, 14, 3, 5, 12, 2, 15, 8, 6],
     [1, 4, 11, 13, 12, 3, 7, 14, 10, 15, 6, 8, 0, 5, 9, 2],
     [6, 11, 13, 8, 1, 4, 10, 7, 9, 5, 0, 15, 14, 2, 3, 12]],
    [[13, 2, 8, 4, 6, 15, 11, 1, 10, 9, 3, 14, 5, 0, 12, 7],
     [1, 15, 13, 8, 10, 3, 7, 4, 12, 5, 6, 11, 0, 14, 9, 2],
     [7, 11, 4, 1, 9, 12, 14, 2, 0, 6, 10, 13, 15, 3, 5, 8],
     [2, 1, 14, 7, 4, 10, 8, 13, 15, 12, 9, 0, 3, 5, 6, 11]],
]


class Variant:
    """Which conventions the model follows."""

    def __init__(self, lsb_first, sbox_lsb_first, final_swap):
        self.lsb_first = lsb_first
        self.sbox_lsb_first = sbox_lsb_first
        self.final_swap = final_swap


CONTAINER = Variant(lsb_first=True, sbox_lsb_first=True, final_swap=False)
# Only ever used to encrypt, as a check of the tables: standard decryption is
# not the mirrored round loop below.
STANDARD = Variant(lsb_first=False, sbox_lsb_first=False, final_swap=True)


def to_bits(data, v):
    bits = []
    for byte in data:
        for i in range(8):
            if v.lsb_first:
                bits.append((byte >> i) & 1)
            else:
                bits.append((byte >> (7 - i)) & 1)
    return bits


def from_bits(bits, v):
    out = []
    for k in range(0, len(bits), 8):
        byte = 0
        for i in range(8):
            if v.lsb_first:
                byte |= bits[k + i] << i
            else:
                byte |= bits[k + i] << (7 - i)
        out.append(byte)
    return bytes(out)


def permute(bits, table):
    return [bits[t - 1] for t in table]


def key_schedule(key8, v):
    cd = permute(to_bits(key8, v), PC1)
    c, d = cd[:28], cd[28:]
    keys = []
    for shift in SHIFTS:
        c = c[shift:] + c[:shift]
        d = d[shift:] + d[:shift]
        keys.append(permute(c + d, PC2))
    return keys


def f(r, k, v):
    e = permute(r, E)
    x = [a ^ b for a, b in zip(e, k)]
    s = []
    for box in range(8):
        six = x[6 * box:6 * box + 6]
        row = six[0] * 2 + six[5]
        col = six[1] * 8 + six[2] * 4 + six[3] * 2 + six[4]
        value = S[box][row][col]
        for m in range(4):
            if v.sbox_lsb_first:
                s.append((value >> m) & 1)
            else:
                s.append((value >> (3 - m)) & 1)
    return permute(s, P)


def xor(a, b):
    return [p ^ q for p, q in zip(a, b)]


def block(data8, keys, encrypt, v):
    x = permute(to_bits(data8, v), IP)
    left, right = x[:32], x[32:]
    if encrypt:
        for i in range(16):
            saved = right
            right = xor(f(right, keys[i], v), left)
            left = saved
    else:
        for i in range(15, -1, -1):
            saved = left
            left = xor(f(left, keys[i], v), right)
            right = saved
    if v.final_swap:
        left, right = right, left
    return from_bits(permute(left + right, FP), v)


def cipher_buffer(data, key, encrypt, v=CONTAINER):
    """ECB over whole 8-byte blocks; triple when the key is longer than 8 bytes."""
    padded_key = (bytes(key[:16]) + bytes(16))[:16]
    k1 = key_schedule(padded_key[:8], v)
    k2 = key_schedule(padded_key[8:], v) if len(key) > 8 else None
    assert len(data) % 8 == 0
    out = b""
    for pos in range(0, len(data), 8):
        b = data[pos:pos + 8]
        if k2 is None:
            b = block(b, k1, encrypt, v)
        else:
            b = block(b, k1, encrypt, v)
            b = block(b, k2, not encrypt, v)
            b = block(b, k1, encrypt, v)
        out += b
    return out


GATEWAY_KEY = b"mnopqrst%@517ghj"


def transform_encode(plain):
    n = (len(plain) + 7) // 8 * 8
    padded = plain + bytes(n - len(plain))
    return cipher_buffer(padded, GATEWAY_KEY, True) + bytes([n - len(plain)])


def transform_decode(wire):
    n = len(wire) - 1
    plain = cipher_buffer(wire[:n], GATEWAY_KEY, False)
    return plain[:n - wire[n]]


def main():
    fips = block(bytes.fromhex("0123456789ABCDEF"),
                 key_schedule(bytes.fromhex("133457799BBCDFF1"), STANDARD),
                 True, STANDARD)
    assert fips.hex().upper() == "85E813540F0AB405", fips.hex()

    print("# single mode (8-byte key)")
    for key_hex, block_hex in [("133457799BBCDFF1", "0123456789ABCDEF"),
                               ("0000000000000000", "0000000000000000")]:
        out = cipher_buffer(bytes.fromhex(block_hex), bytes.fromhex(key_hex), True)
        assert cipher_buffer(out, bytes.fromhex(key_hex), False) == bytes.fromhex(block_hex)
        print(f"key {key_hex} block {block_hex} -> {out.hex()}")

    print("# triple mode, gateway key")
    for label, data in [("zeros", bytes(8)), ("12345678", b"12345678"),
                        ("Command\\0", b"Command\x00")]:
        out = cipher_buffer(data, GATEWAY_KEY, True)
        assert cipher_buffer(out, GATEWAY_KEY, False) == data
        print(f"{label}: {data.hex()} -> {out.hex()}")

    print("# Transform encode")
    for plain in [b"1210sysREQUEST10",
                  b"1210sysREQUEST10217Command18ListMail",
                  b"A"]:
        wire = transform_encode(plain)
        assert transform_decode(wire) == plain
        print(f"{plain!r} -> {wire.hex()}")


if __name__ == "__main__":
    main()
