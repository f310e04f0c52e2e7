#include "mime/part_decoder.h"

#include <vector>

namespace corvane {
namespace {

constexpr size_t kChunk = 64 * 1024;

bool WriteAll(GMimeStream* out, const unsigned char* bytes, size_t count) {
  return count == 0 || g_mime_stream_write(out, reinterpret_cast<const char*>(bytes), count) ==
                           static_cast<ssize_t>(count);
}

// The library's stream filter drops a last group without padding; feeding
// the decoder itself lets a closing "==" flush it (surplus padding is
// ignored when the data was whole).
bool DecodeBase64(GMimeStream* encoded, GMimeStream* out) {
  std::vector<unsigned char> in(kChunk);
  std::vector<unsigned char> decoded(kChunk / 4 * 3 + 4);
  int state = 0;
  guint32 save = 0;
  if (g_mime_stream_reset(encoded) != 0) return false;
  for (;;) {
    ssize_t n = g_mime_stream_read(encoded, reinterpret_cast<char*>(in.data()), in.size());
    if (n <= 0) break;
    size_t count = g_mime_encoding_base64_decode_step(in.data(), static_cast<size_t>(n),
                                                      decoded.data(), &state, &save);
    if (!WriteAll(out, decoded.data(), count)) return false;
  }
  static const unsigned char kPadding[] = {'=', '='};
  size_t count =
      g_mime_encoding_base64_decode_step(kPadding, sizeof kPadding, decoded.data(), &state, &save);
  return WriteAll(out, decoded.data(), count);
}

}  // namespace

bool DecodePartContent(GMimePart* part, GMimeStream* out) {
  GMimeDataWrapper* wrapper = g_mime_part_get_content(part);
  if (wrapper == nullptr) return true;
  GMimeStream* encoded = g_mime_data_wrapper_get_stream(wrapper);
  if (g_mime_data_wrapper_get_encoding(wrapper) == GMIME_CONTENT_ENCODING_BASE64 &&
      encoded != nullptr) {
    return DecodeBase64(encoded, out);
  }
  return g_mime_data_wrapper_write_to_stream(wrapper, out) >= 0;
}

}  // namespace corvane
