#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// The byte transform between the plain serialized container and the bytes on
// the socket or in a record file. Three framings: the cipher (two-key triple
// ECB with the gateway's fixed key, zero padding plus a clear pad-count byte),
// "rapid" (marker plus a +1 byte shift, recognised on input) and "brew" (marker
// plus shift, used only when brewMode is set).
class wxCodec {
 public:
  static constexpr int kDecode = 0;
  static constexpr int kEncode = 1;

  // direction 1 encodes (plain to wire), any other value decodes. Returns the
  // output bytes, or nothing for empty input or a cipher failure. A decoded
  // result keeps the zero pad bytes behind its data in the returned storage,
  // so `outLength` (the data length) may be shorter than the string; it is
  // returned as computed, even when a bogus pad byte makes it negative.
  std::optional<std::string> Transform(const char* data, int32_t length, int32_t* outLength,
                                       int direction);

  // Convenience form: the result cut to its data length (empty when nothing
  // came out or the length is negative).
  static std::string Encode(std::string_view plain);
  static std::string Decode(std::string_view wire);

  bool brewMode = false;
};

}  // namespace corvane
