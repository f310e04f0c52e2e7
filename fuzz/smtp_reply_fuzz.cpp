// The SMTP client reading a server's greeting and replies from the fuzz
// bytes: EHLO (or HELO) with its extensions, STARTTLS when offered, AUTH
// CRAM-MD5 or LOGIN with the server's challenges, and one transaction, as
// SendMail runs them.
#include <cstddef>
#include <cstdint>

#include "loopback_peer.h"
#include "protocol/smtp_client.h"
#include "protocol/smtp_data_writer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static corvane::fuzz::LoopbackPeer peer;
  peer.Serve(std::string_view(reinterpret_cast<const char*>(data), size));
  {
    corvane::SmtpClient client;
    client.SetPort(peer.port());
    client.SetReplyTimeOut(1);
    client.SetReceiveTimeOut(1000);
    client.SetTls(corvane::SmtpTls::kAuto);
    client.SetAuthentication(true);
    client.SetUserName("joe@example.org");
    client.SetPassword("secret");
    if (client.SMTPConnect("127.0.0.1", "gateway.example.org") == 0 &&
        client.StartData("Joe <joe@example.org>", "ann@example.com") == 0) {
      corvane::SmtpDataWriter writer(client);
      if (writer.Add("Subject: hello\r\n\r\n.body\r\n") && writer.Flush()) client.EndData();
    }
    client.SMTPClose();
  }
  peer.Finish();
  return 0;
}
