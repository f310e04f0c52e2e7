// The FTP client reading a server's greeting and replies from the fuzz
// bytes: the login with the replies that ask for a password and an
// account, binary type, changing and making the upload directory, and the
// data port a passive reply offers, as the attachment upload runs them. No
// data connection is opened: the port a reply offers is only parsed.
#include <cstddef>
#include <cstdint>

#include "base/decimal_text.h"
#include "loopback_peer.h"
#include "protocol/ftp_client.h"
#include "protocol/ftp_passive_reply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static corvane::fuzz::LoopbackPeer peer;
  peer.Serve(std::string_view(reinterpret_cast<const char*>(data), size));
  {
    corvane::FtpClient client;
    client.SetPort(peer.port());
    client.SetReplyTimeOut(1);
    client.SetReceiveTimeOut(1000);
    if (client.FtpConnect("127.0.0.1", "joe", "secret", "acct") == 0) {
      client.SetTransferType(1);
      if (client.ChangeDir("attachments") != 0) client.MakeDir("attachments");
      // Whatever follows: replies as the passive and store commands read them.
      for (int code; (code = client.GetReplyCode()) != 0;) {
        corvane::PassiveDataPort(code, client.LastResponse());
      }
      for (const std::string& line : client.ReplyLines()) {
        corvane::PassiveDataPort(corvane::ReadDecimal(line.substr(0, 3)), line);
      }
    }
    client.FtpClose();
  }
  peer.Finish();
  return 0;
}
