// The wire codec on the bytes a client sends: decoding in each framing
// (cipher, "rapid", and "brew" when its mode is on), and encoding the same
// bytes, which must decode back to them unless they begin with the "rapid"
// marker (whose encoding replaces the marker).
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "fuzz_check.h"
#include "transport/wx_codec.h"

namespace {

using corvane::fuzz::Check;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto length = static_cast<int32_t>(size);
  for (bool brew : {false, true}) {
    corvane::wxCodec codec;
    codec.brewMode = brew;
    int32_t outLength = -1;
    std::optional<std::string> plain =
        codec.Transform(bytes.data(), length, &outLength, corvane::wxCodec::kDecode);
    Check(size > 0 || (!plain && outLength == -1), "empty input gave a result");
    // What the request server hands on: the bytes up to the data length.
    if (plain && outLength > 0) {
      Check(static_cast<size_t>(outLength) <= plain->size(), "data length past the result");
    }
    std::optional<std::string> wire =
        codec.Transform(bytes.data(), length, &outLength, corvane::wxCodec::kEncode);
    if (wire && outLength > 0) {
      Check(static_cast<size_t>(outLength) <= wire->size(), "encoded length past the result");
      int32_t backLength = 0;
      std::optional<std::string> back =
          codec.Transform(wire->data(), outLength, &backLength, corvane::wxCodec::kDecode);
      if (brew || !bytes.starts_with("rapid")) {
        Check(back && backLength == length && back->compare(0, size, bytes) == 0,
              "encoding does not decode back");
      }
    }
  }
  Check(corvane::wxCodec::Decode(corvane::wxCodec::Encode(bytes)) == bytes ||
            bytes.starts_with("rapid"),
        "Encode and Decode do not round-trip");
  return 0;
}
