#include "transport/wx_codec.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "transport/wx_cipher.h"

namespace corvane {
namespace {

constexpr std::string_view kRapidMarker = "rapid";
constexpr std::string_view kBrewMarker = "brew";

uint8_t* Bytes(char* p) {
  return reinterpret_cast<uint8_t*>(p);
}

// `marker` followed by each byte of `body` plus 1.
std::string ShiftUp(std::string_view marker, const char* body, size_t size) {
  std::string out(marker);
  out.resize(marker.size() + size);
  for (size_t i = 0; i < size; ++i) out[marker.size() + i] = static_cast<char>(body[i] + 1);
  return out;
}

std::string ShiftDown(const char* body, size_t size) {
  std::string out(size, '\0');
  for (size_t i = 0; i < size; ++i) out[i] = static_cast<char>(body[i] - 1);
  return out;
}

std::optional<std::string> Fail(int32_t* outLength) {
  *outLength = 0;
  return std::nullopt;
}

}  // namespace

std::optional<std::string> wxCodec::Transform(const char* data, int32_t length, int32_t* outLength,
                                              int direction) {
  if (data == nullptr || length <= 0 || outLength == nullptr) return std::nullopt;
  const bool encode = direction == kEncode;
  const auto size = static_cast<size_t>(length);
  constexpr int32_t kMaxLength = std::numeric_limits<int32_t>::max();

  if (brewMode) {
    if (encode) {
      if (length > kMaxLength - 4) return Fail(outLength);
      *outLength = length + 4;
      return ShiftUp(kBrewMarker, data, size);
    }
    // The marker is not checked. Input shorter than the marker leaves nothing
    // but a negative length, as a bogus pad byte does below.
    *outLength = length - 4;
    if (length < 4) return std::string();
    return ShiftDown(data + 4, size - 4);
  }

  if (size >= kRapidMarker.size() &&
      std::memcmp(data, kRapidMarker.data(), kRapidMarker.size()) == 0) {
    const size_t body = size - kRapidMarker.size();
    if (encode) {
      // The input's own marker is replaced, not doubled.
      *outLength = length;
      return ShiftUp(kRapidMarker, data + kRapidMarker.size(), body);
    }
    *outLength = length - 5;
    return ShiftDown(data + kRapidMarker.size(), body);
  }

  const wxCipher& cipher = wxCipher::Gateway();
  if (encode) {
    // Zero padding up to whole blocks, then the pad count as one clear byte.
    const int64_t padded = (int64_t{length} + 7) / 8 * 8;
    if (padded + 1 > kMaxLength) return Fail(outLength);
    std::string out(static_cast<size_t>(padded) + 1, '\0');
    std::memcpy(out.data(), data, size);
    out.back() = static_cast<char>(padded - length);
    if (!cipher.CipherBuffer(Bytes(out.data()), Bytes(out.data()), out.size() - 1, kEncode)) {
      return Fail(outLength);
    }
    *outLength = static_cast<int32_t>(padded + 1);
    return out;
  }

  // The zero pad bytes and the clear pad count stay behind the data, so a
  // padded result reads as zero-terminated. Neither the block multiple nor the
  // pad count is checked: a bogus count gives a short or negative length.
  const size_t cipherLength = size - 1;
  std::string out(data, size);
  if (!cipher.CipherBuffer(Bytes(out.data()), Bytes(out.data()), cipherLength, kDecode)) {
    return Fail(outLength);
  }
  *outLength = static_cast<int32_t>(cipherLength) - static_cast<uint8_t>(out[cipherLength]);
  return out;
}

namespace {

std::string Run(std::string_view in, int direction) {
  if (in.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())) return {};
  wxCodec codec;
  int32_t length = 0;
  std::optional<std::string> out =
      codec.Transform(in.data(), static_cast<int32_t>(in.size()), &length, direction);
  if (!out || length <= 0) return {};
  out->resize(std::min(out->size(), static_cast<size_t>(length)));
  return std::move(*out);
}

}  // namespace

std::string wxCodec::Encode(std::string_view plain) {
  return Run(plain, kEncode);
}

std::string wxCodec::Decode(std::string_view wire) {
  return Run(wire, kDecode);
}

}  // namespace corvane
