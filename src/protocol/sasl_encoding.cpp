#include "protocol/sasl_encoding.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstdio>

namespace corvane {

std::optional<std::string> Base64Decode(std::string_view text) {
  size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return std::string();
  text = text.substr(start, text.find_last_not_of(" \t\r\n") - start + 1);
  if (text.size() % 4 != 0) return std::nullopt;
  std::string out(text.size() / 4 * 3 + 1, '\0');
  int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                               reinterpret_cast<const unsigned char*>(text.data()),
                               static_cast<int>(text.size()));
  if (length < 0) return std::nullopt;
  // The block decoder counts the padding as zero bytes.
  size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
  out.resize(static_cast<size_t>(length) - padding);
  return out;
}

std::optional<std::string> CramMd5Answer(std::string_view user, std::string_view password,
                                         std::string_view challenge) {
  std::optional<std::string> decoded = Base64Decode(challenge);
  if (!decoded) return std::nullopt;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned digestLength = 0;
  if (HMAC(EVP_md5(), password.data(), static_cast<int>(password.size()),
           reinterpret_cast<const unsigned char*>(decoded->data()), decoded->size(), digest,
           &digestLength) == nullptr) {
    return std::nullopt;
  }
  std::string answer(user);
  answer += ' ';
  for (unsigned i = 0; i < digestLength; ++i) {
    char hex[3];
    std::snprintf(hex, sizeof hex, "%02x", digest[i]);
    answer += hex;
  }
  return Base64Encode(answer);
}

}  // namespace corvane
