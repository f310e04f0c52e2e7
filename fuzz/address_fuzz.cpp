// Addresses in a header's text: the list a reply goes to (with and without
// the login left out) and the bare address an SMTP envelope takes, into
// buffers of every size the callers use and a few at the edges.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "mail/address_list.h"
#include "protocol/smtp_client.h"

namespace {

using corvane::fuzz::Check;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string all = corvane::ExtractAddresses(text, "");
  corvane::ExtractAddresses(text, "joe@example.org");
  // Leaving the first address out.
  corvane::ExtractAddresses(text, all.substr(0, all.find(',')));
  corvane::JoinList(all, text);

  for (int room : {1, 2, 3, 16, corvane::SmtpClient::kLineRoom, 4096}) {
    // Guard bytes behind the room catch a write past it.
    std::vector<char> buffer(static_cast<size_t>(room) + 16, '\x5a');
    if (corvane::SmtpClient::GetAddress(text.c_str(), buffer.data(), room) == 0) {
      Check(std::memchr(buffer.data(), '\0', static_cast<size_t>(room)) != nullptr,
            "an address is not terminated within its buffer");
    }
    for (size_t i = static_cast<size_t>(room); i < buffer.size(); ++i) {
      Check(buffer[i] == '\x5a', "an address was written past its buffer");
    }
  }
  return 0;
}
