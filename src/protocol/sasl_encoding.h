#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/base64_text.h"

namespace corvane {

// The texts of the SMTP AUTH exchanges.

// The bytes of a base64 text (surrounding blanks and line ends ignored); none
// when it is not base64.
std::optional<std::string> Base64Decode(std::string_view text);
// The CRAM-MD5 answer to a base64 `challenge`: base64 of the user name, a
// blank and the HMAC-MD5 of the decoded challenge keyed with the password,
// in lowercase hexadecimal. None when the challenge is not base64.
std::optional<std::string> CramMd5Answer(std::string_view user, std::string_view password,
                                         std::string_view challenge);

}  // namespace corvane
