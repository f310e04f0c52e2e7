#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "protocol/net_client.h"

namespace corvane {

// Writes the data section of an SMTP transaction in batches, a short send
// failing it. All of it, headers too, goes out with CRLF line ends (a lone CR
// or LF becomes one) and each line that starts with "." gets another: nothing
// in a message can end the data early and have the rest read as commands.
class SmtpDataWriter {
 public:
  explicit SmtpDataWriter(CNetClient& client);

  // From here on a line longer than `limit` bytes goes out as lines of its
  // pieces (0: no limit).
  void LimitLines(size_t limit) { lineLimit_ = limit; }
  // False when a send came up short.
  bool Add(std::string_view bytes);
  // Sends what is gathered; false when the send came up short.
  bool Flush();

 private:
  CNetClient& client_;
  std::string batch_;
  bool atLineStart_ = true;
  bool afterCr_ = false;
  size_t lineLength_ = 0;
  size_t lineLimit_ = 0;
};

}  // namespace corvane
